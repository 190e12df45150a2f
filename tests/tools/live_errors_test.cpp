// Versions, errors as JSON, and refusals in the units of the user.
#include "ptzctl.h"

namespace {

using namespace ptz_test;

struct LiveErrors : Ptzctl {
  const std::string socket = dir.file("s");
  const Process driver{SIM_DRIVER, {"--socket", socket, "--speed-factor", "20"}, dir.file("log")};

  void SetUp() override {
    ASSERT_TRUE(run_until([this] { return ask({"info"}).status == 0; })) << contents(dir.file("log"));
  }
  [[nodiscard]] Result ask(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "driver");
    arguments.insert(arguments.end(), {"--socket", socket});
    return run(arguments);
  }
};

TEST_F(LiveErrors, ARefusedPositionIsInTheUnitOfTheUser) {
  const auto refused = ask({"move", "absolute", "--pan", "900"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.text, "ptzctl: refused with code 4: pan: 900 degrees is beyond the limit 170 degrees\n");
  EXPECT_EQ(ask({"move", "absolute", "--pan", "1", "--tilt=-95.5"}).text,
            "ptzctl: refused with code 4: tilt: -95.5 degrees is beyond the limit -20 degrees\n");
  EXPECT_EQ(ask({"move", "absolute", "--zoom", "31"}).text,
            "ptzctl: refused with code 4: zoom: 31 times is beyond the limit 30 times\n");
}

TEST_F(LiveErrors, ARefusedSpeedIsInTheUnitOfTheUser) {
  EXPECT_EQ(ask({"move", "continuous", "--pan=-9000"}).text,
            "ptzctl: refused with code 4: pan: -9000 degrees a second is beyond the limit -2400 degrees a second\n");
}

TEST_F(LiveErrors, ARefusalInJsonHasTheCodeAndItsName) {
  const auto refused = ask({"move", "absolute", "--pan", "900", "--json"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.text,
            "{\"error\":{\"text\":\"pan: 900 degrees is beyond the limit 170 degrees\",\"code\":4,"
            "\"name\":\"out_of_range\"}}\n");
  EXPECT_EQ(ask({"presets", "goto", "4", "-j"}).text,
            "{\"error\":{\"text\":\"there is no preset 4\",\"code\":5,\"name\":\"not_found\"}}\n");
}

TEST_F(LiveErrors, OtherErrorsInJsonHaveTheirText) {
  EXPECT_EQ(run({"driver", "info", "--json", "--driver", "head\""}).text,
            "{\"error\":{\"text\":\"there is no driver 'head\\\"'; these run: sim-driver:0\"}}\n");
  EXPECT_EQ(run({"driver", "infos", "--json"}).text.find("{\"error\":{\"text\":\"ptzctl driver has no 'infos'"), 0U);
  EXPECT_EQ(run({"status", "show", "--jsn", "--json"}).text.find("{\"error\":{\"text\":\"there is no option"), 0U);
  EXPECT_EQ(run({"status", "show", "--", "--json"}).text.find("ptzctl: "), 0U) << "behind -- it is a word";
}

TEST_F(LiveErrors, ErrorsOfComplianceAreJsonWithJson) {
  for (const bool is_json : {true, false}) {
    std::filesystem::remove(output.file("text"));
    Process process(PTZ_COMPLIANCE, is_json ? std::vector<std::string>{"--json"} : std::vector<std::string>{},
                    output.file("text"));
    EXPECT_EQ(process.wait(), 2);
    const std::string text = "it takes --socket PATH, or --driver NAME, or a COMMAND; see --help";
    EXPECT_EQ(contents(output.file("text")),
              is_json ? "{\"error\":{\"text\":\"" + text + "\"}}\n" : "ptz-compliance: " + text + "\n");
  }
}

TEST_F(LiveErrors, EveryProgramTellsItsVersion) {
  const std::pair<const char *, std::string> programs[] = {
      {PTZCTL, "ptzctl " VERSION "\n"},
      {PTZ_COMPLIANCE, "ptz-compliance " VERSION "\n"},
      {VISCA_SIM, "visca-sim " VERSION "\n"},
      {SIM_DRIVER, "sim-driver (ptznimbo-kit " VERSION ")\n"},
      {VISCA_DRIVER, "visca-driver (ptznimbo-kit " VERSION ")\n"},
      {TWO_AXIS_DRIVER, "two-axis-driver (ptznimbo-kit " VERSION ")\n"}};
  for (const auto &[program, text] : programs) {
    std::filesystem::remove(output.file("text"));
    Process process(program, {"--version"}, output.file("text"));
    EXPECT_EQ(process.wait(), 0) << program;
    EXPECT_EQ(contents(output.file("text")), text);
  }
}

}  // namespace
