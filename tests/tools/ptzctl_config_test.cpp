// "ptzctl config" and the driver program, on a message bus of their own.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "bus.h"
#include "process.h"

namespace {

using namespace ptz_test;

struct Result {
  int status;
  std::string text;  // errors included
  bool operator==(const Result &) const = default;
};
void PrintTo(const Result &result, std::ostream *out) { *out << result.status << ": " << result.text; }

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

struct PtzctlConfig : testing::Test {
  TempDir dir;
  Connection peer = connect_to(system_bus());
  std::unique_ptr<Process> driver;

  PtzctlConfig() {
    setenv("LC_ALL", "C", 1);
    driver =
        std::make_unique<Process>(SIM_DRIVER,
                                  std::vector<std::string>{"--socket", dir.file("socket"), "--dbus", "sim", "--config",
                                                           SIM_DRIVER_SETTINGS, "--state", dir.file("state")},
                                  dir.file("driver"));
    EXPECT_TRUE(run_until([&] { return !owner_of(peer.get(), "com.velk.PTZ.sim").empty(); }));
  }
  ~PtzctlConfig() override {
    driver.reset();
    EXPECT_TRUE(run_until([&] { return owner_of(peer.get(), "com.velk.PTZ.sim").empty(); }));
  }

  Result run(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "config");
    std::filesystem::remove(dir.file("text"));
    Process process(PTZCTL, arguments, dir.file("text"));
    const int status = process.wait();
    return {status, contents(dir.file("text"))};
  }
  // What four lines of a watch are, while an entry changes again and again: it listens at some time.
  std::vector<std::string> watched(std::vector<std::string> more) const {
    std::vector<std::string> arguments = {"config", "watch", "--count", "4"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    std::filesystem::remove(dir.file("watched"));
    Process watcher(PTZCTL, arguments, dir.file("watched"));
    for (int i = 1; lines_of(contents(dir.file("watched"))).size() < 4 && i <= 500; ++i) {
      EXPECT_EQ(run({"set", "sim", "1", "Tilt", std::to_string(i)}).status, 0);
    }
    EXPECT_EQ(watcher.wait(), 0);
    return lines_of(contents(dir.file("watched")));
  }
};

TEST_F(PtzctlConfig, WithoutASubcommandTellsWhichThereAre) {
  EXPECT_EQ(run({}).status, 2);
  EXPECT_NE(run({}).text.find("Usage: ptzctl config SUBCOMMAND"), std::string::npos);
}

TEST_F(PtzctlConfig, ListsEverySet) {
  EXPECT_EQ(run({"list", "sim"}), (Result{0,
                                          "     1  Name                 overview\n"
                                          "     1  Pan                  0\n"
                                          "     1  Tilt                 1000\n"
                                          "     1  Zoom                 100\n"
                                          "     2  Name                 far gate\n"
                                          "     2  Pan                  -12000\n"
                                          "     2  Tilt                 -500\n"
                                          "     2  Zoom                 1500\n"}));
  EXPECT_EQ(run({"list", "sim", "--json"}),
            (Result{0,
                    "{\"index\":1,\"entries\":{\"Name\":\"overview\",\"Pan\":0,\"Tilt\":1000,\"Zoom\":100}}\n"
                    "{\"index\":2,\"entries\":{\"Name\":\"far gate\",\"Pan\":-12000,\"Tilt\":-500,\"Zoom\":1500}}\n"}));
}

TEST_F(PtzctlConfig, SetsAndGetsEntries) {
  EXPECT_EQ(run({"set", "sim", "1", "Tilt", "-300"}), (Result{0, ""}));
  EXPECT_EQ(run({"get", "sim", "1", "Tilt"}), (Result{0, "-300\n"}));
  EXPECT_EQ(run({"set", "sim", "1", "Name", "12 'ab\" <7>"}), (Result{0, ""}));
  EXPECT_EQ(run({"get", "sim", "1", "Name"}), (Result{0, "12 'ab\" <7>\n"}));
}

TEST_F(PtzctlConfig, AddsRemovesAndSyncs) {
  EXPECT_EQ(run({"add", "sim"}), (Result{0, "3\n"}));
  EXPECT_EQ(run({"add", "sim", "-1"}), (Result{0, "4\n"}));
  EXPECT_EQ(run({"add", "sim", "9"}), (Result{0, "9\n"}));
  EXPECT_EQ(run({"remove", "sim", "9"}), (Result{0, ""}));
  EXPECT_EQ(run({"sync", "sim"}), (Result{0, ""}));
}

TEST_F(PtzctlConfig, InJsonWhateverIsDonePrintsAnObject) {
  EXPECT_EQ(run({"set", "sim", "1", "Tilt", "-300", "--json"}),
            (Result{0, "{\"index\":1,\"entry\":\"Tilt\",\"value\":-300}\n"}));
  EXPECT_EQ(run({"get", "sim", "1", "Name", "--json"}),
            (Result{0, "{\"index\":1,\"entry\":\"Name\",\"value\":\"overview\"}\n"}));
  EXPECT_EQ(run({"add", "sim", "--json"}), (Result{0, "{\"index\":3}\n"}));
  EXPECT_EQ(run({"remove", "sim", "3", "--json"}), (Result{0, "{\"index\":3}\n"}));
  EXPECT_EQ(run({"sync", "sim", "--json"}), (Result{0, "{}\n"}));
}

TEST_F(PtzctlConfig, AServiceThatDoesNotAnswerCostsTheTimeThatWasGiven) {
  driver->signal(SIGSTOP);
  const auto unanswered = run({"list", "sim", "--timeout", "100"});
  driver->signal(SIGCONT);
  EXPECT_EQ(unanswered, (Result{3, "ptzctl: sim: Timeout was reached\n"}));
}

TEST_F(PtzctlConfig, WatchesChanges) {
  const std::regex property("/com/velk/PTZ/sim  1\\.Tilt = [0-9]+");
  const std::regex event(
      "/com/velk/PTZ/sim  Changed PTZPresets by sim-driver: /com/velk/PTZ/sim/1, kind 0, Tilt = [0-9]+");
  for (const auto &arguments : std::vector<std::vector<std::string>>{{}, {"sim"}}) {
    int properties = 0, events = 0;
    for (const auto &line : watched(arguments)) {
      properties += std::regex_match(line, property) ? 1 : 0;
      events += std::regex_match(line, event) ? 1 : 0;
    }
    EXPECT_GE(properties, 1);
    EXPECT_GE(events, 1);
    EXPECT_EQ(properties + events, 4);
  }
}

TEST_F(PtzctlConfig, WatchesInJson) {
  const std::regex property(
      R"(\{"signal":"PropertiesChanged","path":"/com/velk/PTZ/sim","entry":"1.Tilt","value":[0-9]+\})");
  const std::regex event(R"(\{"signal":"Changed","path":"/com/velk/PTZ/sim","event":"PTZPresets","owner":"sim-driver",)"
                         R"("interface":"com.velk.Configuration.Legacy","key":"/com/velk/PTZ/sim/1","kind":0,)"
                         R"("changes":\{"Tilt":"[0-9]+"\}\})");
  for (const auto &line : watched({"--json", "sim"})) {
    EXPECT_TRUE(std::regex_match(line, property) || std::regex_match(line, event)) << line;
  }
}

TEST_F(PtzctlConfig, TellsWhatTheServiceRefuses) {
  EXPECT_EQ(run({"get", "sim", "9", "Name"}), (Result{1, "ptzctl: sim: there is no preset 9 (code 5)\n"}));
  EXPECT_EQ(run({"get", "sim", "1", "Speed"}), (Result{1, "ptzctl: sim: a preset has no entry \"Speed\" (code 5)\n"}));
  EXPECT_EQ(run({"set", "sim", "1", "Pan", "99999"}),
            (Result{1, "ptzctl: sim: Pan 99999 is not within -16000 to 16000 (code 4)\n"}));
  EXPECT_EQ(run({"remove", "sim", "9"}), (Result{1, "ptzctl: sim: there is no preset 9 (code 5)\n"}));
  EXPECT_EQ(run({"add", "sim", "1"}), (Result{1, "ptzctl: sim: there is a preset 1 already (code 4)\n"}));
}

TEST_F(PtzctlConfig, TellsAValueOfAnotherType) {
  const auto result = run({"set", "sim", "1", "Pan", "abc"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.text.find("'abc' is no value of the type 'i', as '0' is"), std::string::npos) << result.text;
}

TEST_F(PtzctlConfig, TellsAServiceThatIsNotThere) {
  const auto result = run({"list", "nosuch"});
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.text.find("ptzctl: nosuch: "), std::string::npos) << result.text;
}

TEST_F(PtzctlConfig, TellsACommandLineThatMakesNoSense) {
  for (const auto &arguments : std::vector<std::vector<std::string>>{{"get", "sim"},
                                                                     {"get", "sim", "x", "Name"},
                                                                     {"set", "sim", "1", "Name"},
                                                                     {"list"},
                                                                     {"list", "sim", "more"},
                                                                     {"add", "sim", "99999999999"},
                                                                     {"list", "bad name"},
                                                                     {"watch", "--count", "-1"},
                                                                     {"watch", "bad name"}}) {
    EXPECT_EQ(run(arguments).status, 2) << arguments.front();
  }
}

TEST_F(PtzctlConfig, TellsThatThereIsNoBus) {
  const std::string address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
  setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
  const auto result = run({"list", "sim"});
  setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
  EXPECT_EQ(result, (Result{3, "ptzctl: there is no system bus: Could not connect: No such file or directory\n"}));
}

}  // namespace
