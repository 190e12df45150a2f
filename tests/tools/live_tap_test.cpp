// ptzctl tap, with simulated drivers.
#include <csignal>
#include <regex>

#include "live_drivers.h"

namespace {

using namespace ptz_test;

struct LiveTap : LiveDrivers {
  const std::string log = dir.file("tap");

  void SetUp() override { start(1); }
  // It is running when it has subscribed.
  [[nodiscard]] std::unique_ptr<Process> tap(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "tap");
    if (std::ranges::find(arguments, "--driver") == arguments.end())
      arguments.insert(arguments.end(), {"-s", socket(1)});
    return std::make_unique<Process>(PTZCTL, arguments, log);
  }
  // Asks until tap has printed the text.
  [[nodiscard]] bool ask_until(const std::string &part, std::uint32_t command = stop_command) const {
    PlainClient client(socket(1));
    return run_until([&] { return client.ask(command) && contents(log).find(part) != std::string::npos; });
  }
  [[nodiscard]] std::string printed() const { return contents(log); }
};

TEST_F(LiveTap, PrintsALineForEachRequestAndReply) {
  const auto process = tap({});
  ASSERT_TRUE(ask_until("\n")) << printed();
  (void)run({"driver", "move", "absolute", "--pan", "10", "--tilt=-3", "--speed", "50", "-s", socket(1)});
  ASSERT_TRUE(ask_until("Move  ok")) << printed();
  const std::string who = R"([0-9:]{8}\.[0-9]{6}  #[0-9]+ ptzctl\[[0-9]+\] )";
  EXPECT_TRUE(
      std::regex_search(printed(), std::regex(who + "→ Move  kind=absolute pan=10\\.00° tilt=-3\\.00° speed=50 %\n")))
      << printed();
  EXPECT_TRUE(std::regex_search(printed(), std::regex(who + "← Move  ok  \\([0-9.]+ (µs|ms|s)\\)\n"))) << printed();
  EXPECT_TRUE(has({0, printed()}, "ptzctl_live_test[" + std::to_string(getpid()) + "] → Stop\n")) << printed();
}

TEST_F(LiveTap, RefusalsAreNamedAfterTheirRequest) {
  const auto process = tap({"--errors"});
  ASSERT_TRUE(ask_until("\n", unknown_command)) << printed();
  (void)run({"driver", "move", "absolute", "--pan", "900", "-s", socket(1)});
  ASSERT_TRUE(ask_until("← Move  error 4 out_of_range: pan 90000 is not within", unknown_command)) << printed();
  EXPECT_EQ(printed().find("→ Move"), std::string::npos) << "the request is no error: " << printed();
  EXPECT_EQ(printed().find("  ok  "), std::string::npos) << printed();
}

TEST_F(LiveTap, ShowsOnlyTheCommandsThatItIsAskedFor) {
  const auto process = tap({"--command", "get-driver-name", "--command", "Query position", "--count", "4"});
  EXPECT_TRUE(run_until([&] {
    (void)run({"driver", "position", "-s", socket(1)});
    return std::ranges::count(printed(), '\n') == 4;
  })) << printed();
  EXPECT_EQ(process->wait(), 0);
  EXPECT_TRUE(std::regex_match(printed(), std::regex("(.*(Get driver name|Query position).*\n){4}"))) << printed();
}

TEST_F(LiveTap, ShowsOnlyTheClientThatItIsAskedFor) {
  for (const std::string &client : {std::to_string(getpid()), std::string("ptzctl_live_test")}) {
    std::filesystem::remove(log);
    const auto process = tap({"--client", client, "--count", "6"});
    EXPECT_TRUE(run_until([&] {
      (void)run({"driver", "info", "-s", socket(1)});
      return PlainClient(socket(1)).ask(stop_command) && std::ranges::count(printed(), '\n') == 6;
    })) << printed();
    EXPECT_EQ(process->wait(), 0);
    EXPECT_EQ(printed().find(" ptzctl["), std::string::npos) << printed();
  }
}

TEST_F(LiveTap, PrintsAnObjectForEachFrame) {
  const auto process = tap({"--json", "--count", "2"});
  EXPECT_TRUE(ask_until("\"reply\""));
  EXPECT_EQ(process->wait(), 0);
  const std::string line =
      R"(\{"time":"[-0-9T:.]+Z","time_ns":[0-9]+,"client":[0-9]+,"pid":[0-9]+,"uid":[0-9]+,"program":"[^"]+",)";
  EXPECT_TRUE(std::regex_match(
      printed(), std::regex(line +
                            R"("direction":"request","message_id":[0-9]+,"command":"stop",)"
                            R"("past":false,"unsent":false,"fields":\{\}\})" +
                            "\n" + line +
                            R"("direction":"reply","message_id":[0-9]+,"command":"stop","latency_ns":[0-9]+,)"
                            R"("past":false,"unsent":false,"fields":\{\}\})" +
                            "\n")))
      << printed();
}

