// The status cache, the timing log and the counters on the stand-alone platform's store, in real processes.
#include <gtest/gtest.h>
#include <ptz_settings.h>
#include <ptz_status_cache.h>
#include <ptz_timing_log.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "fixtures.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

struct RealStore : testing::Test {
  TempDir dir;
  TempDir settings;
  SyslogCapture log;

  RealStore() { setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1); }
  ~RealStore() override { unsetenv("PTZ_PLATFORM_RUNTIME_DIR"); }
};

bool in_another_process(const std::function<bool()> &run) {
  const pid_t child = fork();
  if (child == 0) _exit(run() ? 0 : 1);
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Reads one value of a group that has no handle of its own kind.
template <typename T>
T stored(const std::string &group, const std::string &key, guint32 type) {
  T value = {};
  gint64 room = 0;
  PTZStatusCacheGroup *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_LIMIT, 0, 1);
  ptz_status_cache_add_param(handle, PTZ_SC_PARAM_LIMIT_MIN_PAN, &room);
  g_free(handle->name);
  handle->name = g_strdup(group.c_str());
  *handle->params[0] = {key.c_str(), sizeof value, &value, type};
  ptz_status_cache_fetch_group(handle);
  ptz_status_cache_free_group(handle);
  return value;
}

TEST_F(RealStore, EveryGroupHoldsItsDefaults) {
  EXPECT_TRUE(ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, 1));
  EXPECT_TRUE(ptz_status_cache_create_group(PTZ_SC_GROUP_VARIOUS, 1));
  EXPECT_TRUE(ptz_status_cache_create_group(PTZ_SC_GROUP_LIMIT, 1));
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(stored<gint32>("PTZ_POSITION_IS1", "BRIGHTNESS_STATUS", 1), -1);
  EXPECT_EQ(stored<gint32>("PTZ_LIMIT_IS1", "MAX_ZOOM", 1), 19999);
}

TEST_F(RealStore, AnUpdateOfOneProcessIsFetchedByAnother) {
  // The first 22 parameters have one of the two words, the others both.
  struct Words {
    gint32 first, second;
  };
  Words values[47];
  const auto bind_all = [&] {
    PTZStatusCacheGroup *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 3, 47);
    for (int i = 0; i < 47; ++i) ptz_status_cache_add_param(handle, static_cast<PTZSCParam>(i), &values[i]);
    return handle;
  };
  EXPECT_TRUE(in_another_process([&] {
    for (int i = 0; i < 47; ++i) values[i] = {i, 0x12345678};
    return ptz_status_cache_update_group(bind_all()) != FALSE;
  }));
  std::fill(std::begin(values), std::end(values), Words{});
  PTZStatusCacheGroup *handle = bind_all();
  EXPECT_TRUE(ptz_status_cache_fetch_group(handle));
  EXPECT_EQ(handle->capacity, 47);
  for (int i = 0; i < 47; ++i) {
    EXPECT_EQ(values[i].first, i);
    EXPECT_EQ(values[i].second, i < 22 ? 0 : 0x12345678) << i;
  }
  ptz_status_cache_free_group(handle);
}

TEST_F(RealStore, AFetchOfAGroupThatNobodyPublishedSaysWhy) {
  gint32 value = 0;
  PTZStatusCacheGroup *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_LIMIT, 9, 1);
  ptz_status_cache_add_param(handle, PTZ_SC_PARAM_LIMIT_MIN_PAN, &value);
  EXPECT_FALSE(ptz_status_cache_fetch_group(handle));
  EXPECT_EQ(log.count(LOG_ERR, "Could not get status cache parameter group PTZ_LIMIT_IS9. No such file or directory!"),
            1U);
  ptz_status_cache_free_group(handle);
}

TEST_F(RealStore, FewerPublishedThanBoundRefusesTheHandle) {
  ptz_status_cache_create_group(PTZ_SC_GROUP_VARIOUS, 1);
  gint32 values[2] = {7, 7};
  PTZStatusCacheGroup *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_VARIOUS, 1, 2);
  ptz_status_cache_add_param(handle, PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, &values[0]);
  ptz_status_cache_add_param(handle, static_cast<PTZSCParam>(58), &values[1]);
  EXPECT_TRUE(ptz_status_cache_fetch_group(handle));
  EXPECT_EQ(values[0], 0);
  EXPECT_EQ(values[1], 7) << "the overview mode is not published";
  EXPECT_FALSE(ptz_status_cache_fetch_group(handle));
  ptz_status_cache_free_group(handle);
}

TEST_F(RealStore, AMeasurementIsStoppedByWhomTheSwitchAllows) {
  const auto stopped_by = [] { return stored<guint16>("a_path", "stop_pid", 1); };
  log_time_reset("a_path");
  EXPECT_TRUE(in_another_process([] {
    log_time_start("a_path");
    return true;
  }));
  log_time_stop("a_path", FALSE);
  EXPECT_EQ(stopped_by(), 0);
  log_time_stop("a_path", TRUE);
  EXPECT_EQ(stopped_by(), static_cast<guint16>(getpid()));
  const auto start = stored<PTZStatusCacheTime>("a_path", "start_time", 5);
  const auto stop = stored<PTZStatusCacheTime>("a_path", "stop_time", 5);
  EXPECT_LE(start.seconds, stop.seconds);
  log_time_reset("a_path");
  EXPECT_EQ(stored<PTZStatusCacheTime>("a_path", "start_time", 5).fraction, 0U);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(RealStore, ADriverThatComesSecondCountsInTheSecondCounter) {
  const auto path = settings.file("settings");
  ASSERT_TRUE(g_file_set_contents(path.c_str(), "[PTZDriverManager]\nNbrOfDrivers=2\n", -1, nullptr));
  const PTZSettingsFile files[] = {{path.c_str(), TRUE}, {}};
  ASSERT_TRUE(ptz_settings_load_config_gkf(files, nullptr));
  log_counter_reset(1, "moves");
  EXPECT_TRUE(in_another_process([] {
    log_counter_reset(1, "moves");
    log_counter_update(1, "moves", 20);
    return true;
  }));
  log_counter_update(1, "moves", 10);
  EXPECT_EQ(stored<guint32>("moves1", "counter_value", 1), 10U);
  EXPECT_EQ(stored<guint32>("moves2", "counter_value", 1), 20U);
  EXPECT_EQ(stored<gint32>("moves1", "counter_pid", 1), getpid());
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
