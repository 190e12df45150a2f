// What a head learns of its camera: state, position, motion.
#include <glib.h>
#include <syslog.h>

#include <algorithm>
#include <cstdlib>

#include "head.h"

namespace visca {

namespace {

// A motion begins within this time after its order, and a completion that comes at once may precede it.
constexpr std::int64_t settle_us = 500'000, stop_settles_us = 100'000;
constexpr unsigned most_unanswered_positions = 4;
// A camera brakes within this time; if it moves on, the stop was lost though it seemed to be acknowledged.
constexpr std::int64_t brakes_us = 600'000;
constexpr std::int64_t unknown_after_us = 3'000'000;
constexpr std::int64_t retry_position_us = 5'000'000;
constexpr Byte power_is_on = 0x02, power_is_off = 0x03, focus_is_automatic = 0x02;
constexpr unsigned focus_inquiries = 2;

std::int64_t now_us() { return g_get_monotonic_time(); }

void learn_speed_steps(AxisScale &scale, Byte steps) {
  if (!scale.speed_steps_are_set && steps >= 1 && steps <= 0x7f) scale.speed_steps = steps;
}

unsigned number16(ByteSpan data, std::size_t at) { return static_cast<unsigned>(data[at]) << 8 | data[at + 1]; }

}  // namespace

void Head::link_is_up() {
  const std::int64_t now = now_us();
  syslog(LOG_INFO, "camera %u answers", address());
  unanswered_positions_ = unanswered_zooms_ = refused_focus_ = 0;
  has_position_ = true;
  has_zoom_position_ = options_.has_zoom;
  // A driver that was killed may have left the camera in motion.
  if (options_.stop_at_start && !was_up_) stop([](Outcome) {});
  was_up_ = true;
  for (const InquiryKind kind : {InquiryKind::power, InquiryKind::pan_tilt_position, InquiryKind::zoom_position,
                                 InquiryKind::version, InquiryKind::pan_tilt_max_speed}) {
    if (kind != InquiryKind::zoom_position || options_.has_zoom) link_->inquire(kind, now);
  }
  if (!options_.asks_focus) return;
  for (const InquiryKind kind : {InquiryKind::focus_mode, InquiryKind::focus_position}) link_->inquire(kind, now);
}

void Head::link_is_lost() {
  if (!leaves_) syslog(LOG_WARNING, "camera %u does not answer", address());
  next_poll_us_ = INT64_MAX;
  for (Track *track : {&pan_tilt_, &zoom_}) {
    track->moves = false;
    track->ended = true;
    forget_targets(*track);
  }
  driven_ = {};
  ordered_ = {};
  for (std::size_t axis = 0; axis < axis_count; ++axis) forget(axis);
  is_on_.reset();
}

void Head::advance(std::int64_t now) {
  if (now < next_poll_us_) return;
  next_poll_us_ = INT64_MAX;
  poll(now);
}

void Head::poll(std::int64_t now) {
  polled_us_ = now;
  if (is_on_ == false) return link_->inquire(InquiryKind::power, now);
  const bool all = !is_active();
  // Two inquiries at once; the answer to the last one schedules the next poll.
  if (all || is_active(pan_tilt_)) link_->inquire(InquiryKind::pan_tilt_position, now);
  if (options_.has_zoom && (all || (is_active(zoom_) && has_zoom_position_)))
    link_->inquire(InquiryKind::zoom_position, now);
}

void Head::schedule_poll(std::int64_t now) {
  if (!is_there()) return;
  for (const InquiryKind kind : {InquiryKind::pan_tilt_position, InquiryKind::zoom_position, InquiryKind::power}) {
    if (link_->asks(kind)) return;
  }
  const bool is_fast = is_active() && is_on_ != false;
  const std::int64_t interval = !has_position_ ? retry_position_us : is_fast ? options_.poll_us : options_.rest_poll_us;
  next_poll_us_ = std::max(now, polled_us_ + interval);
}

void Head::on_answer(InquiryKind kind, ByteSpan data) {
  const std::int64_t now = now_us();
  switch (kind) {
    case InquiryKind::pan_tilt_position:
      if (const auto steps = parse_pan_tilt(data)) on_pan_tilt(*steps, now);
      break;
    case InquiryKind::zoom_position:
      if (const auto position = parse_position(data)) on_zoom(*position, now);
      break;
    case InquiryKind::focus_position:
      focus_ = parse_position(data);
      break;
    case InquiryKind::focus_mode:
      user_.focus_mode_is(data[0] == focus_is_automatic);
      break;
    case InquiryKind::power:
      if (data[0] == power_is_on || data[0] == power_is_off) is_on_ = data[0] == power_is_on;
      break;
    case InquiryKind::version:
      version_ = Version{number16(data, 0), number16(data, 2), number16(data, 4)};
      break;
    case InquiryKind::pan_tilt_max_speed:
      learn_speed_steps(options_.profile.pan, data[0]);
      learn_speed_steps(options_.profile.tilt, data[1]);
      break;
    default:
      break;
  }
  schedule_poll(now);
  if (knows_position() || is_on_ == false) user_.head_is_ready();
}

void Head::on_no_answer(InquiryKind kind, Outcome why) {
  const std::int64_t now = now_us();
  if (why == Outcome::not_executable && kind != InquiryKind::power) {
    // In standby, probably.
    if (!link_->asks(InquiryKind::power)) link_->inquire(InquiryKind::power, now);
  } else if (kind == InquiryKind::pan_tilt_position && ++unanswered_positions_ >= most_unanswered_positions &&
             now - positioned_us_ >= unknown_after_us) {
    if (has_position_) syslog(LOG_WARNING, "camera %u does not tell its position", address());
    has_position_ = false;
    forget(pan_axis);
    forget(tilt_axis);
    for (Track *track : {&pan_tilt_, &zoom_}) {
      if (track->ended && !track->continuous) track->moves = false;
    }
    report_all();
  } else if (kind == InquiryKind::zoom_position) {
    // A refusal says more than silence does.
    unanswered_zooms_ += why == Outcome::bad_syntax ? 2 : 1;
    if (unanswered_zooms_ >= most_unanswered_positions) forget_zoom();
  }
  const bool is_of_focus = kind == InquiryKind::focus_mode || kind == InquiryKind::focus_position;
  if (is_of_focus && why == Outcome::bad_syntax && ++refused_focus_ == focus_inquiries) user_.head_lacks_focus();
  if (!has_position_ || knows_position()) user_.head_is_ready();
  schedule_poll(now);
}

void Head::forget_zoom() {
  if (has_zoom_position_) syslog(LOG_WARNING, "camera %u does not tell its zoom position", address());
  has_zoom_position_ = false;
  forget(zoom_axis);
  if (zoom_.ended && !zoom_.continuous) zoom_.moves = false;
  if (!zoom_.moves) ordered_[zoom_axis] = false;
}

void Head::on_pan_tilt(const PanTiltSteps &steps, std::int64_t now) {
  unanswered_positions_ = 0;
  positioned_us_ = now;
  has_position_ = true;
  is_on_ = is_on_.value_or(true);
  if (!options_.profile.pan_nibbles_are_set) options_.profile.pan_nibbles = steps.pan_nibbles;
  const bool is_first = !steps_[pan_axis];
  const bool pan_changed = steps_[pan_axis] != steps.pan, tilt_changed = steps_[tilt_axis] != steps.tilt;
  steps_[pan_axis] = steps.pan;
  steps_[tilt_axis] = steps.tilt;
  if (!is_first) {
    ordered_[pan_axis] |= pan_changed;
    ordered_[tilt_axis] |= tilt_changed;
  }
  follow(pan_tilt_, !is_first && (pan_changed || tilt_changed), now);
  report(pan_axis);
  report(tilt_axis);
}

void Head::on_zoom(std::int32_t position, std::int64_t now) {
  unanswered_zooms_ = 0;
  has_zoom_position_ = true;
  const bool changed = steps_[zoom_axis] && *steps_[zoom_axis] != position;
  steps_[zoom_axis] = position;
  ordered_[zoom_axis] |= changed;
  follow(zoom_, changed, now);
  report(zoom_axis);
}

bool Head::is_at_target(const Track &track) const {
  const auto is_there = [&](std::size_t axis) {
    return targets_[axis].is_set && steps_[axis] && std::abs(*steps_[axis] - targets_[axis].steps) <= 1;
  };
  return track.is_pan_tilt ? is_there(pan_axis) && is_there(tilt_axis) : is_there(zoom_axis);
}

bool Head::is_over(const Track &track, std::int64_t now) const {
  const std::int64_t age = now - track.since_us;
  if (is_at_target(track)) return track.equal >= 1;
  if (track.ended && !track.continuous && !track.recalled) return track.equal >= 2 && age >= stop_settles_us;
  return track.equal >= 3 && age >= settle_us;
}

void Head::stop_again(Track &track, std::int64_t now) {
  if (!track.stops || now - track.since_us < brakes_us) return;
  syslog(LOG_WARNING, "camera %u moves on after a stop", address());
  if (track.is_pan_tilt) {
    stop_pan_tilt([](Outcome) {});
  } else {
    stop_zoom([](Outcome) {});
  }
}

void Head::follow(Track &track, bool changed, std::int64_t now) {
  if (changed) {
    track.equal = 0;
    if (track.was_at_rest && track.moves && !track.ended) {
      track.was_at_rest = false;
      link_->confirm_motion(track.is_pan_tilt ? Group::pan_tilt : Group::zoom, now);
    }
    stop_again(track, now);
    // Moved by another controller, or by a recall that was completed at once.
    if (!track.moves) {
      track.moves = true;
      track.ended = true;
      track.since_us = now;
    }
    return;
  }
  ++track.equal;
  if (track.equal >= 3) track.stops = false;
  if (!track.ended && !track.moves && track.equal >= 3 && now - track.since_us >= settle_us) {
    // A stop that finds the head at rest, without an ACK.
    link_->confirm_rest(track.is_pan_tilt ? Group::pan_tilt : Group::zoom, now);
  }
  if (!track.moves || !is_over(track, now)) return;
  track.moves = track.continuous = false;
  if (track.is_pan_tilt) {
    ordered_[pan_axis] = ordered_[tilt_axis] = false;
    driven_ = {};
  } else {
    ordered_[zoom_axis] = false;
  }
  link_->confirm_rest(track.is_pan_tilt ? Group::pan_tilt : Group::zoom, now);
}

void Head::forget(std::size_t axis) {
  steps_[axis].reset();
  if (axis != zoom_axis || options_.has_zoom) user_.axis_is_unknown(axis);
}

void Head::report(std::size_t axis) {
  const Track &track = axis == zoom_axis ? zoom_ : pan_tilt_;
  if (!steps_[axis]) return;
  user_.axis_is_at(axis, value_of(axis, *steps_[axis]), track.moves && ordered_[axis]);
}

void Head::report_all() {
  for (std::size_t axis = 0; axis < axis_count; ++axis) report(axis);
}

}  // namespace visca
