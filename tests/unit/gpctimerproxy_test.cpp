#include <gtest/gtest.h>

#include <cmath>
#include <glib.h>

#include "gpctimerproxy.h"
#include "main_loop.h"

namespace {

using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

void Count(GPCTimerProxy*, void* counter) { ++*static_cast<int*>(counter); }

TEST(TimerProxy, IntervalOfZeroOrBelowNeverFires) {
  int zero = 0, negative = 0, nan = 0;
  GPCTimerProxy a(0.0, &Count, &zero);
  GPCTimerProxy b(-1.0, &Count, &negative);
  GPCTimerProxy c(std::nan(""), &Count, &nan);
  EXPECT_FALSE(a.IsArmed());
  EXPECT_FALSE(b.IsArmed());
  EXPECT_FALSE(c.IsArmed());
  RunMainLoopFor(30);
  EXPECT_EQ(zero + negative + nan, 0);
}

TEST(TimerProxy, RepeatsWithItsContext) {
  int fired = 0;
  GPCTimerProxy timer(0.001, &Count, &fired);
  EXPECT_TRUE(timer.IsArmed());
  EXPECT_TRUE(RunMainLoopUntil([&] { return fired >= 3; }, 5000));
}

TEST(TimerProxy, InvokeCallsTheCallbackDirectlyAndToleratesNone) {
  int fired = 0;
  GPCTimerProxy timer(0.0, &Count, &fired);
  timer.invoke();
  EXPECT_EQ(fired, 1);
  GPCTimerProxy silent(0.001, nullptr, nullptr);
  silent.invoke();
  RunMainLoopFor(20);  // firing without a callback does nothing
}

struct OneShot {
  GPCTimerProxy* timer = nullptr;
  int fired = 0;
};

TEST(TimerProxy, CallbackMayDeleteItsOwnProxy) {
  OneShot shot;
  shot.timer = new GPCTimerProxy(0.001, [](GPCTimerProxy* self, void* context) {
    auto* state = static_cast<OneShot*>(context);
    ++state->fired;
    EXPECT_EQ(self, state->timer);
    delete self;
    state->timer = nullptr;
  }, &shot);
  ASSERT_TRUE(RunMainLoopUntil([&] { return shot.fired > 0; }, 5000));
  RunMainLoopFor(30);
  EXPECT_EQ(shot.fired, 1);
}

TEST(TimerProxy, CleanUpAndDestructionStopIt) {
  int fired = 0;
  GPCTimerProxy timer(0.001, &Count, &fired);
  timer.cleanUp();
  EXPECT_FALSE(timer.IsArmed());
  timer.cleanUp();
  RunMainLoopFor(20);
  EXPECT_EQ(fired, 0);
  {
    GPCTimerProxy gone(0.001, &Count, &fired);
  }
  RunMainLoopFor(20);
  EXPECT_EQ(fired, 0);
}

struct Nested {
  int timerFired = 0;
  int firedInsideNestedLoop = 0;
};

// A modal loop of the host runs inside some other event's handler; the timer must keep firing.
TEST(TimerProxy, FiresInsideANestedLoop) {
  Nested state;
  GPCTimerProxy timer(0.001, &Count, &state.timerFired);
  g_idle_add([](gpointer data) -> gboolean {
    auto* nested = static_cast<Nested*>(data);
    int before = nested->timerFired;
    gint64 deadline = g_get_monotonic_time() + 5 * G_USEC_PER_SEC;
    while (nested->timerFired < before + 3 && g_get_monotonic_time() < deadline) {
      g_main_context_iteration(nullptr, TRUE);
    }
    nested->firedInsideNestedLoop = nested->timerFired - before;
    return G_SOURCE_REMOVE;
  }, &state);
  ASSERT_TRUE(RunMainLoopUntil([&] { return state.firedInsideNestedLoop > 0; }, 10000));
  EXPECT_GE(state.firedInsideNestedLoop, 3);
}

}  // namespace
