// Which virtual function or answer of the class serves a command, and the checks before it is called.
#include "driver/driver_core.h"
#include "protocol/message_codec.h"

namespace ptz_kit {

namespace {

// When the class can answer.
enum class Available : guint8 { never, always, if_it_moves, if_it_keeps_presets };

// Without pointers, so that the table needs no relocation.
struct Route {
  PTZCommand command;
  guint16 slot;         // offset in the class; 0 if only the class answers
  Available available;  // if the slot is empty
};

#define SLOT(name) static_cast<guint16>(G_STRUCT_OFFSET(PTZKitDriverClass, name))
constexpr Route routes[] = {
    {PTZ_COMMAND_SET_PRESET, SLOT(set_preset), Available::if_it_keeps_presets},
    {PTZ_COMMAND_SET_DEVICE_PRESET, SLOT(set_device_preset), Available::if_it_keeps_presets},
    {PTZ_COMMAND_GET_DEVICE_PRESETS, SLOT(get_device_presets), Available::if_it_keeps_presets},
    {PTZ_COMMAND_GOTO_PRESET, SLOT(goto_preset), Available::if_it_keeps_presets},
    {PTZ_COMMAND_GOTO_DEVICE_PRESET, SLOT(goto_device_preset), Available::if_it_keeps_presets},
    {PTZ_COMMAND_MOVE, 0, Available::if_it_moves},
    {PTZ_COMMAND_STOP, SLOT(stop), Available::if_it_moves},
    {PTZ_COMMAND_FIELD_ANGLES, SLOT(field_angles), Available::never},
    {PTZ_COMMAND_UNREGISTER, SLOT(unregister), Available::always},
    {PTZ_COMMAND_AUXILIARY, SLOT(auxiliary), Available::never},
    {PTZ_COMMAND_GET_AUXILIARY, SLOT(get_auxiliary), Available::never},
    {PTZ_COMMAND_OSD_MENU, SLOT(osd_menu), Available::never},
    {PTZ_COMMAND_QUERY_SPEED, SLOT(query_speed), Available::always},
    {PTZ_COMMAND_QUERY_POSITION, SLOT(query_position), Available::always},
    {PTZ_COMMAND_QUERY_ZOOMDELIM, SLOT(query_zoomdelim), Available::never},
    {PTZ_COMMAND_CHANGE_PORT, SLOT(change_port), Available::never},
    {PTZ_COMMAND_MOVE_COMMAND, SLOT(move_command), Available::if_it_moves},
    {PTZ_COMMAND_AREA_ZOOM, SLOT(area_zoom), Available::never},
    {PTZ_COMMAND_IMAGE, SLOT(image), Available::never},
    {PTZ_COMMAND_DEFAULT_HOME_PRESET, SLOT(default_home_preset), Available::if_it_keeps_presets},
    {PTZ_COMMAND_QUERY_LIMIT_RANGES, 0, Available::always},
    {PTZ_COMMAND_GET_DRIVER_NAME, 0, Available::always},
    {PTZ_COMMAND_GET_DEVICE_TYPES, 0, Available::always},
    {PTZ_COMMAND_GET_CAPABILITIES, 0, Available::always},
    {PTZ_COMMAND_SET_CAPABILITIES, 0, Available::always},
    {PTZ_COMMAND_GET_DRIVER_PROPERTY, 0, Available::always},
    {PTZ_COMMAND_GET_PRESET_POSITION, SLOT(get_preset_position), Available::if_it_keeps_presets},
    {PTZ_COMMAND_QUERY_ATTRIBUTES, SLOT(query_attributes), Available::never},
    {PTZ_COMMAND_GET_DRIVER_PARAMETERS, SLOT(get_driver_parameters), Available::always},
};
#undef SLOT

// The answer of the class; null if it has none.
Answer answer_of(PTZCommand command) {
  switch (command) {
    case PTZ_COMMAND_SET_PRESET:
      return answer_set_preset;
    case PTZ_COMMAND_SET_DEVICE_PRESET:
      return answer_set_device_preset;
    case PTZ_COMMAND_GET_DEVICE_PRESETS:
      return answer_get_device_presets;
    case PTZ_COMMAND_GOTO_PRESET:
      return answer_goto_preset;
    case PTZ_COMMAND_GOTO_DEVICE_PRESET:
      return answer_goto_device_preset;
    case PTZ_COMMAND_MOVE:
      return answer_move;
    case PTZ_COMMAND_STOP:
      return answer_stop;
    case PTZ_COMMAND_UNREGISTER:
      return answer_unregister;
    case PTZ_COMMAND_QUERY_SPEED:
      return answer_query_speed;
    case PTZ_COMMAND_QUERY_POSITION:
      return answer_query_position;
    case PTZ_COMMAND_MOVE_COMMAND:
      return answer_move_command;
    case PTZ_COMMAND_DEFAULT_HOME_PRESET:
      return answer_default_home_preset;
    case PTZ_COMMAND_QUERY_LIMIT_RANGES:
      return answer_query_limit_ranges;
    case PTZ_COMMAND_GET_DRIVER_NAME:
      return answer_get_driver_name;
    case PTZ_COMMAND_GET_DEVICE_TYPES:
      return answer_get_device_types;
    case PTZ_COMMAND_GET_CAPABILITIES:
      return answer_get_capabilities;
    case PTZ_COMMAND_SET_CAPABILITIES:
      return answer_set_capabilities;
    case PTZ_COMMAND_GET_DRIVER_PROPERTY:
      return answer_get_driver_property;
    case PTZ_COMMAND_GET_PRESET_POSITION:
      return answer_get_preset_position;
    case PTZ_COMMAND_GET_DRIVER_PARAMETERS:
      return answer_get_driver_parameters;
    default:
      return nullptr;
  }
}

const Route *route_of(gint32 command) {
  const auto *const found = std::ranges::find(routes, command, &Route::command);
  return found != std::end(routes) ? found : nullptr;
}

gpointer slot_of(const DriverCore &core, const Route &route) {
  return route.slot != 0 ? G_STRUCT_MEMBER(gpointer, &core.slots(), route.slot) : nullptr;
}

bool is_available(const DriverCore &core, Available available) {
  switch (available) {
    case Available::never:
      return false;
    case Available::always:
      return true;
    case Available::if_it_moves:
      return core.can_move();
    case Available::if_it_keeps_presets:
      return core.keeps_presets();
  }
  return false;
}

bool is_served(const DriverCore &core, const Route &route) {
  const Command &needed = *find_command(route.command);
  if ((core.removed.move & needed.move) != 0 || (core.removed.extra & needed.extra) != 0) return false;
  return slot_of(core, route) != nullptr || is_available(core, route.available);
}

void refuse_unserved(gint32 command, PTZKitReply *reply) {
  auto *commands = static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_COMMAND));
  const GEnumValue *const known = g_enum_get_value(commands, command);
  if (known == nullptr) {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND, "there is no command %d", command);
  } else {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_UNSUPPORTED, "this driver does not serve \"%s\"", known->value_name);
  }
  g_type_class_unref(commands);
}

