#include "common/hardening.h"

#include <atomic>

#ifndef GPC_HARDENED
#define GPC_HARDENED 0
#endif

namespace gpc {

namespace {
std::atomic<int> g_override{-1};
}  // namespace

bool GpcHardened() {
  const int forced = g_override.load();
  return forced >= 0 ? forced != 0 : GPC_HARDENED != 0;
}

void SetHardenedForTesting(int hardened) { g_override.store(hardened < 0 ? -1 : (hardened != 0)); }

}  // namespace gpc
