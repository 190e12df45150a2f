// What a driver on the kit answers before, and instead of, its virtual functions.
#include <ptz_serialize.h>
#include <ptz_socket_frame.h>

#include "clock.h"
#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;

using KitDriver = RunningDriver;

std::string word(gint32 command) { return {reinterpret_cast<const char *>(&command), sizeof command}; }

std::string move(PTZMove kind, int axes, gint32 pan, gint32 tilt, int speed = 100) {
  return "{'command': <'move'>, 'kind': <" + std::to_string(kind) + ">, 'axes': <" + std::to_string(axes) +
         ">, 'speed': <" + std::to_string(speed) + ">, 'value': <[" + std::to_string(pan) + ", " +
         std::to_string(tilt) + ", 0]>}";
}
std::string direction(PTZMoveCmd direction) {
  return "{'command': <'move_command'>, 'direction': <" + std::to_string(direction) + ">, 'speed': <50>}";
}

int pan_speed_of(const std::string &speeds) {
  constexpr char label[] = "'current': <[";
  return std::stoi(speeds.substr(speeds.find(label) + sizeof label - 1));
}

guint32 extra_of(const std::string &capabilities) {
  constexpr char label[] = "'extra': <uint32 ";
  return static_cast<guint32>(std::stoul(capabilities.substr(capabilities.find(label) + sizeof label - 1)));
}

TEST_F(KitDriver, UnknownCommandIsError1) {
  start();
  EXPECT_TRUE(is_error(ask_bytes(word(1000)), PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND));
}

TEST_F(KitDriver, CommandThatIsNotOverriddenIsError2WithItsName) {
  start();
  EXPECT_EQ(ask("{'command': <'osd_menu'>, 'action': <1>}"),
            "{'command': <'error'>, 'code': <uint32 2>, 'text': <'this driver does not serve \"OSD Menu\"'>}");
}

TEST_F(KitDriver, BodyShorterThanCommandWordIsError3) {
  start();
  for (const std::size_t length : {1, 2, 3}) {
    EXPECT_TRUE(is_error(ask_bytes(word(PTZ_COMMAND_STOP).substr(0, length)), PTZ_KIT_ERROR_CODE_MALFORMED));
  }
}

TEST_F(KitDriver, MalformedRequestIsError3WithFieldAndOffset) {
  start();
  const std::string body = bytes_of(move(PTZ_MOVE_ABSOLUTE, 3, 0, 0).c_str());
  const std::string reply = ask_bytes(body.substr(0, body.size() - 1));
  EXPECT_TRUE(is_error(reply, PTZ_KIT_ERROR_CODE_MALFORMED));
  EXPECT_NE(reply.find("field \"value\" of zoom at byte 19"), std::string::npos) << reply;
  EXPECT_EQ(driver_->moves, 0U);
}

TEST_F(KitDriver, BytesAfterCommandWithoutFieldsAreError3) {
  start();
  EXPECT_TRUE(is_error(ask_bytes(word(PTZ_COMMAND_QUERY_POSITION) + "x"), PTZ_KIT_ERROR_CODE_MALFORMED));
}

TEST_F(KitDriver, ValueBeyondDescriptionIsError4) {
  start();
  EXPECT_TRUE(is_error(ask(move(PTZ_MOVE_ABSOLUTE, 3, 0, 0, 101).c_str()), PTZ_KIT_ERROR_CODE_OUT_OF_RANGE));
  EXPECT_EQ(driver_->moves, 0U);
}

TEST_F(KitDriver, AbsoluteMoveBeyondLimitIsError4AndMovesNoAxis) {
  start();
  EXPECT_EQ(ask(move(PTZ_MOVE_ABSOLUTE, 3, 0, 9001).c_str()),
            "{'command': <'error'>, 'code': <uint32 4>, 'text': <'tilt 9001 is not within -2000 to 9000'>}");
  EXPECT_EQ(driver_->moves, 0U);
}

TEST_F(KitDriver, ContinuousMoveAboveMaximumSpeedIsError4) {
  start();
  EXPECT_EQ(ask(move(PTZ_MOVE_CONTINUOUS, 1, -12001, 0).c_str()),
            "{'command': <'error'>, 'code': <uint32 4>, 'text': <'pan speed -12001 is not within -12000 to 12000'>}");
}

TEST_F(KitDriver, MoveOfAxisThatWasNotSetIsError4) {
  start();
  EXPECT_EQ(ask(move(PTZ_MOVE_RELATIVE, 4, 0, 0).c_str()),
            "{'command': <'error'>, 'code': <uint32 4>, 'text': <'the head has no zoom'>}");
}

