// That the head does what it was told, and no more.
#include "head.h"

namespace compliance {

namespace {

constexpr gulong accelerate_us = 20'000;

void arrives(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_ABSOLUTE);
  head.make_room(axis);
  const gint32 target = head.position(axis) + head.step(axis);
  head.order(Head::move(PTZ_MOVE_ABSOLUTE, axis, target));
  const gint32 reached = head.arrive().position[axis];
  probe.fail_unless(reached == target, "%s was sent to %d and is idle at %d", axis_names[axis], target, reached);
}

void relative_adds(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  const gint32 start = head.position(axis);
  const gint32 step = head.step(axis);
  for (const gint32 moves : {1, 2}) {
    head.order(Head::move(PTZ_MOVE_RELATIVE, axis, step));
    const gint32 reached = head.arrive().position[axis];
    probe.fail_unless(reached == start + moves * step, "%s was moved %d times by %d from %d and is at %d",
                      axis_names[axis], moves, step, start, reached);
  }
}

void reports_moving(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  head.order(head.run_slowly(axis, 3));
  const Positions now = head.where();
  probe.fail_unless(now.status[axis] == PTZ_MOVE_STATUS_MOVING, "%s runs and has the status %d", axis_names[axis],
                    now.status[axis]);
  head.calm_down();
}

void reports_speed(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  for (const gint32 sign : {1, -1}) {
    head.make_room(axis);
    head.order(Head::move(PTZ_MOVE_CONTINUOUS, axis, sign * head.speeds().maximum[axis], 10));
    g_usleep(accelerate_us);
    const gint32 speed = query<Speeds>(head.link())->current[axis];
    // Unless it is at a limit by now.
    const bool runs = head.where().status[axis] == PTZ_MOVE_STATUS_MOVING;
    probe.fail_unless(!runs || sign * speed > 0, "%s runs %s with the speed %d", axis_names[axis],
                      sign > 0 ? "upwards" : "downwards", speed);
    head.calm_down();
  }
}

// A continuous motion, and what is to end it.
void expect_end(Probe &probe, const char *what, Body (*request)(AxisIndex axis)) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  const gint32 start = head.position(axis);
  head.order(head.run_slowly(axis, 2));
  probe.fail_unless(head.leaves(axis, start), "%s does not leave %d", axis_names[axis], start);
  head.order(request(axis));
  const auto brakes = g_get_monotonic_time();
  head.arrive();
  const gint32 rest = head.position(axis);
  const bool at_limit = rest == head.limits().maximum[axis] || rest == head.limits().minimum[axis];
  probe.fail_unless(!at_limit && head.stays(axis), "%s runs on after %s", axis_names[axis], what);
  probe.note("at rest %.0f ms after the order", static_cast<double>(g_get_monotonic_time() - brakes) / 1000);
}

void stop_stops(Probe &probe) {
  expect_end(probe, "\"Stop\"", [](AxisIndex) { return make_body(PTZ_COMMAND_STOP); });
}
void direction_stop(Probe &probe) {
  expect_end(probe, "\"Move command\" stop", [](AxisIndex) { return Head::move_command(PTZ_MOVE_CMD_STOP); });
}
void zero_brakes(Probe &probe) {
  expect_end(probe, "a continuous move with speed 0",
             [](AxisIndex axis) { return Head::move(PTZ_MOVE_CONTINUOUS, axis, 0); });
}

void stop_at_rest(Probe &probe) {
  Head head(probe);
  head.stop();
  head.stop();
}

