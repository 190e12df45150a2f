#include "driver/axes.h"

namespace ptz_kit {

namespace {
// Over a shorter time, the rounding and the delay of positions would be a large part of the speed.
constexpr gint64 sample_us = 100'000;
constexpr gint64 first_sample_us = 15'000;  // of a motion, so that it has a speed soon
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
  is_known_ = true;
  moving_ = moving;
  if (starts || !moving) {
    speed_ = 0;
    speed_is_reported_ = false;
    speed_is_sampled_ = false;
  } else {
    const gint64 time_us = now_us - sampled_us_;
    if (time_us < (speed_is_sampled_ ? sample_us : first_sample_us)) return;
    if (!speed_is_reported_) speed_ = speed_over(position - gint64{sampled_position_}, time_us);
    if (time_us < sample_us) return;
    speed_is_sampled_ = true;
  }
  sampled_position_ = position;
  sampled_us_ = now_us;
}

gint32 Axis::speed_over(gint64 distance, gint64 time_us) const {
  return static_cast<gint32>(std::clamp<gint64>(distance * G_USEC_PER_SEC / time_us, -max_speed_, max_speed_));
}

void Axis::report_unknown() {
  report(position_, false, 0);
  is_known_ = false;
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
