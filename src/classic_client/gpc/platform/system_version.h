// The operating-system version, in the binary-coded form the plug-in's decisions compare against
// (0x1060 and above: timers drive the heartbeat, both drawing models are negotiated).
#pragma once
#include <cstdint>

namespace platform {

// The version the code should act on. Never fails: without an override it is kDefaultSystemVersion.
uint32_t SystemVersion();

// Makes SystemVersion() return `version` (tests use it to run the before-0x1060 paths);
// 0 removes the override. The GPC_SYSTEM_VERSION environment variable (hex, e.g. "0x1058")
// is honoured as an override too, for hosts and end-to-end tests.
void SetSystemVersionOverride(uint32_t version);

constexpr uint32_t kDefaultSystemVersion = 0x10f0;

}  // namespace platform
