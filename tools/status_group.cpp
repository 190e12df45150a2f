#include "status_group.h"

#include <ptz_enum_types.h>

#include <algorithm>

#include "axis_members.h"
#include "driver_socket.h"
#include "field_values.h"
#include "json_text.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr gint overview_mode = 58;  // has no enumerator
constexpr gint64 ms_per_s = 1000;
constexpr gint64 clock_tolerance_ms = 1000;
constexpr gint periods_until_stale = 3;

constexpr const char *position_keys[] = {"PAN_DEG", "TILT_DEG", "ZOOM_MAG"};
constexpr const char *status_keys[] = {"PAN_STATUS", "TILT_STATUS", "ZOOM_STATUS"};

std::string named(const Publisher &publisher) {
  return tools::plain_text(publisher.name) + "[" + std::to_string(publisher.pid) + "]";
}

}  // namespace

const StatusKind position_kind = {PTZ_SC_GROUP_POSITION, PTZ_SC_PARAM_POSITION_PAN,
                                  PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME};
const StatusKind various_kind = {PTZ_SC_GROUP_VARIOUS, PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, overview_mode};
const StatusKind limit_kind = {PTZ_SC_GROUP_LIMIT, PTZ_SC_PARAM_LIMIT_MIN_PAN, PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS};

// The library knows how the values are called and what they are.
StatusGroup::StatusGroup(const StatusKind &kind, guint instance) {
  const gint count = kind.last_param - kind.first_param + 1;
  const tools::Handle<PTZStatusCacheGroup, ptz_status_cache_free_group> handle(
      ptz_status_cache_setup_group(kind.group, instance, count));
  gint64 unused = 0;
  name = handle->name;
  for (gint i = 0; i < count; ++i) {
    ptz_status_cache_add_param(handle.get(), static_cast<PTZSCParam>(kind.first_param + i), &unused);
    const auto &added = *handle->params[i];
    values.push_back({added.key, added.size, added.type});
  }
}

const StoredValue *StatusGroup::find(std::string_view key) const {
  const auto found =
      std::ranges::find_if(values, [key](const StoredValue &each) { return each.found && each.key == key; });
  return found != values.end() ? &*found : nullptr;
}

gint32 StatusGroup::update_rate() const {
  const auto *const rate = find("UPDATE_RATE");
  return rate != nullptr ? rate->value.number : 0;
}

// Publishers stamp the position by the clock that all processes share. A group that was never written has no time.
std::optional<gint64> StatusGroup::age_ms() const {
  const auto *const stamp = find("TIME_VAL");
  if (stamp == nullptr || (stamp->value.time.seconds == 0 && stamp->value.time.fraction == 0)) return std::nullopt;
  const auto &time = stamp->value.time;
  return (g_get_monotonic_time() - (time.seconds * gint64{G_USEC_PER_SEC} + time.fraction)) / 1000;
}

bool StatusGroup::is_stale() const {
  const auto age = age_ms();
  if (!age) return false;
  const gint64 period = update_rate() > 0 ? (ms_per_s + update_rate() - 1) / update_rate() : ms_per_s;
  return *age > periods_until_stale * period || *age < -clock_tolerance_ms;  // of a time before the last boot
}

float StatusGroup::position(std::size_t axis) const {
  const auto *const value = find(position_keys[axis]);
  return value != nullptr ? value->value.measure : 0;
}

std::string StatusGroup::status(std::size_t axis) const {
  const auto *const value = find(status_keys[axis]);
  return value != nullptr ? word_of(PTZ_TYPE_MOVE_STATUS, value->value.number) : "unknown";
}

void StatusGroup::add_axes_to(const JsonLine &json) const {
  add_axes(json, [&](std::size_t axis) {
    json.member("position", widened(position(axis)));
    json.member("status", status(axis));
  });
}

std::vector<Publisher> publishers_of(guint instance) {
  tools::Error error;
  const tools::RegistryList list = tools::registered_drivers(error);
  std::vector<Publisher> alive, dead;
  for (guint i = 0; list != nullptr && i < list->len; ++i) {
    const auto &entry = *static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(list.get(), i));
    if (entry.instance != instance || instance == 0) continue;
    const bool is_dead = entry.liveness == PTZ_KIT_DRIVER_DEAD;
    (is_dead ? dead : alive)
        .push_back({entry.name, entry.pid, is_dead ? ProcessState::dead : state_of_process(entry.pid)});
  }
  return alive.empty() ? dead : alive;
}

std::string trouble_with(const std::vector<Publisher> &publishers) {
  if (publishers.empty()) return "";
  if (publishers.size() == 1) {
    const Publisher &only = publishers.front();
    return is_out_of_action(only.state) ? named(only) + " is " + name_of(only.state) : "";
  }
  const bool are_dead = publishers.front().state == ProcessState::dead;
  std::string names;
  for (const Publisher &each : publishers) names += (names.empty() ? "" : ", ") + named(each);
  return are_dead ? names + " are dead" : std::to_string(publishers.size()) + " drivers publish it: " + names;
}

std::string text_of(const std::vector<Publisher> &publishers) {
  std::string text;
  for (const Publisher &each : publishers) {
    const std::string state = is_out_of_action(each.state) ? std::string(" (") + name_of(each.state) + ")" : "";
    text += (text.empty() ? "" : ", ") + named(each) + state;
  }
  return text;
}

void add_publishers(const JsonLine &json, const std::vector<Publisher> &publishers) {
  json.begin_array("publishers");
  for (const Publisher &each : publishers) {
    json.begin_object();
    json.member("name", each.name);
    json.member("pid", gint64{each.pid});
    json.member("state", name_of(each.state));
    json.end_object();
  }
  json.end_array();
}

void add_age(const JsonLine &json, const StatusGroup &group) {
  const auto age = group.age_ms();
  age ? json.member("age_ms", *age) : json.member("age_ms", json_node_new(JSON_NODE_NULL));
  json.member("stale", group.is_stale());
}

}  // namespace ptzctl