TEST_F(KitDriver, ValuesOfAxesThatDoNotMoveAreNotChecked) {
  start();
  EXPECT_EQ(ask(move(PTZ_MOVE_ABSOLUTE, 1, 500, G_MAXINT32).c_str()), "{'command': <'move'>}");
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], 0);
}

TEST_F(KitDriver, MoveReachesVirtualFunctionWithItsValues) {
  start();
  EXPECT_EQ(ask(move(PTZ_MOVE_ABSOLUTE, 3, -17000, 9000, 40).c_str()), "{'command': <'move'>}");
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_ABSOLUTE});
  EXPECT_EQ(driver_->last_move.axes, 3);
  EXPECT_EQ(driver_->last_move.speed, 40);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], -17000);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], 9000);
}

TEST_F(KitDriver, RelativeMoveIsCutToLimits) {
  start();
  ask(move(PTZ_MOVE_RELATIVE, 3, G_MAXINT32, G_MININT32).c_str());
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 17000 - 100);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], -2000 - 200);
}

TEST_F(KitDriver, DirectionIsContinuousMoveOfBothAxes) {
  start();
  EXPECT_EQ(ask(direction(PTZ_MOVE_CMD_UP_LEFT).c_str()), "{'command': <'move_command'>}");
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_CONTINUOUS});
  EXPECT_EQ(driver_->last_move.axes, 3);
  EXPECT_EQ(driver_->last_move.speed, 50);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], -12000);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], 9000);
}

TEST_F(KitDriver, HomeIsAbsoluteMoveToHomeOfAxes) {
  start();
  EXPECT_EQ(ask(direction(PTZ_MOVE_CMD_HOME).c_str()), "{'command': <'move_command'>}");
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_ABSOLUTE});
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 100);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], 200);
}

TEST_F(KitDriver, StopIsContinuousMoveOfSpeed0) {
  start();
  for (const std::string &request : {direction(PTZ_MOVE_CMD_STOP), std::string("{'command': <'stop'>}")}) {
    ask(move(PTZ_MOVE_ABSOLUTE, 3, 1, 1).c_str());
    EXPECT_FALSE(is_error(ask(request.c_str()), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
    EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_CONTINUOUS});
    EXPECT_EQ(driver_->last_move.axes, 3);
    EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 0);
  }
}

TEST_F(KitDriver, AxisThatWasNotSetIsIdleAt0WithinLimits0To0) {
  start();
  EXPECT_EQ(ask("{'command': <'query_position'>}"),
            "{'command': <'query_position'>, 'position': <[100, 200, 0]>, 'status': <[0, 0, 0]>}");
  EXPECT_EQ(ask("{'command': <'query_limit_ranges'>}"),
            "{'command': <'query_limit_ranges'>, 'minimum': <[-17000, -2000, 0]>, 'maximum': <[17000, 9000, 0]>}");
  EXPECT_EQ(ask("{'command': <'query_speed'>}"),
            "{'command': <'query_speed'>, 'current': <[0, 0, 0]>, 'maximum': <[12000, 9000, 0]>}");
}

TEST_F(KitDriver, PositionIsAskedOfDriverThatHasUpdateFunction) {
  start();
  const guint updates = driver_->updates;
  ask("{'command': <'query_position'>}");
  EXPECT_EQ(driver_->updates, updates + 1);
}

TEST_F(KitDriver, NoTimerRunsWithoutStatusToPublish) {
  start();
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 0, TRUE);
  ptz_test::run_pending();
  EXPECT_LE(ptz_test::iterations_within(200), 2);
  EXPECT_EQ(driver_->updates, 0U);
}

TEST_F(KitDriver, SpeedFollowsFromReportedPositions) {
  start();
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 0, TRUE);
  ptz_test::advance_clock(20);
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, -50, TRUE);
  EXPECT_NE(ask("{'command': <'query_speed'>}").find("'current': <[-"), std::string::npos);
  ptz_kit_driver_report_speed(kit(), PTZ_KIT_AXIS_PAN, 77);
  EXPECT_NE(ask("{'command': <'query_speed'>}").find("'current': <[77, "), std::string::npos);
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, -60, FALSE);
  EXPECT_NE(ask("{'command': <'query_speed'>}").find("'current': <[0, "), std::string::npos);
}

