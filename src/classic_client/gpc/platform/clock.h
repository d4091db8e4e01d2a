// The wall clock and a monotonic clock, each replaceable in tests so that time stamps are fixed and
// time-outs and watchdogs run without waiting.
#pragma once
#include <cstdint>
#include <functional>

namespace platform {

// Microseconds since the Unix epoch.
int64_t WallClockMicros();

// Seconds since 2001-01-01 00:00:00 GMT (the absolute time recorded in parameter and stamp files).
double AbsoluteTimeGetCurrent();

// Replaces the wall clock with `clock` (microseconds since the Unix epoch); an empty function
// restores the real clock. Only the code reading WallClockMicros() sees the change.
void SetWallClockOverride(std::function<int64_t()> clock);

// Microseconds of a clock that only moves forward, whatever is done to the wall clock; its zero is
// arbitrary, so only the distance between two readings means anything. For measuring durations.
int64_t MonotonicMicros();

// Replaces the monotonic clock with `clock`; an empty function restores the real clock.
void SetMonotonicClockOverride(std::function<int64_t()> clock);

constexpr double kAbsoluteTimeEpochOffset = 978307200.0;

}  // namespace platform
