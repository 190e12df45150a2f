#include "head_parameters.h"

#include <gtest/gtest.h>
#include <ptz_tessel.h>
#include <ptz_tessel_async.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "fixtures.h"
#include "owners.h"
#include "syslog_capture.h"

using namespace sim;
using ptz_test::SyslogCapture;

namespace {

constexpr gint64 long_enough_ms = 10'000;

// A tree of its own, with the templates that ship with the driver.
struct HeadParametersTest : testing::Test {
  ptz_test::TempDir dir;
  SyslogCapture log;

  HeadParametersTest() { move_tree(dir.path()); }
  ~HeadParametersTest() override {
    // What is still queued is not for the next test's tree.
    move_tree(dir.path());
    ptz_tessel_async_push_set_param("yes", "root.Drained");
    EXPECT_TRUE(ptz_test::run_until([] { return get("root.Drained") == "yes"; }));
    unsetenv("PTZ_PLATFORM_STATE_DIR");
    unsetenv("PTZ_PLATFORM_TEMPLATE_DIR");
  }
  // The service looks for its folder when it is first called, and again on both sides of a fork.
  static void move_tree(const std::string &folder) {
    setenv("PTZ_PLATFORM_STATE_DIR", folder.c_str(), 1);
    setenv("PTZ_PLATFORM_TEMPLATE_DIR", SIM_DRIVER_TEMPLATES, 1);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
  }
  static void set(const char *path, const char *value) {
    EXPECT_EQ(ptz_tessel_set(path, value, FALSE, FALSE, FALSE, 0), 0);
  }
  static std::string get(const char *path) {
    const Text value(ptz_tessel_get(path));
    return value ? value.get() : "(none)";
  }
};

bool operator==(const AxisRange &a, const AxisRange &b) {
  return a.minimum == b.minimum && a.maximum == b.maximum && a.max_speed == b.max_speed &&
         a.acceleration == b.acceleration;
}

TEST_F(HeadParametersTest, TheGroupsAreMadeFromTheTemplatesAndChangeNothing) {
  HeadParameters parameters(7);
  ASSERT_TRUE(parameters.open());
  EXPECT_EQ(get("root.PTZ.Head.H7.SpeedPercent"), "100");
  EXPECT_EQ(get("root.PTZ.State.S7.Zoom"), "100");
  const HeadRanges ranges = parameters.narrowed(head_ranges);
  for (std::size_t axis = 0; axis < axis_count; ++axis) EXPECT_TRUE(ranges[axis] == head_ranges[axis]) << axis;
  EXPECT_EQ(parameters.position_to_resume(), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(HeadParametersTest, WhatAnInstallerChangedOutlivesTheDriver) {
  ASSERT_TRUE(HeadParameters(1).open());
  set("root.PTZ.Head.H1.PanMax", " 9000 ");
  set("root.PTZ.Head.H1.TiltMin", "-99999");
  set("root.PTZ.Head.H1.SpeedPercent", "25");
  HeadParameters parameters(1);
  ASSERT_TRUE(parameters.open());
  const HeadRanges ranges = parameters.narrowed(head_ranges);
  EXPECT_EQ(ranges[pan].minimum, head_ranges[pan].minimum);
  EXPECT_EQ(ranges[pan].maximum, 9000);
  EXPECT_EQ(ranges[tilt].minimum, head_ranges[tilt].minimum) << "limits are narrowed, not widened";
  EXPECT_EQ(ranges[pan].max_speed, head_ranges[pan].max_speed / 4);
  EXPECT_EQ(ranges[zoom].max_speed, head_ranges[zoom].max_speed / 4);
}

TEST_F(HeadParametersTest, WhatMakesNoSenseIsLoggedAndDoesNotCount) {
  HeadParameters parameters(1);
  ASSERT_TRUE(parameters.open());
  set("root.PTZ.Head.H1.PanMin", "9000");
  set("root.PTZ.Head.H1.PanMax", "9000");
  set("root.PTZ.Head.H1.TiltMax", "much");
  set("root.PTZ.Head.H1.SpeedPercent", "101");
  const HeadRanges ranges = parameters.narrowed(head_ranges);
  for (std::size_t axis = 0; axis < axis_count; ++axis) EXPECT_TRUE(ranges[axis] == head_ranges[axis]) << axis;
  EXPECT_EQ(log.count(LOG_WARNING, "PanMin and PanMax leave nothing of -17000 to 17000"), 1U);
  EXPECT_EQ(log.count(LOG_ERR, "Invalid Head parameter TiltMax for camera 1: much"), 1U);
  EXPECT_EQ(log.count(LOG_WARNING, "SpeedPercent: 101 is not within 1 to 100"), 1U);
}

TEST_F(HeadParametersTest, ThePositionIsKeptAndResumedWhereThatIsWanted) {
  HeadParameters parameters(1);
  ASSERT_TRUE(parameters.open());
  parameters.keep({1, 2, 300});
  parameters.keep({-4500, 1000, 200});
  EXPECT_TRUE(parameters.finish(long_enough_ms));
  EXPECT_EQ(get("root.PTZ.State.S1.Pan"), "-4500");
  HeadParameters next(1);
  ASSERT_TRUE(next.open());
  EXPECT_EQ(next.position_to_resume(), std::nullopt);
  set("root.PTZ.Head.H1.ResumePosition", "yes");
  EXPECT_EQ(next.position_to_resume(), (PerAxis{-4500, 1000, 200}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(HeadParametersTest, AnEndThatDidNotComeIsNoticed) {
  {
    HeadParameters parameters(1);
    ASSERT_TRUE(parameters.open());
    EXPECT_TRUE(parameters.finish(long_enough_ms));
    EXPECT_EQ(get("root.PTZ.State.S1.Starts"), "1");
    EXPECT_EQ(get("root.PTZ.State.S1.Ended"), "1");
  }
  HeadParameters killed(1);
  ASSERT_TRUE(killed.open());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(ptz_test::run_until([] { return get("root.PTZ.State.S1.Starts") == "2"; }));
  HeadParameters next(1);
  ASSERT_TRUE(next.open());
  EXPECT_EQ(log.containing("the driver did not end as it should"), 1U);
  EXPECT_TRUE(next.finish(long_enough_ms));
}

TEST_F(HeadParametersTest, WithoutATreeTheDriverDoesWithout) {
  move_tree(dir.file("missing"));
  EXPECT_FALSE(HeadParameters(1).open());
  EXPECT_EQ(log.containing("Failed to create root.PTZ.Head from sim_head err -6"), 1U);
}

TEST_F(HeadParametersTest, AnEndWaitsNoLongerThanItIsTold) {
  HeadParameters parameters(1);
  ASSERT_TRUE(parameters.open());
  EXPECT_TRUE(parameters.finish(long_enough_ms));
  // Nothing can be read back from here.
  move_tree(dir.file("missing"));
  EXPECT_FALSE(parameters.finish(20));
  EXPECT_EQ(log.containing("changes of parameters are lost"), 1U);
}

}  // namespace
