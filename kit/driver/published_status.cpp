#include "driver/published_status.h"

#include <ptz_timing_log.h>
#include <syslog.h>

#include <utility>

namespace ptz_kit {

namespace {

constexpr char request_counter[] = "ptzdt_driver_commands_d";
constexpr guint32 nanoseconds_per_microsecond = 1000;
constexpr gint64 refresh_interval_us = G_USEC_PER_SEC;
constexpr gint64 first_delay_us = 250'000;
constexpr gint64 longest_delay_us = 32'000'000;

struct AxisParams {
  PTZSCParam position, status, idle_since, moving_since, minimum, maximum;
  gint32 limit_unit;  // limits are published in whole degrees; of the zoom, in what is published as its steps
};
constexpr std::array<AxisParams, PTZ_KIT_N_AXES> axis_params = {
    {{PTZ_SC_PARAM_POSITION_PAN, PTZ_SC_PARAM_POSITION_PAN_STATUS, PTZ_SC_PARAM_POSITION_PAN_STATUS_IDLE_TIME,
      PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME, PTZ_SC_PARAM_LIMIT_MIN_PAN, PTZ_SC_PARAM_LIMIT_MAX_PAN, 100},
     {PTZ_SC_PARAM_POSITION_TILT, PTZ_SC_PARAM_POSITION_TILT_STATUS, PTZ_SC_PARAM_POSITION_TILT_STATUS_IDLE_TIME,
      PTZ_SC_PARAM_POSITION_TILT_STATUS_MOVING_TIME, PTZ_SC_PARAM_LIMIT_MIN_TILT, PTZ_SC_PARAM_LIMIT_MAX_TILT, 100},
     {PTZ_SC_PARAM_POSITION_MZOOM, PTZ_SC_PARAM_POSITION_ZOOM_STATUS, PTZ_SC_PARAM_POSITION_ZOOM_STATUS_IDLE_TIME,
      PTZ_SC_PARAM_POSITION_ZOOM_STATUS_MOVING_TIME, PTZ_SC_PARAM_LIMIT_MIN_ZOOM, PTZ_SC_PARAM_LIMIT_MAX_ZOOM, 1}}};

// Only drivers whose number ends with 1 or 2 have timing groups.
bool has_timings(gint32 driver) { return driver % 10 == 1 || driver % 10 == 2; }

Text timing_group(const char *what, gint32 driver) {
  return Text(g_strdup_printf("ptzdt_driver_%s_d%d", what, driver % 10));
}

// The timing log takes one measurement until it is reset.
void reset_measurement(const char *what, gint32 driver) {
  if (has_timings(driver)) log_time_reset(timing_group(what, driver).get());
}

}  // namespace

StatusGroup::StatusGroup(PTZSCGroup kind, guint instance, std::vector<Value> values)
    : kind_(kind), instance_(instance), values_(std::move(values)) {}

void StatusGroup::create() { ptz_status_cache_create_group(kind_, instance_); }

bool StatusGroup::write() {
  if (!group_) {
    group_.reset(ptz_status_cache_setup_group(kind_, instance_, static_cast<gint>(values_.size())));
    if (!group_) return false;
    for (const Value &each : values_) ptz_status_cache_add_param(group_.get(), each.param, each.value);
  }
  return ptz_status_cache_update_group(group_.get()) != FALSE;
}

void StatusGroup::update(gint64 now_us) {
  if (now_us < retry_us_) return;
  if (write()) {
    if (retry_us_ != 0) syslog(LOG_NOTICE, "the status of PTZ instance %u is published again", instance_);
    retry_us_ = 0;
    return;
  }
  group_.reset();
  if (retry_us_ == 0) {
    syslog(LOG_WARNING, "the status of PTZ instance %u cannot be published; the driver goes on trying", instance_);
    delay_us_ = first_delay_us;
  } else {
    delay_us_ = std::min(2 * delay_us_, longest_delay_us);
  }
  retry_us_ = now_us + delay_us_;
}

std::vector<StatusGroup::Value> PublishedStatus::position_values() {
  std::vector<StatusGroup::Value> values = {{PTZ_SC_PARAM_POSITION_VZOOM, &zoom_steps_},
                                            {PTZ_SC_PARAM_POSITION_UPDATE_RATE, &update_rate_},
                                            {PTZ_SC_PARAM_POSITION_TIME_VAL, &updated_}};
  for (std::size_t index = 0; index < axes_.size(); ++index) {
    const AxisParams &params = axis_params[index];
    AxisStatus &axis = axes_[index];
    values.insert(values.end(), {{params.position, &axis.position},
                                 {params.status, &axis.status},
                                 {params.idle_since, &axis.idle_since},
                                 {params.moving_since, &axis.moving_since}});
  }
  return values;
}

std::vector<StatusGroup::Value> PublishedStatus::flag_values() {
  std::vector<StatusGroup::Value> values;
  for (std::size_t index = 0; index < flag_count; ++index) {
    values.push_back({static_cast<PTZSCParam>(first_flag + static_cast<gint32>(index)), &flags_[index]});
  }
  return values;
}

std::vector<StatusGroup::Value> PublishedStatus::limit_values() {
  std::vector<StatusGroup::Value> values;
  for (std::size_t index = 0; index < axes_.size(); ++index) {
    values.push_back({axis_params[index].minimum, &limits_[0][index]});
    values.push_back({axis_params[index].maximum, &limits_[1][index]});
  }
  return values;
}

bool PublishedStatus::is_flag(PTZSCParam param) {
  return param >= first_flag && param < first_flag + static_cast<gint32>(flag_count);
}

PublishedStatus::PublishedStatus(guint instance, const Axes &axes, guint32 flags)
    : driver_(static_cast<gint32>(instance)),
      position_(PTZ_SC_GROUP_POSITION, instance, position_values()),
      various_(PTZ_SC_GROUP_VARIOUS, instance, flag_values()),
      limit_(PTZ_SC_GROUP_LIMIT, instance, limit_values()) {
  if (any_known(axes)) create_position();
  various_.create();
  limit_.create();
  for (std::size_t index = 0; index < axes.size(); ++index) {
    limits_[0][index] = axes[index].minimum() / axis_params[index].limit_unit;
    limits_[1][index] = axes[index].maximum() / axis_params[index].limit_unit;
  }
  for (std::size_t index = 0; index < flag_count; ++index) flags_[index] = static_cast<gint32>(flags >> index & 1);
  for (const char *what : {"req", "move", "reply", "process"}) reset_measurement(what, driver_);
  begin_counter();
  log_time_start_process_timer_driver(driver_);
  publish(axes, false);
}

PublishedStatus::~PublishedStatus() {
  if (has_timings(driver_)) log_time_stop_process_timer(timing_group("process", driver_).get());
}

void PublishedStatus::publish(const Axes &axes, bool going_to_preset) {
  const gint64 now_us = g_get_monotonic_time();
  const bool moving = any_moving(axes), is_known = any_known(axes);
  const PTZStatusCacheTime time = {static_cast<guint32>(now_us / G_USEC_PER_SEC),
                                   static_cast<guint32>(now_us % G_USEC_PER_SEC)};
  const PTZStatusCacheTime now = {time.seconds, time.fraction * nanoseconds_per_microsecond};
  if (is_known) updated_ = time;
  for (std::size_t index = 0; index < axes.size(); ++index) {
    AxisStatus &published = axes_[index];
    const Axis &axis = axes[index];
    published.position = static_cast<gfloat>(axis.position()) / 100;
    const gint32 status = axis.status();
    if (status == published.status) continue;
    published.status = status;
    if (axis.is_known()) (axis.moving() ? published.moving_since : published.idle_since) = now;
  }
  if (now_us >= refresh_us_) refresh(now_us);
  zoom_steps_ = axes[PTZ_KIT_AXIS_ZOOM].position();
  update_rate_ = updates_per_second(moving);
  publish_position(is_known, now_us);
  set_flag(PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, going_to_preset && moving);
  measure_move(moving);
}

// When the position gets unknown, it is published once more, with the time of the last one that was known.
void PublishedStatus::publish_position(bool is_known, gint64 now_us) {
  const bool was_known = std::exchange(was_known_, is_known);
  if (!is_known && !was_known) return;
  if (!has_position_) create_position();
  position_.update(now_us);
}

void PublishedStatus::create_position() {
  has_position_ = true;
  position_.create();
}

void PublishedStatus::begin_counter() {
  log_counter_reset(driver_, request_counter);
  if (requests_ != 0) log_counter_update(driver_, request_counter, requests_);
}

bool PublishedStatus::limits_are_there() const {
  const Handle<PTZStatusCacheGroup, ptz_status_cache_free_group> group(
      ptz_status_cache_setup_group(PTZ_SC_GROUP_LIMIT, static_cast<guint>(driver_), 1));
  gint32 limit = 0;
  return group && ptz_status_cache_add_param(group.get(), axis_params[0].minimum, &limit) != FALSE &&
         ptz_status_cache_fetch_group(group.get()) != FALSE;
}

// Nothing tells whether the counter is there; it comes and goes with the limits.
void PublishedStatus::refresh(gint64 now_us) {
  const bool was_there = refresh_us_ == 0 || (limit_.is_published() && limits_are_there());
  refresh_us_ = now_us + refresh_interval_us;
  various_.update(now_us);  // the first time, because flags of an earlier driver no longer hold
  limit_.update(now_us);
  if (!was_there && limit_.is_published()) begin_counter();
}

void PublishedStatus::set_flag(PTZSCParam flag, bool on) {
  gint32 &value = flags_[static_cast<std::size_t>(flag - first_flag)];
  if (value == gint32{on}) return;
  value = gint32{on};
  various_.update(g_get_monotonic_time());
}

void PublishedStatus::measure_move(bool moving) {
  if (moving == measuring_move_) return;
  measuring_move_ = moving;
  if (moving) {
    reset_measurement("move", driver_);
    log_time_start_driver_move(driver_);
  } else {
    log_time_stop_driver_move(driver_);
  }
}

guint32 PublishedStatus::request_begins() {
  log_counter_update(driver_, request_counter, ++requests_);
  if (!request_rate_.permits(g_get_monotonic_time())) return requests_;
  reset_measurement("req", driver_);
  log_time_start_driver_req(driver_);
  return measured_request_ = requests_;
}

void PublishedStatus::reply_begins() {
  measuring_reply_ = reply_rate_.permits(g_get_monotonic_time());
  if (!measuring_reply_) return;
  reset_measurement("reply", driver_);
  log_time_start_driver_reply(driver_);
}

void PublishedStatus::request_ends(guint32 serial) {
  if (measuring_reply_) log_time_stop_driver_reply(driver_);
  if (serial == measured_request_) log_time_stop_driver_req(driver_);
}

}  // namespace ptz_kit
