#include "ptz_timing_log.h"

#include <unistd.h>
#include <array>
#include <cerrno>

#include "base/check.h"
#include "base/clock.h"
#include "base/handles.h"
#include "platform/status_store.h"
#include "ptz_settings.h"
#include "status/status_value.h"

namespace {

using ptz::clock_now;
using ptz::status::integer;
using ptz::status::seconds_and_nanoseconds;
using ptz::status::time_words;

constexpr guint32 timing_size = 172, counter_size = 78;
// The mode words of the platform's store.
constexpr gint timing_create_mode = 1, timing_get_mode = 1, timing_set_mode = 2;
constexpr gint counter_create_mode = 0, counter_get_mode = 0, counter_update_mode = 1, counter_reset_mode = 2;

// The array that the store takes: a pointer to each value, and a NULL.
template <std::size_t n>
std::array<StatusStoreParam *, n + 1> list_of(std::array<StatusStoreParam, n> &values) {
  std::array<StatusStoreParam *, n + 1> list = {};
  for (std::size_t i = 0; i < n; ++i) list[i] = &values[i];
  return list;
}

// The keys of one end of a measurement.
struct End {
  const gchar *time_key;
  const gchar *process_key;
};
constexpr End start = {"start_time", "start_pid"};
constexpr End stop = {"stop_time", "stop_pid"};

// One end of a measurement as it is in the store.
struct Stamp {
  PTZStatusCacheTime time = {};
  guint16 process = 0;

  [[nodiscard]] bool is_set() const { return time.fraction != 0; }
  [[nodiscard]] std::array<StatusStoreParam, 2> params(const End &end) {
    return {{{end.time_key, sizeof time, &time, seconds_and_nanoseconds},
             {end.process_key, sizeof process, &process, integer}}};
  }
};

guint16 own_process() { return static_cast<guint16>(getpid()); }

Stamp stamp_now(clockid_t clock) { return {time_words(clock_now(clock)), own_process()}; }

gint read_stamp(const gchar *group, const End &end, Stamp &stamp) {
  auto values = stamp.params(end);
  return status_store_get_group(group, list_of(values).data(), timing_get_mode);
}

void write_stamp(const gchar *group, const End &end, Stamp stamp) {
  auto values = stamp.params(end);
  status_store_set_group(group, list_of(values).data(), timing_set_mode);
}

void start_measurement(const gchar *group, clockid_t clock) {
  if (group == nullptr) return;
  Stamp started;
  if (read_stamp(group, start, started) <= 0 || started.is_set()) return;
  write_stamp(group, start, stamp_now(clock));
}

// The processor time of the process with this number; where there is none, or it ends meanwhile, that of our own.
PTZStatusCacheTime processor_time_of(pid_t process) {
  clockid_t clock = {};
  timespec used = {};
  if (clock_getcpuclockid(process, &clock) == 0 && clock_gettime(clock, &used) == 0) return time_words(used);
  return time_words(clock_now(CLOCK_PROCESS_CPUTIME_ID));
}

// The groups of a kind for the first and the second driver.
using DriverGroups = std::array<const gchar *, 2>;
constexpr DriverGroups request_groups = {"ptzdt_driver_req_d1", "ptzdt_driver_req_d2"};
constexpr DriverGroups move_groups = {"ptzdt_driver_move_d1", "ptzdt_driver_move_d2"};
constexpr DriverGroups reply_groups = {"ptzdt_driver_reply_d1", "ptzdt_driver_reply_d2"};
constexpr DriverGroups process_groups = {"ptzdt_driver_process_d1", "ptzdt_driver_process_d2"};

const gchar *group_of(const DriverGroups &groups, gint32 driver) {
  const gint32 number = driver % 10;
  return number == 1 || number == 2 ? groups[number - 1] : nullptr;
}

struct Counter {
  guint32 value = 0;
  gint32 owner = 0;

