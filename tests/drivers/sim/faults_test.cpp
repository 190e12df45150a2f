// The option --fault. What the faults do is seen by the test of ptz-compliance, which finds each of them.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "fixtures.h"
#include "messages.h"
#include "peers.h"
#include "process.h"

using ptz_test::contents;
using ptz_test::Process;

namespace {

class SimDriverFault : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string socket_ = dir_.file("socket");
  const std::string output_ = dir_.file("output");

  int status_of(const std::vector<std::string> &arguments) { return Process(SIM_DRIVER, arguments, output_).wait(); }
  bool is_told(const std::string &text) const { return contents(output_).find(text) != std::string::npos; }
};

struct Row {
  std::string name;
  std::string text;
  bool operator==(const Row &) const = default;
};
void PrintTo(const Row &row, std::ostream *out) { *out << row.name << ": " << row.text; }

std::vector<Row> rows_in(const std::string &text, const std::regex &pattern) {
  std::vector<Row> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (std::smatch match; std::regex_match(line, match, pattern)) rows.push_back({match[1], match[2]});
  }
  return rows;
}

TEST_F(SimDriverFault, ListNamesEachOnceAsDocumentDoes) {
  EXPECT_EQ(status_of({"--fault", "list"}), 0);
  const auto listed = rows_in(contents(output_), std::regex("([a-z0-9.-]+): (.+)"));
  EXPECT_GT(listed.size(), 100U);
  const auto documented = rows_in(contents(FAULTS_DOCUMENT), std::regex("\\| `([a-z0-9.-]+)` \\| (.+) \\|"));
  EXPECT_EQ(documented, listed);
}

TEST_F(SimDriverFault, UnknownNameIsStatus2) {
  EXPECT_EQ(status_of({"--socket", socket_, "--fault", "framing"}), 2);
  EXPECT_TRUE(is_told("there is no such fault")) << contents(output_);
}

TEST_F(SimDriverFault, OptionThatFaultyDriverDoesNotObeyIsStatus2) {
  for (const std::vector<std::string> &more : std::vector<std::vector<std::string>>{{"--state", dir_.file("state")},
                                                                                    {"--dbus", "sim"},
                                                                                    {"more"},
                                                                                    {"--speed-factor", "21"},
                                                                                    {"--instance", "-1"}}) {
    std::vector<std::string> arguments = {"--socket", socket_, "--fault", "none"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    EXPECT_EQ(status_of(arguments), 2) << more.front();
  }
  EXPECT_EQ(status_of({"--fault", "none"}), 2);
  EXPECT_TRUE(is_told("--socket PATH is missing")) << contents(output_);
}

TEST_F(SimDriverFault, SocketThatCannotBeOpenedIsStatus1) {
  EXPECT_EQ(status_of({"--socket", dir_.file("none/socket"), "--fault", "none"}), 1);
  EXPECT_EQ(status_of({"--socket", dir_.file(std::string(120, 'x')), "--fault", "none"}), 1);
}

TEST_F(SimDriverFault, PathOfAnotherFileIsStatus1AndKeepsIt) {
  const std::vector<std::string> arguments = {"--socket", socket_, "--fault", "none"};
  ASSERT_TRUE(g_file_set_contents(socket_.c_str(), "precious", -1, nullptr));
  EXPECT_EQ(status_of(arguments), 1);
  EXPECT_TRUE(is_told("cannot listen at " + socket_ + ": File exists")) << contents(output_);
  EXPECT_EQ(contents(socket_), "precious");

  std::filesystem::remove(socket_);
  std::filesystem::create_symlink("/nowhere", socket_);
  EXPECT_EQ(status_of(arguments), 1);
  EXPECT_TRUE(std::filesystem::is_symlink(socket_));
}

TEST_F(SimDriverFault, PathThatIsServedIsStatus1AndKeepsIt) {
  const ptz_test::Listener other(socket_);
  EXPECT_EQ(status_of({"--socket", socket_, "--fault", "none"}), 1);
  EXPECT_TRUE(is_told("Address already in use")) << contents(output_);
  EXPECT_TRUE(ptz_test::connect_to(socket_));
}

TEST_F(SimDriverFault, DriverReplacesSocketThatIsNotServed) {
  ptz_test::Listener(socket_).close();
  ASSERT_TRUE(std::filesystem::exists(socket_));
  const Process driver(SIM_DRIVER, {"--socket", socket_, "--fault", "none"}, output_);
  EXPECT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket_)); })) << contents(output_);
}

TEST_F(SimDriverFault, DriverWhoseSocketWasReplacedKeepsTheOtherAtItsEnd) {
  Process driver(SIM_DRIVER, {"--socket", socket_, "--fault", "none"}, output_);
  ASSERT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket_)); })) << contents(output_);
  std::filesystem::rename(socket_, dir_.file("old"));  // keeps its inode from use by the other
  const ptz_test::Listener other(socket_);
  driver.signal(SIGTERM);
  EXPECT_EQ(driver.wait(), 0);
  EXPECT_TRUE(ptz_test::connect_to(socket_));
}

TEST_F(SimDriverFault, InstanceOfAnotherDriverIsStatus1) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1);
  const Process other(SIM_DRIVER, {"--socket", dir_.file("other"), "--instance", "1"}, dir_.file("log"));
  const auto listens = [&] {  // by its entry, which it makes before
    std::error_code none;
    const std::filesystem::directory_iterator files(dir_.file("drivers"), none);
    return std::any_of(begin(files), end(files), [](const auto &file) {
      return std::regex_search(contents(file.path()), std::regex("Inode=0*[1-9]"));
    });
  };
  ASSERT_TRUE(ptz_test::run_until(listens));
  const int status = status_of({"--socket", socket_, "--fault", "none", "--instance", "1"});
  unsetenv("PTZ_PLATFORM_RUNTIME_DIR");
  EXPECT_EQ(status, 1);
  EXPECT_TRUE(is_told("instance 1 is that of a driver, process " + std::to_string(other.pid()))) << contents(output_);
}

TEST_F(SimDriverFault, DriverAnswersWithFaultAndEndsOnSigtermAndSigint) {
  for (const int number : {SIGTERM, SIGINT}) {
    Process driver(SIM_DRIVER, {"--socket", socket_, "--fault=replies.id-is-copied"}, output_);
    ptz_test::Descriptor client;
    ASSERT_TRUE(ptz_test::run_until([&] { return bool(client = ptz_test::connect_to(socket_)); }));
    ptz_test::send_all(client.get(), ptz_test::frame(0x12345678, sim_test::make_body(PTZ_COMMAND_GET_DRIVER_NAME)));
    const auto reply = ptz_test::receive_frame(client.get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->id, 0x5678U);
    driver.signal(number);
    EXPECT_EQ(driver.wait(), 0) << contents(output_);
    EXPECT_FALSE(std::filesystem::exists(socket_));
  }
}

}  // namespace
