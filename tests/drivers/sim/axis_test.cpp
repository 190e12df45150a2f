#include "axis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using sim::Axis;
using sim::AxisRange;

namespace {

constexpr AxisRange range = {-1000, 2000, 500, 1000};
constexpr gint64 ms = 1000;
constexpr double rounding = 1e-6;

// Lets time pass in small steps, and looks at every one of them that the axis keeps to its range.
class WatchedAxis {
  gint64 now_us_ = 0;
  gint64 step_us_;

 public:
  Axis axis;

  explicit WatchedAxis(gint32 position = 0, gint64 step_us = ms) : step_us_(step_us), axis(range, position) {}

  void step() {
    const double velocity = axis.exact_velocity();
    const double position = axis.exact_position();
    axis.advance(now_us_ += step_us_);
    const double seconds = static_cast<double>(step_us_) / G_USEC_PER_SEC;
    ASSERT_GE(axis.exact_position(), range.minimum);
    ASSERT_LE(axis.exact_position(), range.maximum);
    ASSERT_LE(std::abs(axis.exact_velocity()), range.max_speed + rounding);
    ASSERT_LE(std::abs(axis.exact_velocity() - velocity), range.acceleration * seconds + rounding);
    ASSERT_LE(std::abs(axis.exact_position() - position), range.max_speed * seconds + rounding);
  }
  void pass(gint64 time_us) {
    for (const gint64 end = now_us_ + time_us; now_us_ < end && !testing::Test::HasFatalFailure();) step();
  }
  // The time until the axis is at rest, in seconds.
  double settle() {
    const gint64 start_us = now_us_;
    while (axis.moving() && now_us_ - start_us < 60 * G_USEC_PER_SEC && !testing::Test::HasFatalFailure()) step();
    return static_cast<double>(now_us_ - start_us) / G_USEC_PER_SEC;
  }
};

}  // namespace

TEST(Axis, StandsStillUntilItIsOrderedToMove) {
  WatchedAxis watched(17);
  watched.pass(500 * ms);
  EXPECT_FALSE(watched.axis.moving());
  EXPECT_EQ(watched.axis.exact_position(), 17);
}

TEST(Axis, ArrivesExactlyWhereItWasSent) {
  WatchedAxis watched;
  watched.axis.move_to(1234, range.max_speed);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), 1234);
  EXPECT_EQ(watched.axis.exact_velocity(), 0);
}

TEST(Axis, TakesTheTimeOfATrapezoid) {
  WatchedAxis watched;
  watched.axis.move_to(1000, range.max_speed);
  // Half a second to and from full speed, 125 units each; 750 units at full speed.
  EXPECT_NEAR(watched.settle(), 0.5 + 1.5 + 0.5, 0.002);
}

TEST(Axis, TakesTheTimeOfATriangleWhereTheWayIsTooShortForFullSpeed) {
  WatchedAxis watched;
  watched.axis.move_to(-90, range.max_speed);
  EXPECT_NEAR(watched.settle(), 2 * std::sqrt(90.0 / range.acceleration), 0.002);
}

TEST(Axis, MovesAsSlowlyAsItIsTold) {
  WatchedAxis watched;
  watched.axis.move_to(1000, 100);
  EXPECT_NEAR(watched.settle(), 10 + 0.1, 0.002);
}

TEST(Axis, NeverGoesBeyondItsTargetOnAWayInOneDirection) {
  WatchedAxis watched;
  watched.axis.move_to(777, range.max_speed);
  double before = 0;
  while (watched.axis.moving()) {
    watched.step();
    ASSERT_GE(watched.axis.exact_position(), before);
    ASSERT_LE(watched.axis.exact_position(), 777);
    before = watched.axis.exact_position();
  }
}

TEST(Axis, IsWhereItIsHoweverOftenAnybodyLooks) {
  WatchedAxis often(0, 100);
  WatchedAxis seldom(0, 50 * ms);
  for (WatchedAxis *watched : {&often, &seldom}) {
    watched->axis.move_to(900, range.max_speed);
    watched->pass(700 * ms);
    watched->axis.move_to(-300, 333);
    watched->pass(1000 * ms);
  }
  EXPECT_NEAR(often.axis.exact_position(), seldom.axis.exact_position(), rounding);
  EXPECT_NEAR(often.axis.exact_velocity(), seldom.axis.exact_velocity(), rounding);
}

