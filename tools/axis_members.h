// axis_members.h - what is known of the axes, as every JSON output has it:
// "axes":{"pan":{...},"tilt":{...},"zoom":{...}}.
#pragma once
#include "driver_axes.h"
#include "json_line.h"

namespace ptzctl {

// Adds the members of one axis by add_axis(index).
template <typename Function>
void add_axes(const JsonLine &json, Function add_axis) {
  json.begin_object("axes");
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    json.begin_object(axis_names[axis]);
    add_axis(axis);
    json.end_object();
  }
  json.end_object();
}

}  // namespace ptzctl
