// The driver with cameras that are wrong or odd, and with networks that lose and mix datagrams.
#include "camera_and_driver.h"

namespace visca_test {

namespace {

struct Case {
  const char *quirk;
  const char *transport;
};
void PrintTo(const Case &of, std::ostream *stream) { *stream << of.quirk << " over " << of.transport; }

class EachQuirk : public testing::TestWithParam<Case> {};

std::string name_of(const testing::TestParamInfo<Case> &info) {
  std::string name = std::string(info.param.quirk) + "_" + info.param.transport;
  std::erase(name, '-');
  return name;
}

// What any camera with a position must do.
void go_round(CameraAndDriver &both) {
  ASSERT_TRUE(both.go_to({1500, 750, 200})) << both.last_error();
  EXPECT_EQ(both.rest(), (Position{1500, 750, 200}));
  ASSERT_TRUE(both.go_to({-7500, 7500, 1800}));
  ASSERT_TRUE(both.go_to({-1500, 1500, 100})) << "a move that replaces one: " << both.last_error();
  EXPECT_EQ(both.rest(), (Position{-1500, 1500, 100}));
  ASSERT_TRUE(both.command(PTZ_MOVE_CMD_RIGHT, 50)) << both.last_error();
  ASSERT_TRUE(both.stop()) << both.last_error();
  both.rest();
  ASSERT_TRUE(both.command(PTZ_MOVE_CMD_HOME)) << both.last_error();
  EXPECT_EQ(both.rest(), (Position{0, 0, 100}));
}

TEST_P(EachQuirk, IsCopedWith) {
  CameraAndDriver both(GetParam().transport);
  both.start({"--quirk", GetParam().quirk});
  if (!HasFatalFailure()) go_round(both);
}

const Case cases[] = {
    {"sequence-one", "udp"},
    {"sequence-zero", "udp"},
    {"sequence-small", "udp"},
    {"sequence-ignored", "udp"},
    {"no-reset", "udp"},
    {"error-in-reply", "udp"},
    {"bare-replies", "udp"},
    {"no-ack", "udp"},
    {"no-ack", "serial"},
    {"no-ack-home", "udp"},
    {"no-ack-home", "serial"},
    {"complete-twice", "udp"},
    {"complete-twice", "tcp"},
    {"complete-empty", "udp-raw"},
    {"complete-empty", "serial"},
    {"lost-completion", "udp"},
    {"lost-completion", "serial"},
    {"keeps-replaced", "udp"},
    {"keeps-replaced", "tcp"},
    {"late-answers", "udp"},
    {"late-answers", "tcp"},
    {"joined", "udp"},
    {"joined", "udp-raw"},
    {"joined", "tcp"},
    {"split", "tcp"},
    {"split", "serial"},
    {"other-address", "udp"},
    {"other-address", "udp-raw"},
    {"network-change", "serial"},
    {"network-change", "udp"},
    {"noise", "serial"},
    {"noise", "tcp"},
    {"endless", "serial"},
    {"endless", "tcp"},
    {"cut-off", "serial"},
    {"cut-off", "udp"},
    {"no-focus", "udp"},
    {"five-nibbles", "udp"},
};
INSTANTIATE_TEST_SUITE_P(Visca, EachQuirk, testing::ValuesIn(cases), name_of);

class WithoutPosition : public testing::TestWithParam<Case> {};

TEST_P(WithoutPosition, MovesAndSaysThatThePositionIsUnknown) {
  CameraAndDriver both(GetParam().transport);
  both.start_camera({"--quirk", GetParam().quirk});
  both.start_driver();
  ASSERT_TRUE(ptz_test::run_until([&] { return both.go_to({1500, 750, 200}); })) << both.last_error();
  EXPECT_EQ(both.received("81 01 06 02 18 14 00 00 0C 08 00 00 06 04 FF"), 1U);
  Position position;
  bool moves = false;
  EXPECT_FALSE(both.ask(position, moves));
  EXPECT_NE(both.last_error().find("does not tell its position"), std::string::npos) << both.last_error();
  EXPECT_TRUE(both.command(PTZ_MOVE_CMD_LEFT)) << both.last_error();
  EXPECT_TRUE(both.stop()) << both.last_error();
}

const Case blind[] = {{"no-position", "udp"}, {"no-position", "serial"}, {"no-answers", "udp"}, {"no-answers", "tcp"}};
INSTANTIATE_TEST_SUITE_P(Visca, WithoutPosition, testing::ValuesIn(blind), name_of);

class WithoutInquiries : public testing::TestWithParam<const char *> {};

TEST_P(WithoutInquiries, MovesAndStops) {
  CameraAndDriver both(GetParam());
  both.start_camera({"--quirk", "no-inquiries"});
  both.start_driver();
  ASSERT_TRUE(ptz_test::run_until([&] { return both.command(PTZ_MOVE_CMD_LEFT); })) << both.last_error();
  EXPECT_TRUE(both.stop()) << both.last_error() << both.log();
  Position position;
  bool moves = false;
  EXPECT_FALSE(both.ask(position, moves));
}

std::string transport_name(const testing::TestParamInfo<const char *> &info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
}
INSTANTIATE_TEST_SUITE_P(Visca, WithoutInquiries, testing::Values("udp", "udp-raw", "tcp", "serial"), transport_name);

TEST(ViscaQuirks, CameraWithoutZoomPositionTellsPanAndTilt) {
  CameraAndDriver both("udp");
  both.start({"--quirk", "no-zoom-position"});
  ASSERT_TRUE(both.go_to({1500, 750, 200})) << both.last_error();
  ASSERT_TRUE(ptz_test::run_until([&] {
    Position position = {};
    bool moves = true;
    return both.ask(position, moves) && !moves && position[0] == 1500 && position[1] == 750;
  })) << both.last_error();
  PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(both.link(), deadline_ms, nullptr, nullptr);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->status[2], PTZ_MOVE_STATUS_UNKNOWN);
  ptz_kit_query_position_reply_free(reply);
}

guint32 move_capabilities(CameraAndDriver &both) {
  PTZKitGetCapabilitiesReply *reply = ptz_kit_link_get_capabilities(both.link(), deadline_ms, nullptr, nullptr);
  const guint32 move = reply != nullptr ? reply->move : 0;
  ptz_kit_get_capabilities_reply_free(reply);
  return move;
}

TEST(ViscaQuirks, FocusIsAnnouncedUnlessTheCameraRefusesItsInquiries) {
  for (const char *quirk : {"no-focus", "joined"}) {
    CameraAndDriver both("udp");
    both.start({"--quirk", quirk});
    const bool expected = std::string(quirk) != "no-focus";
    EXPECT_TRUE(ptz_test::run_until([&] {
      return ((move_capabilities(both) & PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS) != 0) == expected;
    })) << quirk;
    EXPECT_NE(move_capabilities(both) & PTZ_DRIVER_MOVE_CAPABILITIES_IRIS, 0U);
  }
}

TEST(ViscaQuirks, SettingsDenyWhatTheCameraHasNot) {
  CameraAndDriver both("udp");
  std::ofstream(both.file("settings")) << "[Camera1]\nZoom=no\nIris=no\nFocus=no\nIrCutFilter=no\n";
  both.start({}, {"--config", both.file("settings")});
  const guint32 move = move_capabilities(both);
  EXPECT_EQ(move & (PTZ_DRIVER_MOVE_CAPABILITIES_FOCUS | PTZ_DRIVER_MOVE_CAPABILITIES_IRIS |
                    PTZ_DRIVER_MOVE_CAPABILITIES_IRCUTFILTER | PTZ_DRIVER_MOVE_CAPABILITIES_ZOOM),
            0U);
  ASSERT_TRUE(both.move(PTZ_MOVE_ABSOLUTE, 3, {1500, 750, 0})) << both.last_error();
  EXPECT_EQ(both.rest(), (Position{1500, 750, 0}));
  EXPECT_FALSE(both.move(PTZ_MOVE_ABSOLUTE, 4, {0, 0, 200}));
  EXPECT_TRUE(both.command(PTZ_MOVE_CMD_HOME)) << both.last_error();
  EXPECT_TRUE(both.stop());
  EXPECT_EQ(both.received("81 01 04 07 00 FF"), 0U);
  EXPECT_EQ(both.received("81 09 04 47 FF"), 0U);
}

bool set_focus(CameraAndDriver &both, gint32 speed) {
  PTZKitImageRequest request = {};
  request.focus_kind = PTZ_MOVE_CONTINUOUS;
  request.focus = speed;
  request.iris_kind = request.brightness_kind = PTZ_MOVE_NONE;
  request.auto_focus = request.auto_iris = request.backlight = PTZ_ENABLE_NONE;
  request.ir_cut_filter = PTZ_AUTO_ENABLE_NONE;
  PTZKitImageReply *reply = ptz_kit_link_image(both.link(), &request, deadline_ms, nullptr, nullptr);
  const bool good = reply != nullptr;
  ptz_kit_image_reply_free(reply);
  return good;
}

TEST(ViscaQuirks, FocusRunsAndStops) {
  CameraAndDriver both("udp");
  both.start();
  ASSERT_TRUE(set_focus(both, 10000));
  ASSERT_TRUE(set_focus(both, -5000));
  ASSERT_TRUE(set_focus(both, 0));
  EXPECT_EQ(both.received("81 01 04 08 27 FF"), 1U) << both.log();
  EXPECT_EQ(both.received("81 01 04 08 33 FF"), 1U);
  EXPECT_EQ(both.received("81 01 04 08 00 FF"), 1U);
}

class BadNetwork : public testing::TestWithParam<const char *> {};

TEST_P(BadNetwork, LossDuplicatesAndReorderingChangeNoResult) {
  CameraAndDriver both(GetParam());
  both.start({"--loss", "30", "--duplicate", "10", "--reorder", "10"});
  for (int round = 1; round <= 5; ++round) {
    // A command that stays without answer for a second fails; its repetition is up to the client.
    ASSERT_TRUE(ptz_test::run_until([&] { return both.go_to({150 * round, 75 * round, 100 + 50 * round}); }));
    EXPECT_EQ(both.rest()[0], 150 * round) << both.log();
    ASSERT_TRUE(ptz_test::run_until([&] { return both.command(PTZ_MOVE_CMD_LEFT, 20); }));
    ASSERT_TRUE(both.stop()) << both.last_error();
    const Position rest = both.rest();
    g_usleep(100'000);
    EXPECT_EQ(both.rest(), rest) << "it has not stopped" << both.log();
  }
}

INSTANTIATE_TEST_SUITE_P(Visca, BadNetwork, testing::Values("udp", "udp-raw"), transport_name);

}  // namespace
}  // namespace visca_test
