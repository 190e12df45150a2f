#include "reply.h"

namespace example {

std::optional<ErrorReply> read_refusal(const Answer &answer) {
  return read_reply<ErrorReply>(answer, PTZ_COMMAND_ERROR_REPLY);
}

std::string describe_failure(const Answer &answer) {
  switch (answer.outcome) {
    case Outcome::not_connected:
      return "no driver is connected";
    case Outcome::lost:
      return "the connection to the driver is lost";
    case Outcome::timed_out:
      return "the driver did not answer in time";
    case Outcome::answered:
      break;
  }
  if (const auto refusal = read_refusal(answer)) {
    return "refused with code " + std::to_string(static_cast<guint32>(refusal->code)) + ": " + refusal->text;
  }
  return "the reply makes no sense";
}

}  // namespace example
