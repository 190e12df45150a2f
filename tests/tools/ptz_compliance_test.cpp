// The tool as it is run: with the simulated driver, and with the same driver with one fault each.
#include <gtest/gtest.h>
#include <json-glib/json-glib.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <future>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fixtures.h"
#include "peers.h"
#include "process.h"

using ptz_test::contents;
using ptz_test::Process;
using ptz_test::TempDir;

namespace {

using Words = std::vector<std::string>;

struct ToolRun {
  int status;
  std::string output;  // what it printed, errors included
};

// In any thread.
ToolRun run_tool(Words words) {
  std::vector<char *> arguments = {const_cast<char *>(PTZ_COMPLIANCE)};
  for (std::string &word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const TempDir runtime;
  char **const environment =
      g_environ_setenv(g_get_environ(), "PTZ_PLATFORM_RUNTIME_DIR", runtime.path().c_str(), TRUE);
  char *output = nullptr;
  char *errors = nullptr;
  int status = -1;
  g_spawn_sync(nullptr, arguments.data(), environment, G_SPAWN_DEFAULT, nullptr, nullptr, &output, &errors, &status,
               nullptr);
  ToolRun run = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::string(output) + errors};
  g_strfreev(environment);
  g_free(output);
  g_free(errors);
  return run;
}

Words with(Words words, const Words &more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}
Words faulty_driver(const std::string &fault) {
  return {"--instance",     "1",  "--",      SIM_DRIVER, "--socket", "{socket}", "--instance", "1",
          "--speed-factor", "20", "--fault", fault};
}
Words sim_driver() { return {"--", SIM_DRIVER, "--socket", "{socket}", "--speed-factor", "20"}; }

struct Named {
  std::string name;
  std::string title;
  bool operator==(const Named &) const = default;
};

std::vector<Named> listed_checks() {
  std::vector<Named> checks;
  std::istringstream lines(run_tool({"--list"}).output);
  for (std::string line; std::getline(lines, line);) {
    const auto colon = line.find(": ");
    if (colon != std::string::npos) checks.push_back({line.substr(0, colon), line.substr(colon + 2)});
  }
  return checks;
}

// But the first, which is none.
std::vector<std::string> listed_faults() {
  char *output = nullptr;
  g_spawn_command_line_sync(SIM_DRIVER " --fault list", &output, nullptr, nullptr, nullptr);
  std::istringstream lines(output);
  g_free(output);
  std::vector<std::string> names;
  for (std::string line; std::getline(lines, line);) names.push_back(line.substr(0, line.find(": ")));
  if (!names.empty()) names.erase(names.begin());
  return names;
}

std::vector<std::string> listed_names() {
  std::vector<std::string> names;
  for (const Named &check : listed_checks()) names.push_back(check.name);
  return names;
}

// Names in the lines of TAP that match.
std::vector<std::string> names_in(const std::string &tap, const std::string &kind) {
  std::vector<std::string> names;
  const std::regex pattern("^" + kind + " [0-9]+ - (\\S+)(.*)$");
  std::istringstream lines(tap);
  for (std::string line; std::getline(lines, line);) {
    if (std::smatch match; std::regex_match(line, match, pattern)) names.push_back(match[1]);
  }
  return names;
}

}  // namespace

