#include "driver/axes.h"

namespace ptz_kit {

namespace {
// Over a shorter time, the rounding of positions would be a large part of the speed.
constexpr gint64 shortest_sample_us = 15'000;
}  // namespace

void Axis::set(gint32 minimum, gint32 maximum, gint32 max_speed, gint32 home) {
  is_set_ = true;
  minimum_ = minimum;
  maximum_ = maximum;
  max_speed_ = max_speed;
  home_ = home;
  position_ = home;
}

void Axis::report(gint32 position, bool moving, gint64 now_us) {
  const bool starts = moving && !moving_;
  position_ = position;
  moving_ = moving;
  if (starts || !moving) {
    speed_ = 0;
    speed_is_reported_ = false;
  } else if (now_us - sampled_us_ < shortest_sample_us) {
    return;
  } else if (!speed_is_reported_) {
    const double seconds = static_cast<double>(now_us - sampled_us_) / G_USEC_PER_SEC;
    const double speed = (static_cast<double>(position) - sampled_position_) / seconds;
    speed_ = static_cast<gint32>(std::clamp(speed, -1.0 * max_speed_, 1.0 * max_speed_));
  }
  sampled_position_ = position;
  sampled_us_ = now_us;
}

void Axis::report_speed(gint32 speed) {
  speed_ = speed;
  speed_is_reported_ = true;
}

gint32 Axis::cut_distance(gint32 distance) const {
  const gint64 target = std::clamp<gint64>(gint64{position_} + distance, minimum_, maximum_);
  return static_cast<gint32>(std::clamp<gint64>(target - position_, G_MININT32, G_MAXINT32));
}

}  // namespace ptz_kit
