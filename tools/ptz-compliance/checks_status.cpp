// The status that a driver publishes for other processes, held against what it answers.
#include <ptz_status_cache.h>

#include <cmath>
#include <vector>

#include "head.h"
#include "presets.h"

namespace compliance {

namespace {

using Group = Handle<PTZStatusCacheGroup, ptz_status_cache_free_group>;

constexpr gulong look_again_us = 2'000;
constexpr int awaited_updates = 8;
constexpr double slack = 3;  // of the time that updates should take: the machine may be busy
constexpr gint32 most_updates_per_second = 1000;
constexpr double oldest_s = 2;

struct Param {
  PTZSCParam param;
  gpointer value;
};

// False if the store has not all of them. A handle takes what the store returned for its capacity, so it is good for
// one fetch.
bool fetch(Probe &probe, PTZSCGroup kind, const std::vector<Param> &params) {
  if (params.empty()) return true;
  const Group group(ptz_status_cache_setup_group(kind, probe.instance(), static_cast<gint>(params.size())));
  for (const Param &each : params) ptz_status_cache_add_param(group.get(), each.param, each.value);
  return ptz_status_cache_fetch_group(group.get()) != FALSE && group->capacity == static_cast<gint>(params.size());
}

// The group of position, as far as these checks look at it.
struct Published {
  std::array<gfloat, axis_count> position = {};
  PerAxis status = {};
  gint32 rate = 0;
  PTZStatusCacheTime time = {};