TEST(PtzCompliance, TheSimulatedDriverPassesEveryCheckInSomeSeconds) {
  const gint64 start = g_get_monotonic_time();
  const ToolRun run = run_tool({"--instance", "1", "--", SIM_DRIVER, "--socket", "{socket}", "--instance", "1"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find(" passed, 0 failed, 0 not applicable in "), std::string::npos) << run.output;
  EXPECT_LT(g_get_monotonic_time() - start, 20 * G_USEC_PER_SEC);
}

TEST(PtzCompliance, TheServerOfTheFaultsWithoutOnePassesEveryCheck) {
  const ToolRun run = run_tool(with({"--tap"}, faulty_driver("none")));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(names_in(run.output, "ok"), listed_names());
  EXPECT_EQ(run.output.find("# SKIP"), std::string::npos) << run.output;
}

TEST(PtzCompliance, NamesAreDottedUniqueAndAtLeastForty) {
  const auto names = listed_names();
  EXPECT_GE(names.size(), 40U);
  EXPECT_EQ(std::set(names.begin(), names.end()).size(), names.size());
  for (const std::string &name : names) {
    EXPECT_TRUE(std::regex_match(name, std::regex("[a-z]+(\\.[a-z0-9-]+)+"))) << name;
  }
}

TEST(PtzCompliance, EveryCheckHasAFaultThatItFinds) {
  const auto faults = listed_faults();
  for (const std::string &name : listed_names()) {
    EXPECT_NE(std::ranges::find(faults, name), faults.end()) << name;
  }
}

// A fault is named as the check that finds it: the driver with this fault fails that check and no other. These runs
// mostly wait for what does not come, so many go on beside each other, begun by the first test that wants one of them.
class FaultyDriver : public testing::TestWithParam<std::string> {
  static constexpr std::size_t most_at_once = 8;

  static inline std::map<std::string, std::promise<ToolRun>> runs_;
  static inline std::vector<std::thread> threads_;
  static inline std::atomic<std::size_t> next_;

  static void run_some(const std::vector<std::string> &faults) {
    for (std::size_t index = next_++; index < faults.size(); index = next_++) {
      runs_[faults[index]].set_value(run_tool(with({"--tap"}, faulty_driver(faults[index]))));
    }
  }

 protected:
  static void SetUpTestSuite() {
    const testing::TestSuite *const suite = testing::UnitTest::GetInstance()->current_test_suite();
    static std::vector<std::string> faults;
    for (int index = 0; index < suite->total_test_count(); ++index) {
      const testing::TestInfo *const test = suite->GetTestInfo(index);
      const std::string quoted = test->value_param();
      if (test->should_run()) faults.push_back(quoted.substr(1, quoted.size() - 2));
    }
    for (const std::string &fault : faults) runs_[fault];  // no thread may add to the map
    for (std::size_t count = 0; count < std::min(most_at_once, faults.size()); ++count) {
      threads_.emplace_back(run_some, std::cref(faults));
    }
  }
  static void TearDownTestSuite() {
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
  }
  static ToolRun run() { return runs_[GetParam()].get_future().get(); }
};

TEST_P(FaultyDriver, FailsTheCheckOfItsFaultOnly) {
  const ToolRun run = FaultyDriver::run();
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(names_in(run.output, "not ok"), Words{GetParam()}) << run.output;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultyDriver, testing::ValuesIn(listed_names()), [](const auto &info) {
  std::string name = info.param;
  for (char &letter : name) {
    if (std::isalnum(static_cast<unsigned char>(letter)) == 0) letter = '_';
  }
  return name;
});

TEST(PtzCompliance, AFailureComesWithItsReasonAndItsBytes) {
  const ToolRun run =
      run_tool(with({"--timeout", "0.3", "--only", "replies.id-is-copied"}, faulty_driver("replies.id-is-copied")));
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("failed          replies.id-is-copied: a reply carries the message id of its request, "
                            "whatever it is - client 1 has no reply to request 305419896 within 300 ms\n"),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("client 1 sent      0c 00 00 00 78 56 34 12 15 00 00 00\n"), std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("client 1 received  18 00 00 00 78 56 00 00 15 00 00 00"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("0 passed, 1 failed, 0 not applicable"), std::string::npos);
  EXPECT_EQ(run.output.find('\x1b'), std::string::npos) << "colours, though not on a terminal";
}

TEST(PtzCompliance, ADriverThatDiesIsNamedWithItsSignalAndStartedAgain) {
  const ToolRun run = run_tool(with({"--only", "commands.text-*"}, faulty_driver("commands.text-beyond-the-body")));
  EXPECT_NE(run.output.find("the driver was ended by signal 6 (Aborted)"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("1 passed, 1 failed"), std::string::npos) << run.output;
}

TEST(PtzCompliance, WhatDoesNotApplySaysWhyAndFailsNothing) {
  const ToolRun run = run_tool(with({"--only", "*.conttilt"}, faulty_driver("caps.usable")));
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.output.find("not applicable  caps.answers-what-it-announces.conttilt: who announces continuous tilt "
                            "obeys it - the driver announces no tilt (Get capabilities: move 0x00000000)\n"),
            std::string::npos)
      << run.output;
}

// A driver without zoom, whose answers about zoom are those of a head that has one.
class AbsentZoom : public testing::TestWithParam<std::string> {
 public:
  static ToolRun run(const Words &options, const char *answer) {
    return run_tool(with(options, {"--", "env", std::string("TWO_AXIS_DRIVER_ZOOM=") + answer, TWO_AXIS_DRIVER,
                                   "--socket", "{socket}"}));
  }
};

TEST_P(AbsentZoom, AnsweredAsIfItWereThereFailsTheCheckOfAbsentAxes) {
  const ToolRun run = AbsentZoom::run({"--only", "caps.absent-axes"}, GetParam().c_str());
  EXPECT_EQ(run.status, 1) << run.output;
  EXPECT_NE(run.output.find("zoom is not announced and "), std::string::npos) << run.output;
}
INSTANTIATE_TEST_SUITE_P(PtzCompliance, AbsentZoom, testing::Values("position", "status", "limits", "speed"),
                         [](const auto &info) { return info.param; });

TEST(PtzCompliance, AnAxisThatIsNotAnnouncedIsIgnoredByAllOtherChecks) {
  const Words only = {"--only", "presets.*",          "--only", "limits.*",      "--only", "move.absolute-arrives",
                      "--only", "move.relative-adds", "--only", "commands.bad-*"};
  const ToolRun run = AbsentZoom::run(only, "all");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(run.output.find("not applicable  "), std::string::npos) << run.output;
}

TEST(PtzCompliance, TheLastLineCountsWhatDoesNotApplyByReason) {
  const Words only = {"--only", "caps.*zoom", "--only", "status.*-group", "--only", "caps.*.pan"};
  const std::regex last(
      "\n1 passed, 0 failed, 6 not applicable in [0-9.]+ s: 3 no --instance says where the driver "
      "publishes its status; 3 the driver announces no zoom\n$");
  const ToolRun text = AbsentZoom::run(only, "");
  EXPECT_TRUE(std::regex_search(text.output, last)) << text.output;
  const ToolRun tap = AbsentZoom::run(with({"--tap"}, only), "");
  EXPECT_NE(tap.output.find("\n# 6 not applicable: 3 no --instance says "), std::string::npos) << tap.output;
  const ToolRun json = AbsentZoom::run(with({"--json"}, only), "");
  EXPECT_NE(json.output.find("\"not_applicable_by_reason\" : {"), std::string::npos) << json.output;
  EXPECT_NE(json.output.find("\"the driver announces no zoom\" : 3"), std::string::npos) << json.output;
  EXPECT_NE(json.output.find("\"answer\" : \"Get capabilities: move 0x0200003f Pan RelPan"), std::string::npos)
      << json.output;
}

TEST(PtzCompliance, ColoursAreForWhoWantsThem) {
  const ToolRun run = run_tool(with({"--color=always", "--only", "socket.permissions"}, sim_driver()));
  EXPECT_EQ(run.output.find("\x1b[32mpassed        \x1b[0m  socket.permissions: "), 0U) << run.output;
}

TEST(PtzCompliance, LatenciesAreShown) {
  const ToolRun run = run_tool(with({"--only", "latency.*"}, sim_driver()));
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_TRUE(
      std::regex_search(run.output, std::regex("\\(median [0-9.]+ ms, 90 % within [0-9.]+ ms, longest [0-9.]+ ms\\)")))
      << run.output;
}

TEST(PtzCompliance, TapHasAPlanSkipsAndDiagnostics) {
  const ToolRun run =
      run_tool(with({"--tap", "--timeout", "0.3", "--only", "process.sigterm-s*", "--only", "process.sigterm"},
                    faulty_driver("process.sigterm")));
  EXPECT_EQ(run.output.find("TAP version 13\n1..2\nnot ok 1 - process.sigterm\n  ---\n  check: \"SIGTERM ends the "
                            "driver\"\n  message: \"the driver still runs 300 ms after SIGTERM\"\n"),
            0U)
      << run.output;
  EXPECT_NE(run.output.find("ok 2 - process.sigterm-status # SKIP the driver does not end on SIGTERM\n"),
            std::string::npos)
      << run.output;
}

TEST(PtzCompliance, JsonHasEveryCheckAndTheBytesOfFailures) {
  const ToolRun run = run_tool(
      with({"--json", "--only", "socket.*", "--only", "framing.empty-body"}, faulty_driver("framing.empty-body")));
  EXPECT_EQ(run.status, 1);
  JsonParser *const parser = json_parser_new();
  ASSERT_TRUE(json_parser_load_from_data(parser, run.output.data(), static_cast<gssize>(run.output.size()), nullptr))
      << run.output;
  JsonObject *const root = json_node_get_object(json_parser_get_root(parser));
  EXPECT_EQ(json_object_get_int_member(root, "passed"), 1);
  EXPECT_EQ(json_object_get_int_member(root, "failed"), 1);
  EXPECT_EQ(json_object_get_int_member(root, "not_applicable"), 0);
  JsonArray *const checks = json_object_get_array_member(root, "checks");
  ASSERT_EQ(json_array_get_length(checks), 2U);
  JsonObject *const good = json_array_get_object_element(checks, 0);
  EXPECT_STREQ(json_object_get_string_member(good, "name"), "socket.permissions");
  EXPECT_STREQ(json_object_get_string_member(good, "result"), "passed");
  JsonObject *const bad = json_array_get_object_element(checks, 1);
  EXPECT_STREQ(json_object_get_string_member(bad, "result"), "failed");
  JsonObject *const sent = json_array_get_object_element(json_object_get_array_member(bad, "bytes"), 0);
  EXPECT_STREQ(json_object_get_string_member(sent, "direction"), "sent");
  EXPECT_STREQ(json_object_get_string_member(sent, "hex"), "08 00 00 00 e9 03 00 00");
  g_object_unref(parser);
}

TEST(PtzCompliance, ARunningDriverIsCheckedAndLeftRunning) {
  const TempDir dir;
  const std::string socket = dir.file("driver.socket");
  Process driver(SIM_DRIVER, {"--socket", socket, "--speed-factor", "20"}, dir.file("output"));
  ASSERT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket)); }));
  const ToolRun run = run_tool({"--tap", "--socket", socket});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("process.sigterm # SKIP the driver was not started by this tool\n"), std::string::npos);
  EXPECT_TRUE(ptz_test::connect_to(socket));
  driver.signal(SIGTERM);
  EXPECT_EQ(driver.wait(), 0);
}

