#include "requests.h"

namespace compliance {

namespace {
constexpr gint32 unknown_command = 1000;
}

std::string command_name(gint32 command) {
  const GEnumValue *const value =
      g_enum_get_value(static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_COMMAND)), command);
  return value != nullptr ? value->value_name : std::to_string(command);
}

gint32 command_of(const Body &body) {
  BodyReader reader(body.get());
  const gint32 command = reader.i32();
  return reader.failed() ? gint32{PTZ_COMMAND_ERROR_REPLY} : command;
}

std::optional<ErrorReply> error_of(const Body &reply) {
  BodyReader reader(reply.get());
  if (reader.i32() != PTZ_COMMAND_ERROR_REPLY || reader.failed()) return std::nullopt;
  return ErrorReply::read(reader);
}

std::string describe(const ErrorReply &error) {
  return "error " + std::to_string(static_cast<guint32>(error.code)) + " (" + error.text + ")";
}

void expect_served(Link &link, const Body &request, const Body &reply) {
  Probe &probe = link.probe();
  if (probe.decided()) return;
  const std::string name = command_name(command_of(request));
  if (const auto error = error_of(reply)) {
    if (error->code == ErrorCode::unsupported || error->code == ErrorCode::unknown_command) {
      probe.not_applicable("the driver does not serve this \"%s\"", name.c_str());
    }
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
  if (error->code == ErrorCode::unsupported || error->code == ErrorCode::unknown_command) {
    probe.not_applicable("the driver does not serve this \"%s\"", command_name(command_of(request)).c_str());
  }
}

Body unknown_request(std::size_t size) {
  Body body = make_body(static_cast<PTZCommand>(unknown_command));
  const std::string padding(size - body->len, 'x');
  ptz_serialize_blob(body.get(), padding.data(), static_cast<guint32>(padding.size()));
  return body;
}

}  // namespace compliance
