#include <gtest/gtest.h>
#include <ptz_status_cache.h>
#include <ptz_timing_log.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "fixtures.h"
#include "process.h"
#include "ptzctl.h"

namespace {

using namespace ptz_test;
using testing::Test;

// --- words and options ------------------------------------------------------------------------------------------

TEST_F(Ptzctl, WithoutASubcommandItTellsWhichThereAre) {
  for (const auto &arguments :
       std::vector<std::vector<std::string>>{{}, {"status"}, {"timing"}, {"counter"}, {"param"}}) {
    const auto result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, "Usage: ptzctl")) << result.text;
  }
  const auto result = run({"nonsense"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.text, "ptzctl: ptzctl has no 'nonsense'; see ptzctl --help\n");
}

TEST_F(Ptzctl, WhatItHasNoUseForIsRefused) {
  for (const auto &arguments : std::vector<std::vector<std::string>>{{"status", "show", "--nonsense"},
                                                                     {"status", "show", "limit", "1", "2"},
                                                                     {"status", "show", "nonsense"},
                                                                     {"status", "show", "preset"},
                                                                     {"status", "show", ""},
                                                                     {"status", "show", "2x"},
                                                                     {"status", "show", "limit", "one"},
                                                                     {"status", "show", "limit", "-1"},
                                                                     {"status", "show", "limit", "4294967296"},
                                                                     {"status", "watch", "x"},
                                                                     {"status", "watch", "--interval", "1"},
                                                                     {"status", "watch", "--count=-1"},
                                                                     {"enum", "PTZMove", "PTZMove"}}) {
    const auto result = run(arguments);
    EXPECT_EQ(result.status, 2) << arguments.back();
    EXPECT_EQ(result.text.rfind("ptzctl: ", 0), 0U) << result.text;
  }
}

TEST_F(Ptzctl, ThatNotEverythingCouldBeWrittenIsAnError) {
  Process process("/bin/sh", {"-c", std::string(PTZCTL) + " enum >/dev/full"}, output.file("text"));
  EXPECT_EQ(process.wait(), 1);
  EXPECT_EQ(contents(output.file("text")), "ptzctl: not everything could be written\n");
}

// --- status -----------------------------------------------------------------------------------------------------

TEST_F(Ptzctl, StatusShowPrintsAGroup) {
  ptz_status_cache_create_group(PTZ_SC_GROUP_LIMIT, 1);
  ptz_status_cache_create_group(PTZ_SC_GROUP_VARIOUS, 7);
  const auto limit = run({"status", "show", "limit"});
  EXPECT_EQ(limit.status, 0);
  EXPECT_EQ(limit.text.rfind("PTZ_LIMIT_IS1\n  MIN_PAN                      -180\n", 0), 0U) << limit.text;
  EXPECT_TRUE(has(limit, "  MAX_ZOOM                     19999\n"));
  const auto various = run({"status", "show", "various", "7", "--json"});
  EXPECT_EQ(various.status, 0);
  EXPECT_EQ(various.text,
            "{\"group\":\"PTZ_VARIOUS_IS7\",\"instance\":7,\"values\":{\"PAN_FLIPPED\":0,\"TILT_FLIPPED\":0,\"CAM_"
            "FLIPPED\":0,"
            "\"AUTO_FLIPPING\":0,\"PT_PRESET_MOVE\":0,\"AUTO_FOCUS\":0,\"AUTO_IRIS\":0,\"BACKLIGHT\":0,"
            "\"IR_CUT_FILTER\":0},\"publishers\":[]}\n")
      << "without the overview mode, which was not published";
}

