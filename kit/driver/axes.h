// kit/driver/axes.h - what a driver has said of its axes: limits once, position and motion as they change.
#pragma once
#include <ptz_kit_types.h>

#include <algorithm>
#include <array>

namespace ptz_kit {

// No pointers, which would need relocation.
constexpr char axis_labels[PTZ_KIT_N_AXES][5] = {"pan", "tilt", "zoom"};
constexpr guint8 axis_bit(std::size_t axis) { return static_cast<guint8>(1U << axis); }

// An axis that was not set has only zeros.
class Axis {
  bool is_set_ = false;
  gint32 minimum_ = 0, maximum_ = 0, max_speed_ = 0, home_ = 0;
  gint32 position_ = 0;
  bool is_known_ = true;
  bool moving_ = false;
  gint32 speed_ = 0;
  bool speed_is_reported_ = false;
  bool speed_is_sampled_ = false;  // over the full time of a sample
  gint32 sampled_position_ = 0;    // speed_ is computed from this sample on
  gint64 sampled_us_ = 0;

  [[nodiscard]] gint32 speed_over(gint64 distance, gint64 time_us) const;

 public:
  void set(gint32 minimum, gint32 maximum, gint32 max_speed, gint32 home);
  void report(gint32 position, bool moving, gint64 now_us);
  void report_speed(gint32 speed);
  // It is at rest then.
  void report_unknown();

  [[nodiscard]] bool is_set() const { return is_set_; }
  [[nodiscard]] gint32 minimum() const { return minimum_; }
  [[nodiscard]] gint32 maximum() const { return maximum_; }
  [[nodiscard]] gint32 max_speed() const { return max_speed_; }
  [[nodiscard]] gint32 home() const { return home_; }
  [[nodiscard]] gint32 position() const { return position_; }
  [[nodiscard]] bool is_known() const { return is_known_; }
  [[nodiscard]] PTZMoveStatus status() const {
    if (!is_known_) return PTZ_MOVE_STATUS_UNKNOWN;
    return moving_ ? PTZ_MOVE_STATUS_MOVING : PTZ_MOVE_STATUS_IDLE;
  }
  [[nodiscard]] bool moving() const { return moving_; }
  [[nodiscard]] gint32 speed() const { return moving_ ? speed_ : 0; }
  [[nodiscard]] gint32 clamped(gint32 position) const { return std::clamp(position, minimum_, maximum_); }
  // The distance, as far as it does not lead out of the limits.
  [[nodiscard]] gint32 cut_distance(gint32 distance) const;
};

using Axes = std::array<Axis, PTZ_KIT_N_AXES>;

inline bool any_moving(const Axes &axes) { return std::ranges::any_of(axes, &Axis::moving); }
// Of the axes that were set; true if none was.
inline bool any_known(const Axes &axes) {
  const auto is_unknown = [](const Axis &axis) { return axis.is_set() && !axis.is_known(); };
  return std::ranges::none_of(axes, is_unknown) ||
         std::ranges::any_of(axes, [](const Axis &axis) { return axis.is_set() && axis.is_known(); });
}
inline guint8 axes_set(const Axes &axes) {
  guint8 bits = 0;
  for (std::size_t axis = 0; axis < axes.size(); ++axis) bits |= axes[axis].is_set() ? axis_bit(axis) : 0;
  return bits;
}

}  // namespace ptz_kit
