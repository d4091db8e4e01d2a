// Runs the default GLib main context the way the browser's main thread would.
#pragma once

#include <functional>

namespace gpctest {

// Dispatches the default main context until `done` holds or `timeoutMs` of real time have passed.
// Returns whether `done` held.
bool RunMainLoopUntil(const std::function<bool()>& done, int timeoutMs = 20000);
// Dispatches the default main context for `ms` milliseconds of real time (to show nothing more happens).
void RunMainLoopFor(int ms);

}  // namespace gpctest
