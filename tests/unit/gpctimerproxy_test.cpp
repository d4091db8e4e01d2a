// The timer proxy on the GLib main loop: only an armed timer fires, until stopped; a callback may delete its proxy.
#include <gtest/gtest.h>

#include <cmath>

#include "common/gpctimerproxy.h"
#include "main_loop.h"

namespace {

void Count(GPCTimerProxy*, void* counter) { ++*static_cast<int*>(counter); }

TEST(TimerProxy, OnlyAnArmedTimerFiresUntilStoppedAndMayDeleteItself) {
  int fired = 0, never = 0, late = 0;
  GPCTimerProxy second(1.0, &Count, &late);  // not due before the end of this test
  GPCTimerProxy zero(0.0, &Count, &never), negative(-1.0, &Count, &never), nan(std::nan(""), &Count, &never);
  GPCTimerProxy stopped(0.001, &Count, &never), silent(0.001, nullptr, nullptr);
  stopped.cleanUp();
  stopped.cleanUp();
  { GPCTimerProxy gone(0.001, &Count, &never); }
  EXPECT_FALSE(zero.IsArmed() || negative.IsArmed() || nan.IsArmed() || stopped.IsArmed());
  zero.invoke();
  EXPECT_EQ(never, 1) << "invoke calls the callback directly";
  struct { GPCTimerProxy* timer; int fired = 0; } shot;
  shot.timer = new GPCTimerProxy(0.001, [](GPCTimerProxy* self, void* context) {
    auto* state = static_cast<decltype(shot)*>(context);
    EXPECT_EQ(self, state->timer);
    ++state->fired;
    delete self;
  }, &shot);
  GPCTimerProxy repeating(0.001, &Count, &fired);
  EXPECT_TRUE(gpctest::RunMainLoopUntil([&] { return fired >= 3 && shot.fired > 0; }, 5000));
  gpctest::RunMainLoopFor(120);
  EXPECT_TRUE(never == 1 && late == 0) << late;
  EXPECT_EQ(shot.fired, 1);
}

}  // namespace
