// The daemon program, with the driver program.
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <string>
#include <utility>

#include "clock.h"
#include "fixtures.h"
#include "process.h"

using ptz_test::contents;
using ptz_test::Process;

namespace {

class MiniDaemon : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string socket_ = dir_.file("driver.socket");
  const std::string output_ = dir_.file("output");

  std::unique_ptr<Process> start_driver(const std::vector<std::string> &more = {}) {
    std::vector<std::string> arguments = {"--socket", socket_, "--speed-factor", "20"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return std::make_unique<Process>(SIM_DRIVER, arguments, dir_.file("driver-output"));
  }
  std::size_t told(const std::string &text) const {
    const std::string output = contents(output_);
    std::size_t count = 0;
    for (auto found = output.find(text); found != std::string::npos; found = output.find(text, found + 1)) ++count;
    return count;
  }
  bool tells(const std::string &text, std::size_t times = 1) const {
    return ptz_test::run_until([&] { return told(text) >= times; });
  }
};

}  // namespace

TEST_F(MiniDaemon, PollsThePositionThroughTheDriversRestartUntilInterrupted) {
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--interval", "10"}, output_);
  auto driver = start_driver();
  ASSERT_TRUE(tells("connected to sim-driver"));
  ASSERT_TRUE(tells("idle", 3)) << contents(output_);
  driver->signal(SIGKILL);
  driver->wait();
  ASSERT_TRUE(tells("the connection to the driver is lost")) << contents(output_);
  driver = start_driver();
  ASSERT_TRUE(tells("connected to sim-driver", 2)) << contents(output_);
  const std::size_t before = told("idle");
  ASSERT_TRUE(tells("idle", before + 3)) << contents(output_);
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(), 0);
}

TEST_F(MiniDaemon, EndsAtOnceWhenInterruptedWhileADriverDoesNotAnswer) {
  const auto driver = start_driver();
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--interval", "10"}, output_);
  ASSERT_TRUE(tells("idle")) << contents(output_);
  driver->signal(SIGSTOP);
  // Until it waits for an answer that does not come.
  std::size_t before = 0;
  ASSERT_TRUE(ptz_test::run_until([&] {
    g_usleep(50'000);
    return std::exchange(before, told("idle")) == told("idle");
  }));
  const auto start_ms = ptz_test::real_time_ms();
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.wait(), 0);
  EXPECT_LT(ptz_test::real_time_ms() - start_ms, 5'000);  // it would wait for ten seconds
}

TEST_F(MiniDaemon, EndsItsTourAtOnceWhenInterruptedWhileADriverDoesNotAnswer) {
  const auto driver = start_driver({"--speed-factor", "1"});
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--tour"}, output_);
  ASSERT_TRUE(tells("moving")) << contents(output_);
  driver->signal(SIGSTOP);
  g_usleep(200'000);  // the worker asks every 100 ms: it now waits for a reply
  const auto start_ms = ptz_test::real_time_ms();
  daemon.signal(SIGINT);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_LT(ptz_test::real_time_ms() - start_ms, 5'000);  // the call alone would wait for ten seconds
}

TEST_F(MiniDaemon, MakesItsTourThroughARestartAndEndsWell) {
  const std::vector<std::string> files = {"--config", SIM_DRIVER_SETTINGS, "--state", dir_.file("state")};
  auto driver = start_driver(files);
  const std::string cue = dir_.file("cue");
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--tour", "--cue", cue, "--pan-limit", "16000"}, output_);
  ASSERT_TRUE(ptz_test::run_until([&] { return contents(cue) == "kill\n"; }, 30'000)) << contents(output_);
  driver->signal(SIGKILL);
  driver->wait();
  driver = start_driver(files);
  EXPECT_EQ(daemon.wait(), 0) << contents(output_);
  EXPECT_EQ(told("FAILED"), 0U) << contents(output_);
  EXPECT_EQ(told("presets: 1 \"overview\" 2 \"far gate\" 3 \"entrance\""), 2U) << contents(output_);
}

TEST_F(MiniDaemon, EndsItsTourWhereADriverHasLostItsPresets) {
  auto driver = start_driver();
  const std::string cue = dir_.file("cue");
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--tour", "--cue", cue}, output_);
  ASSERT_TRUE(ptz_test::run_until([&] { return contents(cue) == "kill\n"; }, 30'000)) << contents(output_);
  driver->signal(SIGKILL);
  driver->wait();
  driver = start_driver();
  EXPECT_EQ(daemon.wait(), 1) << contents(output_);
  EXPECT_EQ(told("the preset that was stored is missing"), 1U) << contents(output_);
}

TEST_F(MiniDaemon, EndsItsTourWhereALimitIsNotTheOneToldToIt) {
  const auto driver = start_driver();
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--tour", "--pan-limit", "16000"}, output_);
  EXPECT_EQ(daemon.wait(), 1) << contents(output_);
  EXPECT_EQ(told("pan should end at "), 1U) << contents(output_);
}

TEST_F(MiniDaemon, FailsWhereNoDriverListensInTime) {
  Process daemon(MINI_DAEMON, {"--socket", socket_, "--tour", "--timeout", "0.2"}, output_);
  EXPECT_EQ(daemon.wait(), 1);
  EXPECT_EQ(told("no driver listens"), 1U) << contents(output_);
}

TEST_F(MiniDaemon, RefusesArgumentsThatMakeNoSense) {
  EXPECT_EQ(Process(MINI_DAEMON, {}, output_).wait(), 2);
  EXPECT_EQ(Process(MINI_DAEMON, {"--socket", socket_, "--interval", "0"}, output_).wait(), 2);
  EXPECT_EQ(Process(MINI_DAEMON, {"--help"}, output_).wait(), 0);
}
