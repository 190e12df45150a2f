// A driver as a program: the example driver on the kit, with its options, exit statuses and notifications.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <fstream>
#include <memory>

#include "fixtures.h"
#include "peers.h"
#include "process.h"

using ptz_test::contents;
using ptz_test::Process;

namespace {

class KitDriverProgram : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string socket_ = dir_.file("socket");
  const std::string output_ = dir_.file("output");
  std::unique_ptr<Process> driver_;

  void SetUp() override { setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1); }
  void TearDown() override {
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) unsetenv(name);
  }
  void run(std::vector<std::string> arguments) {
    driver_.reset();  // a second driver on the socket is refused
    driver_ = std::make_unique<Process>(KIT_DRIVER, arguments, output_);
  }
  int status_of(std::vector<std::string> arguments) {
    run(std::move(arguments));
    return driver_->wait();
  }
  void serve(std::vector<std::string> more = {}) {
    more.insert(more.begin(), {"--socket", socket_});
    run(std::move(more));
    ASSERT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket_)); })) << contents(output_);
  }
  int terminate(int number) {
    driver_->signal(number);
    return driver_->wait();
  }
  std::string settings(const char *text) {
    std::ofstream(dir_.file("settings")) << text;
    return dir_.file("settings");
  }
};

TEST_F(KitDriverProgram, SigtermAndSigintEndItWithStatus0) {
  for (const int number : {SIGTERM, SIGINT}) {
    serve();
    EXPECT_EQ(terminate(number), 0) << contents(output_);
    EXPECT_FALSE(ptz_test::connect_to(socket_));
  }
}

TEST_F(KitDriverProgram, WrongUsageIsStatus2) {
  EXPECT_EQ(status_of({}), 2);
  EXPECT_EQ(status_of({"--socket", socket_, "--no-such-option"}), 2);
  EXPECT_EQ(status_of({"--socket", socket_, "more"}), 2);
  EXPECT_EQ(status_of({"--socket", socket_, "--instance", "-2"}), 2);
}

TEST_F(KitDriverProgram, SocketThatCannotBeOpenedIsStatus1) {
  EXPECT_EQ(status_of({"--socket", dir_.file("none/socket")}), 1);
  EXPECT_NE(contents(output_).find("kit-driver: cannot listen on"), std::string::npos);
}

TEST_F(KitDriverProgram, SecondDriverOfSocketOrInstanceIsStatus1AndNamesProcessOfFirst) {
  serve({"--instance", "3"});
  const std::unique_ptr<Process> first = std::move(driver_);
  const std::string holder = " by driver 'kit-driver', process " + std::to_string(first->pid());
  EXPECT_EQ(status_of({"--socket", socket_}), 1);
  EXPECT_NE(contents(output_).find("is served" + holder), std::string::npos) << contents(output_);
  EXPECT_EQ(status_of({"--socket", dir_.file("other"), "--instance", "3"}), 1);
  EXPECT_NE(contents(output_).find("instance 3 is published" + holder), std::string::npos) << contents(output_);
  EXPECT_TRUE(ptz_test::connect_to(socket_));
}

TEST_F(KitDriverProgram, BadSettingIsStatus2) {
  EXPECT_EQ(status_of({"--socket", socket_, "--config", settings("[Head]\nSpeedPercent=101\n")}), 2);
  EXPECT_NE(contents(output_).find("settings:2: [Head] SpeedPercent: 101 is not within 1 to 100"), std::string::npos);
}

TEST_F(KitDriverProgram, CheckSettingsNeedsNoSocketAndTellsUnknownKeys) {
  EXPECT_EQ(status_of({"--check-settings", "--config", settings("[Head]\nSpeedPercent=100\n")}), 0);
  EXPECT_EQ(contents(output_), "");
  EXPECT_EQ(status_of({"--check-settings", "--config", settings("[Head]\nSpede=100\n")}), 2);
  EXPECT_NE(contents(output_).find("settings:2: [Head] Spede: there is no such setting"), std::string::npos);
}

TEST_F(KitDriverProgram, UnknownKeyAloneDoesNotKeepItFromServing) {
  serve({"--config", settings("[Head]\nSpede=100\n")});
  EXPECT_EQ(terminate(SIGTERM), 0);
}

TEST_F(KitDriverProgram, ServiceManagerIsToldOfStartLifeAndEnd) {
  const ptz_test::Descriptor manager(socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = dir_.file("notify");
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
  const timeval limit = {10, 0};
  setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "40000", 1);
  serve();
  const auto next = [&] {
    char text[64] = {};
    const auto length = recv(manager.get(), text, sizeof text, 0);
    return std::string(text, length > 0 ? static_cast<std::size_t>(length) : 0);
  };
  EXPECT_EQ(next(), "READY=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  EXPECT_EQ(next(), "WATCHDOG=1");
  EXPECT_EQ(terminate(SIGTERM), 0);
  std::string last = next();
  while (last == "WATCHDOG=1") last = next();
  EXPECT_EQ(last, "STOPPING=1");
}

TEST_F(KitDriverProgram, ServiceManagerThatIsGoneIsLoggedOnce) {
  setenv("NOTIFY_SOCKET", dir_.file("none").c_str(), 1);
  serve();
  EXPECT_EQ(terminate(SIGTERM), 0);
  const std::string output = contents(output_);
  const std::size_t first = output.find("cannot be notified");
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(output.find("cannot be notified", first + 1), std::string::npos) << output;
}

TEST_F(KitDriverProgram, UnregisterEndsItWithStatus0AfterItsReply) {
  serve();
  const ptz_test::Descriptor client = ptz_test::connect_to(socket_);
  ptz_test::send_all(client.get(), ptz_test::frame(1, std::string("\x08\0\0\0", 4)));
  const auto reply = ptz_test::receive_frame(client.get());
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->body, std::string("\x08\0\0\0", 4));
  EXPECT_EQ(driver_->wait(), 0);
}

#ifdef PTZ_COMPLIANCE
TEST_F(KitDriverProgram, ComplianceToolHasNoComplaint) {
  Process tool(
      PTZ_COMPLIANCE,
      {"--instance", "1", "--", KIT_DRIVER, "--instance", "1", "--socket", "{socket}", "--state", dir_.file("presets")},
      output_);
  EXPECT_EQ(tool.wait(), 0) << contents(output_);
  EXPECT_NE(contents(output_).find("3 not applicable"), std::string::npos) << contents(output_);
}
#endif

}  // namespace
