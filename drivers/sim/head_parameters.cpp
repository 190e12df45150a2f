#include "head_parameters.h"

#include <ptz_tessel.h>
#include <ptz_tessel_async.h>
#include <syslog.h>

#include <algorithm>
#include <string>
#include <utility>

#include "owners.h"

namespace sim {

namespace {

constexpr const char *head_group = "Head";
constexpr const char *state_group = "State";
// As the library's background writer has it.
constexpr gint32 mode = 12;
constexpr gint32 no_extra = -1;
constexpr gulong poll_us = 5'000;

// Where the parameter is missing or no number, the library has logged it, and the value stays.
gint32 number_or(guint instance, const char *group, const std::string &name, gint32 value) {
  gint32 number = 0;
  return ptz_tessel_get_int_val(instance, group, name.c_str(), &number, nullptr) != FALSE ? number : value;
}

}  // namespace

bool HeadParameters::open() {
  // That a group exists is no failure: it holds what was changed in it.
  for (const auto &[group, templ] : {std::pair{head_group, "sim_head"}, {state_group, "sim_state"}}) {
    const Text created(
        ptz_tessel_create_group_vp(no_extra, mode, static_cast<gint32>(instance_), templ, "root.PTZ.%s", group));
    if (!created) return false;
  }
  const gint32 starts = number_or(instance_, state_group, "Starts", 0);
  if (number_or(instance_, state_group, "Ended", 0) != starts) {
    syslog(LOG_WARNING, "the driver did not end as it should; its last position may be an older one");
  }
  starts_ = starts < G_MAXINT32 ? starts + 1 : 1;
  push("Starts", starts_);
  return true;
}

HeadRanges HeadParameters::narrowed(HeadRanges ranges) const {
  gint32 percent = number_or(instance_, head_group, "SpeedPercent", 100);
  if (percent < 1 || percent > 100) {
    syslog(LOG_WARNING, "SpeedPercent: %d is not within 1 to 100", percent);
    percent = 100;
  }
  for (std::size_t index = 0; index < axis_count; ++index) {
    AxisRange &range = ranges[index];
    const std::string axis = axis_titles[index];
    const gint32 minimum = std::max(range.minimum, number_or(instance_, head_group, axis + "Min", range.minimum));
    const gint32 maximum = std::min(range.maximum, number_or(instance_, head_group, axis + "Max", range.maximum));
    if (minimum < maximum) {
      range.minimum = minimum;
      range.maximum = maximum;
    } else {
      syslog(LOG_WARNING, "%sMin and %sMax leave nothing of %d to %d", axis.c_str(), axis.c_str(), range.minimum,
             range.maximum);
    }
    range.max_speed = std::max(1, static_cast<gint32>(gint64{range.max_speed} * percent / 100));
  }
  return ranges;
}

std::optional<PerAxis> HeadParameters::position_to_resume() const {
  gboolean resume = FALSE;
  if (!ptz_tessel_get_bool_val(instance_, head_group, "ResumePosition", &resume) || !resume) return std::nullopt;
  PerAxis position = head_home;
  for (std::size_t index = 0; index < axis_count; ++index) {
    position[index] = number_or(instance_, state_group, axis_titles[index], position[index]);
  }
  return position;
}

void HeadParameters::push(const char *name, gint32 value) const {
  ptz_tessel_async_push_set_int(value, "root.PTZ.%s.%c%u.%s", state_group, state_group[0], instance_, name);
}

void HeadParameters::keep(const PerAxis &position) const {
  for (std::size_t index = 0; index < axis_count; ++index) push(axis_titles[index], position[index]);
}

bool HeadParameters::finish(gint64 limit_ms) const {
  // Carried out after all that was queued before it; and the tree does not hold it yet.
  push("Ended", starts_);
  const gint64 end_us = g_get_monotonic_time() + limit_ms * 1000;
  while (number_or(instance_, state_group, "Ended", starts_ - 1) != starts_) {
    if (g_get_monotonic_time() >= end_us) {
      syslog(LOG_WARNING, "%u changes of parameters are lost", ptz_tessel_async_get_waiting_threads());
      return false;
    }
    g_usleep(poll_us);
  }
  return ptz_tessel_sync(mode) != FALSE;
}

}  // namespace sim
