#include "main_loop.h"

#include <glib.h>

namespace gpctest {

bool RunMainLoopUntil(const std::function<bool()>& done, int timeoutMs) {
  gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
  // Wakes the loop now and then so that the deadline is seen even when nothing else happens.
  guint waker = g_timeout_add(10, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool met = done();
  while (!met && g_get_monotonic_time() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    met = done();
  }
  g_source_remove(waker);
  return met;
}

void RunMainLoopFor(int ms) { RunMainLoopUntil([] { return false; }, ms); }

}  // namespace gpctest
