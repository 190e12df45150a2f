// requests.h - requests whose replies are read, and orders that are obeyed or refused. What is well formed is written
// and read by the kit; what is malformed is made by hand.
#pragma once
#include <ptz_kit_messages.h>

#include <array>
#include <optional>
#include <string>

#include "link.h"

namespace compliance {

// Messages with a value per axis have it in this order.
enum AxisIndex : std::size_t { pan = PTZ_KIT_AXIS_PAN, tilt = PTZ_KIT_AXIS_TILT, zoom = PTZ_KIT_AXIS_ZOOM };
constexpr std::size_t axis_count = PTZ_KIT_N_AXES;
using PerAxis = std::array<gint32, axis_count>;
constexpr guint8 axis_bit(AxisIndex axis) { return static_cast<guint8>(1U << axis); }
constexpr guint16 full_speed = 100;  // per cent

using Positions = PTZKitQueryPositionReply;
using Speeds = PTZKitQuerySpeedReply;
using Limits = PTZKitQueryLimitRangesReply;
using Capabilities = PTZKitGetCapabilitiesReply;
using PresetList = PTZKitGetDevicePresetsReply;
using ParameterList = PTZKitGetDriverParametersReply;

// How the kit reads a reply, and the reply that stands for one that is missing.
template <typename Message>
struct Reply;
#define REPLY(Message, prefix, word, ...)                                     \
  template <>                                                                 \
  struct Reply<Message> {                                                     \
    using Owner = tools::Handle<Message, prefix##_reply_free>;                \
    static constexpr PTZCommand command = word;                               \
    static constexpr auto read = prefix##_reply_read;                         \
    static Owner missing() { return Owner(prefix##_reply_new(__VA_ARGS__)); } \
  }
REPLY(Positions, ptz_kit_query_position, PTZ_COMMAND_QUERY_POSITION, nullptr, nullptr);
REPLY(Speeds, ptz_kit_query_speed, PTZ_COMMAND_QUERY_SPEED, nullptr, nullptr);
REPLY(Limits, ptz_kit_query_limit_ranges, PTZ_COMMAND_QUERY_LIMIT_RANGES, nullptr, nullptr);
REPLY(Capabilities, ptz_kit_get_capabilities, PTZ_COMMAND_GET_CAPABILITIES, 0, 0);
REPLY(PresetList, ptz_kit_get_device_presets, PTZ_COMMAND_GET_DEVICE_PRESETS);
REPLY(ParameterList, ptz_kit_get_driver_parameters, PTZ_COMMAND_GET_DRIVER_PARAMETERS);
#undef REPLY

// The kit writes values that are out of range, too, so requests with such values are made of these as well.
Body make_body(PTZCommand command);  // the command word alone
Body make_body(const PTZKitMoveRequest &request);
Body make_body(const PTZKitMoveCommandRequest &request);
Body make_body(const PTZKitGotoDevicePresetRequest &request);
Body make_preset_body(guint32 number, const char *name);
Body make_auxiliary_body(const char *name, PTZEnable state);

// Text for people: "Query position", or the number.
std::string command_name(gint32 command);
gint32 command_of(const Body &body);  // -1, the error reply's, for a body that has none

// The error of an error reply.
struct Refusal {
  guint32 code;  // a PTZKitErrorCode, if the driver is right; 0 if it is missing
  std::string text;
  [[nodiscard]] bool is_unserved() const {
    return code == PTZ_KIT_ERROR_CODE_UNSUPPORTED || code == PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND;
  }
};
std::optional<Refusal> error_of(const Body &reply);
std::string describe(const Refusal &error);  // "error 2 (not here)"

// Requests that a driver does not serve make a check inapplicable; any other error fails it.
void expect_served(Link &link, const Body &request, const Body &reply);
Body obtain(Link &link, const Body &request);
// The reply is an error. If it says that the driver does not serve the command at all, the check is inapplicable.
void expect_refused(Link &link, const Body &request, const char *what);
void not_served(Probe &probe, gint32 command, const Refusal &error);

// Never null: without a reply, which decides the check, the message is empty.
template <typename Message>
typename Reply<Message>::Owner query(Link &link) {
  const Body reply = obtain(link, make_body(Reply<Message>::command));
  if (link.probe().decided()) return Reply<Message>::missing();
  tools::Error error;
  typename Reply<Message>::Owner message(
      Reply<Message>::read(reinterpret_cast<const guint8 *>(reply->data), reply->len, tools::out(error)));
  if (message != nullptr) return message;
  link.probe().fail("the reply to \"%s\" is malformed: %s", command_name(Reply<Message>::command).c_str(),
                    error->message);
  return Reply<Message>::missing();
}

// What any driver answers somehow, with nothing changed.
inline Body harmless_request() { return make_body(PTZ_COMMAND_GET_DRIVER_NAME); }
// Of a command that no driver serves, padded to this many bytes.
Body unknown_request(std::size_t size = sizeof(gint32));

}  // namespace compliance
