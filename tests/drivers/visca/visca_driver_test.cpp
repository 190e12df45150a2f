// The driver program with the simulated camera, over each transport.
#include <csignal>

#include <ptz_status_cache.h>

#include "camera_and_driver.h"

namespace visca_test {

namespace {

class EachTransport : public testing::TestWithParam<const char *> {
 protected:
  CameraAndDriver both_{GetParam()};
};

std::string name_of(const testing::TestParamInfo<const char *> &info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
}

TEST_P(EachTransport, AbsoluteMoveEndsExactlyAtItsTarget) {
  both_.start();
  const Position target = {1234, -567, 321};
  ASSERT_TRUE(both_.go_to(target)) << both_.last_error();
  EXPECT_EQ(both_.rest(), target);
  // 12.34 degrees are 164.5 steps, -5.67 are -75.6, and 3.21 times is a fifth of the way from 2151 to 2860.
  EXPECT_EQ(both_.received("81 01 06 02 18 14 00 00 0A 05 0F 0F 0B 04 FF"), 1U);
  EXPECT_EQ(both_.received("81 01 04 47 02 02 0C 0C FF"), 1U);
}

TEST_P(EachTransport, RelativeMoveEndsAtTheSum) {
  both_.start();
  ASSERT_TRUE(both_.go_to({1000, 1000, 200}));
  both_.rest();
  ASSERT_TRUE(both_.move(PTZ_MOVE_RELATIVE, 1, {-500, 0, 0})) << both_.last_error();
  EXPECT_EQ(both_.rest(), (Position{500, 1000, 200}));
}

TEST_P(EachTransport, MoveOfOneAxisLeavesTheOthers) {
  both_.start();
  ASSERT_TRUE(both_.go_to({1000, 1000, 200}));
  both_.rest();
  ASSERT_TRUE(both_.move(PTZ_MOVE_ABSOLUTE, 2, {0, 2000, 0})) << both_.last_error();
  EXPECT_EQ(both_.rest(), (Position{1000, 2000, 200}));
}

TEST_P(EachTransport, ContinuousMoveRunsUntilStop) {
  both_.start_camera({}, "1");
  both_.start_driver();
  ASSERT_TRUE(both_.is_there_soon());
  ASSERT_TRUE(both_.move(PTZ_MOVE_CONTINUOUS, 7, {-2000, 3000, 100})) << both_.last_error();
  Position position = {};
  bool moves = false;
  ASSERT_TRUE(ptz_test::run_until([&] { return both_.ask(position, moves) && position[0] < -200; }));
  EXPECT_TRUE(moves);
  EXPECT_GT(position[1], 0);
  ASSERT_TRUE(both_.stop()) << both_.last_error();
  const Position rest = both_.rest();
  EXPECT_EQ(both_.rest(), rest);
  EXPECT_GE(both_.received("81 01 06 01 01 01 03 03 FF"), 1U);
  EXPECT_GE(both_.received("81 01 04 07 00 FF"), 1U);
}

TEST_P(EachTransport, StopEndsAnAbsoluteMove) {
  both_.start_camera({}, "0.5");
  both_.start_driver();
  ASSERT_TRUE(both_.is_there_soon());
  ASSERT_TRUE(both_.go_to({17000, 9000, 1800}));
  ASSERT_TRUE(both_.stop()) << both_.last_error();
  const Position rest = both_.rest();
  EXPECT_LT(rest[0], 5000);
  EXPECT_LT(rest[2], 1500);
}

TEST_P(EachTransport, DirectionsHaveTheirBytes) {
  both_.start();
  const std::pair<PTZMoveCmd, const char *> cases[] = {
      {PTZ_MOVE_CMD_UP, "81 01 06 01 01 0A 03 01 FF"},        {PTZ_MOVE_CMD_DOWN, "81 01 06 01 01 0A 03 02 FF"},
      {PTZ_MOVE_CMD_LEFT, "81 01 06 01 0C 01 01 03 FF"},      {PTZ_MOVE_CMD_RIGHT, "81 01 06 01 0C 01 02 03 FF"},
      {PTZ_MOVE_CMD_UP_LEFT, "81 01 06 01 0C 0A 01 01 FF"},   {PTZ_MOVE_CMD_UP_RIGHT, "81 01 06 01 0C 0A 02 01 FF"},
      {PTZ_MOVE_CMD_DOWN_LEFT, "81 01 06 01 0C 0A 01 02 FF"}, {PTZ_MOVE_CMD_DOWN_RIGHT, "81 01 06 01 0C 0A 02 02 FF"}};
  for (const auto &[direction, packet] : cases) {
    ASSERT_TRUE(both_.command(direction, 50)) << both_.last_error();
    EXPECT_EQ(both_.received(packet), 1U) << packet;
  }
  ASSERT_TRUE(both_.command(PTZ_MOVE_CMD_STOP));
}

TEST_P(EachTransport, HomeIsTheCamerasOwnCommand) {
  both_.start();
  ASSERT_TRUE(both_.go_to({3000, 3000, 500}));
  both_.rest();
  ASSERT_TRUE(both_.command(PTZ_MOVE_CMD_HOME)) << both_.last_error();
  EXPECT_EQ(both_.rest(), (Position{0, 0, 100}));
  EXPECT_EQ(both_.received("81 01 06 04 FF"), 1U);
}

TEST_P(EachTransport, DevicePresetIsKeptByTheCamera) {
  both_.start();
  const Position place = {1500, 2250, 400};
  ASSERT_TRUE(both_.go_to(place));
  both_.rest();
  ASSERT_TRUE(both_.set_preset(3, "gate")) << both_.last_error();
  ASSERT_TRUE(both_.go_to({0, 0, 100}));
  both_.rest();
  ASSERT_TRUE(both_.goto_preset(3)) << both_.last_error();
  EXPECT_EQ(both_.rest(), place);
  EXPECT_EQ(both_.received("81 01 04 3F 01 02 FF"), 1U);
  EXPECT_EQ(both_.received("81 01 04 3F 02 02 FF"), 1U);
}

TEST_P(EachTransport, PresetBeyondTheCamerasMemoriesIsKeptByTheDriver) {
  both_.start();
  ASSERT_TRUE(both_.go_to({1500, 2250, 400}));
  both_.rest();
  ASSERT_TRUE(both_.set_preset(20, "door")) << both_.last_error();
  ASSERT_TRUE(both_.go_to({0, 0, 100}));
  both_.rest();
  ASSERT_TRUE(both_.goto_preset(20)) << both_.last_error();
  EXPECT_EQ(both_.rest(), (Position{1500, 2250, 400}));
}

TEST_P(EachTransport, CameraInStandbyRefusesMovesUntilItIsPoweredOn) {
  both_.start_camera({"--standby", "--power-on-ms", "200"});
  both_.start_driver();
  ASSERT_TRUE(ptz_test::run_until([&] {
    return !both_.go_to({100, 100, 100}) && both_.last_error().find("powered off") != std::string::npos;
  })) << both_.last_error();
  EXPECT_FALSE(both_.move(PTZ_MOVE_ABSOLUTE, 1, {100, 0, 0}));
  EXPECT_NE(both_.last_error().find("powered off"), std::string::npos) << both_.last_error();
  ASSERT_TRUE(both_.switch_auxiliary("power", PTZ_ENABLE_ON)) << both_.last_error();
  EXPECT_EQ(both_.auxiliary_state(), PTZ_ENABLE_ON);
  ASSERT_TRUE(ptz_test::run_until([&] { return both_.go_to({1000, 100, 100}); })) << both_.last_error();
  EXPECT_EQ(both_.rest(), (Position{1000, 100, 100}));
}

TEST_P(EachTransport, CameraThatIsOffIsAnErrorAndComesBack) {
  both_.start();
  ASSERT_TRUE(both_.go_to({1000, 1000, 200}));
  both_.rest();
  both_.stop_camera();
  EXPECT_TRUE(ptz_test::run_until([&] { return !both_.go_to({2000, 2000, 300}); }));
  both_.clear_log();
  both_.start_camera();
  const gint64 began = g_get_monotonic_time();
  ASSERT_TRUE(both_.is_there_soon(6000)) << both_.last_error();
  EXPECT_LT(g_get_monotonic_time() - began, 5'000'000);
  RecordProperty("back_after_ms", static_cast<int>((g_get_monotonic_time() - began) / 1000));
  EXPECT_EQ(both_.rest(), (Position{0, 0, 100})) << "an old move came back";
  ASSERT_TRUE(both_.go_to({500, 500, 150}));
  EXPECT_EQ(both_.rest(), (Position{500, 500, 150}));
}

TEST_P(EachTransport, DriverStartsWithoutACameraAndFindsItLater) {
  both_.start_camera();
  both_.stop_camera();
  both_.start_driver();
  EXPECT_FALSE(both_.go_to({100, 100, 100}));
  both_.start_camera();
  EXPECT_TRUE(both_.is_there_soon(6000)) << both_.last_error();
}

TEST_P(EachTransport, RestartedDriverStopsTheCameraAndKnowsItsPosition) {
  both_.start_camera({}, "0.5");
  both_.start_driver();
  ASSERT_TRUE(both_.is_there_soon());
  ASSERT_TRUE(both_.move(PTZ_MOVE_CONTINUOUS, 1, {3000, 0, 0}));
  both_.driver().signal(SIGKILL);
  both_.start_driver();
  ASSERT_TRUE(both_.is_there_soon());
  EXPECT_GT(both_.rest()[0], 0);
  EXPECT_LT(both_.rest()[0], 16000);
}

INSTANTIATE_TEST_SUITE_P(Visca, EachTransport, testing::Values("udp", "udp-raw", "tcp", "serial"), name_of);

// "localhost" may be ::1 before it is 127.0.0.1.
TEST(ViscaDriver, NameWithSeveralAddressesIsTriedAtEach) {
  CameraAndDriver both("udp");
  both.start_camera();
  both.set_device("udp:localhost:" + both.device().substr(both.device().rfind(':') + 1));
  both.start_driver();
  EXPECT_TRUE(both.is_there_soon(6000)) << both.output();
}

TEST(ViscaDriver, StopWithoutCameraFailsAfterTwoSeconds) {
  CameraAndDriver both("udp");
  both.start();
  both.stop_camera();
  const gint64 began = g_get_monotonic_time();
  EXPECT_FALSE(both.stop());
  EXPECT_GE(g_get_monotonic_time() - began, 1'900'000);
  EXPECT_LT(g_get_monotonic_time() - began, 4'000'000);
}

TEST(ViscaDriver, EndOfTheDriverStopsTheCamera) {
  CameraAndDriver both("tcp");
  both.start();
  both.clear_log();
  ASSERT_TRUE(both.command(PTZ_MOVE_CMD_LEFT, 1));
  both.driver().signal(SIGTERM);
  EXPECT_EQ(both.driver().wait(), 0);
  EXPECT_TRUE(ptz_test::run_until([&] { return both.received("81 01 06 01 01 01 03 03 FF") == 1; })) << both.log();
}

TEST(ViscaDriver, Ipv6CameraIsServed) {
  CameraAndDriver both("udp");
  both.start_camera({"--host", "::1"});
  std::istringstream line(ptz_test::contents(both.file("camera")));
  std::string word, port;
  line >> word >> port;
  if (port.empty()) GTEST_SKIP() << "no IPv6 here";
  both.set_device("udp:[::1]:" + port);
  both.start_driver();
  EXPECT_TRUE(both.is_there_soon());
}

TEST(ViscaDriver, BadAddressIsABadSetting) {
  ptz_test::TempDir dir;
  ptz_test::Process driver(VISCA_DRIVER, {"--socket", dir.file("socket"), "--device", "ftp:camera"},
                           dir.file("output"));
  EXPECT_EQ(driver.wait(), 2);
  EXPECT_NE(ptz_test::contents(dir.file("output")).find("serial:, udp:, udp-raw: or tcp:"), std::string::npos);
}

// The second and further cameras have the same settings.
TEST(ViscaDriver, HelpListsTheSettingsOfAllCamerasOnce) {
  ptz_test::TempDir dir;
  ptz_test::Process driver(VISCA_DRIVER, {"--help"}, dir.file("output"));
  EXPECT_EQ(driver.wait(), 0);
  const std::string help = ptz_test::contents(dir.file("output"));
  EXPECT_NE(help.find("[Camera1] to [Camera7] PanMinimum="), std::string::npos) << help;
  EXPECT_EQ(help.find("[Camera2]"), std::string::npos);
}

TEST(ViscaSim, HelpInAUtf8LocaleIsUtf8) {
  ptz_test::TempDir dir;
  setenv("LC_ALL", "C.UTF-8", 1);
  ptz_test::Process camera(VISCA_SIM, {"--help"}, dir.file("output"));
  EXPECT_EQ(camera.wait(), 0);
  unsetenv("LC_ALL");
  EXPECT_NE(ptz_test::contents(dir.file("output")).find("[OPTION…]"), std::string::npos);
}

TEST(ViscaDriver, SettingsFileIsValid) {
  ptz_test::TempDir dir;
  ptz_test::Process driver(VISCA_DRIVER, {"--check-settings", "--config", VISCA_DRIVER_SETTINGS}, dir.file("output"));
  EXPECT_EQ(driver.wait(), 0) << ptz_test::contents(dir.file("output"));
}

TEST(ViscaDriver, AuxiliaryOfTheSettingsIsARawCommand) {
  CameraAndDriver both("udp");
  std::ofstream(both.file("settings")) << "[Camera1]\nAuxiliary1=light = 01 04 01 02; 01 04 01 03\n";
  both.start({}, {"--config", both.file("settings")});
  ASSERT_TRUE(both.switch_auxiliary("light", PTZ_ENABLE_ON)) << both.last_error();
  EXPECT_EQ(both.received("81 01 04 01 02 FF"), 1U);
  ASSERT_TRUE(both.switch_auxiliary("light", PTZ_ENABLE_OFF));
  EXPECT_EQ(both.received("81 01 04 01 03 FF"), 1U);
}

// Motions to the left, one every 5 ms, each with a speed that its neighbours do not have.
class Burst {
  static constexpr int requests_ = 200;
  static constexpr gint64 interval_us_ = 5000;
  CameraAndDriver &both_;
  int answered_ = 0;

