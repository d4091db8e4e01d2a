#include "platform/clock.h"

#include <mutex>
#include <sys/time.h>
#include <time.h>

namespace platform {

namespace {
std::mutex g_clock_mutex;
std::function<int64_t()>& Override() {
  static std::function<int64_t()> clock;
  return clock;
}
std::function<int64_t()>& MonotonicOverride() {
  static std::function<int64_t()> clock;
  return clock;
}
}  // namespace

int64_t WallClockMicros() {
  {
    std::lock_guard<std::mutex> lock(g_clock_mutex);
    if (Override()) return Override()();
  }
  struct timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

int64_t MonotonicMicros() {
  {
    std::lock_guard<std::mutex> lock(g_clock_mutex);
    if (MonotonicOverride()) return MonotonicOverride()();
  }
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

void SetMonotonicClockOverride(std::function<int64_t()> clock) {
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  MonotonicOverride() = std::move(clock);
}

double AbsoluteTimeGetCurrent() {
  return static_cast<double>(WallClockMicros()) / 1e6 - kAbsoluteTimeEpochOffset;
}

void SetWallClockOverride(std::function<int64_t()> clock) {
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  Override() = std::move(clock);
}

}  // namespace platform