TEST(Axis, TakesATargetBeyondALimitAsTheLimit) {
  WatchedAxis watched;
  watched.axis.move_to(1e9, range.max_speed);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), range.maximum);
  watched.axis.move_to(-1e9, range.max_speed);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), range.minimum);
}

TEST(Axis, RunsUntilTheLimitAndRestsThere) {
  WatchedAxis watched;
  watched.axis.run(-250);
  watched.pass(1000 * ms);
  EXPECT_NEAR(watched.axis.exact_velocity(), -250, rounding);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), range.minimum);
  watched.axis.run(-250);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), range.minimum);
}

TEST(Axis, BrakesWithItsAccelerationWhenStopped) {
  WatchedAxis watched;
  watched.axis.run(400);
  watched.pass(1000 * ms);
  const double position = watched.axis.exact_position();
  watched.axis.stop();
  EXPECT_NEAR(watched.settle(), 0.4, 0.002);
  EXPECT_NEAR(watched.axis.exact_position(), position + 400.0 * 400 / (2 * range.acceleration), rounding);
}

TEST(Axis, StopsWhenToldToRunAtNoSpeed) {
  WatchedAxis watched;
  watched.axis.run(400);
  watched.pass(300 * ms);
  watched.axis.run(0);
  EXPECT_NEAR(watched.settle(), 0.3, 0.002);
}

TEST(Axis, BrakesBeforeItGoesBack) {
  WatchedAxis watched;
  watched.axis.run(range.max_speed);
  watched.pass(1000 * ms);
  const double turn = watched.axis.exact_position();
  watched.axis.move_to(turn - 10, range.max_speed);
  watched.step();
  EXPECT_GT(watched.axis.exact_position(), turn);
  watched.settle();
  EXPECT_EQ(watched.axis.exact_position(), turn - 10);
}

TEST(Axis, SlowsDownToALowerSpeedOnTheSameWay) {
  WatchedAxis watched;
  watched.axis.run(range.max_speed);
  watched.pass(1000 * ms);
  watched.axis.run(100);
  watched.pass(500 * ms);
  EXPECT_NEAR(watched.axis.exact_velocity(), 100, rounding);
}

TEST(Axis, IsIdleSoonWhenSentToWhereItIs) {
  WatchedAxis watched(250);
  watched.axis.move_to(250, range.max_speed);
  watched.step();
  EXPECT_FALSE(watched.axis.moving());
}

TEST(Axis, StaysWhereItIsWhenTheClockSeemsToGoBack) {
  WatchedAxis watched;
  watched.axis.move_to(1000, range.max_speed);
  watched.pass(500 * ms);
  const double position = watched.axis.exact_position();
  watched.axis.advance(0);
  EXPECT_EQ(watched.axis.exact_position(), position);
}

TEST(Axis, KeepsToItsRangeWhateverItIsToldAndWhen) {
  std::mt19937 random(20);
  for (int rounds = 0; rounds < 50 && !HasFatalFailure(); ++rounds) {
    WatchedAxis watched(std::uniform_int_distribution(range.minimum, range.maximum)(random), 3 * ms);
    for (int orders = 0; orders < 30; ++orders) {
      const double value = std::uniform_real_distribution(-2500.0, 2500.0)(random);
      const double speed = std::uniform_real_distribution(1.0, 700.0)(random);
      switch (random() % 4) {
        case 0:
          watched.axis.move_to(value, speed);
          break;
        case 1:
          watched.axis.run(value < 0 ? -speed : speed);
          break;
        case 2:
          watched.axis.stop();
          break;
        default:
          watched.axis.move_to(watched.axis.position(), speed);
          break;
      }
      watched.pass(std::uniform_int_distribution(0, 1500)(random) * ms);
    }
    watched.axis.move_to(555, range.max_speed);
    watched.settle();
    ASSERT_EQ(watched.axis.exact_position(), 555);
  }
}
