#include "link/handshake.h"

#include <ptz_kit_body.h>
#include <ptz_kit_messages.h>

#include <string_view>
#include <utility>

namespace ptz_kit {
namespace {

// The bodies of the three questions: a little-endian command word, and for the property the length of its name and the
// name.
constexpr std::string_view bodies[Handshake::count] = {
    {"\x15\0\0\0", 4}, {"\x17\0\0\0", 4}, {"\x19\0\0\0\x10\0protocol-version", 22}};
static_assert(PTZ_COMMAND_GET_DRIVER_NAME == 0x15 && PTZ_COMMAND_GET_CAPABILITIES == 0x17 &&
              PTZ_COMMAND_GET_DRIVER_PROPERTY == 0x19);

// False with an error if it cannot be read.
bool is_readable_refusal(std::span<const guint8> body, GError **error) {
  PTZKitErrorReply *refusal = ptz_kit_error_reply_read(body.data(), body.size(), error);
  ptz_kit_error_reply_free(refusal);
  return refusal != nullptr;
}

// True if the driver has refused to tell. `read` makes the message; false with an error if it cannot.
template <auto read, auto free_message, typename Take>
bool read_answer(GBytes *reply, GError **error, Take take) {
  gsize length = 0;
  const auto *body = static_cast<const guint8 *>(g_bytes_get_data(reply, &length));
  gint32 command = 0;
  if (ptz_kit_body_get_command(body, length, &command) && command == PTZ_COMMAND_ERROR_REPLY) {
    return is_readable_refusal({body, length}, error);
  }
  auto *message = read(body, length, error);
  if (message == nullptr) return false;
  take(*message);
  free_message(message);
  return true;
}

}  // namespace

void Handshake::begin(gint64 deadline_us) {
  running_ = true;
  deadline_us_ = deadline_us;
  for (std::size_t i = 0; i < count; ++i) {
    questions_[i].body = {reinterpret_cast<const guint8 *>(bodies[i].data()), bodies[i].size()};
    questions_[i].deadline_us = deadline_us;
    questions_[i].outcome = Outcome::waiting;
  }
}

bool Handshake::answered() const {
  if (!running_) return false;
  for (const Question &question : questions_) {
    if (question.outcome != Outcome::answered) return false;
  }
  return true;
}

bool Handshake::read(DriverFacts &facts, GError **error) const {
  facts.name.reset(g_strdup(""));
  guint64 version = 1;
  const bool is_read =
      read_answer<ptz_kit_get_driver_name_reply_read, ptz_kit_get_driver_name_reply_free>(
          questions_[0].reply.get(), error,
          [&](PTZKitGetDriverNameReply &reply) { facts.name.reset(std::exchange(reply.name, nullptr)); }) &&
      read_answer<ptz_kit_get_capabilities_reply_read, ptz_kit_get_capabilities_reply_free>(
          questions_[1].reply.get(), error,
          [&](const PTZKitGetCapabilitiesReply &reply) {
            facts.move = reply.move;
            facts.extra = reply.extra;
          }) &&
      read_answer<ptz_kit_get_driver_property_reply_read, ptz_kit_get_driver_property_reply_free>(
          questions_[2].reply.get(), error, [&](const PTZKitGetDriverPropertyReply &reply) {
            if (!g_ascii_string_to_unsigned(reply.value, 10, 1, G_MAXUINT, &version, nullptr)) version = 0;
          });
  facts.protocol_version = static_cast<guint>(version);
  if (is_read && version == 0) {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED,
                        "get driver property reply: the protocol version is not a number");
  }
  return is_read && version != 0;
}

}  // namespace ptz_kit
