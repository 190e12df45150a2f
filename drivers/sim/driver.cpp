#include "driver.h"

#include <algorithm>
#include <cstdarg>

namespace example {

const PTZDriverCapabilities driver_capabilities = {
    PTZ_DRIVER_MOVE_CAPABILITIES_PAN | PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN | PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN |
        PTZ_DRIVER_MOVE_CAPABILITIES_TILT | PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT |
        PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT | PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM |
        PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM |
        PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL | PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG,
    PTZ_DRIVER_EXTRA_CAPABILITIES_AUX | PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET |
        PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET | PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE,
};

namespace {

struct Direction {
  gint32 right;
  gint32 up;
};
// By the values of PTZMoveCmd.
constexpr std::array<Direction, 8> directions = {
    {{0, 1}, {0, -1}, {-1, 0}, {1, 0}, {-1, 1}, {1, 1}, {-1, -1}, {1, -1}}};
static_assert(PTZ_MOVE_CMD_UP == 0 && PTZ_MOVE_CMD_DOWN_RIGHT == directions.size() - 1);

Body refuse(ErrorCode code, const char *format, ...) G_GNUC_PRINTF(2, 3);
Body refuse(ErrorCode code, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  return make_body(PTZ_COMMAND_ERROR_REPLY, ErrorReply{code, text.get()});
}

Body malformed(const BodyReader &request) {
  return refuse(ErrorCode::malformed,
                request.failed() ? "the body is too short or holds an invalid text" : "the body is too long");
}

bool valid_speed(guint16 speed) { return speed >= 1 && speed <= full_speed; }
Body bad_speed(guint16 speed) {
  return refuse(ErrorCode::out_of_range, "speed %u is not within 1 to %u per cent", speed, full_speed);
}

double share(double of, guint16 speed) { return of * speed / full_speed; }

}  // namespace

struct Driver::Route {
  PTZCommand command;
  Body (Driver::*serve)(BodyReader &request);
};

Body Driver::answer(GArray *body, gint64 now_us) {
  static constexpr Route routes[] = {
      {PTZ_COMMAND_SET_DEVICE_PRESET, &Driver::set_device_preset},
      {PTZ_COMMAND_GET_DEVICE_PRESETS, &Driver::get_device_presets},
      {PTZ_COMMAND_GOTO_DEVICE_PRESET, &Driver::goto_device_preset},
      {PTZ_COMMAND_MOVE, &Driver::move},
      {PTZ_COMMAND_STOP, &Driver::stop},
      {PTZ_COMMAND_AUXILIARY, &Driver::auxiliary},
      {PTZ_COMMAND_QUERY_SPEED, &Driver::query_speed},
      {PTZ_COMMAND_QUERY_POSITION, &Driver::query_position},
      {PTZ_COMMAND_MOVE_COMMAND, &Driver::move_command},
      {PTZ_COMMAND_QUERY_LIMIT_RANGES, &Driver::query_limit_ranges},
      {PTZ_COMMAND_GET_DRIVER_NAME, &Driver::get_driver_name},
      {PTZ_COMMAND_GET_DEVICE_TYPES, &Driver::get_device_types},
      {PTZ_COMMAND_GET_CAPABILITIES, &Driver::get_capabilities},
      {PTZ_COMMAND_GET_DRIVER_PARAMETERS, &Driver::get_driver_parameters},
  };
  BodyReader request(body);
  const gint32 command = request.i32();
  if (request.failed()) return malformed(request);

  const auto *const route = std::ranges::find(routes, command, &Route::command);
  if (route != std::end(routes)) {
    head_.advance(now_us);
    return (this->*route->serve)(request);
  }
  const GEnumValue *const known =
      g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_COMMAND)), command);
  if (known == nullptr) return refuse(ErrorCode::unknown_command, "there is no command %d", command);
  return refuse(ErrorCode::unsupported, "this driver does not serve \"%s\"", known->value_name);
}

