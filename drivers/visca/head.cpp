// The orders of a head.
#include "head.h"

#include <glib.h>

#include <algorithm>
#include <cmath>

namespace visca {

namespace {

constexpr std::int64_t power_limit_us = 60'000'000;

std::int64_t now_us() { return g_get_monotonic_time(); }

bool is_failure(Outcome outcome) { return outcome != Outcome::done && outcome != Outcome::replaced; }

}  // namespace

Done joint(unsigned count, Done done) {
  struct State {
    unsigned left;
    Outcome outcome = Outcome::done;
  };
  return [state = std::make_shared<State>(State{count}), done = std::move(done)](Outcome outcome) {
    if (is_failure(outcome) && !is_failure(state->outcome)) state->outcome = outcome;
    if (state->left > 0 && --state->left == 0) done(state->outcome);
  };
}

std::int32_t Head::steps_of(std::size_t axis, double value) const {
  if (axis != zoom_axis) return scale(axis).steps_of(value);
  return options_.profile.zoom.position_of(static_cast<std::int32_t>(std::lround(value)));
}

std::int32_t Head::value_of(std::size_t axis, std::int32_t steps) const {
  if (targets_[axis].is_set && std::abs(targets_[axis].steps - steps) <= 1) return targets_[axis].value;
  return axis == zoom_axis ? options_.profile.zoom.magnification_of(steps) : scale(axis).hundredths_of(steps);
}

bool Head::knows_position() const {
  return knows(pan_axis) && knows(tilt_axis) && (knows(zoom_axis) || !has_zoom_position_);
}

// The track learns when the command has ended, unless a later order has replaced it.
void Head::submit(Command command, Track *track, const Done &done) {
  const std::uint64_t number = track != nullptr ? track->order : 0;
  const auto end = [this, track, number] {
    if (track == nullptr || track->order != number) return;
    track->ended = true;
    if (tells_position(*track)) return;
    if (!track->continuous) track->moves = false;
    report_all();
  };
  command.acknowledged = [done, end](Outcome outcome) {
    if (is_failure(outcome)) end();
    done(outcome);
  };
  command.ended = [end](Outcome) { end(); };
  link_->submit(std::move(command), now_us());
}

void Head::begin(Track &track, bool continuous, bool recalled) {
  track = {.moves = true,
           .ended = false,
           .continuous = continuous,
           .recalled = recalled,
           .was_at_rest = !track.moves,
           .since_us = now_us(),
           .order = ++orders_,
           .is_pan_tilt = track.is_pan_tilt};
  poll_soon();
}

void Head::poll_soon() {
  if (is_there()) next_poll_us_ = std::min(next_poll_us_, now_us() + options_.poll_us);
}

// As a stop: what the camera did is over.
void Head::halt(Track &track) {
  track.order = ++orders_;
  track.continuous = track.recalled = track.ended = false;
  track.stops = true;
  track.since_us = now_us();
  track.equal = 0;
  forget_targets(track);
  poll_soon();
}

void Head::set_target(std::size_t axis, std::int32_t value) { targets_[axis] = {true, value, steps_of(axis, value)}; }

void Head::forget_targets(Track &track) {
  if (track.is_pan_tilt) {
    targets_[pan_axis].is_set = targets_[tilt_axis].is_set = false;
  } else {
    targets_[zoom_axis].is_set = false;
  }
}

void Head::stop_pan_tilt(const Done &done) {
  driven_ = {};
  halt(pan_tilt_);
  submit({.packet = pan_tilt_drive(address(), {1, 1}, PanDirection::stop, TiltDirection::stop),
          .group = Group::pan_tilt,
          .stop = true},
         &pan_tilt_, done);
}

void Head::stop_zoom(const Done &done) {
  halt(zoom_);
  submit({.packet = zoom_stop(address()), .group = Group::zoom, .stop = true}, &zoom_, done);
}

void Head::stop(const Done &done) {
  if (!options_.has_zoom) return stop_pan_tilt(done);
  const Done each = joint(2, done);
  stop_pan_tilt(each);
  stop_zoom(each);
}

// Continuous pan and tilt. An axis that the order does not name goes on as it did.
void Head::drive(const Order &order, const Done &done) {
  PanTiltSpeed speed;
  for (const std::size_t axis : {pan_axis, tilt_axis}) {
    if (!order.axes[axis]) continue;
    const double share = order.value[axis] / 100.0 / scale(axis).max_speed * order.share;
    const int step = order.value[axis] == 0 ? 0 : scale(axis).speed_step(std::abs(share));
    driven_[axis] = order.value[axis] < 0 ? -step : step;
  }
  if (driven_[pan_axis] == 0 && driven_[tilt_axis] == 0) {
    return stop_pan_tilt(done);
  }
  forget_targets(pan_tilt_);
  begin(pan_tilt_, true);
  for (const std::size_t axis : {pan_axis, tilt_axis}) ordered_[axis] = driven_[axis] != 0;
  if (driven_[pan_axis] != 0) speed.pan = static_cast<Byte>(std::abs(driven_[pan_axis]));
  if (driven_[tilt_axis] != 0) speed.tilt = static_cast<Byte>(std::abs(driven_[tilt_axis]));
  const PanDirection pan = driven_[pan_axis] < 0   ? PanDirection::left
                           : driven_[pan_axis] > 0 ? PanDirection::right
                                                   : PanDirection::stop;
  const TiltDirection tilt = driven_[tilt_axis] < 0   ? TiltDirection::down
                             : driven_[tilt_axis] > 0 ? TiltDirection::up
                                                      : TiltDirection::stop;
  report_all();
  for (const std::size_t axis : {pan_axis, tilt_axis}) {
    const AxisScale &of = scale(axis);
    if (driven_[axis] == 0) continue;
    user_.axis_runs(axis, static_cast<std::int32_t>(std::lround(driven_[axis] * of.max_speed * 100 / of.speed_steps)));
  }
  submit({.packet = pan_tilt_drive(address(), speed, pan, tilt),
          .group = Group::pan_tilt,
          .motion = true,
          .continuous = true},
         &pan_tilt_, done);
}

// Absolute and relative pan and tilt. A relative move is made absolute if the position is known: it may be repeated
// then.
void Head::go(const Order &order, const Done &done) {
  const bool is_known = steps_[pan_axis].has_value() && steps_[tilt_axis].has_value();
  const bool stays_relative = order.kind == MoveKind::relative && !is_known;
  PanTiltSteps steps = {.pan_nibbles = options_.profile.pan_nibbles};
  for (const std::size_t axis : {pan_axis, tilt_axis}) {
    std::int32_t &count = axis == pan_axis ? steps.pan : steps.tilt;
    if (stays_relative) {
      count = order.axes[axis]
                  ? static_cast<std::int32_t>(std::lround(order.value[axis] / 100.0 * scale(axis).steps_per_degree))
                  : 0;
      continue;
    }
    if (order.axes[axis]) {
      const std::int32_t from = order.kind == MoveKind::relative ? value_of(axis, *steps_[axis]) : 0;
      set_target(axis, from + order.value[axis]);
    } else if (!targets_[axis].is_set) {
      set_target(axis, value_of(axis, *steps_[axis]));
    }
    count = targets_[axis].steps;
  }
  if (stays_relative) forget_targets(pan_tilt_);
  driven_ = {};
  begin(pan_tilt_, false);
  for (const std::size_t axis : {pan_axis, tilt_axis}) ordered_[axis] = order.axes[axis];
  report_all();
  const PanTiltSpeed speed = {options_.profile.pan.speed_step(order.share),
                              options_.profile.tilt.speed_step(order.share)};
  const Packet packet =
      stays_relative ? pan_tilt_relative(address(), speed, steps) : pan_tilt_absolute(address(), speed, steps);
  submit({.packet = packet, .group = Group::pan_tilt, .motion = true, .repeatable = !stays_relative}, &pan_tilt_, done);
}

void Head::zoom(const Order &order, const Done &done) {
  const std::int32_t value = order.value[zoom_axis];
  if (order.kind == MoveKind::continuous && value == 0) return stop_zoom(done);
  begin(zoom_, order.kind == MoveKind::continuous);
  Command command = {.group = Group::zoom, .motion = true};
  if (order.kind == MoveKind::continuous) {
    const double share = std::abs(value) * order.share / options_.profile.zoom_speed();
    const auto speed = static_cast<Byte>(std::clamp<long>(std::lround(share * zoom_speeds) - 1, 0, zoom_speeds - 1));
    forget_targets(zoom_);
    command.packet = zoom_drive(address(), value > 0 ? ZoomDirection::tele : ZoomDirection::wide, speed);
    command.continuous = true;
  } else {
    const bool is_relative = order.kind == MoveKind::relative;
    set_target(zoom_axis, value + (is_relative ? value_of(zoom_axis, *steps_[zoom_axis]) : 0));
    command.packet = zoom_direct(address(), static_cast<std::uint16_t>(targets_[zoom_axis].steps));
  }
  ordered_[zoom_axis] = true;
  report_all();
  if (command.continuous) user_.axis_runs(zoom_axis, static_cast<std::int32_t>(std::lround(value * order.share)));
  submit(std::move(command), &zoom_, done);
}

bool Head::needs_position(const Order &order) const {
  if (order.kind == MoveKind::continuous) return false;
  if (order.axes[zoom_axis] && order.kind == MoveKind::relative && !steps_[zoom_axis]) return true;
  // The command names both axes.
  return order.kind == MoveKind::absolute && order.axes[pan_axis] != order.axes[tilt_axis] &&
         (!steps_[pan_axis] || !steps_[tilt_axis]);
}

void Head::move(const Order &order, const Done &done) {
  const bool has_pan_tilt = order.axes[pan_axis] || order.axes[tilt_axis];
  const bool has_zoom = order.axes[zoom_axis];
  if (needs_position(order)) return done(Outcome::no_answer);
  if (!has_pan_tilt && !has_zoom) return done(Outcome::done);
  const Done each = joint((has_pan_tilt ? 1 : 0) + (has_zoom ? 1 : 0), done);
  if (has_pan_tilt && order.kind == MoveKind::continuous) drive(order, each);
  if (has_pan_tilt && order.kind != MoveKind::continuous) go(order, each);
  if (has_zoom) zoom(order, each);
}

void Head::home(const Done &done) {
  if (!options_.home_command) {
    Order order = {.axes = {true, true, options_.has_zoom}};
    order.value[zoom_axis] = options_.profile.zoom.least();
    return move(order, done);
  }
  const Done each = joint(options_.has_zoom ? 2 : 1, done);
  driven_ = {};
  for (const std::size_t axis : {pan_axis, tilt_axis}) set_target(axis, 0);
  begin(pan_tilt_, false, true);
  ordered_[pan_axis] = ordered_[tilt_axis] = true;
  submit({.packet = pan_tilt_home(address()), .group = Group::pan_tilt, .motion = true}, &pan_tilt_, each);
  if (!options_.has_zoom) return;
  Order wide = {.axes = {false, false, true}};
  wide.value[zoom_axis] = options_.profile.zoom.least();
  zoom(wide, each);
}

void Head::memory(MemoryAction action, Byte number, const Done &done) {
  const Packet packet = visca::memory(address(), action, number);
  if (action != MemoryAction::recall) return send(packet, Group::other, false, done);
  driven_ = {};
  for (Track *track : {&pan_tilt_, &zoom_}) {
    forget_targets(*track);
    // Without positions the end of the zoom would never be seen.
    if (track->is_pan_tilt || tells_position(*track)) begin(*track, false, true);
  }
  ordered_ = {true, true, has_zoom_position_};
  report_all();
  submit({.packet = packet, .group = Group::pan_tilt, .motion = true}, &pan_tilt_, done);
  zoom_.ended = true;
}

void Head::send(const Packet &packet, Group group, bool is_stop, const Done &done) {
  const bool is_motion = group != Group::other && !is_stop;
  submit({.packet = packet, .group = group, .motion = is_motion, .continuous = is_motion, .stop = is_stop}, nullptr,
         done);
}

// Powering on takes long; the state is asked for until it is there.
void Head::set_power(bool on, const Done &done) {
  submit({.packet = power(address(), on), .completion_limit = power_limit_us}, nullptr, done);
}

void Head::expect_power(bool on) {
  if (!on) is_on_ = false;
  link_->inquire(InquiryKind::power, now_us());
}

void Head::ask_focus() { link_->inquire(InquiryKind::focus_position, now_us()); }

}  // namespace visca
