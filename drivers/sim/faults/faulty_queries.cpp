// The faults of replies that tell something.
#include "faulty_answers.h"

namespace sim {

namespace {

constexpr gulong slow_us = 60'000;
constexpr guint32 unknown_bit = 1U << 27;
constexpr guint32 unknown_group = 77;
constexpr guint32 zoom_bits = PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_RELZOOM |
                              PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM | PTZ_DRIVER_MOVE_CAPABILITIES_ZOOMMAG;
// At these shares of its speed, a check lets the head run that looks for the fault.
constexpr int share_of_reports_moving = 3;
constexpr int share_of_latency_while_moving = 5;

Body limits(const Body &reply) {
  const auto limits = MESSAGE_IN(query_limit_ranges_reply, reply);
  if (!limits || !fault("limits.in-order")) return reply;
  std::swap(limits->minimum[zoom], limits->maximum[zoom]);
  return written<ptz_kit_query_limit_ranges_reply_write>(*limits);
}

Body parameters(const Body &reply) {
  const auto list = MESSAGE_IN(get_driver_parameters_reply, reply);
  if (!list || !fault("replies.parameters-are-known")) return reply;
  static_cast<PTZKitParameter *>(list->parameters->pdata[0])->group = unknown_group;
  return written<ptz_kit_get_driver_parameters_reply_write>(*list);
}

Body device_types(const Body &reply) {
  if (fault("caps.answers-what-it-announces.devicetype")) return refusal(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "not here");
  return fault("replies.command-word") ? bare(PTZ_COMMAND_GET_DRIVER_NAME) + reply.substr(sizeof(gint32)) : reply;
}

}  // namespace

Body FaultyAnswers::query_position(const Asker &asker, const Body &reply) {
  const auto now = MESSAGE_IN(query_position_reply, reply);
  if (!now) return reply;
  if (false_position_) now->position[false_position_->first] = false_position_->second;
  false_position_.reset();
  if (fault("limits.position-within") && asker.requests == 2 && asker.first_command == PTZ_COMMAND_QUERY_LIMIT_RANGES) {
    now->position[zoom] = head().axis(zoom).range().minimum - 1;
  }
  if (fault("move.reports-moving") && share_ == share_of_reports_moving) {
    for (gint32 &status : now->status) status = PTZ_MOVE_STATUS_IDLE;
  }
  if (fault("latency.while-moving") && share_ == share_of_latency_while_moving) g_usleep(slow_us);
  return written<ptz_kit_query_position_reply_write>(*now);
}

Body FaultyAnswers::query_speed(const Body &reply) {
  const auto speeds = MESSAGE_IN(query_speed_reply, reply);
  if (!speeds) return reply;
  if (false_speed_) speeds->current[pan] = *false_speed_;
  if (fault("limits.moving-axes-have-speed")) speeds->maximum[tilt] = 0;
  if (fault("move.reports-speed")) speeds->current[pan] = -speeds->current[pan];
  return written<ptz_kit_query_speed_reply_write>(*speeds);
}

Body FaultyAnswers::capabilities(const Asker &asker, const Body &reply) {
  const auto words = MESSAGE_IN(get_capabilities_reply, reply);
  if (!words) return reply;
  if (fault("caps.absent-axes")) words->move &= ~zoom_bits;
  if (fault("caps.known-bits")) words->move |= unknown_bit;
  if (fault("caps.usable")) {
    words->move = 0;
    words->extra = PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE;
  }
  if (fault("caps.stable") && asker.number % 2 == 0) words->extra |= PTZ_DRIVER_EXTRA_CAPABILITIES_OVERVIEW;
  return written<ptz_kit_get_capabilities_reply_write>(*words);
}

Body FaultyAnswers::query(const Asker &asker, gint32 command, const Body &request) {
  Body reply = right(request);
  if (command_of(reply) != command) return reply;
  switch (command) {
    case PTZ_COMMAND_QUERY_POSITION:
      return query_position(asker, reply);
    case PTZ_COMMAND_QUERY_SPEED:
      return query_speed(reply);
    case PTZ_COMMAND_QUERY_LIMIT_RANGES:
      return limits(reply);
    case PTZ_COMMAND_GET_CAPABILITIES:
      return capabilities(asker, reply);
    case PTZ_COMMAND_GET_DRIVER_PARAMETERS:
      return parameters(reply);
    case PTZ_COMMAND_GET_DEVICE_TYPES:
      return device_types(reply);
    default:
      return reply;
  }
}

}  // namespace sim
