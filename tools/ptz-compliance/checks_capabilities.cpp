// What a driver announces, held against what it then answers.
#include <ptz_flags_utils.h>

#include "head.h"

namespace compliance {

namespace {

void known_bits(Probe &probe) {
  Link link = probe.connect();
  const auto capabilities = query<Capabilities>(link, PTZ_COMMAND_GET_CAPABILITIES);
  const auto unknown = [](GType type, guint32 bits) {
    return bits & ~static_cast<GFlagsClass *>(g_type_class_ref(type))->mask;
  };
  const guint32 move = unknown(PTZ_TYPE_DRIVER_MOVE_CAPABILITIES, capabilities.words.move);
  const guint32 extra = unknown(PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES, capabilities.words.extra);
  probe.fail_unless(move == 0 && extra == 0, "bits 0x%08x of move and 0x%08x of extra mean nothing", move, extra);
}

void usable(Probe &probe) {
  Link link = probe.connect();
  auto capabilities = query<Capabilities>(link, PTZ_COMMAND_GET_CAPABILITIES);
  probe.fail_unless(ptz_flags_utils_ptz_usable(&capabilities.words) != FALSE,
                    "the driver moves nothing and offers nothing: a daemon will not use it");
}

void stable(Probe &probe) {
  Link first = probe.connect();
  const auto before = query<Capabilities>(first, PTZ_COMMAND_GET_CAPABILITIES).words;
  Link second = probe.connect();
  const auto after = query<Capabilities>(second, PTZ_COMMAND_GET_CAPABILITIES).words;
  probe.fail_unless(before.move == after.move && before.extra == after.extra,
                    "one client is told 0x%08x and 0x%08x, the next 0x%08x and 0x%08x", before.move, before.extra,
                    after.move, after.extra);
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
  const auto capabilities = query<Capabilities>(link, PTZ_COMMAND_GET_CAPABILITIES);
  if ((capabilities.words.move & move_capability(kind, axis)) == 0) {
    return probe.not_applicable("the driver does not announce %s %s", kind_name(kind), axis_names[axis]);
  }
  gint32 value = 0;
  if (kind == PTZ_MOVE_ABSOLUTE) value = query<Positions>(link, PTZ_COMMAND_QUERY_POSITION).position[axis];
  const std::string announced = std::string(kind_name(kind)) + " " + axis_names[axis];
  expect_answered(link, Head::move(kind, axis, value), announced.c_str());
}

// Not applicable where the driver does not announce the facility.
template <PTZDriverExtraCapabilities bit>
void answers_extra(Probe &probe, const char *announced, std::initializer_list<const Body *> requests) {
  Link link = probe.connect();
  const auto capabilities = query<Capabilities>(link, PTZ_COMMAND_GET_CAPABILITIES);
  if ((capabilities.words.extra & bit) == 0) return probe.not_applicable("the driver does not announce %s", announced);
  for (const Body *request : requests) {
    const auto error = error_of(link.ask(*request));
    const bool unserved = error && (error->code == ErrorCode::unsupported || error->code == ErrorCode::unknown_command);
    probe.fail_unless(!unserved, "%s is announced, but \"%s\" is not served", announced,
                      command_name(command_of(*request)).c_str());
  }
}

void answers_auxiliary(Probe &probe) {
  const Body ask = make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", PTZ_ENABLE_NONE});
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_AUX>(probe, "an auxiliary", {&ask});
}
void answers_device_preset(Probe &probe) {
  const Body list = make_body(PTZ_COMMAND_GET_DEVICE_PRESETS);
  // None of these is to be obeyed.
  const Body set = make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{0, "none"});
  const Body go = make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{0, full_speed});
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET>(probe, "device presets", {&list, &set, &go});
}
void answers_device_type(Probe &probe) {
  const Body types = make_body(PTZ_COMMAND_GET_DEVICE_TYPES);
  answers_extra<PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE>(probe, "a device type", {&types});
}

void answers_speed_control(Probe &probe) {
  Head head(probe);
  if ((head.moves() & PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL) == 0) {
    return probe.not_applicable("the driver does not announce speed control");
  }
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  constexpr guint16 share = 10;
  constexpr int samples = 30;
  constexpr gulong between_samples_us = 2'000;
  const gint32 maximum = head.speeds().maximum[axis];
  if (maximum < 2 * full_speed) return probe.not_applicable("the speed of %s is too coarse to tell", axis_names[axis]);
  head.order(Head::move(PTZ_MOVE_CONTINUOUS, axis, maximum, share));
  gint32 fastest = 0;
  for (int count = 0; count < samples && !probe.decided(); ++count) {
    const auto speeds = query<Speeds>(head.link(), PTZ_COMMAND_QUERY_SPEED);
    fastest = std::max(fastest, std::abs(speeds.current[axis]));
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
