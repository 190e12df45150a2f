// Orders to move: checked against the axes, and what a driver that can move obeys without further functions.
#include "driver/driver_core.h"

namespace ptz_kit {

namespace {

constexpr guint16 full_speed = 100;

struct Direction {
  gint32 right;
  gint32 up;
};
// By the values of PTZMoveCmd.
constexpr std::array<Direction, 8> directions = {
    {{0, 1}, {0, -1}, {-1, 0}, {1, 0}, {-1, 1}, {1, 1}, {-1, -1}, {1, -1}}};
static_assert(PTZ_MOVE_CMD_UP == 0 && PTZ_MOVE_CMD_DOWN_RIGHT == directions.size() - 1);

// The bits of an axis follow each other in the order of PTZMove, and so do the axes.
guint32 capability_of(guint32 kind, std::size_t axis) {
  static_assert(PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM == PTZ_DRIVER_MOVE_CAPABILITIES_PAN << 8);
  return guint32{PTZ_DRIVER_MOVE_CAPABILITIES_PAN} << (3 * axis + kind - PTZ_MOVE_ABSOLUTE);
}

// False if the value is refused, which is then answered.
bool check_axis(const DriverCore &core, guint32 kind, std::size_t index, gint32 value, PTZKitReply *reply) {
  const Axis &axis = core.axes[index];
  const char *const label = axis_labels[index];
  if (!axis.is_set()) {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "the head has no %s", label);
  } else if ((core.removed.move & capability_of(kind, index)) != 0) {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_UNSUPPORTED, "this driver does not move %s like this", label);
  } else if (kind == PTZ_MOVE_ABSOLUTE && value != axis.clamped(value)) {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "%s %d is not within %d to %d", label, value,
                        axis.minimum(), axis.maximum());
  } else if (kind == PTZ_MOVE_CONTINUOUS && (value < -axis.max_speed() || value > axis.max_speed())) {
    ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "%s speed %d is not within %d to %d", label, value,
                        -axis.max_speed(), axis.max_speed());
  } else {
    return true;
  }
  return false;
}

void move(DriverCore &core, const PTZKitMoveRequest &request, PTZKitReply *reply) {
  core.slots().move(core.object, &request, reply);
}

// All axes that the head has, at the same kind of motion.
PTZKitMoveRequest motion(const DriverCore &core, PTZMove kind, guint16 speed) {
  PTZKitMoveRequest request = {};
  request.kind = kind;
  request.axes = axes_set(core.axes);
  request.speed = speed;
  return request;
}

void go_home(DriverCore &core, guint16 speed, PTZKitReply *reply) {
  const StoredPreset *const preset = core.presets.find(PresetKind::device, core.presets.home());
  if (preset != nullptr) return move_to(core, preset->axes, preset->position, speed, reply);
  Position home = {};
  for (std::size_t axis = 0; axis < home.size(); ++axis) home[axis] = core.axes[axis].home();
  move_to(core, axes_set(core.axes), home, speed, reply);
}

// Drops the reply to a request that has no client.
class DiscardedReplies final : public ReplyTarget {
 public:
  void deliver(PTZKitReply *, std::span<const guint8>) override {}
};

void stop_axes(DriverCore &core) {
  static DiscardedReplies discarded;
  if (!serves(core, PTZ_COMMAND_STOP)) return;
  const Object<PTZKitReply> reply(make_reply(discarded, {PTZ_COMMAND_STOP, nullptr, 0, -1, 0}));
  call(core, PTZ_COMMAND_STOP, nullptr, reply.get());
  if (!is_deferred(reply.get())) fail(reply.get(), "it was neither answered nor deferred");
}

}  // namespace

// Every axis is checked before the first one moves: a request is obeyed as a whole or not at all.
void answer_move(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  PTZKitMoveRequest wanted = *static_cast<const PTZKitMoveRequest *>(request);
  core.update();
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) {
    gint32 &value = wanted.value[axis];
    if ((wanted.axes & axis_bit(axis)) == 0) {
      value = 0;
      continue;
    }
    if (!check_axis(core, wanted.kind, axis, value, reply)) return;
    if (wanted.kind == PTZ_MOVE_RELATIVE) value = core.axes[axis].cut_distance(value);
  }
  move(core, wanted, reply);
}

void move_to(DriverCore &core, guint8 axes, const Position &position, guint16 speed, PTZKitReply *reply) {
  PTZKitMoveRequest request = motion(core, PTZ_MOVE_ABSOLUTE, speed);
  request.axes &= axes;
  if (request.axes == 0) return ptz_kit_reply_ok(reply);
  for (std::size_t axis = 0; axis < position.size(); ++axis) {
    if ((request.axes & axis_bit(axis)) != 0) request.value[axis] = core.axes[axis].clamped(position[axis]);
  }
  move(core, request, reply);
}

void answer_move_command(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitMoveCommandRequest *>(request);
  if (wanted->direction == PTZ_MOVE_CMD_HOME) return go_home(core, wanted->speed, reply);
  if (wanted->direction == PTZ_MOVE_CMD_STOP) return call(core, PTZ_COMMAND_STOP, nullptr, reply);
  const Direction direction = directions[wanted->direction];
  PTZKitMoveRequest run = motion(core, PTZ_MOVE_CONTINUOUS, wanted->speed);
  run.axes &= axis_bit(PTZ_KIT_AXIS_PAN) | axis_bit(PTZ_KIT_AXIS_TILT);
  for (const auto &[axis, sign] :
       {std::pair{PTZ_KIT_AXIS_PAN, direction.right}, std::pair{PTZ_KIT_AXIS_TILT, direction.up}}) {
    if (sign != 0 && !check_axis(core, PTZ_MOVE_CONTINUOUS, axis, 0, reply)) return;
    run.value[axis] = sign * core.axes[axis].max_speed();
  }
  move(core, run, reply);
}

// Brakes by a continuous move with speed 0.
void answer_stop(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  move(core, motion(core, PTZ_MOVE_CONTINUOUS, full_speed), reply);
}

void answer_unregister(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  stop_axes(core);
  ptz_kit_reply_ok(reply);
}

}  // namespace ptz_kit
