#include "faulty_answers.h"

#include <cstdlib>

namespace sim {

namespace {

constexpr gint32 no_command = 31;  // that PTZCommand has no value for
constexpr gint32 far_from_any_command = 1000;
constexpr std::size_t long_body = 64;

}  // namespace

gint32 command_of(const Body &body) {
  gint32 command = PTZ_COMMAND_ERROR_REPLY;
  ptz_kit_body_get_command(reinterpret_cast<const guint8 *>(body.data()), body.size(), &command);
  return command;
}

Body bare(gint32 command) { return {reinterpret_cast<const char *>(&command), sizeof command}; }

Body refusal(PTZKitErrorCode code, const char *text) {
  return written<ptz_kit_error_reply_write>(PTZKitErrorReply{static_cast<guint32>(code), const_cast<gchar *>(text)});
}

bool FaultyAnswers::moving() {
  Head &head = head_of(driver_.get());
  head.advance(g_get_monotonic_time());
  return head.moving();
}

Body FaultyAnswers::right(const Body &request) {
  const Bytes bytes(g_bytes_new(request.data(), request.size()));
  const Bytes reply(ptz_kit_driver_answer(driver_.get(), bytes.get()));
  gsize length = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(reply.get(), &length));
  return {data, length};
}

std::optional<Body> FaultyAnswers::refuse_or_ignore(gint32 command, const Body &request) {
  if (fault("commands.unknown-is-refused") && command == no_command) return bare(command);
  if (fault("commands.unknown-and-unsupported-differ") && command == far_from_any_command) {
    return refusal(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "not here");
  }
  if (fault("replies.error-has-code-and-text") && command == far_from_any_command) {
    return bare(PTZ_COMMAND_ERROR_REPLY) + bare(PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND);
  }
  if (fault("commands.random-bodies") && command == PTZ_COMMAND_QUERY_SPEED && request.size() > long_body) abort();
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::stop(const Body &request) {
  if (request.size() != sizeof(gint32)) return std::nullopt;
  share_ = 0;
  if (fault("move.stop-stops")) return bare(PTZ_COMMAND_STOP);
  if (fault("move.stop-at-rest") && !moving()) return refusal(PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "at rest");
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::order(gint32 command, const Body &request) {
  switch (command) {
    case PTZ_COMMAND_MOVE:
      return move(request);
    case PTZ_COMMAND_MOVE_COMMAND:
      return move_command(request);
    case PTZ_COMMAND_STOP:
      return stop(request);
    case PTZ_COMMAND_AUXILIARY:
      if (!fault("caps.answers-what-it-announces.aux")) return std::nullopt;
      return refusal(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "not here");
    case PTZ_COMMAND_SET_DEVICE_PRESET:
      return store_preset(request);
    case PTZ_COMMAND_GOTO_DEVICE_PRESET:
      return goto_preset(request);
    case PTZ_COMMAND_GET_DEVICE_PRESETS:
      return list_presets(request);
    default:
      return std::nullopt;
  }
}

std::optional<Body> FaultyAnswers::answer(const Asker &asker, const Body &request) {
  if (request.size() < sizeof(gint32)) {
    return fault("commands.no-command-word") ? std::nullopt : std::optional(right(request));
  }
  const gint32 command = command_of(request);
  if (fault("commands.every-command-is-answered") && command == PTZ_COMMAND_GET_PRESET_POSITION) return std::nullopt;
  if (auto reply = refuse_or_ignore(command, request)) return reply;
  const bool trimmed = fault("commands.trailing-bytes") && command == PTZ_COMMAND_GET_CAPABILITIES;
  if (command != PTZ_COMMAND_QUERY_POSITION) to_preset_ = command == PTZ_COMMAND_GOTO_DEVICE_PRESET;
  if (auto reply = order(command, request)) return reply;
  return query(asker, command, trimmed ? bare(command) : request);
}

}  // namespace sim
