// driver_connection.h - ptzctl's end of the command channel: one request, its reply or why there is none.
#pragma once
#include <glib.h>
#include <ptz_socket_client_command.h>

#include <optional>
#include <string>

#include "driver_messages.h"

namespace ptzctl {

class DriverConnection {
  std::string path_;
  guint timeout_ms_;
  example::Descriptor descriptor_;  // the client borrows it
  example::Object<PTZSocketClientCommand> client_;

  explicit DriverConnection(std::string path, guint timeout_ms, example::Descriptor descriptor);

 public:
  // Nothing where no driver listens; the user was told.
  static std::optional<DriverConnection> open(const std::string &path, guint timeout_ms);
  // The reply's body; null where there was none in time. The user was told.
  [[nodiscard]] example::Body ask(const example::Body &request) const;

  // What the reply to a command says. Nothing where it is a refusal or no such reply; the user was told.
  template <typename Message>
  [[nodiscard]] std::optional<Message> query(PTZCommand command, const example::Body &request) const {
    const example::Body reply = ask(request);
    if (reply == nullptr || is_refusal(reply)) return std::nullopt;
    example::BodyReader reader(reply.get());
    const bool is_reply = reader.i32() == command;
    Message message = Message::read(reader);
    if (is_reply && reader.finished()) return message;
    complain_of(reply);
    return std::nullopt;
  }
  template <typename Message>
  [[nodiscard]] std::optional<Message> query(PTZCommand command) const {
    return query<Message>(command, example::make_body(command));
  }

 private:
  [[nodiscard]] static bool is_refusal(const example::Body &reply);
  static void complain_of(const example::Body &reply);
};

// The bytes as two digits each.
std::string in_hex(const example::Body &body);

}  // namespace ptzctl
