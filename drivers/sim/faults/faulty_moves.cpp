// The faults of orders to move.
#include <array>
#include <cstdlib>

#include "faulty_answers.h"

namespace sim {

namespace {

constexpr guint16 full_speed = 100;
constexpr gint32 overshoot = 7;

std::string announced(std::size_t axis, guint32 kind) {
  static constexpr std::array<const char *, 9> names = {"pan",      "relpan", "contpan", "tilt",    "reltilt",
                                                        "conttilt", "zoom",   "relzoom", "contzoom"};
  return std::string("caps.answers-what-it-announces.") + names[3 * axis + kind - PTZ_MOVE_ABSOLUTE];
}

std::size_t first_axis(const PTZKitMoveRequest &wanted) {
  std::size_t axis = 0;
  while (axis < axis_count - 1 && (wanted.axes & axis_bit(axis)) == 0) ++axis;
  return axis;
}

Body agreed() { return bare(PTZ_COMMAND_MOVE); }

}  // namespace

std::optional<Body> FaultyAnswers::malformed_move(const Body &request) {
  const std::size_t whole = written<ptz_kit_move_request_write>(PTZKitMoveRequest()).size();
  if (fault("commands.truncated-body") && request.size() < whole) return agreed();
  if (fault("commands.refused-changes-nothing") && request.size() > whole) right(request.substr(0, whole));
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::absolute(PTZKitMoveRequest &wanted, std::size_t axis) {
  const AxisRange &range = head().axis(axis).range();
  gint32 &value = wanted.value[axis];
  const bool outside = value < range.minimum || value > range.maximum;
  if (fault("limits.absolute-move-outside-is-refused-or-clamped") && outside) {
    false_position_ = {axis, value};
    return agreed();
  }
  if (fault("move.new-replaces-old") && moving()) return agreed();
  if (fault("move.absolute-arrives") && !moving() && value <= range.maximum - overshoot) value += overshoot;
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::relative(PTZKitMoveRequest &wanted, std::size_t axis) {
  const AxisRange &range = head().axis(axis).range();
  gint32 &value = wanted.value[axis];
  if (fault("limits.relative-move-outside-is-refused-or-clamped") &&
      std::abs(gint64{value}) > gint64{range.maximum} - range.minimum) {
    false_position_ = {axis, value > 0 ? range.maximum + 1 : range.minimum - 1};
    return agreed();
  }
  if (fault("move.relative-adds")) value /= 2;
  if (fault("move.other-axes-stay") && wanted.axes == axis_bit(pan)) wanted.axes = all_axes;
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::continuous(PTZKitMoveRequest &wanted, std::size_t axis) {
  const AxisRange &range = head().axis(axis).range();
  const gint32 value = wanted.value[axis];
  share_ = value == 0 ? 0 : wanted.speed;
  if (fault("limits.continuous-move-ends-at-the-limit") && share_ == full_speed) {
    false_position_ = {axis, value > 0 ? range.maximum + 1 : range.minimum - 1};
  }
  if (fault("limits.speed-above-maximum-is-refused-or-clamped") && value > range.max_speed) {
    false_speed_ = value;
    return agreed();
  }
  if (fault("move.speed-zero-brakes") && value == 0) return agreed();
  if (fault("caps.answers-what-it-announces.speedcontrol") && wanted.speed == 10) wanted.speed = full_speed;
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::move(const Body &request) {
  const auto wanted = MESSAGE_IN(move_request, request);
  if (!wanted) return malformed_move(request);
  if ((fault("commands.bad-kind-of-move") && wanted->kind == 4) || (fault("commands.bad-axes") && wanted->axes == 8) ||
      (fault("commands.bad-speed") && wanted->speed == 0)) {
    return agreed();
  }
  if (wanted->kind < PTZ_MOVE_ABSOLUTE || wanted->kind > PTZ_MOVE_CONTINUOUS) return std::nullopt;
  const std::size_t axis = first_axis(*wanted);
  if (fault(announced(axis, wanted->kind))) return refusal(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "not here");
  share_ = 0;
  false_speed_.reset();
  auto reply = wanted->kind == PTZ_MOVE_ABSOLUTE   ? absolute(*wanted, axis)
               : wanted->kind == PTZ_MOVE_RELATIVE ? relative(*wanted, axis)
                                                   : continuous(*wanted, axis);
  return reply ? std::move(reply) : std::optional(right(written<ptz_kit_move_request_write>(*wanted)));
}

std::optional<Body> FaultyAnswers::move_command(const Body &request) {
  const auto wanted = MESSAGE_IN(move_command_request, request);
  if (!wanted) return std::nullopt;
  share_ = 0;
  if ((fault("commands.bad-direction") && wanted->direction == 10) ||
      (fault("move.direction-stop-stops") && wanted->direction == PTZ_MOVE_CMD_STOP) ||
      (fault("move.home") && wanted->direction == PTZ_MOVE_CMD_HOME)) {
    return bare(PTZ_COMMAND_MOVE_COMMAND);
  }
  if (fault("move.directions") && wanted->direction == PTZ_MOVE_CMD_LEFT) wanted->direction = PTZ_MOVE_CMD_RIGHT;
  return right(written<ptz_kit_move_command_request_write>(*wanted));
}

}  // namespace sim
