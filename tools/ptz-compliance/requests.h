// requests.h - requests whose replies are read, and orders that are obeyed or refused.
#pragma once
#include <ptz_serialize.h>

#include <optional>
#include <string>

#include "driver_messages.h"
#include "link.h"

namespace compliance {

using namespace example;

// Text for people: "Query position", or the number.
std::string command_name(gint32 command);
gint32 command_of(const Body &body);  // -1, the error reply's, for a body that has none

// The error of an error reply.
std::optional<ErrorReply> error_of(const Body &reply);
std::string describe(const ErrorReply &error);

// Requests that a driver does not serve make a check inapplicable; any other error fails it.
void expect_served(Link &link, const Body &request, const Body &reply);
Body obtain(Link &link, const Body &request);
// The reply is an error, be it that the driver does not serve the command at all: then the check is inapplicable.
void expect_refused(Link &link, const Body &request, const char *what);

template <typename Message>
Message query(Link &link, PTZCommand command) {
  const Body reply = obtain(link, make_body(command));
  BodyReader reader(reply.get());
  reader.u32();
  Message message = Message::read(reader);
  link.probe().fail_unless(reader.finished(), "the reply to \"%s\" has not the fields that it should have",
                           command_name(command).c_str());
  return message;
}

// What any driver answers somehow, with nothing changed.
inline Body harmless_request() { return make_body(PTZ_COMMAND_GET_DRIVER_NAME); }
// Of a command that no driver serves, padded to this many bytes.
Body unknown_request(std::size_t size = sizeof(gint32));

}  // namespace compliance
