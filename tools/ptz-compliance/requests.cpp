#include "requests.h"

#include <ptz_kit_body.h>
#include <ptz_serialize.h>

#include <cstring>

namespace compliance {

namespace {

constexpr gint32 unknown_command = 1000;

const guint8 *bytes_of(const Body &body) { return reinterpret_cast<const guint8 *>(body->data); }

template <auto write, typename Request>
Body written(const Request &request) {
  Body body(ptz_serialize_create_array());
  tools::Error error;
  // Every text of a check is UTF-8 and short.
  if (write(&request, body.get(), tools::out(error)) == FALSE) g_error("%s", error->message);
  return body;
}

}  // namespace

Body make_body(PTZCommand command) {
  Body body(ptz_serialize_create_array());
  ptz_serialize_32bit(body.get(), static_cast<guint32>(command));
  return body;
}
Body make_body(const PTZKitMoveRequest &request) { return written<ptz_kit_move_request_write>(request); }
Body make_body(const PTZKitMoveCommandRequest &request) { return written<ptz_kit_move_command_request_write>(request); }
Body make_body(const PTZKitGotoDevicePresetRequest &request) {
  return written<ptz_kit_goto_device_preset_request_write>(request);
}
Body make_preset_body(guint32 number, const char *name) {
  return written<ptz_kit_set_device_preset_request_write>(
      PTZKitSetDevicePresetRequest{number, const_cast<gchar *>(name)});
}
Body make_auxiliary_body(const char *name, PTZEnable state) {
  return written<ptz_kit_auxiliary_request_write>(PTZKitAuxiliaryRequest{const_cast<gchar *>(name), state});
}

std::string command_name(gint32 command) {
  const GEnumValue *const value =
      g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_COMMAND)), command);
  return value != nullptr ? value->value_name : std::to_string(command);
}

gint32 command_of(const Body &body) {
  gint32 command = PTZ_COMMAND_ERROR_REPLY;
  ptz_kit_body_get_command(bytes_of(body), body->len, &command);
  return command;
}

std::optional<Refusal> error_of(const Body &reply) {
  gint32 command = 0;
  if (!ptz_kit_body_get_command(bytes_of(reply), reply->len, &command) || command != PTZ_COMMAND_ERROR_REPLY) {
    return std::nullopt;
  }
  tools::Error error;
  const tools::Handle<PTZKitErrorReply, ptz_kit_error_reply_free> refusal(
      ptz_kit_error_reply_read(bytes_of(reply), reply->len, tools::out(error)));
  if (refusal != nullptr) return Refusal{refusal->code, refusal->text};
  // That it is malformed is the subject of one check; the others use the code if there is one.
  guint32 code = 0;
  if (reply->len >= sizeof command + sizeof code) std::memcpy(&code, reply->data + sizeof command, sizeof code);
  return Refusal{GUINT32_FROM_LE(code), error->message};
}

std::string describe(const Refusal &error) { return "error " + std::to_string(error.code) + " (" + error.text + ")"; }

void not_served(Probe &probe, gint32 command, const Refusal &error) {
  probe.not_applicable("error " + std::to_string(error.code) + ": " + error.text, "the driver does not serve \"%s\"",
                       command_name(command).c_str());
}

void expect_served(Link &link, const Body &request, const Body &reply) {
  Probe &probe = link.probe();
  if (probe.decided()) return;
  const std::string name = command_name(command_of(request));
  if (const auto error = error_of(reply)) {
    if (error->is_unserved()) return not_served(probe, command_of(request), *error);
    probe.fail("\"%s\" is refused with %s", name.c_str(), describe(*error).c_str());
  }
  probe.fail_unless(command_of(reply) == command_of(request), "the reply to \"%s\" begins with the command word %d",
                    name.c_str(), command_of(reply));
}

Body obtain(Link &link, const Body &request) {
  Body reply = link.ask(request);
  expect_served(link, request, reply);
  return reply;
}

void expect_refused(Link &link, const Body &request, const char *what) {
  Probe &probe = link.probe();
  const auto error = error_of(link.ask(request));
  if (probe.decided()) return;
  if (!error) return probe.fail("%s is not refused", what);
  if (error->is_unserved()) not_served(probe, command_of(request), *error);
}

Body unknown_request(std::size_t size) {
  Body body = make_body(static_cast<PTZCommand>(unknown_command));
  const std::string padding(size - body->len, 'x');
  ptz_serialize_blob(body.get(), padding.data(), static_cast<guint32>(padding.size()));
  return body;
}

}  // namespace compliance
