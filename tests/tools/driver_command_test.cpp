#include <csignal>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

struct DriverCommand : Ptzctl {
  const std::string socket = dir.file("driver.socket");
  const Process driver{SIM_DRIVER, {"--socket", socket, "--speed-factor", "20"}, dir.file("driver.log")};

  void SetUp() override {
    // The socket is there before it is listened on.
    ASSERT_TRUE(run_until([this] { return ask({"info"}).status == 0; })) << contents(dir.file("driver.log"));
  }
  [[nodiscard]] Result ask(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "driver");
    arguments.insert(arguments.end(), {"--socket", socket});
    return run(arguments);
  }
};

TEST_F(DriverCommand, ShowsTheNameAndTheDevices) {
  const auto shown = ask({"info"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_EQ(shown.text, "sim-driver\n  for Simulated head\n");
  EXPECT_EQ(ask({"info", "--json"}).text, "{\"name\":\"sim-driver\",\"device_types\":[\"Simulated head\"]}\n");
}

TEST_F(DriverCommand, ShowsTheCapabilitiesByTheirNames) {
  const auto shown = ask({"caps"});
  EXPECT_EQ(shown.status, 0);
  EXPECT_TRUE(has(shown, "move   0x820001ff Pan RelPan ContPan")) << shown.text;
  EXPECT_TRUE(has(ask({"caps", "--json"}), "\"extra\":[\"Aux\",\"DevicePreset\"")) << shown.text;
}

TEST_F(DriverCommand, ShowsTheLimitsInDegrees) {
  EXPECT_TRUE(has(ask({"limits"}), "pan      -170.00 to     170.00 degrees, at most "));
  EXPECT_TRUE(has(ask({"limits", "--json"}), "{\"axis\":\"zoom\",\"minimum\":1.0,\"maximum\":30.0"));
}

TEST_F(DriverCommand, MovesAndWaitsUntilTheHeadIsThere) {
  const auto moved = ask({"move", "absolute", "--pan", "2.5", "--tilt=-1", "--wait"});
  EXPECT_EQ(moved.status, 0);
  EXPECT_TRUE(has(moved, "pan         2.50 degrees, idle\ntilt       -1.00 degrees, idle\n")) << moved.text;
  EXPECT_EQ(ask({"move", "relative", "--pan=-2.5", "--wait"}).status, 0);
  EXPECT_TRUE(has(ask({"position"}), "pan         0.00 degrees, idle\n"));
}

TEST_F(DriverCommand, TellsTheLimitThatAnAxisIsAt) {
  EXPECT_EQ(ask({"move", "absolute", "--pan", "170", "--wait"}).text,
            "pan       170.00 degrees, idle, at its maximum\ntilt        0.00 degrees, idle\n"
            "zoom        1.00 times, idle, at its minimum\n");
  EXPECT_EQ(ask({"position", "--json"}).text,
            "{\"axis\":\"pan\",\"position\":170.0,\"status\":\"idle\",\"limit\":\"maximum\"}\n"
            "{\"axis\":\"tilt\",\"position\":0.0,\"status\":\"idle\"}\n"
            "{\"axis\":\"zoom\",\"position\":1.0,\"status\":\"idle\",\"limit\":\"minimum\"}\n");
  EXPECT_TRUE(has(ask({"position", "--color=always"}), "\x1b[32midle\x1b[0m, \x1b[31mat its maximum\x1b[0m\n"));
}

TEST_F(DriverCommand, InJsonTheHundredthsAreAsTheyWereGiven) {
  EXPECT_TRUE(has(ask({"move", "absolute", "--pan", "4.98", "--tilt", "-0.07", "--wait", "--json"}),
                  "{\"axis\":\"pan\",\"position\":4.98,\"status\":\"idle\"}\n"
                  "{\"axis\":\"tilt\",\"position\":-0.07,"));
}

TEST_F(DriverCommand, InJsonWhateverIsDonePrintsAnObject) {
  EXPECT_EQ(ask({"stop", "--json"}).text, "{}\n");
  EXPECT_EQ(ask({"move", "home", "--json"}).text, "{}\n");
  EXPECT_EQ(ask({"presets", "store", "3", "the gate", "--json"}).text, "{\"number\":3,\"name\":\"the gate\"}\n");
  EXPECT_EQ(ask({"presets", "list", "--json"}).text, "{\"number\":3,\"name\":\"the gate\"}\n");
  EXPECT_EQ(ask({"send", "u32:6", "--json"}).text, "{\"reply\":\"06 00 00 00\"}\n");
  EXPECT_EQ(ask({"send", "u32:21", "--json", "--reply", "u32,text"}).text,
            "{\"reply\":\"15 00 00 00 0a 00 73 69 6d 2d 64 72 69 76 65 72\",\"fields\":[{\"type\":\"u32\","
            "\"value\":21},{\"type\":\"text\",\"value\":\"sim-driver\"}]}\n");
}

TEST_F(DriverCommand, RunsInADirectionUntilItIsStopped) {
  EXPECT_EQ(ask({"move", "up-right", "--speed", "1"}).status, 0);
  EXPECT_TRUE(has(ask({"position"}), "moving"));
  EXPECT_EQ(ask({"stop"}).status, 0);
}

TEST_F(DriverCommand, KeepsAPresetAndGoesThere) {
  EXPECT_EQ(ask({"presets", "store", "3", "the gate"}).status, 0);
  EXPECT_EQ(ask({"presets", "list"}).text, "   3  the gate\n");
  EXPECT_EQ(ask({"presets", "goto", "3", "--wait"}).status, 0);
  const auto missing = ask({"presets", "goto", "4"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.text, "ptzctl: refused with code 5: there is no preset 4\n");
}

TEST_F(DriverCommand, ShowsTheParameters) {
  EXPECT_TRUE(has(ask({"params"}), "max_pan"));
  EXPECT_TRUE(has(ask({"params", "--json"}), "{\"name\":\"max_pan\""));
}

TEST_F(DriverCommand, SendsAnyFieldsAndShowsWhatComesBack) {
  EXPECT_EQ(ask({"send", "command:get driver name"}).text, "15 00 00 00 0a 00 73 69 6d 2d 64 72 69 76 65 72\n");
  EXPECT_EQ(ask({"send", "u32:0x15", "--reply", "u32,text"}).text, "u32   21\ntext  sim-driver\n");
  EXPECT_EQ(ask({"send", "hex:15 00", "u8:0", "u8:0", "-r", "u32,text"}).text, "u32   21\ntext  sim-driver\n");
  EXPECT_EQ(ask({"send", "i32:-7", "--reply", "i32,u32,text"}).text,
            "i32   -1\nu32   1\ntext  there is no command -7\n");
}

TEST_F(DriverCommand, TellsOfAReplyThatHoldsLessOrMoreThanWasAskedFor) {
  const auto less = ask({"send", "u32:6", "--reply", "u32,u32"});
  EXPECT_EQ(less.status, 1);
  EXPECT_TRUE(has(less, "ptzctl: the reply has no further u32: 06 00 00 00\n")) << less.text;
  const auto more = ask({"send", "u32:21", "--reply", "u32"});
  EXPECT_EQ(more.status, 1);
  EXPECT_TRUE(has(more, "ptzctl: the reply has more than that: ")) << more.text;
}

TEST_F(DriverCommand, RefusesWhatMakesNoSense) {
  for (const auto &arguments : std::vector<std::vector<std::string>>{{"move"},
                                                                     {"move", "sideways"},
                                                                     {"move", "absolute"},
                                                                     {"move", "absolute", "--pan", "1e9"},
                                                                     {"move", "absolute", "--pan", "1", "--speed", "0"},
                                                                     {"send"},
                                                                     {"send", "u8:256"},
                                                                     {"send", "u16:-1"},
                                                                     {"send", "u32:"},
                                                                     {"send", "u32:1x"},
                                                                     {"send", "hex:1"},
                                                                     {"send", "hex:0g"},
                                                                     {"send", "command:fly"},
                                                                     {"send", "21"},
                                                                     {"send", "u32:21", "--reply", "u32,txt"},
                                                                     {"presets", "store", "33", "a"},
                                                                     {"presets", "store", "1"},
                                                                     {"presets", "goto"},
                                                                     {"fly"}}) {
    const auto refused = ask(arguments);
    EXPECT_EQ(refused.status, 2) << arguments.front() << ": " << refused.text;
    EXPECT_TRUE(has(refused, "ptzctl: ")) << refused.text;
  }
}

TEST_F(DriverCommand, ADriverThatDoesNotAnswerCostsTheTimeThatWasGiven) {
  driver.signal(SIGSTOP);
  const auto unanswered = ask({"info", "--timeout", "100"});
  EXPECT_EQ(unanswered.status, 3);
  EXPECT_EQ(unanswered.text, "ptzctl: no answer from " + socket + " within 100 ms\n");
}

TEST_F(Ptzctl, WithoutADriverThereIsNoAnswer) {
  const auto missing = run({"driver", "info", "--socket", dir.file("none")});
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(missing.text, "ptzctl: no driver at " + dir.file("none") + ": No such file or directory\n");
  for (const auto &path : {std::string(200, 'x'), std::string()}) {
    const auto refused = run({"driver", "info", "--socket", path});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.text,
              "ptzctl: --socket '" + path + "' is no path of 1 to 107 bytes; see ptzctl driver info --help\n");
  }
}

}  // namespace
