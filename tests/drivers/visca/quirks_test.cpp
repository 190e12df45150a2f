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

INSTANTIATE_TEST_SUITE_P(Visca, BadNetwork, testing::Values("udp", "udp-raw"), [](const auto &info) {
  std::string name = info.param;
  std::erase(name, '-');
  return name;
});

}  // namespace
}  // namespace visca_test