void directions(Probe &probe) {
  static constexpr struct {
    PTZMoveCmd direction;
    const char *name;
    AxisIndex axis;
    gint32 sign;
  } all[] = {{PTZ_MOVE_CMD_RIGHT, "right", pan, 1},
             {PTZ_MOVE_CMD_LEFT, "left", pan, -1},
             {PTZ_MOVE_CMD_UP, "up", tilt, 1},
             {PTZ_MOVE_CMD_DOWN, "down", tilt, -1}};
  Head head(probe);
  bool any = false;
  for (const auto &row : all) {
    if (!head.announces(PTZ_MOVE_CONTINUOUS, row.axis) || !head.has_room(row.axis) || probe.decided()) continue;
    any = true;
    head.make_room(row.axis);
    const gint32 start = head.position(row.axis);
    head.order(Head::move_command(row.direction, 10));
    head.leaves(row.axis, start);
    head.calm_down();
    const gint32 end = head.position(row.axis);
    probe.fail_unless(row.sign * (end - start) > 0, "\"%s\" moves %s from %d to %d", row.name, axis_names[row.axis],
                      start, end);
  }
  if (!any) {
    probe.not_applicable(describe_moves(head.capabilities()),
                         "the driver announces neither continuous pan nor continuous tilt");
  }
}

void home(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.order(Head::move_command(PTZ_MOVE_CMD_HOME));
  const gint32 home = head.arrive().position[axis];
  // Somewhere else, and back.
  head.order(
      Head::move(PTZ_MOVE_RELATIVE, axis, home == head.limits().maximum[axis] ? -head.step(axis) : head.step(axis)));
  head.arrive();
  head.order(Head::move_command(PTZ_MOVE_CMD_HOME));
  const gint32 again = head.arrive().position[axis];
  probe.fail_unless(again == home, "%s has its home first at %d, then at %d", axis_names[axis], home, again);
}

void other_axes_stay(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  const Positions before = head.arrive();
  PTZKitMoveRequest request{PTZ_MOVE_RELATIVE, axis_bit(axis), full_speed, {}};
  for (const AxisIndex each : head.axes()) request.value[each] = head.has_room(each) ? head.step(each) : 0;
  head.order(make_body(request));
  const Positions after = head.arrive();
  for (const AxisIndex each : head.axes()) {
    probe.fail_unless(each == axis || after.position[each] == before.position[each],
                      "%s goes from %d to %d although only %s was to move", axis_names[each], before.position[each],
                      after.position[each], axis_names[axis]);
  }
}

void new_replaces_old(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_ABSOLUTE);
  head.make_room(axis);
  const gint32 start = head.position(axis);
  const gint32 target = start + head.step(axis);
  const gint32 far_away = start > (head.limits().minimum[axis] / 2 + head.limits().maximum[axis] / 2)
                              ? head.limits().minimum[axis]
                              : head.limits().maximum[axis];
  head.order(Head::move(PTZ_MOVE_ABSOLUTE, axis, far_away, 5));
  head.order(Head::move(PTZ_MOVE_ABSOLUTE, axis, target));
  const gint32 reached = head.arrive().position[axis];
  probe.fail_unless(reached == target, "%s was sent to %d, then to %d, and is idle at %d", axis_names[axis], far_away,
                    target, reached);
}

constexpr Check rows[] = {
    {"move.absolute-arrives", "an axis that was sent to a position is idle exactly there", arrives},
    {"move.relative-adds", "relative moves add up", relative_adds},
    {"move.reports-moving", "an axis that runs is reported as moving, from the reply on", reports_moving},
    {"move.reports-speed", "an axis that runs is reported with a speed of the right sign", reports_speed},
    {"move.stop-stops", "\"Stop\" ends a motion", stop_stops},
    {"move.direction-stop-stops", "the direction stop ends a motion", direction_stop},
    {"move.speed-zero-brakes", "a continuous move with speed 0 ends a motion", zero_brakes},
    {"move.stop-at-rest", "\"Stop\" is obeyed by a head that stands still, too", stop_at_rest},
    {"move.directions", "up, down, left and right go there", directions},
    {"move.home", "home is one place, wherever the head comes from", home},
    {"move.other-axes-stay", "axes that a move does not name stay where they are", other_axes_stay},
    {"move.new-replaces-old", "a new target replaces the one before", new_replaces_old},
};

}  // namespace

const Checks motion_checks(rows);

}  // namespace compliance
