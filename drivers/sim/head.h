// head.h - the simulated pan-tilt-zoom head: what a real driver reaches through a serial line or a bus.
#pragma once
#include <ptz_kit.h>

#include <algorithm>
#include <array>
#include <functional>

#include "axis.h"

namespace sim {

// Pan and tilt are in hundredths of a degree (right and up are positive), zoom is the magnification times 100; speeds
// are these units per second.
enum AxisIndex : std::size_t { pan = PTZ_KIT_AXIS_PAN, tilt = PTZ_KIT_AXIS_TILT, zoom = PTZ_KIT_AXIS_ZOOM };
constexpr std::size_t axis_count = PTZ_KIT_N_AXES;
using PerAxis = std::array<gint32, axis_count>;

constexpr guint8 axis_bit(std::size_t axis) { return static_cast<guint8>(1U << axis); }
constexpr guint8 all_axes = axis_bit(pan) | axis_bit(tilt) | axis_bit(zoom);

using HeadRanges = std::array<AxisRange, axis_count>;

constexpr HeadRanges head_ranges = {{
    {-170'00, 170'00, 120'00, 240'00},  // pan
    {-20'00, 90'00, 90'00, 180'00},     // tilt
    {1'00, 30'00, 10'00, 20'00},        // zoom, magnification
}};
// Where settings and state files name the axes.
constexpr std::array<const char *, axis_count> axis_titles = {"Pan", "Tilt", "Zoom"};
constexpr PerAxis head_home = {0, 0, 1'00};

// Home, or the limit next to it.
constexpr PerAxis home_within(const HeadRanges &ranges) {
  PerAxis home = head_home;
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    home[axis] = std::clamp(home[axis], ranges[axis].minimum, ranges[axis].maximum);
  }
  return home;
}

// The same head, with every motion done in a fraction of the time.
constexpr HeadRanges faster(HeadRanges ranges, gint32 factor) {
  for (AxisRange &range : ranges) {
    range.max_speed *= factor;
    range.acceleration *= factor * factor;
  }
  return ranges;
}

class Head {
  std::array<Axis, axis_count> axes_;

 public:
  explicit Head(const HeadRanges &ranges)
      : axes_{Axis(ranges[pan], home_within(ranges)[pan]), Axis(ranges[tilt], home_within(ranges)[tilt]),
              Axis(ranges[zoom], home_within(ranges)[zoom])} {}

  void advance(gint64 now_us) {
    for (Axis &axis : axes_) axis.advance(now_us);
  }
  void stop() {
    for (Axis &axis : axes_) axis.stop();
  }
  [[nodiscard]] bool moving() const { return std::ranges::any_of(axes_, &Axis::moving); }
  [[nodiscard]] Axis &axis(std::size_t index) { return axes_[index]; }
  [[nodiscard]] const Axis &axis(std::size_t index) const { return axes_[index]; }

  // One number of each axis, as the messages carry them.
  template <typename Value>
  [[nodiscard]] PerAxis each(Value value) const {
    return {std::invoke(value, axes_[pan]), std::invoke(value, axes_[tilt]), std::invoke(value, axes_[zoom])};
  }
};

}  // namespace sim
