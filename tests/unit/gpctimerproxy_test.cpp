#include <gtest/gtest.h>
#include <glib.h>

#include <cmath>
#include <functional>

#include "common/gpctimerproxy.h"
#include "main_loop.h"

namespace {

using gpctest::RunMainLoopFor;
using gpctest::RunMainLoopUntil;

void Count(GPCTimerProxy*, void* counter) { ++*static_cast<int*>(counter); }

TEST(TimerProxy, OnlyAnArmedTimerFiresAndOnlyUntilItIsStopped) {
  int fired = 0, never = 0;
  GPCTimerProxy zero(0.0, &Count, &never), negative(-1.0, &Count, &never), nan(std::nan(""), &Count, &never);
  GPCTimerProxy stopped(0.001, &Count, &never), silent(0.001, nullptr, nullptr);
  stopped.cleanUp();
  stopped.cleanUp();
  { GPCTimerProxy gone(0.001, &Count, &never); }
  EXPECT_FALSE(zero.IsArmed() || negative.IsArmed() || nan.IsArmed() || stopped.IsArmed());
  zero.invoke();
  silent.invoke();  // no callback: nothing happens
  EXPECT_EQ(never, 1) << "invoke calls the callback directly";
  GPCTimerProxy repeating(0.001, &Count, &fired);
  EXPECT_TRUE(RunMainLoopUntil([&] { return fired >= 3; }, 5000));
  EXPECT_EQ(never, 1);
}

TEST(TimerProxy, CallbackMayDeleteItsOwnProxy) {
  struct { GPCTimerProxy* timer; int fired = 0; } shot;
  shot.timer = new GPCTimerProxy(0.001, [](GPCTimerProxy* self, void* context) {
    auto* state = static_cast<decltype(shot)*>(context);
    EXPECT_EQ(self, state->timer);
    ++state->fired;
    delete self;
  }, &shot);
  ASSERT_TRUE(RunMainLoopUntil([&] { return shot.fired > 0; }, 5000));
  RunMainLoopFor(30);
  EXPECT_EQ(shot.fired, 1);
}

// A modal loop of the host runs inside some other event's handler; the timer keeps firing there.
TEST(TimerProxy, FiresInsideANestedLoop) {
  int fired = 0, inside = -1;
  GPCTimerProxy timer(0.001, &Count, &fired);
  std::function<void()> modal = [&] {
    const int before = fired;
    for (gint64 end = g_get_monotonic_time() + 5 * G_USEC_PER_SEC; fired < before + 3 && g_get_monotonic_time() < end;) {
      g_main_context_iteration(nullptr, TRUE);
    }
    inside = fired - before;
  };
  g_idle_add([](gpointer data) -> gboolean {
    (*static_cast<std::function<void()>*>(data))();
    return G_SOURCE_REMOVE;
  }, &modal);
  ASSERT_TRUE(RunMainLoopUntil([&] { return inside >= 0; }, 10000));
  EXPECT_GE(inside, 3);
}

}  // namespace
