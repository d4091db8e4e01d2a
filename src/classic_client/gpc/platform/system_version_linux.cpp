#include "platform/system_version.h"

#include <atomic>
#include <cstdlib>

namespace platform {

namespace {
std::atomic<uint32_t> g_override{0};

uint32_t FromEnvironment() {
  const char* text = std::getenv("GPC_SYSTEM_VERSION");
  if (text == nullptr || *text == '\0') return 0;
  char* end = nullptr;
  unsigned long value = std::strtoul(text, &end, 16);
  return (end != text && *end == '\0' && value <= 0xffffffffUL) ? static_cast<uint32_t>(value) : 0;
}
}  // namespace

uint32_t SystemVersion() {
  uint32_t forced = g_override.load();
  if (forced != 0) return forced;
  static const uint32_t from_env = FromEnvironment();
  return from_env != 0 ? from_env : kDefaultSystemVersion;
}

void SetSystemVersionOverride(uint32_t version) { g_override.store(version); }

}  // namespace platform