TEST_F(KitDriver, SpeedFollowsFromATenthOfASecond) {
  start();
  const auto report_after = [this](gint64 milliseconds, gint32 position) {
    ptz_test::advance_clock(milliseconds);
    ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, position, TRUE);
  };
  report_after(0, 0);
  report_after(20, 60);  // a first estimate, over less
  EXPECT_NEAR(pan_speed_of(ask("{'command': <'query_speed'>}")), 3000, 600);
  report_after(80, 600);
  EXPECT_NEAR(pan_speed_of(ask("{'command': <'query_speed'>}")), 6000, 600);
  report_after(20, 600);  // a late position
  EXPECT_NEAR(pan_speed_of(ask("{'command': <'query_speed'>}")), 6000, 600);
  report_after(80, 1200);
  EXPECT_NEAR(pan_speed_of(ask("{'command': <'query_speed'>}")), 6000, 600);
}

TEST_F(KitDriver, CapabilitiesFollowFromAxesAndOverriddenFunctions) {
  start();
  const guint32 move = PTZ_DRIVER_MOVE_CAPABILITIES_PAN | PTZ_DRIVER_MOVE_CAPABILITIES_RELPAN |
                       PTZ_DRIVER_MOVE_CAPABILITIES_CONTPAN | PTZ_DRIVER_MOVE_CAPABILITIES_TILT |
                       PTZ_DRIVER_MOVE_CAPABILITIES_RELTILT | PTZ_DRIVER_MOVE_CAPABILITIES_CONTTILT |
                       PTZ_DRIVER_MOVE_CAPABILITIES_SPEEDCONTROL;
  const guint32 extra = PTZ_DRIVER_EXTRA_CAPABILITIES_AUX | PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET |
                        PTZ_DRIVER_EXTRA_CAPABILITIES_DRIVERPRESET | PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET;
  EXPECT_EQ(ask("{'command': <'get_capabilities'>}"), "{'command': <'get_capabilities'>, 'move': <uint32 " +
                                                          std::to_string(move) + ">, 'extra': <uint32 " +
                                                          std::to_string(extra) + ">}");
}