class Message {
  const Layout *layout_;
  gpointer message_ = nullptr;

 public:
  explicit Message(const Command &command)
      : layout_(command.request != 0 ? &tables.layouts[command.request - 1] : nullptr) {}
  Message(const Message &) = delete;
  ~Message() {
    if (layout_ != nullptr) free_message(*layout_, message_);
  }
  [[nodiscard]] gpointer get() const { return message_; }

  [[nodiscard]] bool read(std::span<const guint8> body, Error &error) {
    if (layout_ != nullptr) {
      message_ = read_message(*layout_, body, out(error));
    } else if (body.size() > sizeof(gint32)) {
      error.reset(g_error_new(PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%zu bytes left over at byte %zu",
                              body.size() - sizeof(gint32), sizeof(gint32)));
    }
    return error == nullptr;
  }
  [[nodiscard]] bool validate(Error &error) const {
    return layout_ == nullptr || validate_message(*layout_, message_, out(error)) != FALSE;
  }
};

}  // namespace

bool serves(const DriverCore &core, PTZCommand command) {
  const Route *const route = route_of(command);
  return route != nullptr && is_served(core, *route);
}

void call(DriverCore &core, PTZCommand command, gconstpointer message, PTZKitReply *reply) {
  const Route &route = *route_of(command);
  const gpointer slot = slot_of(core, route);
  if (slot == nullptr) return answer_of(command)(core, message, reply);
  if (message != nullptr) {
    using WithRequest = void (*)(PTZKitDriver *, gconstpointer, PTZKitReply *);
    reinterpret_cast<WithRequest>(slot)(core.object, message, reply);
  } else {
    using WithoutRequest = void (*)(PTZKitDriver *, PTZKitReply *);
    reinterpret_cast<WithoutRequest>(slot)(core.object, reply);
  }
}

void dispatch(DriverCore &core, std::span<const guint8> body, PTZKitReply *reply) {
  if (body.size() < sizeof(gint32)) {
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_MALFORMED, "the body is too short for a command");
  }
  const gint32 command = ptz_kit_reply_get_command(reply);
  const Route *const route = route_of(command);
  if (route == nullptr || !is_served(core, *route)) return refuse_unserved(command, reply);
  Message message(*find_command(command));
  Error error;
  if (!message.read(body, error)) {
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_MALFORMED, error->message);
  }
  if (!message.validate(error)) {
    return ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, error->message);
  }
  call(core, route->command, message.get(), reply);
}

}  // namespace ptz_kit
