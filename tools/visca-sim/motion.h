// motion.h - an axis that moves: at a constant speed, to a target or until it is stopped, within its limits.
#pragma once
#include <algorithm>
#include <cstdint>

namespace visca_sim {

class Axis {
  double minimum_, maximum_;
  double position_ = 0, velocity_ = 0, target_ = 0;  // in steps, and steps per second
  bool has_target_ = false;

 public:
  Axis(int minimum, int maximum) : minimum_(minimum), maximum_(maximum) {}
  [[nodiscard]] int position() const { return static_cast<int>(position_ < 0 ? position_ - 0.5 : position_ + 0.5); }
  [[nodiscard]] bool moves() const { return velocity_ != 0; }
  [[nodiscard]] bool has_target() const { return has_target_; }
  [[nodiscard]] bool contains(int position) const { return position >= minimum_ && position <= maximum_; }
  [[nodiscard]] int clamped(int position) const {
    return std::clamp(position, static_cast<int>(minimum_), static_cast<int>(maximum_));
  }

  void run(double velocity) {
    velocity_ = velocity;
    has_target_ = false;
  }
  void go_to(int target, double speed) {
    target_ = target;
    velocity_ = target_ > position_ ? speed : target_ < position_ ? -speed : 0;
    has_target_ = velocity_ != 0;
  }
  void stop() { run(0); }
  void advance(double seconds) {
    if (velocity_ == 0) return;
    position_ += velocity_ * seconds;
    const bool arrives = has_target_ && (velocity_ > 0 ? position_ >= target_ : position_ <= target_);
    if (arrives) position_ = target_;
    const double inside = std::clamp(position_, minimum_, maximum_);
    const bool at_limit = inside != position_ || (!has_target_ && inside == (velocity_ > 0 ? maximum_ : minimum_));
    position_ = inside;
    if (arrives || at_limit) stop();
  }
};

}  // namespace visca_sim
