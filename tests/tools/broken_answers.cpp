#include "broken_answers.h"

#include <ptz_serialize.h>

#include <algorithm>
#include <cstdlib>

namespace broken {

namespace {

constexpr gint32 speed_factor = 20;
constexpr gulong slow_us = 60'000;

Body unsupported() { return make_body(PTZ_COMMAND_ERROR_REPLY, ErrorReply{ErrorCode::unsupported, "not here"}); }

// What follows the command word, as far as it is there.
template <typename Message>
Message read(const Body &body) {
  BodyReader reader(body.get());
  reader.u32();
  return Message::read(reader);
}

}  // namespace

std::string fault_name;

gint32 command_of(const Body &body) { return BodyReader(body.get()).i32(); }

Answers::Answers() : driver_(faster(head_ranges, speed_factor)) {}

bool Answers::moving() {
  driver_.head().advance(g_get_monotonic_time());
  return driver_.head().moving();
}

Body Answers::right(const Body &request) { return driver_.answer(request.get(), g_get_monotonic_time()); }

std::optional<Body> Answers::move(const Body &request) {
  auto wanted = read<MoveRequest>(request);
  const auto agreed = [] { return make_body(PTZ_COMMAND_MOVE); };
  const guint32 whole = make_body(PTZ_COMMAND_MOVE, wanted)->len;
  if (fault("commands.truncated-body") && request->len < whole) return agreed();
  if (fault("commands.refused-changes-nothing") && request->len > whole) right(make_body(PTZ_COMMAND_MOVE, wanted));
  if (request->len != whole) return std::nullopt;
  if (fault("commands.bad-kind-of-move") && wanted.kind == 4) return agreed();
  if (fault("commands.bad-axes") && wanted.axes == 8) return agreed();
  if (fault("commands.bad-speed") && wanted.speed == 0) return agreed();
  if (wanted.kind < PTZ_MOVE_ABSOLUTE || wanted.kind > PTZ_MOVE_CONTINUOUS) return std::nullopt;

  static constexpr const char *names[] = {"pan",      "relpan", "contpan", "tilt",    "reltilt",
                                          "conttilt", "zoom",   "relzoom", "contzoom"};
  std::size_t axis = 0;
  while (axis < axis_count - 1 && (wanted.axes & axis_bit(AxisIndex(axis))) == 0) ++axis;
  if (fault(std::string("caps.answers-what-it-announces.") + names[3 * axis + wanted.kind - PTZ_MOVE_ABSOLUTE])) {
    return unsupported();
  }

  const AxisRange &range = driver_.head().axis(axis).range();
  gint32 &value = wanted.values[axis];
  const gint32 outside = value > 0 ? range.maximum + 1 : range.minimum - 1;
  share_ = 0;
  false_speed_.reset();
  switch (wanted.kind) {
    case PTZ_MOVE_ABSOLUTE:
      if (fault("limits.absolute-move-outside-is-refused-or-clamped") &&
          (value < range.minimum || value > range.maximum)) {
        false_position_ = {axis, value};
        return agreed();
      }
      if (fault("move.new-replaces-old") && moving()) return agreed();
      if (fault("move.absolute-arrives") && !moving() && value + 7 <= range.maximum) value += 7;
      break;
    case PTZ_MOVE_RELATIVE:
      if (fault("limits.relative-move-outside-is-refused-or-clamped") &&
          std::abs(value) > range.maximum - range.minimum) {
        false_position_ = {axis, outside};
        return agreed();
      }
      if (fault("move.relative-adds")) value /= 2;
      if (fault("move.other-axes-stay") && wanted.axes == axis_bit(pan)) wanted.axes = all_axes;
      break;
    case PTZ_MOVE_CONTINUOUS:
      share_ = value == 0 ? 0 : wanted.speed;
      if (fault("limits.continuous-move-ends-at-the-limit") && share_ == full_speed) false_position_ = {axis, outside};
      if (fault("limits.speed-above-maximum-is-refused-or-clamped") && value > range.max_speed) {
        false_speed_ = value;
        return agreed();
      }
      if (fault("move.speed-zero-brakes") && value == 0) return agreed();
      if (fault("caps.answers-what-it-announces.speedcontrol") && wanted.speed == 10) wanted.speed = full_speed;
      break;
  }
  return right(make_body(PTZ_COMMAND_MOVE, wanted));
}

std::optional<Body> Answers::move_command(const Body &request) {
  auto wanted = read<MoveCommandRequest>(request);
  if (make_body(PTZ_COMMAND_MOVE_COMMAND, wanted)->len != request->len) return std::nullopt;
  share_ = 0;
  if ((fault("commands.bad-direction") && wanted.direction == 10) ||
      (fault("move.direction-stop-stops") && wanted.direction == PTZ_MOVE_CMD_STOP) ||
      (fault("move.home") && wanted.direction == PTZ_MOVE_CMD_HOME)) {
    return make_body(PTZ_COMMAND_MOVE_COMMAND);
  }
  if (fault("move.directions") && wanted.direction == PTZ_MOVE_CMD_LEFT) wanted.direction = PTZ_MOVE_CMD_RIGHT;
  return right(make_body(PTZ_COMMAND_MOVE_COMMAND, wanted));
}

std::optional<Body> Answers::preset(gint32 command, const Body &request) {
  if (command == PTZ_COMMAND_GOTO_DEVICE_PRESET) {
    if (fault("caps.answers-what-it-announces.devicepreset")) return unsupported();
    const auto wanted = read<GotoPresetRequest>(request);
    if ((fault("presets.unknown-is-refused") && wanted.number == G_MAXUINT32) ||
        (fault("presets.store-and-return") && wanted.number <= most_presets && wanted.number > 0 && !moving() &&
         wanted.speed == full_speed)) {
      return make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET);
    }
    return std::nullopt;
  }
  if (command == PTZ_COMMAND_GET_DEVICE_PRESETS) {
    Body reply = right(request);
    auto list = read<PresetList>(reply);
    if (fault("presets.is-listed")) list.elements.clear();
    if (fault("presets.in-order")) std::ranges::reverse(list.elements);
    return command_of(reply) == command ? make_body(PTZ_COMMAND_GET_DEVICE_PRESETS, list) : std::move(reply);
  }
  const auto wanted = read<Preset>(request);
  const std::string_view bytes(request->data, request->len);
  if (fault("commands.text-beyond-the-body") && bytes.ends_with("\xff\xffgate")) abort();
  if ((fault("presets.bad-number") && wanted.number == 0) ||
      (fault("presets.bad-name") && wanted.name.size() > longest_preset_name) ||
      (fault("presets.is-replaced") && wanted.name == "compliance 2") ||
      (fault("commands.invalid-text") && bytes.ends_with("ga\xff\xfe")) ||
      (fault("commands.text-with-nul") && bytes.ends_with(std::string_view("ga\0e", 4)))) {
    return make_body(PTZ_COMMAND_SET_DEVICE_PRESET, PresetNumber{wanted.number});
  }
  return std::nullopt;
}

