#include "head.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace compliance {

namespace {
constexpr int steps_of_range = 200;
constexpr int look_again_us = 5'000;
constexpr int looks_at_standstill = 6;

// "0x00000003 Pan RelPan"
std::string describe_bits(GType type, guint32 bits) {
  const Text number(g_strdup_printf("0x%08x", bits));
  std::string text = number.get();
  const auto *const flags = static_cast<GFlagsClass *>(g_type_class_ref(type));
  for (guint i = 0; i < flags->n_values; ++i) {
    const GFlagsValue &each = flags->values[i];
    if (each.value != 0 && (bits & each.value) == each.value) text += std::string(" ") + each.value_name;
  }
  return text;
}

}  // namespace

const std::array<const char *, axis_count> axis_names = {"pan", "tilt", "zoom"};

const char *kind_name(PTZMove kind) {
  return kind == PTZ_MOVE_ABSOLUTE ? "absolute" : kind == PTZ_MOVE_RELATIVE ? "relative" : "continuous";
}

guint32 move_capability(PTZMove kind, AxisIndex axis) {
  // The bits of an axis follow each other, and so do the axes.
  static_assert(PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN == PTZ_DRIVER_MOVE_CAPABILITIES_PAN << 1 &&
                PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM == PTZ_DRIVER_MOVE_CAPABILITIES_PAN << 8);
  return guint32{PTZ_DRIVER_MOVE_CAPABILITIES_PAN} << (3 * axis + kind - PTZ_MOVE_ABSOLUTE);
}

bool has_axis(const Capabilities &capabilities, AxisIndex axis) {
  for (const PTZMove kind : {PTZ_MOVE_ABSOLUTE, PTZ_MOVE_RELATIVE, PTZ_MOVE_CONTINUOUS}) {
    if ((capabilities.move & move_capability(kind, axis)) != 0) return true;
  }
  return false;
}

std::vector<AxisIndex> axes_of(const Capabilities &capabilities) {
  std::vector<AxisIndex> axes;
  for (const AxisIndex axis : all_axes) {
    if (has_axis(capabilities, axis)) axes.push_back(axis);
  }
  return axes;
}

std::string describe_moves(const Capabilities &capabilities) {
  return "Get capabilities: move " + describe_bits(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, capabilities.move);
}
std::string describe_extras(const Capabilities &capabilities) {
  return "Get capabilities: extra " + describe_bits(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, capabilities.extra);
}

void not_announced(Probe &probe, const Capabilities &capabilities, PTZMove kind, AxisIndex axis) {
  const bool is_absent = !has_axis(capabilities, axis);
  probe.not_applicable(describe_moves(capabilities), "the driver announces no %s%s%s", is_absent ? "" : kind_name(kind),
                       is_absent ? "" : " ", axis_names[axis]);
}

Head::Head(Probe &probe)
    : link_(probe.connect()),
      capabilities_(*query<Capabilities>(link_)),
      limits_(*query<Limits>(link_)),
      speeds_(*query<Speeds>(link_)) {
  arrive();
}

bool Head::has_room(AxisIndex axis) const {
  return gint64{limits_.maximum[axis]} - limits_.minimum[axis] >= steps_of_range && speeds_.maximum[axis] > 0;
}

AxisIndex Head::axis_for(PTZMove kind) {
  std::string rooms;
  for (const AxisIndex axis : all_axes) {
    if (!announces(kind, axis)) continue;
    if (has_room(axis)) return axis;
    rooms += std::string(rooms.empty() ? "" : "; ") + axis_names[axis] + " from " +
             std::to_string(limits_.minimum[axis]) + " to " + std::to_string(limits_.maximum[axis]) + ", at most " +
             std::to_string(speeds_.maximum[axis]) + " per second";
  }
  if (rooms.empty()) {
    probe().not_applicable(describe_moves(capabilities_), "the driver announces no %s moves", kind_name(kind));
  } else {
    probe().not_applicable(rooms, "no axis with %s moves has room to move in", kind_name(kind));
  }
  return pan;
}

