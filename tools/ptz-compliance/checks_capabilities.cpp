// What a driver announces, held against what it then answers.
#include <ptz_flags_utils.h>

#include "head.h"

namespace compliance {

namespace {

void known_bits(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  const auto unknown = [](GType type, guint32 bits) {
    return bits & ~static_cast<GFlagsClass *>(g_type_class_ref(type))->mask;
  };
  const guint32 move = unknown(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, capabilities.move);
  const guint32 extra = unknown(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, capabilities.extra);
  probe.fail_unless(move == 0 && extra == 0, "bits 0x%08x of move and 0x%08x of extra mean nothing", move, extra);
}

bool is_usable(const Capabilities &capabilities) {
  PTZDriverCapabilities words = {capabilities.move, capabilities.extra};
  return ptz_flags_utils_ptz_usable(&words) != FALSE;
}

void usable(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  probe.fail_unless(is_usable(capabilities), "the driver moves nothing and offers nothing: a daemon will not use it");
}

void stable(Probe &probe) {
  Link first = probe.connect();
  const auto before = *query<Capabilities>(first);
  Link second = probe.connect();
  const auto after = *query<Capabilities>(second);
  probe.fail_unless(before.move == after.move && before.extra == after.extra,
                    "one client is told 0x%08x and 0x%08x, the next 0x%08x and 0x%08x", before.move, before.extra,
                    after.move, after.extra);
}

// What stands for an axis that there is not, so that a user interface need not know the axes of each driver.
void absent_axes(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  const Positions now = *query<Positions>(link);
  const Limits limits = *query<Limits>(link);
  const Speeds speeds = *query<Speeds>(link);
  if (!is_usable(capabilities)) {
    return probe.not_applicable(describe_moves(capabilities), "the driver announces nothing that a daemon can use");
  }
  int absent = 0;
  for (const AxisIndex axis : all_axes) {
    if (has_axis(capabilities, axis)) continue;
    ++absent;
    const char *const name = axis_names[axis];
    probe.fail_unless(now.position[axis] == 0 && now.status[axis] == PTZ_MOVE_STATUS_IDLE,
                      "%s is not announced and is at %d with the status %d", name, now.position[axis],
                      now.status[axis]);
    probe.fail_unless(limits.minimum[axis] == 0 && limits.maximum[axis] == 0,
                      "%s is not announced and goes from %d to %d", name, limits.minimum[axis], limits.maximum[axis]);
    probe.fail_unless(speeds.current[axis] == 0 && speeds.maximum[axis] == 0,
                      "%s is not announced and has the speed %d of at most %d", name, speeds.current[axis],
                      speeds.maximum[axis]);
  }
  if (absent == 0) probe.note("every axis is announced");
}

void expect_answered(Link &link, const Body &request, const char *announced) {
  const auto error = error_of(link.ask(request));
  link.probe().fail_unless(!error, "%s is announced, but \"%s\" is refused with %s", announced,
                           command_name(command_of(request)).c_str(), error ? describe(*error).c_str() : "");
}

// To where the head is, by nothing, or with no speed: it is to be answered, not to be seen.
template <PTZMove kind, AxisIndex axis>
void answers_move(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  if ((capabilities.move & move_capability(kind, axis)) == 0) {
    return not_announced(probe, capabilities, kind, axis);
  }
  gint32 value = 0;
  if (kind == PTZ_MOVE_ABSOLUTE) value = query<Positions>(link)->position[axis];
  const std::string announced = std::string(kind_name(kind)) + " " + axis_names[axis];
  expect_answered(link, Head::move(kind, axis, value), announced.c_str());
}

// Not applicable if the driver does not announce the facility.
template <PTZDriverExtraCapabilities bit>
void answers_extra(Probe &probe, const char *announced, std::initializer_list<const Body *> requests) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  if ((capabilities.extra & bit) == 0) {
    return probe.not_applicable(describe_extras(capabilities), "the driver announces no %s", announced);
  }
  for (const Body *request : requests) {
    const auto error = error_of(link.ask(*request));
    probe.fail_unless(!error || !error->is_unserved(), "%s is announced, but \"%s\" is not served", announced,
                      command_name(command_of(*request)).c_str());
  }
}

void answers_auxiliary(Probe &probe) {
  const Body ask = make_auxiliary_body("light", PTZ_ENABLE_NONE);
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_AUX>(probe, "auxiliary", {&ask});
}
void answers_device_preset(Probe &probe) {
  const Body list = make_body(PTZ_COMMAND_GET_DEVICE_PRESETS);
  // None of these is to be obeyed.
  const Body set = make_preset_body(0, "none");
  const Body go = make_body(PTZKitGotoDevicePresetRequest{0, full_speed});
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET>(probe, "device presets", {&list, &set, &go});
}
void answers_device_type(Probe &probe) {
  const Body types = make_body(PTZ_COMMAND_GET_DEVICE_TYPES);
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE>(probe, "device type", {&types});
}

void answers_speed_control(Probe &probe) {
  Head head(probe);
  if ((head.capabilities().move & PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL) == 0) {
    return probe.not_applicable(describe_moves(head.capabilities()), "the driver announces no speed control");
  }
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  constexpr guint16 share = 10;
  constexpr int samples = 30;
  constexpr gulong between_samples_us = 2'000;
  const gint32 maximum = head.speeds().maximum[axis];
  if (maximum < 2 * full_speed) {
    return probe.not_applicable("Query speed: at most " + std::to_string(maximum),
                                "the speed of %s is too coarse to tell", axis_names[axis]);
  }
  head.order(Head::move(PTZ_MOVE_CONTINUOUS, axis, maximum, share));
  gint32 fastest = 0;
  for (int count = 0; count < samples && !probe.decided(); ++count) {
    fastest = std::max(fastest, std::abs(query<Speeds>(head.link())->current[axis]));
    g_usleep(between_samples_us);
  }
  head.calm_down();
  const gint32 allowed = maximum / full_speed * share + maximum / full_speed;
  probe.fail_unless(fastest <= allowed, "at %u per cent, %s runs at %d of %d", share, axis_names[axis], fastest,
                    maximum);
}

#define MOVE_ROW(name, kind, axis, text) \
  { "caps.answers-what-it-announces." name, "who announces " text " obeys it", answers_move<kind, axis> }

constexpr Check rows[] = {
    {"caps.known-bits", "the capabilities have only bits that mean something", known_bits},
    {"caps.usable", "the capabilities are those of a driver that a daemon can use", usable},
    {"caps.stable", "every client is told the same capabilities", stable},
    {"caps.absent-axes", "an axis that is not announced is idle at 0, without a range and without a speed",
     absent_axes},
    MOVE_ROW("pan", PTZ_MOVE_ABSOLUTE, pan, "absolute pan"),
    MOVE_ROW("relpan", PTZ_MOVE_RELATIVE, pan, "relative pan"),
    MOVE_ROW("contpan", PTZ_MOVE_CONTINUOUS, pan, "continuous pan"),
    MOVE_ROW("tilt", PTZ_MOVE_ABSOLUTE, tilt, "absolute tilt"),
    MOVE_ROW("reltilt", PTZ_MOVE_RELATIVE, tilt, "relative tilt"),
    MOVE_ROW("conttilt", PTZ_MOVE_CONTINUOUS, tilt, "continuous tilt"),
    MOVE_ROW("zoom", PTZ_MOVE_ABSOLUTE, zoom, "absolute zoom"),
    MOVE_ROW("relzoom", PTZ_MOVE_RELATIVE, zoom, "relative zoom"),
    MOVE_ROW("contzoom", PTZ_MOVE_CONTINUOUS, zoom, "continuous zoom"),
    {"caps.answers-what-it-announces.speedcontrol", "who announces speed control moves slower at a lower speed",
     answers_speed_control},
    {"caps.answers-what-it-announces.aux", "who announces an auxiliary serves its command", answers_auxiliary},
    {"caps.answers-what-it-announces.devicepreset", "who announces device presets serves their three commands",
     answers_device_preset},
    {"caps.answers-what-it-announces.devicetype", "who announces a device type tells it", answers_device_type},
};
#undef MOVE_ROW

}  // namespace

const Checks capability_checks(rows);

}  // namespace compliance