Body Driver::set_device_preset(BodyReader &request) {
  const Preset preset = Preset::read(request);
  if (!request.finished()) return malformed(request);
  if (!valid_preset_number(preset.number)) {
    return refuse(ErrorCode::out_of_range, "preset %u is not within 1 to %u", preset.number, most_presets);
  }
  if (!valid_preset_name(preset.name)) {
    return refuse(ErrorCode::out_of_range, "the name of a preset has 1 to %zu bytes", longest_preset_name);
  }
  if (!presets_.set(preset.number, {preset.name, head_.each(&Axis::position)})) {
    // The reason names a file, whose name might not fit the reply.
    return refuse(ErrorCode::not_kept, "preset %u cannot be kept; the driver's log tells why", preset.number);
  }
  return make_body(PTZ_COMMAND_SET_DEVICE_PRESET, PresetNumber{preset.number});
}

Body Driver::get_device_presets(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  PresetList list;
  for (const auto &[number, preset] : presets_.all()) list.elements.push_back({number, preset.name});
  return make_body(PTZ_COMMAND_GET_DEVICE_PRESETS, list);
}

Body Driver::goto_device_preset(BodyReader &request) {
  const GotoPresetRequest wanted = GotoPresetRequest::read(request);
  if (!request.finished()) return malformed(request);
  if (!valid_speed(wanted.speed)) return bad_speed(wanted.speed);
  const auto preset = presets_.all().find(wanted.number);
  if (preset == presets_.all().end()) return refuse(ErrorCode::not_found, "there is no preset %u", wanted.number);
  move_to(preset->second.position, wanted.speed);
  going_to_preset_ = true;
  return make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET);
}

Body Driver::move(BodyReader &request) {
  const MoveRequest wanted = MoveRequest::read(request);
  if (!request.finished()) return malformed(request);
  if (wanted.kind < PTZ_MOVE_ABSOLUTE || wanted.kind > PTZ_MOVE_CONTINUOUS) {
    return refuse(ErrorCode::out_of_range, "there is no kind of move %u", wanted.kind);
  }
  if (wanted.axes == 0 || (wanted.axes & ~all_axes) != 0) {
    return refuse(ErrorCode::out_of_range, "axes %u is no combination of 1, 2 and 4", wanted.axes);
  }
  if (!valid_speed(wanted.speed)) return bad_speed(wanted.speed);

  // Every axis is looked at before the first one moves: a request is obeyed as a whole or not at all.
  for (std::size_t index = 0; index < axis_count; ++index) {
    if ((wanted.axes & axis_bit(AxisIndex(index))) == 0) continue;
    const AxisRange &range = head_.axis(index).range();
    const gint32 value = wanted.values[index];
    if (wanted.kind == PTZ_MOVE_ABSOLUTE && (value < range.minimum || value > range.maximum)) {
      return refuse(ErrorCode::out_of_range, "%s %d is not within %d to %d", axis_names[index], value, range.minimum,
                    range.maximum);
    }
    if (wanted.kind == PTZ_MOVE_CONTINUOUS && (value < -range.max_speed || value > range.max_speed)) {
      return refuse(ErrorCode::out_of_range, "%s speed %d is not within %d to %d", axis_names[index], value,
                    -range.max_speed, range.max_speed);
    }
  }
  for (std::size_t index = 0; index < axis_count; ++index) {
    if ((wanted.axes & axis_bit(AxisIndex(index))) == 0) continue;
    Axis &axis = head_.axis(index);
    const double value = wanted.values[index];
    const double speed = share(axis.range().max_speed, wanted.speed);
    switch (wanted.kind) {
      case PTZ_MOVE_ABSOLUTE:
        axis.move_to(value, speed);
        break;
      case PTZ_MOVE_RELATIVE:
        axis.move_to(axis.position() + value, speed);
        break;
      case PTZ_MOVE_CONTINUOUS:
        axis.run(share(value, wanted.speed));
        break;
    }
  }
  going_to_preset_ = false;
  return make_body(PTZ_COMMAND_MOVE);
}

