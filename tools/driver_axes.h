// driver_axes.h - the axes of a head, as people read them.
#pragma once
#include <ptz_kit_types.h>

#include <array>

namespace ptzctl {

constexpr std::size_t axis_count = PTZ_KIT_N_AXES;
constexpr std::array<const char *, axis_count> axis_names = {"pan", "tilt", "zoom"};
constexpr std::array<const char *, axis_count> axis_units = {"degrees", "degrees", "times"};

// The messages have hundredths; people have degrees, and magnifications.
constexpr double shown(gint32 value) { return value / 100.0; }

}  // namespace ptzctl