TEST_F(Ptzctl, StatusShowPrintsWhatThereIs) {
  const auto none = run({"status", "show"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.text, "ptzctl: instance 1 has published nothing\n");
  ptz_status_cache_create_group(PTZ_SC_GROUP_POSITION, 1);
  ptz_status_cache_create_group(PTZ_SC_GROUP_LIMIT, 1);
  const auto all = run({"status", "show"});
  EXPECT_EQ(all.status, 0);
  EXPECT_TRUE(has(all, "PTZ_POSITION_IS1\n  PAN_DEG                      0.00\n")) << all.text;
  EXPECT_TRUE(has(all, "  PAN_STATUS_IDLE_TIME         0.000000000 s\n"));
  EXPECT_TRUE(has(all, "PTZ_LIMIT_IS1\n"));
  const auto missing = run({"status", "show", "various"});
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(missing.text, "ptzctl: instance 1 has published no various\n");
}

TEST_F(Ptzctl, StatusShowTakesANumberAloneForAnInstance) {
  ptz_status_cache_create_group(PTZ_SC_GROUP_VARIOUS, 2);
  ptz_status_cache_create_group(PTZ_SC_GROUP_LIMIT, 2);
  const auto all = run({"status", "show", "2"});
  EXPECT_EQ(all.status, 0);
  EXPECT_TRUE(has(all, "PTZ_VARIOUS_IS2\n")) << all.text;
  EXPECT_TRUE(has(all, "PTZ_LIMIT_IS2\n"));
  const auto none = run({"status", "show", "3"});
  EXPECT_EQ(none.status, 3);
  EXPECT_EQ(none.text, "ptzctl: instance 3 has published nothing\n");
}

TEST_F(Ptzctl, ADamagedGroupIsAnError) {
  ASSERT_TRUE(g_file_set_contents(dir.file("PTZ_LIMIT_IS1.status").c_str(), "x", 1, nullptr));
  const auto result = run({"status", "show", "limit"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.text, "ptzctl: PTZ_LIMIT_IS1 cannot be read: Bad message\n");
}

struct Published {
  gfloat pan = -12.5F, magnification = 2.0F;
  gint32 pan_status = PTZ_MOVE_STATUS_MOVING, zoom_status = PTZ_MOVE_STATUS_IDLE, rate = 25;
  PTZStatusCacheTime time = {};

  explicit Published(guint instance) {
    const gint64 now = g_get_monotonic_time();
    time = {static_cast<guint32>(now / G_USEC_PER_SEC), static_cast<guint32>(now % G_USEC_PER_SEC)};
    auto *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 6);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_PAN, &pan);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_MZOOM, &magnification);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_PAN_STATUS, &pan_status);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_ZOOM_STATUS, &zoom_status);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_UPDATE_RATE, &rate);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_TIME_VAL, &time);
    EXPECT_TRUE(ptz_status_cache_update_group(handle));
    ptz_status_cache_free_group(handle);
  }
};

TEST_F(Ptzctl, StatusWatchPrintsLinesWhereTheOutputIsNoTerminal) {
  const Published published(3);
  const auto plain = run({"status", "watch", "3", "--count=2", "--interval=10"});
  EXPECT_EQ(plain.status, 0);
  const std::string line =
      "pan    -12\\.50 moving   tilt      0\\.00 unknown  zoom      2\\.00 idle     rate 25/s  age "
      "[0-9]+ ms(  stale)?\n";
  EXPECT_TRUE(std::regex_match(plain.text, std::regex(line + line))) << plain.text;
  const auto json = run({"status", "watch", "3", "--count=1", "--json"});
  EXPECT_TRUE(std::regex_match(
      json.text,
      std::regex("\\{\"instance\":3,\"axes\":\\{\"pan\":\\{\"position\":-12\\.5,\"status\":\"moving\"\\},\"tilt\":"
                 "\\{\"position\":0\\.0,\"status\":\"unknown\"\\},\"zoom\":\\{"
                 "\"position\":2\\.0,\"status\":\"idle\"\\}\\},\"update_rate\":25,"
                 "\"age_ms\":[0-9]+,\"stale\":(true|false),\"publishers\":\\[\\]\\}\n")))
      << json.text;
}

TEST_F(Ptzctl, StatusWatchSaysOnceThatNothingIsPublished) {
  const auto result = run({"status", "watch", "--count=3", "--interval=10"});
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.text, "ptzctl: PTZ_POSITION_IS1 is not published\n");
}

