#include "published_status.h"

#include <ptz_timing_log.h>

namespace example {

namespace {

constexpr const char *request_counter = "ptzdt_driver_commands_d";
constexpr int nanoseconds_per_microsecond = 1000;

StatusGroup set_up(PTZSCGroup kind, guint instance, gint params) {
  // Defaults for all that this driver has nothing to tell of.
  ptz_status_cache_create_group(kind, instance);
  return StatusGroup(ptz_status_cache_setup_group(kind, instance, params));
}

void publish_limits(guint instance, const Head &head) {
  const auto group = set_up(PTZ_SC_GROUP_LIMIT, instance, 2 * axis_count);
  constexpr std::array<PTZSCParam, axis_count> minima = {PTZ_SC_PARAM_LIMIT_MIN_PAN, PTZ_SC_PARAM_LIMIT_MIN_TILT,
                                                         PTZ_SC_PARAM_LIMIT_MIN_ZOOM};
  constexpr std::array<PTZSCParam, axis_count> maxima = {PTZ_SC_PARAM_LIMIT_MAX_PAN, PTZ_SC_PARAM_LIMIT_MAX_TILT,
                                                         PTZ_SC_PARAM_LIMIT_MAX_ZOOM};
  // Whole degrees; of the zoom, what is published as its steps.
  constexpr PerAxis units = {1'00, 1'00, 1};
  std::array<PerAxis, 2> limits = {};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    const auto &range = head.axis(axis).range();
    limits[0][axis] = range.minimum / units[axis];
    limits[1][axis] = range.maximum / units[axis];
    ptz_status_cache_add_param(group.get(), minima[axis], &limits[0][axis]);
    ptz_status_cache_add_param(group.get(), maxima[axis], &limits[1][axis]);
  }
  ptz_status_cache_update_group(group.get());
}

// The timing log takes one measurement until it is reset. Only drivers whose number ends with 1 or 2 have groups there.
void reset_measurement(const char *what, gint32 driver) {
  const gint32 number = driver % 10;
  if (number != 1 && number != 2) return;
  const Text name(g_strdup_printf("ptzdt_driver_%s_d%d", what, number));
  log_time_reset(name.get());
}

}  // namespace

PublishedStatus::PublishedStatus(guint instance, const Head &head, const LiveSettings &settings)
    : position_(set_up(PTZ_SC_GROUP_POSITION, instance, 4 * axis_count + 3)),
      flags_(set_up(PTZ_SC_GROUP_VARIOUS, instance, 2)),
      driver_(static_cast<gint32>(instance)),
      settings_(settings, [this](const char *name, const GValue *value) {
        if (!g_str_equal(name, ir_cut_filter)) return;
        ir_cut_filter_ = g_value_get_boolean(value);
        publish_flags();
      }) {
  struct Params {
    PTZSCParam position, status, idle_since, moving_since;
  };
  constexpr std::array<Params, axis_count> params = {
      {{PTZ_SC_PARAM_POSITION_PAN, PTZ_SC_PARAM_POSITION_PAN_STATUS, PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME,
        PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME},
       {PTZ_SC_PARAM_POSITION_TILT, PTZ_SC_PARAM_POSITION_TILT_STATUS, PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME,
        PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME},
       {PTZ_SC_PARAM_POSITION_MZOOM, PTZ_SC_PARAM_POSITION_ZOOM_STATUS, PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME,
        PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME}}};
  for (std::size_t index = 0; index < axis_count; ++index) {
    AxisStatus &axis = axes_[index];
    ptz_status_cache_add_param(position_.get(), params[index].position, &axis.position);
    ptz_status_cache_add_param(position_.get(), params[index].status, &axis.status);
    ptz_status_cache_add_param(position_.get(), params[index].idle_since, &axis.idle_since);
    ptz_status_cache_add_param(position_.get(), params[index].moving_since, &axis.moving_since);
  }
  ptz_status_cache_add_param(position_.get(), PTZ_SC_PARAM_POSITION_VZOOM, &zoom_steps_);
  ptz_status_cache_add_param(position_.get(), PTZ_SC_PARAM_POSITION_UPDATE_RATE, &update_rate_);
  ptz_status_cache_add_param(position_.get(), PTZ_SC_PARAM_POSITION_TIME_VAL, &updated_);
  ptz_status_cache_add_param(flags_.get(), PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, &going_to_preset_);
  ptz_status_cache_add_param(flags_.get(), PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, &ir_cut_filter_);
  publish_flags();  // what an earlier driver left there is over
  publish_limits(instance, head);

  for (const char *what : {"req", "move", "reply", "process"}) reset_measurement(what, driver_);
  log_counter_reset(driver_, request_counter);
  log_time_start_process_timer_driver(driver_);
  publish(head, false);
}

PublishedStatus::~PublishedStatus() {
  const gint32 number = driver_ % 10;
  if (number == 1) log_time_stop_process_timer("ptzdt_driver_process_d1");
  if (number == 2) log_time_stop_process_timer("ptzdt_driver_process_d2");
}

void PublishedStatus::publish_flags() {
  if (flags_ && ptz_status_cache_update_group(flags_.get()) == FALSE) flags_.reset();
}

void PublishedStatus::publish(const Head &head, bool going_to_preset) {
  const gint64 now_us = g_get_monotonic_time();
  updated_ = {static_cast<guint32>(now_us / G_USEC_PER_SEC), static_cast<guint32>(now_us % G_USEC_PER_SEC)};
  const PTZStatusCacheTime now = {updated_.seconds, updated_.fraction * nanoseconds_per_microsecond};
  for (std::size_t index = 0; index < axis_count; ++index) {
    AxisStatus &published = axes_[index];
    const Axis &axis = head.axis(index);
    published.position = static_cast<gfloat>(axis.exact_position() / 100);
    const gint32 status = axis.moving() ? PTZ_MOVE_STATUS_MOVING : PTZ_MOVE_STATUS_IDLE;
    if (status == published.status) continue;
    published.status = status;
    (axis.moving() ? published.moving_since : published.idle_since) = now;
  }
  zoom_steps_ = head.axis(zoom).position();
  // The library logs why the status cannot be published; the head moves without it, and without a line for each update.
  if (position_ && ptz_status_cache_update_group(position_.get()) == FALSE) position_.reset();

  if (gint32{going_to_preset} != going_to_preset_) {
    going_to_preset_ = going_to_preset ? 1 : 0;
    publish_flags();
  }

  if (head.moving() == measuring_move_) return;
  measuring_move_ = head.moving();
  if (measuring_move_) {
    reset_measurement("move", driver_);
    log_time_start_driver_move(driver_);
  } else {
    log_time_stop_driver_move(driver_);
  }
}

void PublishedStatus::request_begins() {
  log_counter_update(driver_, request_counter, ++requests_);
  reset_measurement("req", driver_);
  log_time_start_driver_req(driver_);
}

void PublishedStatus::reply_begins() {
  reset_measurement("reply", driver_);
  log_time_start_driver_reply(driver_);
}

void PublishedStatus::request_ends() {
  log_time_stop_driver_reply(driver_);
  log_time_stop_driver_req(driver_);
}

}  // namespace example