Body Answers::query(const Asker &asker, gint32 command, const Body &request) {
  Body reply = right(request);
  BodyReader reader(reply.get());
  if (reader.i32() != command) return reply;
  switch (command) {
    case PTZ_COMMAND_QUERY_POSITION: {
      auto now = Positions::read(reader);
      if (false_position_) now.position[false_position_->first] = false_position_->second;
      false_position_.reset();
      if (fault("limits.position-within") && asker.requests == 2 &&
          asker.first_command == PTZ_COMMAND_QUERY_LIMIT_RANGES) {
        now.position[zoom] = driver_.head().axis(zoom).range().minimum - 1;
      }
      if (fault("move.reports-moving") && share_ == 3) now.status = {};
      if (fault("latency.while-moving") && share_ == 5) g_usleep(slow_us);
      return make_body(PTZ_COMMAND_QUERY_POSITION, now);
    }
    case PTZ_COMMAND_QUERY_SPEED: {
      auto speeds = Speeds::read(reader);
      if (false_speed_) speeds.current[pan] = *false_speed_;
      if (fault("limits.moving-axes-have-speed")) speeds.maximum[tilt] = 0;
      if (fault("move.reports-speed")) speeds.current[pan] = -speeds.current[pan];
      return make_body(PTZ_COMMAND_QUERY_SPEED, speeds);
    }
    case PTZ_COMMAND_QUERY_LIMIT_RANGES: {
      auto limits = Limits::read(reader);
      if (fault("limits.in-order")) std::swap(limits.minimum[zoom], limits.maximum[zoom]);
      return make_body(PTZ_COMMAND_QUERY_LIMIT_RANGES, limits);
    }
    case PTZ_COMMAND_GET_CAPABILITIES: {
      guint32 move = reader.u32();
      guint32 extra = reader.u32();
      if (fault("caps.known-bits")) move |= 1U << 27;
      if (fault("caps.usable")) {
        move = 0;
        extra = PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE;
      }
      if (fault("caps.stable") && asker.number % 2 == 0) extra |= PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW;
      Body changed = make_body(PTZ_COMMAND_GET_CAPABILITIES);
      ptz_serialize_32bit(changed.get(), move);
      ptz_serialize_32bit(changed.get(), extra);
      return changed;
    }
    case PTZ_COMMAND_GET_DRIVER_PARAMETERS: {
      auto list = ParameterList::read(reader);
      if (fault("replies.parameters-are-known")) list.elements.front().group = 77;
      return make_body(PTZ_COMMAND_GET_DRIVER_PARAMETERS, list);
    }
    case PTZ_COMMAND_GET_DEVICE_TYPES:
      if (fault("caps.answers-what-it-announces.devicetype")) return unsupported();
      if (fault("replies.command-word")) return make_body(PTZ_COMMAND_GET_DRIVER_NAME, DeviceTypes::read(reader));
      return reply;
    default:
      return reply;
  }
}