TEST_F(KitDriver, DriverWithoutMoveHasNeitherMotionNorPresets) {
  make(silent_driver_get_type());
  start();
  EXPECT_EQ(ask("{'command': <'get_capabilities'>}"),
            "{'command': <'get_capabilities'>, 'move': <uint32 0>, 'extra': <uint32 " +
                std::to_string(PTZ_DRIVER_EXTRA_CAPABILITIES_CMDIFSOCKET) + ">}");
  EXPECT_TRUE(is_error(ask(move(PTZ_MOVE_ABSOLUTE, 1, 1, 0).c_str()), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
  EXPECT_TRUE(is_error(ask("{'command': <'get_device_presets'>}"), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
}

TEST_F(KitDriver, SetCapabilitiesTakesCommandsAndMotionsAway) {
  start();
  const std::string reply =
      ask("{'command': <'set_capabilities'>, 'move': <uint32 4294967294>, 'extra': <uint32 4294967294>}");
  EXPECT_EQ(reply.find("'error'"), std::string::npos) << reply;
  EXPECT_TRUE(is_error(ask_auxiliary("light"), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
  EXPECT_TRUE(is_error(ask(move(PTZ_MOVE_ABSOLUTE, 1, 1, 0).c_str()), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
  EXPECT_EQ(ask(move(PTZ_MOVE_RELATIVE, 1, 1, 0).c_str()), "{'command': <'move'>}");
  EXPECT_EQ(ask(move(PTZ_MOVE_ABSOLUTE, 2, 0, 1).c_str()), "{'command': <'move'>}");
}

TEST_F(KitDriver, PublishedStatusAndCounterAreAnnounced) {
  make();
  g_object_set(driver_, "instance", 1U, nullptr);
  start();
  const std::string with_status = ask("{'command': <'get_capabilities'>}");
  end();
  make();
  start();
  const guint32 more = PTZ_DRIVER_EXTRA_CAPABILITIES_STATUSCACHEPOSITION | PTZ_DRIVER_EXTRA_CAPABILITIES_PTZCOUNTER;
  EXPECT_EQ(extra_of(with_status), extra_of(ask("{'command': <'get_capabilities'>}")) | more);
}

TEST_F(KitDriver, ProtocolVersionIsPropertyAndOthersAreError5) {
  start();
  EXPECT_EQ(ask("{'command': <'get_driver_property'>, 'name': <'protocol-version'>}"),
            "{'command': <'get_driver_property'>, 'value': <'1'>}");
  EXPECT_TRUE(is_error(ask("{'command': <'get_driver_property'>, 'name': <'colour'>}"), PTZ_KIT_ERROR_CODE_NOT_FOUND));
}

TEST_F(KitDriver, NameAndDeviceTypesAreThoseOfProperties) {
  make();
  const gchar *types[] = {"Dome", "Box", nullptr};
  g_object_set(driver_, "device-types", types, nullptr);
  start();
  EXPECT_EQ(ask("{'command': <'get_driver_name'>}"), "{'command': <'get_driver_name'>, 'name': <'recording'>}");
  EXPECT_EQ(ask("{'command': <'get_device_types'>}"), "{'command': <'get_device_types'>, 'types': <['Dome', 'Box']>}");
}

TEST_F(KitDriver, ParametersTellLimitsOfAxesThatWereSet) {
  start();
  const std::string reply = ask("{'command': <'get_driver_parameters'>}");
  EXPECT_NE(reply.find("'max_speed_pan'"), std::string::npos) << reply;
  EXPECT_EQ(reply.find("zoom"), std::string::npos) << reply;
}

TEST_F(KitDriver, UnregisterStopsAxesAnswersAndEmitsEnded) {
  start();
  bool ended = false;
  g_signal_connect_swapped(driver_, "ended", G_CALLBACK(+[](bool *flag) { *flag = true; }), &ended);
  EXPECT_EQ(ask("{'command': <'unregister'>}"), "{'command': <'unregister'>}");
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_CONTINUOUS});
  EXPECT_TRUE(ptz_test::run_until([&] { return ended; }));
}

TEST_F(KitDriver, StartFailsWithErrorOfOpenAndDoesNotListen) {
  make();
  driver_->fails_to_open = TRUE;
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_driver_start(kit(), &error));
  ASSERT_NE(error, nullptr);
  EXPECT_STREQ(error->message, "there is no device");
  g_error_free(error);
  EXPECT_FALSE(ptz_test::connect_to(path_));
}

TEST_F(KitDriver, OpenThatReturnsFalseWithoutErrorIsNamedInError) {
  make();
  driver_->fails_silently = TRUE;
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_driver_start(kit(), &error));
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::string(error->message).find("\"open\" did not return TRUE"), std::string::npos);
  g_error_free(error);
}

TEST_F(KitDriver, PropertiesThatOthersKnowDoNotChangeWhileItRuns) {
  start();
  const ptz_test::GlibLogCapture log;
  g_object_set(driver_, "name", "other", "socket-path", "/none", "instance", 7U, "preset-file", "/none", "keep-presets",
               FALSE, nullptr);
  EXPECT_EQ(log.criticals(), 5U);
  EXPECT_EQ(ask("{'command': <'get_driver_name'>}"), "{'command': <'get_driver_name'>, 'name': <'recording'>}");
  g_object_set(driver_, "verbose", TRUE, "verbose", FALSE, nullptr);
  EXPECT_EQ(log.criticals(), 5U);
  ptz_kit_driver_stop(kit());
  g_object_set(driver_, "name", "other", nullptr);
  EXPECT_EQ(log.criticals(), 5U);
}

TEST_F(KitDriver, LastReferenceOfDriverThatRunsIsLogged) {
  start();
  const ptz_test::SyslogCapture log;
  g_clear_object(&driver_);
  EXPECT_EQ(log.containing("its device is not closed"), 1U);
}

TEST_F(KitDriver, StartClosesDeviceIfItCannotListen) {
  make();
  g_object_set(driver_, "socket-path", dir_.file("none/socket").c_str(), nullptr);
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_driver_start(kit(), &error));
  ASSERT_NE(error, nullptr);
  g_error_free(error);
  EXPECT_TRUE(driver_->closed);
}

TEST_F(KitDriver, StopRemovesSocketAndClosesDevice) {
  start();
  ptz_kit_driver_stop(kit());
  EXPECT_FALSE(g_file_test(path_.c_str(), G_FILE_TEST_EXISTS));
  EXPECT_TRUE(driver_->closed);
}

TEST_F(KitDriver, StartsAgainAfterStop) {
  start();
  ptz_kit_driver_stop(kit());
  start();
  EXPECT_EQ(ask("{'command': <'get_driver_name'>}"), "{'command': <'get_driver_name'>, 'name': <'recording'>}");
}

}  // namespace