TEST_F(LiveTap, TextsOfClientsCannotControlATerminal) {
  const auto process = tap({});
  ASSERT_TRUE(ask_until("\n")) << printed();
  (void)run({"driver", "send", "get_driver_property", "name=\x1b[2J\u009b", "-s", socket(1)});
  ASSERT_TRUE(ask_until("name=\"\\x1b[2J\\x9b\"")) << printed();
  EXPECT_EQ(printed().find('\x1b'), std::string::npos) << printed();
}

TEST_F(LiveTap, PaintsErrorsIfColoursAreOn) {
  const auto process = tap({"--color=always"});
  ASSERT_TRUE(ask_until("\x1b[31merror 1 unknown_command: ", unknown_command)) << printed();
}

TEST_F(LiveTap, BeginsWithThePastIfItIsAskedTo) {
  ASSERT_TRUE(PlainClient(socket(1)).ask(stop_command));
  const auto process = tap({"--with-past", "--command", "stop", "--count", "2"});
  EXPECT_EQ(process->wait(), 0);
  EXPECT_TRUE(std::regex_match(printed(), std::regex(".* → Stop  \\(past\\)\n.* ← Stop  ok  .*  \\(past\\)\n")))
      << printed();
}

TEST_F(LiveTap, EndsAfterTheSecondsThatItIsGiven) {
  EXPECT_EQ(run({"tap", "-s", socket(1), "--seconds", "1"}).status, 0);
}

TEST_F(LiveTap, AnInterruptEndsItWithStatus0) {
  const auto process = tap({});
  ASSERT_TRUE(ask_until("Stop"));
  process->signal(SIGINT);
  EXPECT_EQ(process->wait(), 0);
}

TEST_F(LiveTap, AClosedPipeEndsItQuietly) {
  const Process pipe("/bin/bash",
                     {"-c", std::string(PTZCTL) + " tap -s " + socket(1) + " | head -n 1; echo ${PIPESTATUS[0]}"}, log);
  EXPECT_TRUE(ask_until("Stop\n0\n")) << printed();
  EXPECT_EQ(std::ranges::count(printed(), '\n'), 2) << printed();
}

TEST_F(LiveTap, OfLostFramesItTellsTheNumber) {
  const auto process = tap({});
  ASSERT_TRUE(ask_until("Stop"));
  process->signal(SIGSTOP);
  PlainClient client(socket(1));
  for (int i = 0; i < 30'000; ++i) ASSERT_TRUE(client.ask(stop_command));
  process->signal(SIGCONT);
  EXPECT_TRUE(run_until([&] {
    client.ask(stop_command);
    return std::regex_search(printed(), std::regex("\n[0-9]+ frames were lost\n"));
  })) << printed().substr(0, 2000);
}

TEST_F(LiveTap, WaitsForTheNextDriver) {
  const auto process = tap({});
  ASSERT_TRUE(ask_until("Stop"));
  drivers.front()->signal(SIGTERM);
  drivers.front()->wait();
  const std::string ended = "ptzctl: the driver at " + socket(1) + " has ended; waiting for the next\n";
  EXPECT_TRUE(run_until([&] { return has({0, printed()}, ended); })) << printed();
  start(1);
  const std::string again = "ptzctl: the driver at " + socket(1) + " runs again\n";
  EXPECT_TRUE(ask_until(again)) << printed();
  EXPECT_TRUE(run_until([&] {
    return PlainClient(socket(1)).ask(stop_command) && printed().rfind("Stop") > printed().find(again);
  })) << printed();
}

TEST_F(LiveTap, ANamedDriverIsFoundAgainAtAnotherSocket) {
  const auto process = tap({"--driver", "sim-driver"});
  ASSERT_TRUE(ask_until("Stop"));
  drivers.front()->signal(SIGTERM);
  drivers.front()->wait();
  start(2);
  EXPECT_TRUE(run_until([&] {
    return has({0, printed()}, "the driver at " + socket(2) + " runs again\n");
  })) << printed();
}

TEST_F(LiveTap, WithoutADriverItEndsWithStatus3) {
  const auto none = run({"tap", "-s", dir.file("none")});
  EXPECT_EQ(none.status, 3);
  EXPECT_TRUE(has(none, "ptzctl: no driver at " + dir.file("none") + ": ")) << none.text;
  EXPECT_EQ(run({"tap", "--driver", "head"}).status, 3);
  const auto file = run({"tap", "-s", dir.file("log")});
  EXPECT_EQ(file.status, 3);
  EXPECT_TRUE(has(file, "has no monitor socket")) << file.text;
}

TEST_F(LiveTap, AnUnknownCommandIsWrongUsage) {
  const auto wrong = run({"tap", "-s", socket(1), "--command", "stopp"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_TRUE(has(wrong, "there is no command 'stopp' (did you mean 'stop'?)")) << wrong.text;
  EXPECT_EQ(run({"tap", "-s", socket(1), "--count=-1"}).status, 2);
}

}  // namespace
