// What the class answers for every driver: capabilities, limits, speeds, position, name, types, properties, parameters.
#include <string>

#include "driver/driver_core.h"
#include "driver/format.h"

namespace ptz_kit {

namespace {

guint32 move_capabilities(const DriverCore &core) {
  constexpr guint32 each_kind[] = {
      PTZ_DRIVER_MOVE_CAPABILITIES_PAN | PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN | PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN,
      PTZ_DRIVER_MOVE_CAPABILITIES_TILT | PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT | PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT,
      PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM |
          PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG};
  guint32 bits = 0;
  if (core.slots().query_zoomdelim != nullptr) bits |= PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM;
  if (!core.can_move()) return bits;
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) bits |= core.axes[axis].is_set() ? each_kind[axis] : 0;
  return bits | PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL;
}

guint32 extra_capabilities(const DriverCore &core) {
  guint32 bits = PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET;
  const auto if_served = [&](std::initializer_list<PTZCommand> commands, guint32 bit) {
    if (std::ranges::all_of(commands, [&](PTZCommand command) { return serves(core, command); })) bits |= bit;
  };
  if_served({PTZ_COMMAND_AUXILIARY}, PTZ_DRIVER_EXTRA_CAPABILITIES_AUX);
  if_served({PTZ_COMMAND_OSD_MENU}, PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU);
  if_served({PTZ_COMMAND_AREA_ZOOM}, PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM);
  if_served({PTZ_COMMAND_SET_DEVICE_PRESET, PTZ_COMMAND_GET_DEVICE_PRESETS, PTZ_COMMAND_GOTO_DEVICE_PRESET},
            PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET);
  if_served({PTZ_COMMAND_SET_PRESET, PTZ_COMMAND_GOTO_PRESET}, PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET);
  if (core.instance > 0) {
    bits |= PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION | PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER;
  }
  if (!core.device_types.empty()) bits |= PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE;
  return bits;
}

void add_parameter(PTZKitGetDriverParametersReply *message, PTZParameterGroup group, const std::string &name,
                   const std::string &label, gint64 value) {
  const std::string text = format("%" G_GINT64_FORMAT, value);
  const Handle<PTZKitParameter, ptz_kit_parameter_free> parameter(
      ptz_kit_parameter_new(group, name.c_str(), label.c_str(), text.c_str(), PTZ_PARAMETER_CONSTANTINTEGER, 0, ""));
  ptz_kit_get_driver_parameters_reply_add_parameter(message, parameter.get());
}

}  // namespace

Capabilities capabilities_of(const DriverCore &core) {
  return {(move_capabilities(core) | core.added.move) & ~core.removed.move,
          (extra_capabilities(core) | core.added.extra) & ~core.removed.extra};
}

void answer_query_speed(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  core.update();
  PTZKitQuerySpeedReply message = {};
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) {
    message.current[axis] = core.axes[axis].speed();
    message.maximum[axis] = core.axes[axis].max_speed();
  }
  ptz_kit_reply_query_speed(reply, &message);
}

void answer_query_position(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  core.update();
  PTZKitQueryPositionReply message = {};
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) {
    message.position[axis] = core.axes[axis].position();
    message.status[axis] = core.axes[axis].status();
  }
  ptz_kit_reply_query_position(reply, &message);
}

void answer_query_limit_ranges(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  PTZKitQueryLimitRangesReply message = {};
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) {
    message.minimum[axis] = core.axes[axis].minimum();
    message.maximum[axis] = core.axes[axis].maximum();
  }
  ptz_kit_reply_query_limit_ranges(reply, &message);
}

void answer_get_driver_name(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  const PTZKitGetDriverNameReply message = {core.name.data()};
  ptz_kit_reply_get_driver_name(reply, &message);
}

void answer_get_device_types(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  const Handle<PTZKitGetDeviceTypesReply, ptz_kit_get_device_types_reply_free> message(
      ptz_kit_get_device_types_reply_new());
  for (const std::string &type : core.device_types) {
    ptz_kit_get_device_types_reply_add_type(message.get(), type.c_str());
  }
  ptz_kit_reply_get_device_types(reply, message.get());
}

void answer_get_capabilities(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  const auto [move, extra] = capabilities_of(core);
  const PTZKitGetCapabilitiesReply message = {move, extra};
  ptz_kit_reply_get_capabilities(reply, &message);
}

void answer_set_capabilities(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *kept = static_cast<const PTZKitSetCapabilitiesRequest *>(request);
  core.removed.move |= ~kept->move;
  core.removed.extra |= ~kept->extra;
  const auto [move, extra] = capabilities_of(core);
  const PTZKitSetCapabilitiesReply message = {move, extra};
  ptz_kit_reply_set_capabilities(reply, &message);
}

void answer_get_driver_property(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitGetDriverPropertyRequest *>(request);
  if (g_str_equal(wanted->name, "protocol-version")) {
    const PTZKitGetDriverPropertyReply message = {const_cast<gchar *>(protocol_version)};
    ptz_kit_reply_get_driver_property(reply, &message);
  } else if (core.slots().get_driver_property != nullptr) {
    core.slots().get_driver_property(core.object, wanted, reply);
  } else {
    // The name is not repeated: a long one would not fit the reply together with this text.
    ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no property of this name");
  }
}

void answer_get_driver_parameters(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  const Handle<PTZKitGetDriverParametersReply, ptz_kit_get_driver_parameters_reply_free> message(
      ptz_kit_get_driver_parameters_reply_new());
  if (core.keeps_presets()) {
    add_parameter(message.get(), PTZ_PARAMETER_GROUP_GENERAL, "presets", "Number of device presets",
                  PTZ_KIT_MAX_PRESETS);
  }
  for (std::size_t index = 0; index < core.axes.size(); ++index) {
    const Axis &axis = core.axes[index];
    if (!axis.is_set()) continue;
    const struct {
      const char *name, *label;
      gint32 value;
    } parameters[] = {{"min_%s", "Limit min %s", axis.minimum()},
                      {"max_%s", "Limit max %s", axis.maximum()},
                      {"max_speed_%s", "Maximum speed of %s", axis.max_speed()}};
    for (const auto &each : parameters) {
      const char *const label = axis_labels[index];
      add_parameter(message.get(), PTZ_PARAMETER_GROUP_LIMIT, format(each.name, label), format(each.label, label),
                    each.value);
    }
  }
  ptz_kit_reply_get_driver_parameters(reply, message.get());
}

}  // namespace ptz_kit