std::optional<Body> Answers::answer(const Asker &asker, const Body &request) {
  const gint32 command = command_of(request);
  const bool bare = request->len == sizeof(command);
  const auto agreed = [command] { return make_body(static_cast<PTZCommand>(command)); };
  if (request->len < sizeof(command)) {
    return fault("commands.no-command-word") ? std::nullopt : std::optional(right(request));
  }
  if (fault("commands.unknown-is-refused") && command == 31) return agreed();
  if (fault("commands.every-command-is-answered") && command == PTZ_COMMAND_GET_PRESET_POSITION) return std::nullopt;
  if (fault("commands.unknown-and-unsupported-differ") && command == 1000) return unsupported();
  if (fault("replies.error-has-code-and-text") && command == 1000) {
    Body reply = make_body(PTZ_COMMAND_ERROR_REPLY);
    ptz_serialize_32bit(reply.get(), static_cast<guint32>(ErrorCode::unknown_command));
    return reply;
  }
  if (fault("commands.random-bodies") && command == PTZ_COMMAND_QUERY_SPEED && request->len > 64) abort();
  if (fault("commands.trailing-bytes") && command == PTZ_COMMAND_GET_CAPABILITIES)
    return query(asker, command, agreed());

  if (command != PTZ_COMMAND_QUERY_POSITION) to_preset_ = command == PTZ_COMMAND_GOTO_DEVICE_PRESET;
  std::optional<Body> reply;
  switch (command) {
    case PTZ_COMMAND_MOVE:
      reply = move(request);
      break;
    case PTZ_COMMAND_MOVE_COMMAND:
      reply = move_command(request);
      break;
    case PTZ_COMMAND_STOP:
      if (!bare) break;
      share_ = 0;
      if (fault("move.stop-stops")) return agreed();
      if (fault("move.stop-at-rest") && !moving()) {
        return make_body(PTZ_COMMAND_ERROR_REPLY, ErrorReply{ErrorCode::out_of_range, "at rest"});
      }
      break;
    case PTZ_COMMAND_AUXILIARY:
      if (fault("caps.answers-what-it-announces.aux")) return unsupported();
      break;
    case PTZ_COMMAND_SET_DEVICE_PRESET:
    case PTZ_COMMAND_GOTO_DEVICE_PRESET:
    case PTZ_COMMAND_GET_DEVICE_PRESETS:
      reply = preset(command, request);
      break;
    default:
      return query(asker, command, request);
  }
  return reply ? std::move(*reply) : right(request);
}

}  // namespace broken
