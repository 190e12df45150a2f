// driver_connection.h - ptzctl's end of the command channel: one request, its reply or why there is none.
#pragma once
#include <glib.h>
#include <ptz_socket_client_command.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "driver_messages.h"
#include "subcommand.h"

namespace ptzctl {

class DriverConnection {
  std::string path_;
  guint timeout_ms_;
  ptz::UniqueFd descriptor_;  // the client borrows it
  example::Object<PTZSocketClientCommand> client_;
  int status_ = EXIT_SUCCESS;

 public:
  explicit DriverConnection(const Options &options) : path_(options.socket()), timeout_ms_(options.timeout_ms()) {}
  // The exit status for what was asked: that of what has failed.
  [[nodiscard]] int status() const { return status_; }

  // The reply's body; null where there was none in time. The user was told.
  [[nodiscard]] example::Body ask(const example::Body &request);

  // What the reply to a command says. Nothing where it is a refusal or no such reply; the user was told.
  template <typename Message>
  [[nodiscard]] std::optional<Message> query(PTZCommand command, const example::Body &request) {
    const example::Body reply = ask(request);
    if (reply == nullptr) return std::nullopt;
    auto message = read<Message>(command, reply);
    if (!message) complain_of(reply);
    return message;
  }
  template <typename Message>
  [[nodiscard]] std::optional<Message> query(PTZCommand command) {
    return query<Message>(command, example::make_body(command));
  }
  // The same for what drivers need not serve: then there is nothing to tell.
  template <typename Message>
  [[nodiscard]] std::optional<Message> query_if_served(PTZCommand command) {
    const example::Body reply = ask(example::make_body(command));
    return reply != nullptr ? read<Message>(command, reply) : std::nullopt;
  }

 private:
  [[nodiscard]] bool connect();
  void complain_of(const example::Body &reply);
  template <typename Message>
  [[nodiscard]] static std::optional<Message> read(PTZCommand command, const example::Body &reply) {
    example::BodyReader reader(reply.get());
    const bool is_reply = reader.i32() == command;
    Message message = Message::read(reader);
    return is_reply && reader.finished() ? std::optional(std::move(message)) : std::nullopt;
  }
};

// The bytes as two digits each.
std::string in_hex(const example::Body &body);

}  // namespace ptzctl
