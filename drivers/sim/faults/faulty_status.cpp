#include "faulty_status.h"

#include "fault_list.h"

namespace sim {

FaultyStatus::FaultyStatus(guint instance, const Head &head)
    : position_(ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 8)),
      limits_(ptz_status_cache_setup_group(PTZ_SC_GROUP_LIMIT, instance, 6)),
      various_(ptz_status_cache_setup_group(PTZ_SC_GROUP_VARIOUS, instance, 1)) {
  const auto add = [](const Group &group, PTZSCParam param, gpointer value) {
    ptz_status_cache_add_param(group.get(), param, value);
  };
  add(position_, PTZ_SC_PARAM_POSITION_PAN, &degrees_[pan]);
  add(position_, PTZ_SC_PARAM_POSITION_TILT, &degrees_[tilt]);
  add(position_, PTZ_SC_PARAM_POSITION_MZOOM, &degrees_[zoom]);
  add(position_, PTZ_SC_PARAM_POSITION_PAN_STATUS, &status_[pan]);
  add(position_, PTZ_SC_PARAM_POSITION_TILT_STATUS, &status_[tilt]);
  if (!fault("status.position-group")) add(position_, PTZ_SC_PARAM_POSITION_ZOOM_STATUS, &status_[zoom]);
  add(position_, PTZ_SC_PARAM_POSITION_UPDATE_RATE, &rate_);
  add(position_, PTZ_SC_PARAM_POSITION_TIME_VAL, &time_);

  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    minimum_[axis] = head.axis(axis).range().minimum / (axis == zoom ? 1 : 100);
    maximum_[axis] = head.axis(axis).range().maximum / (axis == zoom ? 1 : 100);
  }
  if (fault("status.limits-agree")) minimum_[pan] = -180;
  add(limits_, PTZ_SC_PARAM_LIMIT_MIN_PAN, &minimum_[pan]);
  add(limits_, PTZ_SC_PARAM_LIMIT_MAX_PAN, &maximum_[pan]);
  add(limits_, PTZ_SC_PARAM_LIMIT_MIN_TILT, &minimum_[tilt]);
  add(limits_, PTZ_SC_PARAM_LIMIT_MAX_TILT, &maximum_[tilt]);
  add(limits_, PTZ_SC_PARAM_LIMIT_MIN_ZOOM, &minimum_[zoom]);
  if (!fault("status.limit-group")) add(limits_, PTZ_SC_PARAM_LIMIT_MAX_ZOOM, &maximum_[zoom]);
  ptz_status_cache_update_group(limits_.get());

  add(various_, PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, &preset_move_);
  publish(head, false);
}

void FaultyStatus::publish(const Head &head, bool going_to_preset) {
  const gint64 now_us = g_get_monotonic_time();
  time_ = {static_cast<guint32>(now_us / G_USEC_PER_SEC), static_cast<guint32>(now_us % G_USEC_PER_SEC)};
  if (fault("status.time-is-now")) time_.seconds -= 10;
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    degrees_[axis] = static_cast<gfloat>(head.axis(axis).exact_position() / 100);
    status_[axis] = head.axis(axis).moving() ? PTZ_MOVE_STATUS_MOVING : PTZ_MOVE_STATUS_IDLE;
  }
  if (fault("status.position-agrees")) degrees_[pan] += 1;
  if (fault("status.reports-moving")) status_ = {};
  preset_move_ = going_to_preset && !fault("status.preset-move") ? 1 : 0;
  ptz_status_cache_update_group(position_.get());
  if (!fault("status.various-group")) ptz_status_cache_update_group(various_.get());
}

}  // namespace sim
