// That the head never goes where the driver says it cannot.
#include "head.h"

namespace compliance {

namespace {

constexpr int speed_samples = 20;
constexpr gulong between_samples_us = 2'000;

bool is_within(const Head &head, AxisIndex axis, gint32 position) {
  return position >= head.limits().minimum[axis] && position <= head.limits().maximum[axis];
}

// Moves a head that has obeyed until it stands, and sees that it has not left the limits on the way.
void expect_within(Head &head, AxisIndex axis, const char *after) {
  Probe &probe = head.probe();
  const gint64 deadline = g_get_monotonic_time() + gint64{probe.motion_timeout_ms()} * 1000;
  Positions now = head.where();
  for (; !probe.decided(); now = head.where()) {
    probe.fail_unless(is_within(head, axis, now.position[axis]), "%s is at %d after %s, outside %d to %d",
                      axis_names[axis], now.position[axis], after, head.limits().minimum[axis],
                      head.limits().maximum[axis]);
    if (now.status[axis] == PTZ_MOVE_STATUS_IDLE || g_get_monotonic_time() > deadline) break;
    g_usleep(between_samples_us);
  }
}

void in_order(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  const Limits limits = *query<Limits>(link);
  for (const AxisIndex axis : axes_of(capabilities)) {
    probe.fail_unless(limits.minimum[axis] <= limits.maximum[axis], "the limits of %s are %d to %d", axis_names[axis],
                      limits.minimum[axis], limits.maximum[axis]);
  }
}

void position_within(Probe &probe) {
  Link link = probe.connect();
  const Limits limits = *query<Limits>(link);
  const Positions now = *query<Positions>(link);
  const Capabilities capabilities = *query<Capabilities>(link);
  for (const AxisIndex axis : axes_of(capabilities)) {
    const gint32 position = now.position[axis];
    probe.fail_unless(limits.minimum[axis] > limits.maximum[axis] ||
                          (position >= limits.minimum[axis] && position <= limits.maximum[axis]),
                      "%s is at %d, outside %d to %d", axis_names[axis], position, limits.minimum[axis],
                      limits.maximum[axis]);
  }
}

void moving_axes_have_speed(Probe &probe) {
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  const Speeds speeds = *query<Speeds>(link);
  for (const AxisIndex axis : all_axes) {
    const bool moves = (capabilities.move & move_capability(PTZ_MOVE_ABSOLUTE, axis)) != 0;
    probe.fail_unless(!moves || speeds.maximum[axis] > 0, "%s moves with a maximum speed of %d", axis_names[axis],
                      speeds.maximum[axis]);
  }
}

// Refused, which needs no time, or obeyed as far as the limit.
void absolute_outside(Probe &probe) {
  Head head(probe);
  head.axis_for(PTZ_MOVE_ABSOLUTE);
  for (const AxisIndex axis : all_axes) {
    if (!head.announces(PTZ_MOVE_ABSOLUTE, axis) || !head.has_room(axis)) continue;
    for (const gint32 target : {head.limits().minimum[axis] - 1, head.limits().maximum[axis] + 1}) {
      const auto reply = head.link().ask(Head::move(PTZ_MOVE_ABSOLUTE, axis, target));
      const std::string order = "an absolute move to " + std::to_string(target);
      if (!error_of(reply)) expect_within(head, axis, order.c_str());
    }
  }
}

void relative_outside(Probe &probe) {
  Head head(probe);
  const auto [axis, upper] = head.nearest_limit(PTZ_MOVE_RELATIVE);
  const gint32 range = head.limits().maximum[axis] - head.limits().minimum[axis];
  const Body request = Head::move(PTZ_MOVE_RELATIVE, axis, upper ? range + 1 : -range - 1);
  if (!error_of(head.link().ask(request))) expect_within(head, axis, "a relative move beyond the limit");
}

void continuous_outside(Probe &probe) {
  Head head(probe);
  const auto [axis, upper] = head.nearest_limit(PTZ_MOVE_CONTINUOUS);
  const gint32 speed = head.speeds().maximum[axis];
  head.order(Head::move(PTZ_MOVE_CONTINUOUS, axis, upper ? speed : -speed));
  expect_within(head, axis, "a continuous move to the limit");
  const auto now = head.where();
  probe.fail_unless(now.status[axis] == PTZ_MOVE_STATUS_IDLE, "%s still moves at its limit", axis_names[axis]);
}

void speed_above_maximum(Probe &probe) {
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  const gint32 maximum = head.speeds().maximum[axis];
  if (error_of(head.link().ask(Head::move(PTZ_MOVE_CONTINUOUS, axis, maximum + 1)))) return;
  for (int count = 0; count < speed_samples && !probe.decided(); ++count) {
    const gint32 speed = query<Speeds>(head.link())->current[axis];
    probe.fail_unless(std::abs(speed) <= maximum, "%s runs at %d, its maximum is %d", axis_names[axis], speed, maximum);
    g_usleep(between_samples_us);
  }
  head.calm_down();
}

constexpr Check rows[] = {
    {"limits.in-order", "no minimum is above its maximum", in_order},
    {"limits.position-within", "the reported position is within the reported limits", position_within},
    {"limits.moving-axes-have-speed", "an axis that moves has a maximum speed above 0", moving_axes_have_speed},
    {"limits.absolute-move-outside-is-refused-or-clamped", "no absolute move leads out of the limits",
     absolute_outside},
    {"limits.relative-move-outside-is-refused-or-clamped", "no relative move leads out of the limits",
     relative_outside},
    {"limits.continuous-move-ends-at-the-limit", "a continuous move ends at the limit and is then idle",
     continuous_outside},
    {"limits.speed-above-maximum-is-refused-or-clamped", "no axis runs faster than its maximum", speed_above_maximum},
};

}  // namespace

const Checks limit_checks(rows);

}  // namespace compliance