TEST_F(Ptzctl, StatusWatchDrawsOnATerminalUntilTheUserLeaves) {
  const Published published(1);
  const auto [status, drawn] = run_on_terminal({"status", "watch", "--interval=20"}, "updates a second", "q");
  EXPECT_EQ(status, 0);
  for (const auto *part : {"PTZ_POSITION_IS1", "q to leave", "-12.50 degrees", "moving", "25 updates a second"}) {
    EXPECT_NE(drawn.find(part), std::string::npos) << part << " in " << drawn;
  }
}

// --- timings and counters ---------------------------------------------------------------------------------------

TEST_F(Ptzctl, TimingShowPrintsStartStopAndWhatIsBetween) {
  EXPECT_EQ(run({"timing", "show"}).status, 0);
  EXPECT_EQ(run({"timing", "show"}).text, "");
  log_time_reset("ptzdt_driver_req_d1");
  log_time_reset("ptzdt_driver_move_d2");
  log_time_reset("a_path");
  log_time_start_driver_req(1);
  log_time_stop_driver_req(1);
  log_time_start_driver_move(2);
  const auto drivers = run({"timing", "show"});
  const auto own = std::to_string(static_cast<guint16>(getpid()));
  EXPECT_EQ(drivers.status, 0);
  EXPECT_TRUE(std::regex_match(drivers.text, std::regex("group +start +stop +duration\n"
                                                        "ptzdt_driver_req_d1 +[0-9]+\\.[0-9]{9} s by " +
                                                        own + " +[0-9]+\\.[0-9]{9} s by " + own +
                                                        " +[0-9]+\\.[0-9]{6} ms\n"
                                                        "ptzdt_driver_move_d2 +[0-9]+\\.[0-9]{9} s by " +
                                                        own + " +running\n")))
      << drivers.text;
  EXPECT_EQ(run({"timing", "show", "a_path", "--json"}).text, "{\"group\":\"a_path\",\"state\":\"not started\"}\n");
  const auto json = run({"timing", "show", "--json", "ptzdt_driver_req_d1"});
  EXPECT_TRUE(has(json, "\"state\":\"stopped\",\"start_time\":{\"seconds\":")) << json.text;
  EXPECT_TRUE(has(json, "\"stop_pid\":" + own + ",\"duration_ms\":")) << json.text;
  const auto missing = run({"timing", "show", "nothing"});
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(missing.text, "ptzctl: nothing cannot be read: No such file or directory\n");
}

TEST_F(Ptzctl, CounterShowPrintsValuesAndOwners) {
  log_counter_reset(1, "ptzdt_driver_commands_d");
  log_counter_reset(5, "moves");
  log_counter_update(5, "moves", 4294967295U);
  EXPECT_TRUE(
      has(run({"counter", "show"}), "ptzdt_driver_commands_d1           0  of process " + std::to_string(getpid())));
  EXPECT_EQ(run({"counter", "show", "moves5", "--json"}).text,
            "{\"counter\":\"moves5\",\"value\":4294967295,\"process\":" + std::to_string(getpid()) + "}\n");
  EXPECT_EQ(run({"counter", "show", "nothing"}).status, 3);
}

// --- vocabulary -------------------------------------------------------------------------------------------------

TEST_F(Ptzctl, EnumListsTypesAndTheirValues) {
  const auto types = run({"enum"});
  EXPECT_EQ(types.status, 0);
  EXPECT_EQ(std::count(types.text.begin(), types.text.end(), '\n'), 27);
  EXPECT_TRUE(has(types, "PTZSCParam\n"));
  const auto status = run({"enum", "PTZMoveStatus"});
  EXPECT_TRUE(has(status, "         -1  Invalid                                  invalid\n")) << status.text;
  EXPECT_EQ(run({"enum", "ptzmovestatus"}).text, status.text);
  EXPECT_TRUE(has(run({"enum", "PTZMoveStatus", "--json"}),
                  "{\"type\":\"PTZMoveStatus\",\"value\":1,\"name\":\"Moving\",\"nick\":\"moving\"}\n"));
  EXPECT_TRUE(has(run({"enum", "PTZDriverMoveCapabilities"}), "0x00000001  "));
  const auto unknown = run({"enum", "Nonsense"});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.text, "ptzctl: there is no type 'Nonsense'; see ptzctl enum --help\n");
}

}  // namespace