  [[nodiscard]] double time_s() const { return time.seconds + time.fraction / 1e6; }
};

bool is_published(Probe &probe) {
  if (probe.instance() == 0) probe.not_applicable("", "no --instance says where the driver publishes its status");
  return !probe.decided();
}

struct Key {
  const char *name;
  PTZSCParam param;
};
struct AxisKeys {
  Key position, status, minimum, maximum;
};
constexpr std::array<AxisKeys, axis_count> axis_keys = {{{{"PAN_DEG", PTZ_SC_PARAM_POSITION_PAN},
                                                          {"PAN_STATUS", PTZ_SC_PARAM_POSITION_PAN_STATUS},
                                                          {"MIN_PAN", PTZ_SC_PARAM_LIMIT_MIN_PAN},
                                                          {"MAX_PAN", PTZ_SC_PARAM_LIMIT_MAX_PAN}},
                                                         {{"TILT_DEG", PTZ_SC_PARAM_POSITION_TILT},
                                                          {"TILT_STATUS", PTZ_SC_PARAM_POSITION_TILT_STATUS},
                                                          {"MIN_TILT", PTZ_SC_PARAM_LIMIT_MIN_TILT},
                                                          {"MAX_TILT", PTZ_SC_PARAM_LIMIT_MAX_TILT}},
                                                         {{"ZOOM_MAG", PTZ_SC_PARAM_POSITION_MZOOM},
                                                          {"ZOOM_STATUS", PTZ_SC_PARAM_POSITION_ZOOM_STATUS},
                                                          {"MIN_ZOOM", PTZ_SC_PARAM_LIMIT_MIN_ZOOM},
                                                          {"MAX_ZOOM", PTZ_SC_PARAM_LIMIT_MAX_ZOOM}}}};

std::vector<AxisIndex> announced_axes(Probe &probe) {
  Link link = probe.connect();
  return axes_of(*query<Capabilities>(link));
}

// Of the axes that are announced; nothing need be published of others.
Published published(Probe &probe, const std::vector<AxisIndex> &axes) {
  Published now;
  std::vector<Param> params = {{PTZ_SC_PARAM_POSITION_UPDATE_RATE, &now.rate},
                               {PTZ_SC_PARAM_POSITION_TIME_VAL, &now.time}};
  for (const AxisIndex axis : axes) {
    params.push_back({axis_keys[axis].position.param, &now.position[axis]});
    params.push_back({axis_keys[axis].status.param, &now.status[axis]});
  }
  if (!fetch(probe, PTZ_SC_GROUP_POSITION, params)) {
    probe.not_applicable("", "the published group of position is not whole");
  }
  return now;
}

struct PublishedLimits {
  bool are_whole;
  PerAxis minimum, maximum;
};
PublishedLimits published_limits(Probe &probe, const std::vector<AxisIndex> &axes) {
  PublishedLimits limits = {};
  std::vector<Param> params;
  for (const AxisIndex axis : axes) {
    params.push_back({axis_keys[axis].minimum.param, &limits.minimum[axis]});
    params.push_back({axis_keys[axis].maximum.param, &limits.maximum[axis]});
  }
  limits.are_whole = fetch(probe, PTZ_SC_GROUP_LIMIT, params);
  return limits;
}

// Looks at what is published until the condition holds.
template <typename Condition>
bool comes_true(Probe &probe, Condition condition) {
  const gint64 deadline = g_get_monotonic_time() + gint64{probe.timeout_ms()} * 1000;
  while (!probe.decided()) {
    if (condition()) return true;
    if (g_get_monotonic_time() > deadline) return false;
    g_usleep(look_again_us);
  }
  return false;
}

void position_group(Probe &probe) {
  if (!is_published(probe)) return;
  Published now;
  const auto expect = [&](const Key &key, gpointer value) {
    probe.fail_unless(fetch(probe, PTZ_SC_GROUP_POSITION, {{key.param, value}}), "PTZ_POSITION_IS%u has no %s",
                      probe.instance(), key.name);
  };
  for (const AxisIndex axis : announced_axes(probe)) {
    expect(axis_keys[axis].position, &now.position[axis]);
    expect(axis_keys[axis].status, &now.status[axis]);
  }
  expect({"UPDATE_RATE", PTZ_SC_PARAM_POSITION_UPDATE_RATE}, &now.rate);
  expect({"TIME_VAL", PTZ_SC_PARAM_POSITION_TIME_VAL}, &now.time);
}

void limit_group(Probe &probe) {
  if (!is_published(probe)) return;
  const std::vector<AxisIndex> axes = announced_axes(probe);
  std::string names;
  for (const AxisIndex axis : axes) names += std::string(names.empty() ? "" : ", ") + axis_names[axis];
  probe.fail_unless(published_limits(probe, axes).are_whole, "PTZ_LIMIT_IS%u has not all limits of %s",
                    probe.instance(), names.c_str());
}

void various_group(Probe &probe) {
  if (!is_published(probe)) return;
  gint32 flag = 0;
  probe.fail_unless(fetch(probe, PTZ_SC_GROUP_VARIOUS, {{PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, &flag}}),
                    "PTZ_VARIOUS_IS%u has no PT_PRESET_MOVE", probe.instance());
}

void update_rate(Probe &probe) {
  if (!is_published(probe)) return;
  const std::vector<AxisIndex> axes = announced_axes(probe);
  Published last = published(probe, axes);
  probe.fail_unless(last.rate > 0 && last.rate <= most_updates_per_second, "the announced rate is %d updates a second",
                    last.rate);
  if (probe.decided()) return;
  const double limit_s = slack * awaited_updates / last.rate;
  const gint64 start = g_get_monotonic_time();
  const auto elapsed_s = [start] { return static_cast<double>(g_get_monotonic_time() - start) / G_USEC_PER_SEC; };
  int updates = 0;
  while (updates < awaited_updates && elapsed_s() < limit_s && !probe.decided()) {
    g_usleep(look_again_us);
    const Published now = published(probe, axes);
    if (now.time_s() != last.time_s()) ++updates;
    last = now;
  }
  const double seconds = elapsed_s();
  probe.fail_unless(updates == awaited_updates, "%d updates in %.2f s, %d a second are announced", updates, seconds,
                    last.rate);
  probe.note("%.1f updates a second, %d are announced", updates / seconds, last.rate);
}

void time_is_now(Probe &probe) {
  if (!is_published(probe)) return;
  const Published last = published(probe, announced_axes(probe));
  const double age_s = static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC - last.time_s();
  probe.fail_unless(age_s >= -0.001 && age_s <= oldest_s, "TIME_VAL is %.3f s old by the monotonic clock", age_s);
}

void position_agrees(Probe &probe) {
  if (!is_published(probe)) return;
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  head.order(Head::move(PTZ_MOVE_RELATIVE, axis, head.step(axis)));
  const Positions there = head.arrive();
  Published now;
  const bool agrees = comes_true(probe, [&] {
    now = published(probe, head.axes());
    for (const AxisIndex each : head.axes()) {
      if (std::abs(now.position[each] * 100 - static_cast<double>(there.position[each])) > 1) return false;
    }
    return true;
  });
  probe.fail_unless(agrees, "the head is at %d, %d, %d and published at %.2f, %.2f degrees, magnification %.2f",
                    there.position[pan], there.position[tilt], there.position[zoom],
                    static_cast<double>(now.position[pan]), static_cast<double>(now.position[tilt]),
                    static_cast<double>(now.position[zoom]));
}

void reports_moving(Probe &probe) {
  if (!is_published(probe)) return;
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
  head.make_room(axis);
  head.order(head.run_slowly(axis, 3));
  const bool moves = comes_true(probe, [&] { return published(probe, {axis}).status[axis] == PTZ_MOVE_STATUS_MOVING; });
  probe.fail_unless(moves, "%s runs and is published as idle", axis_names[axis]);
  head.calm_down();
  const bool rests = comes_true(probe, [&] { return published(probe, {axis}).status[axis] == PTZ_MOVE_STATUS_IDLE; });
  probe.fail_unless(rests, "%s is idle and published as moving", axis_names[axis]);
}

void limits_agree(Probe &probe) {
  if (!is_published(probe)) return;
  Link link = probe.connect();
  const Capabilities capabilities = *query<Capabilities>(link);
  const Limits limits = *query<Limits>(link);
  const auto [are_whole, minimum, maximum] = published_limits(probe, axes_of(capabilities));
  if (!are_whole) return probe.not_applicable("", "the published group of limits is not whole");
  // Whole degrees. The unit of the zoom is the driver's.
  for (const AxisIndex axis : {pan, tilt}) {
    if (!has_axis(capabilities, axis)) continue;
    probe.fail_unless(std::abs(minimum[axis] - limits.minimum[axis] / 100.0) <= 1 &&
                          std::abs(maximum[axis] - limits.maximum[axis] / 100.0) <= 1,
                      "the limits of %s are %d to %d hundredths of a degree and published as %d to %d degrees",
                      axis_names[axis], limits.minimum[axis], limits.maximum[axis], minimum[axis], maximum[axis]);
  }
}

void preset_move(Probe &probe) {
  if (!is_published(probe)) return;
  gint32 flag = 0;
  const auto flagged = [&] {
    if (!fetch(probe, PTZ_SC_GROUP_VARIOUS, {{PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, &flag}})) {
      probe.not_applicable("", "PT_PRESET_MOVE is not published");
    }
    return flag != 0;
  };
  flagged();
  Head head(probe);
  const AxisIndex axis = head.axis_for(PTZ_MOVE_RELATIVE);
  head.make_room(axis);
  const guint32 number = free_preset(head.link());
  store_preset(head.link(), number);
  head.order(Head::move(PTZ_MOVE_RELATIVE, axis, 4 * head.step(axis)));
  head.arrive();
  head.order(make_body(PTZKitGotoDevicePresetRequest{number, 1}));
  probe.fail_unless(comes_true(probe, flagged), "the head goes to preset %u and PT_PRESET_MOVE is 0", number);
  head.order(make_body(PTZKitGotoDevicePresetRequest{number, full_speed}));
  head.arrive();
  probe.fail_unless(comes_true(probe, [&] { return !flagged(); }), "the head has arrived and PT_PRESET_MOVE is %d",
                    flag);
}

constexpr Check rows[] = {
    {"status.position-group", "position, movement, rate and time are published", position_group},
    {"status.limit-group", "the limits of pan, tilt and zoom are published", limit_group},
    {"status.various-group", "the flag for a move to a preset is published", various_group},
    {"status.update-rate", "the position is published as often as announced", update_rate},
    {"status.time-is-now", "the time of the last update is one of the monotonic clock, and recent", time_is_now},
    {"status.position-agrees", "the published position is the one that is answered", position_agrees},
    {"status.reports-moving", "an axis is published as moving while it moves, then as idle", reports_moving},
    {"status.limits-agree", "the published limits are those that are answered", limits_agree},
    {"status.preset-move", "a move to a preset is flagged until it ends", preset_move},
};

}  // namespace

const Checks status_checks(rows);

}  // namespace compliance