  [[nodiscard]] StatusStoreParam value_param() { return {"counter_value", sizeof value, &value, integer}; }
  [[nodiscard]] StatusStoreParam owner_param() { return {"counter_pid", sizeof owner, &owner, integer}; }
};

ptz::Text counter_group(const gchar *prefix, gint32 driver) {
  return ptz::Text(g_strdup_printf("%s%d", prefix, driver));
}

bool create_counter(const ptz::Text &group) {
  return status_store_create_group(group.get(), counter_size, counter_create_mode) >= 0;
}

bool read_counter(const ptz::Text &group, Counter &counter) {
  std::array values = {counter.value_param(), counter.owner_param()};
  return status_store_get_group(group.get(), list_of(values).data(), counter_get_mode) >= 0;
}

void write_counter(const ptz::Text &group, Counter counter) {
  std::array values = {counter.value_param(), counter.owner_param()};
  status_store_set_group(group.get(), list_of(values).data(), counter_reset_mode);
}

void write_value(const ptz::Text &group, Counter counter) {
  std::array values = {counter.value_param()};
  status_store_set_group(group.get(), list_of(values).data(), counter_update_mode);
}

bool read_driver_count(gint32 &count) {
  return ptz_settings_get_custom_int("PTZDriverManager", "NbrOfDrivers", &count) != FALSE;
}

}  // namespace

void log_time_reset(const gchar *group_name) {
  if (group_name == nullptr) return;
  if (status_store_create_group(group_name, timing_size, timing_create_mode) < 0 && errno != EEXIST) return;
  Stamp none_started, none_stopped;
  const auto starts = none_started.params(start), stops = none_stopped.params(stop);
  std::array values = {starts[0], starts[1], stops[0], stops[1]};
  status_store_set_group(group_name, list_of(values).data(), timing_set_mode);
}

void log_time_start(const gchar *group_name) { start_measurement(group_name, CLOCK_MONOTONIC); }

void log_time_stop(const gchar *group_name, gboolean other_process) {
  if (group_name == nullptr) return;
  Stamp started, stopped;
  if (read_stamp(group_name, start, started) < 0 || !started.is_set()) return;
  if (read_stamp(group_name, stop, stopped) < 0 || stopped.is_set()) return;
  const bool is_other = started.process != own_process();
  if (is_other != (other_process != FALSE)) return;
  write_stamp(group_name, stop, stamp_now(CLOCK_MONOTONIC));
}

void log_time_start_process_timer(const gchar *group_name) { start_measurement(group_name, CLOCK_PROCESS_CPUTIME_ID); }

void log_time_stop_process_timer(const gchar *group_name) {
  if (group_name == nullptr) return;
  Stamp started, stopped;
  const bool have_stop = read_stamp(group_name, stop, stopped) >= 0;
  const bool have_start = read_stamp(group_name, start, started) >= 0;
  if (!have_stop || !have_start || !started.is_set() || stopped.is_set()) return;
  write_stamp(group_name, stop, {processor_time_of(started.process), own_process()});
}

void log_time_start_driver_req(gint32 driver) { log_time_start(group_of(request_groups, driver)); }

void log_time_stop_driver_req(gint32 driver) { log_time_stop(group_of(request_groups, driver), FALSE); }

void log_time_start_driver_move(gint32 driver) { log_time_start(group_of(move_groups, driver)); }

void log_time_stop_driver_move(gint32 driver) { log_time_stop(group_of(move_groups, driver), FALSE); }

void log_time_start_driver_reply(gint32 driver) { log_time_start(group_of(reply_groups, driver)); }

void log_time_stop_driver_reply(gint32 driver) { log_time_stop(group_of(reply_groups, driver), FALSE); }

void log_time_start_process_timer_driver(gint32 driver) {
  log_time_start_process_timer(group_of(process_groups, driver));
}

void log_counter_reset(gint32 driver, const gchar *prefix) {
  if (prefix == nullptr) return;
  auto group = counter_group(prefix, driver);
  if (!create_counter(group)) {
    if (errno != EEXIST) return;
    gint32 drivers = 1;
    if (!read_driver_count(drivers)) log_func(LOG_WARNING, "Failed to get NbrOfDrivers");
    if (drivers >= 2 && driver == 1) {
      // Another driver's process counts in the first.
      group = counter_group(prefix, 2);
      if (!create_counter(group)) return;
    }
  }
  write_counter(group, {.owner = getpid()});
}

void log_counter_update(gint32 driver, const gchar *prefix, guint32 value) {
  if (prefix == nullptr) return;
  const gint32 own = getpid();
  auto group = counter_group(prefix, driver);
  Counter counter;
  if (!read_counter(group, counter)) return;
  if (counter.owner != own) {
    gint32 drivers = 1;
    if (!read_driver_count(drivers)) log_func(LOG_WARNING, "Failed to get NbrOfDrivers");
    if (drivers < 2 || driver != 1) return;
    group = counter_group(prefix, 2);
    Counter second;
    if (!read_counter(group, second) || second.owner != own) return;
  }
  write_value(group, {.value = value});
}