double Head::seconds_to(AxisIndex axis, gint32 distance) const {
  return std::abs(static_cast<double>(distance)) / speeds_.maximum[axis];
}

Head::Limit Head::nearest_limit(PTZMove kind) {
  Limit nearest{axis_for(kind), false};
  if (probe().decided()) return nearest;
  double least = std::numeric_limits<double>::infinity();
  const Positions now = where();
  for (const AxisIndex axis : all_axes) {
    if (!announces(kind, axis) || !has_room(axis)) continue;
    for (const bool upper : {false, true}) {
      const double time = seconds_to(axis, (upper ? limits_.maximum : limits_.minimum)[axis] - now.position[axis]);
      if (time < least) {
        least = time;
        nearest = {axis, upper};
      }
    }
  }
  return nearest;
}

gint32 Head::step(AxisIndex axis) const {
  return static_cast<gint32>((gint64{limits_.maximum[axis]} - limits_.minimum[axis]) / steps_of_range);
}

Body Head::move(PTZMove kind, AxisIndex axis, gint32 value, guint16 speed) {
  PTZKitMoveRequest request{static_cast<guint32>(kind), axis_bit(axis), speed, {}};
  request.value[axis] = value;
  return make_body(request);
}

Body Head::run_slowly(AxisIndex axis, guint16 share) {
  const gint64 now = position(axis);
  const gint32 speed = speeds_.maximum[axis];
  const bool up = limits_.maximum[axis] - now >= now - limits_.minimum[axis];
  return move(PTZ_MOVE_CONTINUOUS, axis, up ? speed : -speed, share);
}

Body Head::move_command(PTZMoveCmd direction, guint16 speed) {
  return make_body(PTZKitMoveCommandRequest{static_cast<guint32>(direction), speed});
}

void Head::calm_down() {
  link_.ask(make_body(PTZ_COMMAND_STOP));
  arrive();
}

Positions Head::arrive() {
  const gint64 deadline = g_get_monotonic_time() + gint64{probe().motion_timeout_ms()} * 1000;
  const auto is_idle = [this](const Positions &at) {
    return std::ranges::all_of(axes(), [&](AxisIndex axis) { return at.status[axis] == PTZ_MOVE_STATUS_IDLE; });
  };
  Positions now = where();
  while (!is_idle(now) && !probe().decided()) {
    if (g_get_monotonic_time() > deadline) {
      probe().fail("the head still moves after %d ms", probe().motion_timeout_ms());
    }
    g_usleep(look_again_us);
    now = where();
  }
  return now;
}

void Head::make_room(AxisIndex axis) {
  const gint32 margin = 4 * step(axis);
  const gint32 now = position(axis);
  if (probe().decided()) return;
  const gint32 wanted = std::clamp(now, limits_.minimum[axis] + margin, limits_.maximum[axis] - margin);
  if (wanted == now) return;
  if (announces(PTZ_MOVE_ABSOLUTE, axis)) {
    order(move(PTZ_MOVE_ABSOLUTE, axis, wanted));
  } else if (announces(PTZ_MOVE_RELATIVE, axis)) {
    order(move(PTZ_MOVE_RELATIVE, axis, wanted - now));
  } else {
    probe().not_applicable("Query position: " + std::to_string(now), "%s is at its limit and has only continuous moves",
                           axis_names[axis]);
  }
  arrive();
}

bool Head::leaves(AxisIndex axis, gint32 from) {
  const gint64 deadline = g_get_monotonic_time() + gint64{probe().timeout_ms()} * 1000;
  while (!probe().decided() && g_get_monotonic_time() < deadline) {
    if (position(axis) != from) return true;
    g_usleep(look_again_us);
  }
  return false;
}

bool Head::stays(AxisIndex axis) {
  const gint32 from = position(axis);
  for (int look = 0; look < looks_at_standstill && !probe().decided(); ++look) {
    g_usleep(look_again_us);
    if (position(axis) != from) return false;
  }
  return true;
}

}  // namespace compliance
