// axis.h - one motor of the simulated head: a position that changes with bounded speed and acceleration.
#pragma once
#include <glib.h>

#include <array>

namespace sim {

// In units of the axis (see head.h), units per second, and units per second squared.
struct AxisRange {
  gint32 minimum;
  gint32 maximum;
  gint32 max_speed;
  gint32 acceleration;
};

// A motion is planned when it is ordered, as up to three phases of constant acceleration: reach the cruising speed,
// cruise, brake. Where the axis is at a moment is computed from the plan, so it does not depend on how often it is
// asked, and an axis that has arrived is exactly where it was sent.
//
// Invariant: the place where the axis would come to rest, if it braked now, lies within the limits. No order can
// therefore drive it past them.
class Axis {
  struct Phase {
    double seconds;
    double acceleration;
  };

  AxisRange range_;
  gint64 now_us_ = 0;
  double position_;
  double velocity_ = 0;

  bool moving_ = false;
  gint64 begin_us_ = 0;
  double begin_position_ = 0;
  double begin_velocity_ = 0;
  double target_ = 0;
  std::array<Phase, 3> phases_{};

  [[nodiscard]] double resting_place() const;
  void plan(double wanted, double cruise_speed);

 public:
  Axis(const AxisRange &range, gint32 position) : range_(range), position_(position) {}

  // The clock is monotonic. Orders start from the time that was told last.
  void advance(gint64 now_us);

  // The speeds are above 0 and are taken as the axis's greatest where they exceed it.
  void move_to(double target, double speed);  // a target beyond a limit is that limit
  void run(double velocity);                  // until a limit; 0 brakes
  void stop();

  [[nodiscard]] const AxisRange &range() const { return range_; }
  [[nodiscard]] bool moving() const { return moving_; }
  [[nodiscard]] double exact_position() const { return position_; }
  [[nodiscard]] double exact_velocity() const { return velocity_; }
  [[nodiscard]] gint32 position() const;
  [[nodiscard]] gint32 velocity() const;
};

}  // namespace sim