Body Driver::move_command(BodyReader &request) {
  const MoveCommandRequest wanted = MoveCommandRequest::read(request);
  if (!request.finished()) return malformed(request);
  if (!valid_speed(wanted.speed)) return bad_speed(wanted.speed);

  if (wanted.direction == PTZ_MOVE_CMD_HOME) {
    move_to(head_home, wanted.speed);
  } else if (wanted.direction == PTZ_MOVE_CMD_STOP) {
    head_.stop();
  } else if (wanted.direction < directions.size()) {
    const Direction direction = directions[wanted.direction];
    for (const auto &[index, sign] : {std::pair{pan, direction.right}, std::pair{tilt, direction.up}}) {
      Axis &axis = head_.axis(index);
      axis.run(sign * share(axis.range().max_speed, wanted.speed));
    }
  } else {
    return refuse(ErrorCode::out_of_range, "there is no direction %u", wanted.direction);
  }
  going_to_preset_ = false;
  return make_body(PTZ_COMMAND_MOVE_COMMAND);
}

Body Driver::stop(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  head_.stop();
  going_to_preset_ = false;
  return make_body(PTZ_COMMAND_STOP);
}

Body Driver::auxiliary(BodyReader &request) {
  const Auxiliary wanted = Auxiliary::read(request);
  if (!request.finished()) return malformed(request);
  if (wanted.state > PTZ_ENABLE_OFF) {
    return refuse(ErrorCode::out_of_range, "state %u is not within 0 to %d", wanted.state, PTZ_ENABLE_OFF);
  }
  if (!settings_.is_on(wanted.name)) {
    // Not repeated: a long name would not fit the reply together with this text.
    return refuse(ErrorCode::not_found, "there is no auxiliary of this name");
  }
  if (wanted.state != PTZ_ENABLE_NONE) settings_.switch_to(wanted.name, wanted.state == PTZ_ENABLE_ON);
  const bool on = *settings_.is_on(wanted.name);
  return make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{wanted.name, guint32{on ? PTZ_ENABLE_ON : PTZ_ENABLE_OFF}});
}

Body Driver::query_speed(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_QUERY_SPEED,
                   Speeds{head_.each([](const Axis &axis) { return axis.velocity(); }),
                          head_.each([](const Axis &axis) { return axis.range().max_speed; })});
}

Body Driver::query_position(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  const auto status = [](const Axis &axis) -> gint32 {
    return axis.moving() ? PTZ_MOVE_STATUS_MOVING : PTZ_MOVE_STATUS_IDLE;
  };
  return make_body(PTZ_COMMAND_QUERY_POSITION, Positions{head_.each(&Axis::position), head_.each(status)});
}

Body Driver::query_limit_ranges(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_QUERY_LIMIT_RANGES,
                   Limits{head_.each([](const Axis &axis) { return axis.range().minimum; }),
                          head_.each([](const Axis &axis) { return axis.range().maximum; })});
}

Body Driver::get_driver_name(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_GET_DRIVER_NAME, Name{"sim-driver"});
}

Body Driver::get_device_types(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_GET_DEVICE_TYPES, DeviceTypes{{{"Simulated head"}}});
}

Body Driver::get_capabilities(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_GET_CAPABILITIES, Capabilities{driver_capabilities});
}

Body Driver::get_driver_parameters(BodyReader &request) {
  if (!request.finished()) return malformed(request);
  return make_body(PTZ_COMMAND_GET_DRIVER_PARAMETERS, parameters_);
}

void Driver::move_to(const PerAxis &position, guint16 speed) {
  for (std::size_t index = 0; index < axis_count; ++index) {
    Axis &axis = head_.axis(index);
    axis.move_to(position[index], share(axis.range().max_speed, speed));
  }
}

}  // namespace example
