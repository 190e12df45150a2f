// reply.h - what the answer to a request says.
#pragma once
#include <optional>
#include <string>

#include "driver_link.h"
#include "driver_messages.h"

namespace example {

// The reply to a request that is answered by its command word alone.
struct Done {
  static Done read(BodyReader &) { return {}; }
};

// For an answer that is no reply to the command: why not, in words.
std::string describe_failure(const Answer &answer);

// The driver's refusal, where the answer is one.
std::optional<ErrorReply> read_refusal(const Answer &answer);

// Replies are checked as requests are: a daemon must not end because a driver sends nonsense.
template <typename Message>
std::optional<Message> read_reply(const Answer &answer, PTZCommand command) {
  if (answer.outcome != Outcome::answered) return std::nullopt;
  BodyReader reader(answer.reply.get());
  if (reader.i32() != command) return std::nullopt;
  Message message = Message::read(reader);
  if (!reader.finished()) return std::nullopt;
  return message;
}

}  // namespace example
