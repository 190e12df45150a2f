// What a driver on the kit publishes: status, timings, a counter, also while the store fails.
#include <platform/status_store.h>
#include <ptz_status_cache.h>
#include <ptz_timing_log.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <vector>

#include "clock.h"
#include "interpose.h"
#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;
constexpr guint instance = 1;

bool store_fails = false;
std::string_view failing_group = "PTZ_POSITION_IS1";
constexpr char counter[] = "ptzdt_driver_commands_d1";
int failed_updates = 0;
std::vector<std::string> *measurements = nullptr;

void note(const char *what) {
  if (measurements != nullptr) measurements->emplace_back(what);
}

}  // namespace

INTERPOSE(gint, status_store_set_group, (const gchar *name, StatusStoreParam **params, gint mode)) {
  if (!store_fails || name != failing_group) {
    return REAL(status_store_set_group)(name, params, mode);
  }
  ++failed_updates;
  errno = EBUSY;
  return -1;
}
#define NOTE(name)                         \
  INTERPOSE(void, name, (gint32 driver)) { \
    note(#name);                           \
    REAL(name)(driver);                    \
  }
NOTE(log_time_start_driver_req)
NOTE(log_time_stop_driver_req)
NOTE(log_time_start_driver_reply)
NOTE(log_time_stop_driver_reply)
NOTE(log_time_start_driver_move)
NOTE(log_time_stop_driver_move)
#undef NOTE
INTERPOSE(void, log_counter_update, (gint32 driver, const gchar *prefix, guint32 value)) {
  note(("counter " + std::to_string(value)).c_str());
  REAL(log_counter_update)(driver, prefix, value);
}

namespace {

struct Published {
  gfloat pan = -1;
  gint32 pan_status = -1;
  gint32 rate = -1;
  gint32 preset_move = -1;
  gint32 ir_cut_filter = -1;
  PTZStatusCacheTime time = {};
  PTZStatusCacheTime moving_since = {};
};

void fetch(PTZSCGroup kind, std::initializer_list<std::pair<PTZSCParam, gpointer>> params) {
  PTZStatusCacheGroup *group = ptz_status_cache_setup_group(kind, instance, static_cast<gint>(params.size()));
  for (const auto &[param, value] : params) ptz_status_cache_add_param(group, param, value);
  EXPECT_TRUE(ptz_status_cache_fetch_group(group));
  ptz_status_cache_free_group(group);
}

Published published() {
  Published now;
  fetch(PTZ_SC_GROUP_POSITION, {{PTZ_SC_PARAM_POSITION_PAN, &now.pan},
                                {PTZ_SC_PARAM_POSITION_PAN_STATUS, &now.pan_status},
                                {PTZ_SC_PARAM_POSITION_UPDATE_RATE, &now.rate},
                                {PTZ_SC_PARAM_POSITION_TIME_VAL, &now.time},
                                {PTZ_SC_PARAM_POSITION_PAN_STATUS_MOVING_TIME, &now.moving_since}});
  fetch(PTZ_SC_GROUP_VARIOUS, {{PTZ_SC_PARAM_VARIOUS_PT_PRESET_MOVE, &now.preset_move},
                               {PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, &now.ir_cut_filter}});
  return now;
}

gint32 max_tilt() {
  gint32 maximum = 0;
  fetch(PTZ_SC_GROUP_LIMIT, {{PTZ_SC_PARAM_LIMIT_MAX_TILT, &maximum}});
  return maximum;
}

bool is_newer(const PTZStatusCacheTime &time, const PTZStatusCacheTime &than) {
  return std::pair(time.seconds, time.fraction) > std::pair(than.seconds, than.fraction);
}

class KitStatus : public RunningDriver {
 protected:
  std::vector<std::string> measured_;

  void SetUp() override {
    make();
    g_object_set(driver_, "instance", instance, nullptr);
    start();
    measurements = &measured_;
  }
  void TearDown() override {
    measurements = nullptr;
    store_fails = false;
    end();
  }
  void report(gint32 position, bool moving) {
    ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, position, moving ? TRUE : FALSE);
  }
  void wait_for_update() {
    const PTZStatusCacheTime before = published().time;
    EXPECT_TRUE(ptz_test::run_until([&] { return is_newer(published().time, before); }));
  }
  void go_to_preset() { ask("{'command': <'goto_device_preset'>, 'number': <1>, 'speed': <50>}"); }
};

TEST_F(KitStatus, LimitsArePublishedInDegrees) {
  gint32 minimum = 0;
  gint32 maximum = 0;
  gint32 zoom = -1;
  fetch(PTZ_SC_GROUP_LIMIT, {{PTZ_SC_PARAM_LIMIT_MIN_TILT, &minimum},
                             {PTZ_SC_PARAM_LIMIT_MAX_TILT, &maximum},
                             {PTZ_SC_PARAM_LIMIT_MAX_ZOOM, &zoom}});
  EXPECT_EQ(minimum, -20);
  EXPECT_EQ(maximum, 90);
  EXPECT_EQ(zoom, 0);
}

TEST_F(KitStatus, BeginAndEndOfMotionArePublishedAtOnceWithStamp) {
  report(250, true);
  const Published moving = published();
  EXPECT_FLOAT_EQ(moving.pan, 2.5F);
  EXPECT_EQ(moving.pan_status, PTZ_MOVE_STATUS_MOVING);
  EXPECT_EQ(moving.rate, 25);
  EXPECT_EQ(moving.moving_since.seconds, moving.time.seconds);
  EXPECT_EQ(moving.moving_since.fraction, moving.time.fraction * 1000);
  report(300, false);
  const Published idle = published();
  EXPECT_FLOAT_EQ(idle.pan, 3);
  EXPECT_EQ(idle.pan_status, PTZ_MOVE_STATUS_IDLE);
  EXPECT_EQ(idle.rate, 2);
}

TEST_F(KitStatus, UnknownAxisIsPublishedAndAnsweredAsUnknown) {
  report(250, true);
  ptz_kit_driver_report_unknown(kit(), PTZ_KIT_AXIS_PAN);
  EXPECT_EQ(published().pan_status, PTZ_MOVE_STATUS_UNKNOWN);
  EXPECT_FLOAT_EQ(published().pan, 2.5F);
  const std::string answer = ask("{'command': <'query_position'>}");
  EXPECT_NE(answer.find("'status': <[2, 0, 0]>"), std::string::npos) << answer;
  report(300, false);
  EXPECT_EQ(published().pan_status, PTZ_MOVE_STATUS_IDLE);
}

TEST_F(KitStatus, AgeGrowsWhileNoPositionIsKnown) {
  report(250, false);
  wait_for_update();
  ptz_kit_driver_report_unknown(kit(), PTZ_KIT_AXIS_PAN);
  ptz_kit_driver_report_unknown(kit(), PTZ_KIT_AXIS_TILT);
  const Published lost = published();
  EXPECT_EQ(lost.pan_status, PTZ_MOVE_STATUS_UNKNOWN);
  ask("{'command': <'get_driver_name'>}");  // each reply makes the driver publish
  EXPECT_FALSE(is_newer(published().time, lost.time));
  report(300, false);
  EXPECT_TRUE(is_newer(published().time, lost.time));
}

TEST_F(KitStatus, PositionThatWasNeverKnownIsNotPublished) {
  end();
  make();
  g_object_set(driver_, "instance", instance + 1, nullptr);
  for (const PTZKitAxis axis : {PTZ_KIT_AXIS_PAN, PTZ_KIT_AXIS_TILT}) {
    ptz_kit_driver_set_axis(kit(), axis, -100, 100, 100, 0);
    ptz_kit_driver_report_unknown(kit(), axis);
  }
  start();
  ask("{'command': <'get_driver_name'>}");
  EXPECT_FALSE(store.remove("PTZ_POSITION_IS2"));
  EXPECT_TRUE(store.remove("PTZ_LIMIT_IS2"));
  report(300, false);
  EXPECT_TRUE(store.remove("PTZ_POSITION_IS2"));
}

TEST_F(KitStatus, MotionIsPublishedByItsOwnTimerAndDriverIsAskedToReport) {
  report(250, true);
  const guint updates = driver_->updates;
  wait_for_update();
  EXPECT_GT(driver_->updates, updates);
}

TEST_F(KitStatus, DriverIsNotAskedToReportAtRest) {
  const guint updates = driver_->updates;
  wait_for_update();
  EXPECT_EQ(driver_->updates, updates);
}

TEST_F(KitStatus, FailedUpdateIsToldOnceAndTriedAgain) {
  const ptz_test::SyslogCapture log;
  store_fails = true;
  failed_updates = 0;
  report(250, true);
  for (int count = 0; count < 5; ++count) {
    ptz_test::advance_clock(10'000);
    report(250, count % 2 != 0);
  }
  EXPECT_GE(failed_updates, 3);
  EXPECT_EQ(log.containing("cannot be published; the driver goes on trying"), 1U);
  store_fails = false;
  ptz_test::advance_clock(40'000);
  report(500, false);
  report(500, true);
  EXPECT_EQ(log.containing("is published again"), 1U);
  EXPECT_FLOAT_EQ(published().pan, 5);
}

TEST_F(KitStatus, MotionToPresetIsFlaggedUntilItEnds) {
  ask("{'command': <'set_device_preset'>, 'number': <1>, 'name': <'door'>}");
  driver_->stays_moving = TRUE;
  go_to_preset();
  EXPECT_EQ(published().preset_move, 1);
  report(0, false);
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_TILT, 0, FALSE);
  EXPECT_EQ(published().preset_move, 0);
  report(1, true);  // by hand
  EXPECT_EQ(published().preset_move, 0);
}

TEST_F(KitStatus, MotionAfterPresetWithoutMotionIsNotFlagged) {
  ask("{'command': <'set_device_preset'>, 'number': <1>, 'name': <'door'>}");
  go_to_preset();
  report(1, true);  // by hand
  EXPECT_EQ(published().preset_move, 0);
}

TEST_F(KitStatus, MoveEndsFlagOfMotionToPreset) {
  ask("{'command': <'set_device_preset'>, 'number': <1>, 'name': <'door'>}");
  driver_->stays_moving = TRUE;
  go_to_preset();
  ask("{'command': <'move'>, 'kind': <1>, 'axes': <1>, 'speed': <50>, 'value': <[1, 0, 0]>}");
  EXPECT_EQ(published().preset_move, 0);
}

TEST_F(KitStatus, ReportedFlagIsPublished) {
  ptz_kit_driver_report_flag(kit(), PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, TRUE);
  EXPECT_EQ(published().ir_cut_filter, 1);
}

TEST_F(KitStatus, FlagReportedBeforeStartIsPublished) {
  ptz_kit_driver_stop(kit());
  ptz_kit_driver_report_flag(kit(), PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, TRUE);
  start();
  EXPECT_EQ(published().ir_cut_filter, 1);
}

TEST_F(KitStatus, LimitsFlagsAndCounterAreBackASecondAfterStoreLostThem) {
  ptz_kit_driver_report_flag(kit(), PTZ_SC_PARAM_VARIOUS_IR_CUT_FILTER, TRUE);
  ask("{'command': <'query_position'>}");
  for (const char *group : {"PTZ_POSITION_IS1", "PTZ_VARIOUS_IS1", "PTZ_LIMIT_IS1", counter}) {
    EXPECT_TRUE(store.remove(group)) << group;
  }
  measured_.clear();
  ptz_test::advance_clock(1'000);
  EXPECT_TRUE(ptz_test::run_until([&] { return !measured_.empty(); }));
  EXPECT_EQ(measured_, std::vector<std::string>{"counter 1"});
  EXPECT_EQ(published().ir_cut_filter, 1);
  EXPECT_EQ(max_tilt(), 90);
  EXPECT_TRUE(store.remove(counter));
}

TEST_F(KitStatus, LimitsThatStoreRefusedAreTriedAgain) {
  ptz_kit_driver_stop(kit());
  store.remove("PTZ_LIMIT_IS1");
  store_fails = true;
  failing_group = "PTZ_LIMIT_IS1";
  start();
  store_fails = false;
  failing_group = "PTZ_POSITION_IS1";
  ptz_test::advance_clock(1'000);
  wait_for_update();
  EXPECT_EQ(max_tilt(), 90);
}

TEST_F(KitStatus, RequestIsCountedAndMeasuredAroundItsReply) {
  ask("{'command': <'query_position'>}");
  const std::vector<std::string> expected = {"counter 1", "log_time_start_driver_req", "log_time_start_driver_reply",
                                             "log_time_stop_driver_reply", "log_time_stop_driver_req"};
  EXPECT_EQ(measured_, expected);
}

TEST_F(KitStatus, RequestsAreAllCountedButMeasuredOnceInTenMilliseconds) {
  constexpr int requests = 50;
  const gint64 begin_us = g_get_monotonic_time();
  for (int i = 0; i < requests; ++i) ask("{'command': <'query_position'>}");
  const gint64 most = (g_get_monotonic_time() - begin_us) / 10'000 + 1;
  EXPECT_EQ(std::ranges::count(measured_, "counter 50"), 1);
  EXPECT_LE(std::ranges::count(measured_, "log_time_start_driver_req"), most);
  EXPECT_LE(std::ranges::count(measured_, "log_time_start_driver_reply"), most);
}

TEST_F(KitStatus, RequestTenMillisecondsAfterAnotherIsMeasured) {
  ask("{'command': <'query_position'>}");
  measured_.clear();
  ptz_test::advance_clock(10);
  ask("{'command': <'query_position'>}");
  EXPECT_EQ(measured_.size(), 5U);
}

TEST_F(KitStatus, DeferredReplyDoesNotEndMeasurementOfLaterRequest) {
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  ptz_test::advance_clock(10);
  ask("{'command': <'query_position'>}");
  measured_.clear();
  ptz_test::advance_clock(10);
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "late");
  g_clear_object(&driver_->deferred);
  const std::vector<std::string> expected = {"log_time_start_driver_reply", "log_time_stop_driver_reply"};
  EXPECT_EQ(measured_, expected);
}

TEST_F(KitStatus, MotionIsMeasured) {
  report(1, true);
  report(2, true);
  report(2, false);
  const std::vector<std::string> expected = {"log_time_start_driver_move", "log_time_stop_driver_move"};
  EXPECT_EQ(measured_, expected);
}

}  // namespace