  static void on_answer(GObject *link, GAsyncResult *result, gpointer burst) {
    if (ptz_kit_link_move_finish(PTZ_KIT_LINK(link), result, nullptr) != FALSE)
      ++static_cast<Burst *>(burst)->answered_;
  }

 public:
  std::vector<std::string> expected;
  gint64 duration_us = 0;
  explicit Burst(CameraAndDriver &both) : both_(both) {}

  // A request also waits for the answer to the one before: a driver that gets two motions at once sends the later one.
  void run() {
    both_.clear_log();
    const gint64 began = g_get_monotonic_time();
    for (int number = 0; number < requests_; ++number) {
      const int step = 1 + number % 24;
      const PTZKitMoveRequest request = {
          .kind = PTZ_MOVE_CONTINUOUS, .axes = 1, .speed = 100, .value = {-step * 10000 / 24, 0, 0}};
      char packet[32];
      snprintf(packet, sizeof packet, "81 01 06 01 %02X 01 01 03 FF", step);
      expected.emplace_back(packet);
      const gint64 sent_us = g_get_monotonic_time();
      ptz_kit_link_move_async(both_.link(), &request, deadline_ms, nullptr, on_answer, this);
      ASSERT_TRUE(ptz_test::run_until([&] { return answered_ == number + 1; })) << number;
      const gint64 left_us = sent_us + interval_us_ - g_get_monotonic_time();
      if (left_us > 0) g_usleep(static_cast<gulong>(left_us));
    }
    duration_us = g_get_monotonic_time() - began;
  }
  // A datagram that the driver has repeated, because its ACK was late, counts once.
  std::vector<std::string> received() const {
    std::vector<std::string> packets;
    std::istringstream log(ptz_test::contents(both_.file("log")));
    for (std::string line; std::getline(log, line);) {
      const std::size_t at = line.find("> 81 01 06 01 ");
      if (at == std::string::npos) continue;
      const std::string packet = line.substr(at + 2);
      if (packets.empty() || packets.back() != packet) packets.push_back(packet);
    }
    return packets;
  }
  bool kept_its_rate() const { return duration_us < requests_ * interval_us_ * 5 / 4; }
};

// The camera must get all of them, in order. A busy machine may need several attempts to run at the full rate.
TEST(ViscaDriver, TwoHundredRequestsASecondArriveInOrder) {
  CameraAndDriver both("udp");
  both.start();
  bool kept_rate = false;
  for (int attempt = 0; attempt < 12 && !kept_rate; ++attempt) {
    Burst burst(both);
    burst.run();
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    ASSERT_EQ(burst.received(), burst.expected);
    kept_rate = burst.kept_its_rate();
    RecordProperty("duration_us", static_cast<int>(burst.duration_us));
  }
  EXPECT_TRUE(kept_rate);
}

struct Published {
  gboolean exists = FALSE;
  gfloat pan = -1;
  gint32 status = -1;
  PTZStatusCacheTime time = {};
};

Published published() {
  Published now;
  PTZStatusCacheGroup *group = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 1, 3);
  ptz_status_cache_add_param(group, PTZ_SC_PARAM_POSITION_PAN, &now.pan);
  ptz_status_cache_add_param(group, PTZ_SC_PARAM_POSITION_PAN_STATUS, &now.status);
  ptz_status_cache_add_param(group, PTZ_SC_PARAM_POSITION_TIME_VAL, &now.time);
  now.exists = ptz_status_cache_fetch_group(group);
  ptz_status_cache_free_group(group);
  return now;
}

TEST(ViscaDriver, PositionOfACameraThatNeverAnsweredIsNotPublished) {
  CameraAndDriver both("udp");
  both.start_camera();
  both.stop_camera();
  both.start_driver({"--instance", "1"});
  EXPECT_FALSE(both.go_to({100, 100, 100}));
  EXPECT_FALSE(published().exists);
  both.start_camera();
  ASSERT_TRUE(both.is_there_soon());
  EXPECT_TRUE(ptz_test::run_until([] { return published().exists && published().status == PTZ_MOVE_STATUS_IDLE; }));
}

TEST(ViscaDriver, LostCameraMakesThePublishedPositionUnknownAndStale) {
  CameraAndDriver both("udp");
  both.start({}, {"--instance", "1"});
  ASSERT_TRUE(both.go_to({1000, 1000, 200}));
  both.rest();
  ASSERT_TRUE(ptz_test::run_until([] { return published().pan == 10 && published().status == PTZ_MOVE_STATUS_IDLE; }));
  both.stop_camera();
  ASSERT_TRUE(ptz_test::run_until([] { return published().status == PTZ_MOVE_STATUS_UNKNOWN; }, 10'000));
  const Published lost = published();
  EXPECT_EQ(lost.pan, 10);
  // Each request makes the driver publish.
  EXPECT_FALSE(both.go_to({2000, 2000, 300}));
  EXPECT_EQ(published().time.seconds, lost.time.seconds);
  EXPECT_EQ(published().time.fraction, lost.time.fraction);
  both.start_camera();
  EXPECT_TRUE(ptz_test::run_until([] { return published().status == PTZ_MOVE_STATUS_IDLE; }, 10'000));
}

TEST(ViscaDriver, TwoCamerasOfOneLineAreTwoInstances) {
  CameraAndDriver both("serial");
  std::ofstream(both.file("settings")) << "[Line]\nCameras=2\n[Camera2]\nSocket=" + both.file("second") + "\n";
  both.start({"--cameras", "2"}, {"--config", both.file("settings")});
  PTZKitLink *second = ptz_kit_link_new(both.file("second").c_str());
  ptz_kit_link_open(second);
  ASSERT_TRUE(ptz_kit_link_wait_ready(second, 5000, nullptr));
  PTZKitMoveRequest request = {.kind = PTZ_MOVE_ABSOLUTE, .axes = 3, .speed = 100, .value = {1500, 1500, 0}};
  ASSERT_TRUE(
      ptz_test::run_until([&] { return ptz_kit_link_move(second, &request, 3000, nullptr, nullptr) != FALSE; }));
  ASSERT_TRUE(both.go_to({-1500, 750, 100})) << both.last_error() << both.log();
  EXPECT_EQ(both.rest(), (Position{-1500, 750, 100}));
  Position position = {};
  EXPECT_TRUE(ptz_test::run_until([&] {
    PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(second, 3000, nullptr, nullptr);
    if (reply == nullptr) return false;
    std::copy(std::begin(reply->position), std::end(reply->position), position.begin());
    ptz_kit_query_position_reply_free(reply);
    return position[0] == 1500 && position[1] == 1500;
  })) << position[0]
      << " " << position[1];
  g_object_unref(second);
  EXPECT_GE(both.received("82 01 06 02 18 14 00 00 0C 08 00 00 0C 08 FF"), 1U);
  both.driver().signal(SIGTERM);
  EXPECT_EQ(both.driver().wait(), 0) << both.output();
}

TEST(ViscaDriver, SigtermWithTwoCamerasOfALineThatDoesNotOpenEndsTheDriver) {
  CameraAndDriver both("serial");
  both.set_device("serial:" + both.file("nope"));
  std::ofstream(both.file("settings")) << "[Line]\nCameras=2\n[Camera2]\nSocket=" + both.file("second") + "\n";
  both.start_driver({"--config", both.file("settings")});
  both.driver().signal(SIGTERM);
  EXPECT_EQ(both.driver().wait(), 0) << both.output();
}

}  // namespace
}  // namespace visca_test
