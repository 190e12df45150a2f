#include "axis.h"

#include <algorithm>
#include <cmath>

namespace sim {

double Axis::resting_place() const { return position_ + velocity_ * std::abs(velocity_) / (2.0 * range_.acceleration); }

void Axis::advance(gint64 now_us) {
  now_us_ = std::max(now_us_, now_us);
  if (!moving_) return;
  double left = static_cast<double>(now_us_ - begin_us_) / G_USEC_PER_SEC;
  double position = begin_position_;
  double velocity = begin_velocity_;
  for (const Phase &phase : phases_) {
    const double time = std::min(left, phase.seconds);
    position += velocity * time + phase.acceleration * time * time / 2;
    velocity += phase.acceleration * time;
    left -= time;
  }
  moving_ = left <= 0;
  position_ = moving_ ? std::clamp<double>(position, range_.minimum, range_.maximum) : target_;
  velocity_ = moving_ ? velocity : 0;
}

void Axis::plan(double wanted, double cruise_speed) {
  const double target = std::clamp<double>(wanted, range_.minimum, range_.maximum);
  const double acceleration = range_.acceleration;
  // Seen in the direction in which the axis must go once it has braked. If it goes the other way now, the first phase
  // leads through standstill.
  const double direction = target >= resting_place() ? 1 : -1;
  const double speed = direction * velocity_;
  const double distance = direction * (target - position_);
  // Without a limit of speed, the axis would speed up to this and brake at once.
  const double peak = std::sqrt(std::max(0.0, acceleration * distance + speed * speed / 2));

  const double cruise = speed > cruise_speed ? cruise_speed : std::max(speed, std::min(peak, cruise_speed));
  const double change = cruise - speed;
  const double reached = std::abs(change) * (cruise + speed) / (2 * acceleration);
  const double braked = cruise * cruise / (2 * acceleration);
  const double cruised = cruise < cruise_speed ? 0 : std::max(0.0, distance - reached - braked);

  begin_us_ = now_us_;
  begin_position_ = position_;
  begin_velocity_ = velocity_;
  target_ = target;
  phases_ = {Phase{std::abs(change) / acceleration, direction * std::copysign(acceleration, change)},
             Phase{cruised / cruise_speed, 0}, Phase{cruise / acceleration, -direction * acceleration}};
  moving_ = true;
}

void Axis::move_to(double target, double speed) { plan(target, std::min<double>(speed, range_.max_speed)); }

void Axis::run(double velocity) {
  if (velocity == 0) return stop();
  move_to(velocity > 0 ? range_.maximum : range_.minimum, std::abs(velocity));
}

void Axis::stop() { plan(resting_place(), range_.max_speed); }

gint32 Axis::position() const { return static_cast<gint32>(std::lround(position_)); }
gint32 Axis::velocity() const { return static_cast<gint32>(std::lround(velocity_)); }

}  // namespace sim
