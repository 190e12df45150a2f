#include "transport/nested_loop_guard.h"

#include <gtest/gtest.h>

using ptz::NestedLoopGuard;

TEST(NestedLoopGuard, IdleGuardDoesNotPause) {
  const NestedLoopGuard guard;
  EXPECT_FALSE(guard.in_callback());
  EXPECT_FALSE(guard.must_pause());
}

TEST(NestedLoopGuard, CallbackWithoutNestedLoopLeavesNothingToPutBack) {
  NestedLoopGuard guard;
  guard.enter();
  EXPECT_TRUE(guard.in_callback());
  EXPECT_FALSE(guard.leave());
  EXPECT_FALSE(guard.in_callback());
}

TEST(NestedLoopGuard, PrepareInCallbackPausesOnce) {
  NestedLoopGuard guard;
  guard.enter();
  EXPECT_TRUE(guard.must_pause());
  guard.pause();
  EXPECT_FALSE(guard.must_pause());
  EXPECT_TRUE(guard.in_callback());
}

TEST(NestedLoopGuard, LeaveAfterPausePutsDescriptorsBackOnce) {
  NestedLoopGuard guard;
  guard.enter();
  guard.pause();
  EXPECT_TRUE(guard.leave());
  EXPECT_FALSE(guard.must_pause());
  guard.enter();
  EXPECT_TRUE(guard.must_pause());  // the next callback may run a nested loop as well
  EXPECT_FALSE(guard.leave());
}

TEST(NestedLoopGuard, LeaveAfterCancelledPausePutsNothingBack) {
  NestedLoopGuard guard;
  guard.enter();
  guard.pause();
  guard.cancel();
  EXPECT_FALSE(guard.leave());
}

TEST(NestedLoopGuard, CancelInCallbackAllowsAnotherPause) {
  NestedLoopGuard guard;
  guard.enter();
  guard.pause();
  guard.cancel();
  EXPECT_TRUE(guard.must_pause());
  guard.pause();
  EXPECT_TRUE(guard.leave());
}