// The driver is stopped as long as a busy machine may keep it waiting, so the client has filled its socket before the
// driver has blocked.
TEST(PtzCompliance, ADriverThatBlocksOnAClientIsFoundThoughItReadsLate) {
  constexpr gulong late_us = 400'000;
  const TempDir dir;
  const std::string socket = dir.file("driver.socket");
  Process driver(SIM_DRIVER, {"--socket", socket, "--fault", "clients.never-reads"}, dir.file("output"));
  ASSERT_TRUE(ptz_test::run_until([&] { return bool(ptz_test::connect_to(socket)); }));
  driver.signal(SIGSTOP);
  std::thread resuming([&driver] {
    g_usleep(late_us);
    driver.signal(SIGCONT);
  });
  const ToolRun run = run_tool({"--socket", socket, "--only", "clients.never-reads", "--timeout", "1"});
  resuming.join();
  EXPECT_EQ(run.status, 1) << run.output;
}

TEST(PtzCompliance, NothingIsLeftOfADriverThatItStarted) {
  const TempDir dir;
  const std::string socket = dir.file("driver.socket");
  const std::string log = dir.file("log");
  const ToolRun run = run_tool({"--only", "framing.split-*", "--skip", "*-body", "--socket", socket, "--log", log, "--",
                                SIM_DRIVER, "--socket", "{socket}", "--verbose"});
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_NE(run.output.find("1 passed"), std::string::npos) << run.output;
  EXPECT_NE(contents(log).find("serving on " + socket), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST(PtzCompliance, ADriverThatListensAlreadyIsNotTakenForTheOneThatIsStarted) {
  const TempDir dir;
  const std::string socket = dir.file("driver.socket");
  const ptz_test::Listener other(socket);
  const ToolRun run = run_tool({"--socket", socket, "--", SIM_DRIVER, "--socket", "{socket}"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.output, "ptz-compliance: another driver listens on " + socket + "\n");
  EXPECT_TRUE(std::filesystem::exists(socket));
}

TEST(PtzCompliance, ADriverThatEndsEarlyIsReportedWithItsLastLine) {
  const TempDir dir;
  const std::string socket = dir.file("driver.socket");
  const Words command = {"--socket", socket, "--", "sh", "-c", "echo one; echo 'instance 1 \033[2J' >&2; exit 3",
                         "{socket}"};
  const std::string told =
      "ptz-compliance: the driver ended with status 3 before it listened on " + socket + "; it said: instance 1 ?[2J";
  EXPECT_EQ(run_tool(command).output, told + "; --log FILE keeps what it prints\n");
  Words logged = {"--log", dir.file("log")};
  logged.insert(logged.end(), command.begin(), command.end());
  EXPECT_EQ(run_tool(logged).output, told + "\n");
}

struct Misuse {
  const char *name;
  Words words;
  std::string message;
};
class Misused : public testing::TestWithParam<Misuse> {};
TEST_P(Misused, EndsWithStatusTwoAndTheReason) {
  const ToolRun run = run_tool(GetParam().words);
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.output.find(GetParam().message), std::string::npos) << run.output;
}
INSTANTIATE_TEST_SUITE_P(
    PtzCompliance, Misused,
    testing::Values(Misuse{"NoDriver", {}, "it takes --socket PATH, or --driver NAME, or a COMMAND; see --help"},
                    Misuse{"UnknownOption", {"--colour"}, "Unknown option --colour"},
                    Misuse{"NobodyListens", {"--socket", "/nowhere/at.all"}, "nobody listens on /nowhere/at.all"},
                    Misuse{"DriverAndCommand", {"--driver", "head", "--", "true", "{socket}"}, "--driver excludes"},
                    Misuse{"NoSuchCheck", {"--only", "framing", "--list"}, "no check has such a name"},
                    Misuse{"Colour", {"--color", "red", "--list"}, "--color is always, never or auto"},
                    Misuse{"TwoFormats", {"--tap", "--json", "--list"}, "exclude each other"},
                    Misuse{"NoTime", {"--timeout", "0", "--list"}, "times are above 0"},
                    Misuse{"CommandWithoutPath", {"--", "true"}, "needs {socket}"},
                    Misuse{"NoSuchCommand", {"--", "/nowhere/driver", "{socket}"}, "/nowhere/driver"},
                    Misuse{"CommandThatEnds", {"--", "false", "{socket}"}, "the driver ended with status 1 before"},
                    Misuse{"CommandThatDoesNotListen",
                           {"--start-timeout", "0.1", "--", "sh", "-c", "sleep 9", "{socket}"},
                           "the driver does not listen on"}),
    [](const auto &info) { return info.param.name; });

TEST(PtzCompliance, HelpHasExamplesAndExitStatuses) {
  const ToolRun run = run_tool({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.output.find("ptz-compliance --instance 1 -- sim-driver --instance 1 --socket {socket}"),
            std::string::npos);
  EXPECT_NE(run.output.find("Exit status:\n  0  no check failed\n  1  a check failed\n"), std::string::npos);
}

TEST(PtzCompliance, TheDocumentListsTheChecksAsTheToolDoes) {
  std::vector<Named> documented;
  std::istringstream lines(contents(COMPLIANCE_DOCUMENT));
  const std::regex row("\\| `([a-z0-9.-]+\\.[a-z0-9.-]+)` \\| ([^|]+) \\| ([^|]+) \\|");
  for (std::string line; std::getline(lines, line);) {
    if (std::smatch match; std::regex_match(line, match, row)) documented.push_back({match[1], match[2]});
  }
  const auto listed = listed_checks();
  ASSERT_EQ(documented.size(), listed.size());
  for (std::size_t index = 0; index < listed.size(); ++index) {
    EXPECT_EQ(documented[index].name, listed[index].name);
    EXPECT_EQ(documented[index].title, listed[index].title);
  }
}
