#include <csignal>
#include <thread>

#include "peers.h"
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
  EXPECT_TRUE(has(ask({"limits", "--json"}),
                  "{\"axes\":{\"pan\":{\"minimum\":-170.0,\"maximum\":170.0,\"maximum_speed\":2400.0},\"tilt\":"));
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
            "{\"axes\":{\"pan\":{\"position\":170.0,\"status\":\"idle\",\"limit\":\"maximum\"},"
            "\"tilt\":{\"position\":0.0,\"status\":\"idle\"},"
            "\"zoom\":{\"position\":1.0,\"status\":\"idle\",\"limit\":\"minimum\"}}}\n");
  EXPECT_TRUE(has(ask({"position", "--color=always"}), "\x1b[32midle\x1b[0m, \x1b[31mat its maximum\x1b[0m\n"));
}

TEST_F(DriverCommand, InJsonTheHundredthsAreAsTheyWereGiven) {
  EXPECT_TRUE(has(ask({"move", "absolute", "--pan", "4.98", "--tilt", "-0.07", "--wait", "--json"}),
                  "{\"axes\":{\"pan\":{\"position\":4.98,\"status\":\"idle\"},"
                  "\"tilt\":{\"position\":-0.07,"));
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

TEST_F(DriverCommand, AnOptionThatADirectionDoesNotUseIsMisuse) {
  for (const auto &[kind, option] : {std::pair<std::string, std::string>{"left", "--pan"},
                                     {"home", "--tilt"},
                                     {"up-left", "--zoom"},
                                     {"stop", "--speed"},
                                     {"stop", "--pan"}}) {
    const auto result = ask({"move", kind, option, "3"});
    EXPECT_EQ(result.status, 2) << kind;
    EXPECT_TRUE(has(result, kind + " takes no " + option)) << result.text;
  }
  EXPECT_EQ(ask({"move", "stop"}).status, 0);
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

TEST_F(DriverCommand, SendOfANamedCommandShowsTheFieldsOfTheReplyWithUnits) {
  EXPECT_EQ(ask({"send", "get_driver_name"}).text, "name                       sim-driver\n");
  EXPECT_EQ(ask({"send", "get-device-types"}).text, "types[0]                   Simulated head\n");
  EXPECT_EQ(ask({"send", "query_position"}).text,
            "position.pan               0  (0.00 degrees)\n"
            "position.tilt              0  (0.00 degrees)\n"
            "position.zoom              100  (1.00 times)\n"
            "status.pan                 0  (Idle)\n"
            "status.tilt                0  (Idle)\n"
            "status.zoom                0  (Idle)\n");
  EXPECT_TRUE(has(ask({"send", "Query speed"}), "maximum.pan                240000  (2400.00 degrees a second)\n"));
  EXPECT_TRUE(has(ask({"send", "Get capabilities"}), "move                       0x820001ff  (Pan RelPan ContPan"));
  EXPECT_TRUE(has(ask({"send", "get_driver_parameters"}), "parameters[0].kind         5  (ConstantInteger)\n"));
}

TEST_F(DriverCommand, SendOfANamedCommandTakesItsFieldsByTheirNames) {
  EXPECT_EQ(ask({"send", "move", "kind=absolute", "axes=pan,tilt", "speed=100", "value=250,-100,0"}).text, "");
  EXPECT_TRUE(run_until([this] { return has(ask({"position"}), "pan         2.50 degrees, idle\ntilt       -1.00"); }));
  EXPECT_EQ(ask({"send", "move", "kind=1", "axes=0x2", "speed=100", "value.tilt=0"}).text, "");
  EXPECT_TRUE(run_until([this] { return has(ask({"position"}), "tilt        0.00 degrees, idle\n"); }));
  EXPECT_EQ(ask({"send", "move_command", "direction=up-left", "speed=1"}).status, 0);
  EXPECT_EQ(ask({"send", "set_device_preset", "number=3", "name=the gate=left"}).text,
            "number                     3\n");
  EXPECT_EQ(ask({"send", "get_device_presets"}).text,
            "presets[0].number          3\npresets[0].name            the gate=left\n");
  const auto refused = ask({"send", "move", "kind=absolute", "axes=pan", "speed=50", "value=100000,0,0"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.text, "ptzctl: refused with code 4: pan 100000 is not within -17000 to 17000\n");
}

TEST_F(DriverCommand, SendOfANamedCommandPrintsTheFieldsAsJson) {
  EXPECT_EQ(ask({"send", "query_position", "--json"}).text,
            "{\"command\":\"query_position\",\"fields\":{\"axes\":{\"pan\":{\"position\":0.0,\"status\":\"idle\"},"
            "\"tilt\":{\"position\":0.0,\"status\":\"idle\"},\"zoom\":{\"position\":1.0,\"status\":\"idle\"}}}}\n");
  EXPECT_EQ(ask({"send", "get_device_types", "--json"}).text,
            "{\"command\":\"get_device_types\",\"fields\":{\"types\":[\"Simulated head\"]}}\n");
  EXPECT_EQ(ask({"send", "stop", "--json"}).text, "{\"command\":\"stop\",\"fields\":{}}\n");
}

TEST_F(Ptzctl, SendListsTheCommandsAndTheFieldsOfOne) {
  const auto commands = run({"driver", "send", "--list"});
  EXPECT_EQ(commands.status, 0);
  EXPECT_TRUE(has(commands, "query_position         An idle axis that was sent to a position is exactly there."))
      << commands.text;
  EXPECT_FALSE(has(commands, "error"));
  const auto fields = run({"driver", "send", "goto_preset", "--list"});
  EXPECT_EQ(fields.text,
            "number                 number of the preset (u32, 1 to 32)\n"
            "speed                  share of the maximum speed (u16, percent, 1 to 100)\n");
  EXPECT_EQ(run({"driver", "send", "stop", "--list"}).text, "");
  EXPECT_EQ(run({"driver", "send", "fly", "--list"}).status, 2);
}

TEST_F(Ptzctl, SendOfANamedCommandNamesTheFieldThatMakesNoSense) {
  const std::pair<std::vector<std::string>, const char *> misuses[] = {
      {{"movee"}, "there is no command 'movee' (did you mean 'move'?)"},
      {{"goto_preset"}, "goto_preset: the field number is missing (u32, 1 to 32: number of the preset)"},
      {{"goto_preset", "number"}, "goto_preset: 'number' is no FIELD=VALUE"},
      {{"goto_preset", "nr=1"}, "goto_preset: there is no field 'nr'"},
      {{"goto_preset", "number=one"}, "goto_preset: 'one' is no value of number (u32, 1 to 32)"},
      {{"goto_preset", "number.pan=1"}, "goto_preset: the field number has no axes"},
      {{"goto_preset", "number=1", "speed=65536"},
       "goto_preset: goto preset request: field \"speed\": the number does not fit"},
      {{"move", "kind=sideways"}, "move: 'sideways' is no value of kind (u32, PTZMove, at least 1)"},
      {{"move", "axes=roll"}, "move: 'roll' is no value of axes"},
      {{"move", "value=1,2"}, "move: value takes three numbers, PAN,TILT,ZOOM"},
      {{"move", "value.roll=1"}, "move: there is no axis 'roll'"},
      {{"stop", "now=1"}, "stop: there is no field 'now'"},
      {{"stop", "--reply", "u32"}, "--reply is for a body of types"},
  };
  for (const auto &[words, problem] : misuses) {
    std::vector<std::string> arguments = {"driver", "send"};
    arguments.insert(arguments.end(), words.begin(), words.end());
    const auto result = run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, std::string("ptzctl: ") + problem)) << result.text;
  }
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

TEST_F(Ptzctl, ADriverThatClosesTheConnectionCannotBeAsked) {
  const std::string socket = dir.file("driver.socket");
  const Listener listener(socket);
  std::thread closing([&listener] {
    for (int clients = 0; clients < 2; ++clients) EXPECT_TRUE(listener.accept());
  });
  const auto result = run({"driver", "info", "--socket", socket});
  closing.join();
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(has(result, "ptzctl: the driver at " + socket + " cannot be asked: ")) << result.text;
  EXPECT_TRUE(has(result, "the driver has closed the connection")) << result.text;
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
