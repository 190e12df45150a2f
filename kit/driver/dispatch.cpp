// Which virtual function or answer of the class serves a command, and the checks before it is called.
#include "driver/driver_core.h"
#include "protocol/message_codec.h"

namespace ptz_kit {

namespace {

bool can_move(const DriverCore &core) { return core.can_move(); }
bool keeps_presets(const DriverCore &core) { return core.keeps_presets(); }
bool always(const DriverCore &) { return true; }

struct Route {
  PTZCommand command;
  gint32 slot;                               // offset in the class; 0 if only the class answers
  Answer answer;                             // of the class, if the slot is empty; may be null
  bool (*is_available)(const DriverCore &);  // whether the class can answer
  Capabilities needed = {};                  // without which the command is not served
};

#define SLOT(name) static_cast<gint32>(G_STRUCT_OFFSET(PTZKitDriverClass, name))
constexpr Capabilities driver_preset = {0, PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET};
constexpr Capabilities device_preset = {0, PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET};
constexpr Capabilities auxiliary = {0, PTZ_DRIVER_EXTRA_CAPABILITIES_AUX};
constexpr Capabilities osd_menu = {0, PTZ_DRIVER_EXTRA_CAPABILITIES_OSDMENU};
constexpr Capabilities area_zoom = {0, PTZ_DRIVER_EXTRA_CAPABILITIES_AREAZOOM};
constexpr Capabilities digital_zoom = {PTZ_DRIVER_MOVE_CAPABILITIES_DIGITALZOOM, 0};

constexpr Route routes[] = {
    {PTZ_COMMAND_SET_PRESET, SLOT(set_preset), answer_set_preset, keeps_presets, driver_preset},
    {PTZ_COMMAND_SET_DEVICE_PRESET, SLOT(set_device_preset), answer_set_device_preset, keeps_presets, device_preset},
    {PTZ_COMMAND_GET_DEVICE_PRESETS, SLOT(get_device_presets), answer_get_device_presets, keeps_presets, device_preset},
    {PTZ_COMMAND_GOTO_PRESET, SLOT(goto_preset), answer_goto_preset, keeps_presets, driver_preset},
    {PTZ_COMMAND_GOTO_DEVICE_PRESET, SLOT(goto_device_preset), answer_goto_device_preset, keeps_presets, device_preset},
    {PTZ_COMMAND_MOVE, 0, answer_move, can_move},
    {PTZ_COMMAND_STOP, SLOT(stop), answer_stop, can_move},
    {PTZ_COMMAND_FIELD_ANGLES, SLOT(field_angles), nullptr, always},
    {PTZ_COMMAND_UNREGISTER, SLOT(unregister), answer_unregister, always},
    {PTZ_COMMAND_AUXILIARY, SLOT(auxiliary), nullptr, always, auxiliary},
    {PTZ_COMMAND_GET_AUXILIARY, SLOT(get_auxiliary), nullptr, always, auxiliary},
    {PTZ_COMMAND_OSD_MENU, SLOT(osd_menu), nullptr, always, osd_menu},
    {PTZ_COMMAND_QUERY_SPEED, SLOT(query_speed), answer_query_speed, always},
    {PTZ_COMMAND_QUERY_POSITION, SLOT(query_position), answer_query_position, always},
    {PTZ_COMMAND_QUERY_ZOOMDELIM, SLOT(query_zoomdelim), nullptr, always, digital_zoom},
    {PTZ_COMMAND_CHANGE_PORT, SLOT(change_port), nullptr, always},
    {PTZ_COMMAND_MOVE_COMMAND, SLOT(move_command), answer_move_command, can_move},
    {PTZ_COMMAND_AREA_ZOOM, SLOT(area_zoom), nullptr, always, area_zoom},
    {PTZ_COMMAND_IMAGE, SLOT(image), nullptr, always},
    {PTZ_COMMAND_DEFAULT_HOME_PRESET, SLOT(default_home_preset), answer_default_home_preset, keeps_presets},
    {PTZ_COMMAND_QUERY_LIMIT_RANGES, 0, answer_query_limit_ranges, always},
    {PTZ_COMMAND_GET_DRIVER_NAME, 0, answer_get_driver_name, always},
    {PTZ_COMMAND_GET_DEVICE_TYPES, 0, answer_get_device_types, always},
    {PTZ_COMMAND_GET_CAPABILITIES, 0, answer_get_capabilities, always},
    {PTZ_COMMAND_SET_CAPABILITIES, 0, answer_set_capabilities, always},
    {PTZ_COMMAND_GET_DRIVER_PROPERTY, 0, answer_get_driver_property, always},
    {PTZ_COMMAND_GET_PRESET_POSITION, SLOT(get_preset_position), answer_get_preset_position, keeps_presets},
    {PTZ_COMMAND_QUERY_ATTRIBUTES, SLOT(query_attributes), nullptr, always},
    {PTZ_COMMAND_GET_DRIVER_PARAMETERS, SLOT(get_driver_parameters), answer_get_driver_parameters, always},
};
#undef SLOT

const Route *route_of(gint32 command) {
  const auto *const found = std::ranges::find(routes, command, &Route::command);
  return found != std::end(routes) ? found : nullptr;
}

gpointer slot_of(const DriverCore &core, const Route &route) {
  return route.slot != 0 ? G_STRUCT_MEMBER(gpointer, &core.slots(), route.slot) : nullptr;
}

bool is_served(const DriverCore &core, const Route &route) {
  if ((core.removed.move & route.needed.move) != 0 || (core.removed.extra & route.needed.extra) != 0) return false;
  return slot_of(core, route) != nullptr || (route.answer != nullptr && route.is_available(core));
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
  if (slot == nullptr) return route.answer(core, message, reply);
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
