// What is the same in all subcommands of ptzctl, found through its own help.
#include <gtest/gtest.h>

#include <ptz_status_cache.h>
#include <algorithm>

#include <cmath>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

using Words = std::vector<std::string>;

Words operator+(Words words, const Words &more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

std::string joined(const Words &words) {
  std::string text = "ptzctl";
  for (const auto &word : words) text += " " + word;
  return text;
}

// The first groups of what matches, one after the other.
Words all_matches(const std::string &text, const char *pattern) {
  const std::regex expression(pattern, std::regex::multiline);
  Words found;
  for (std::sregex_iterator at(text.begin(), text.end(), expression), end; at != end; ++at) found.push_back((*at)[1]);
  return found;
}

struct PtzctlHabits : Ptzctl {
  struct Command {
    Words words;
    std::string help;
    bool is_group;
    [[nodiscard]] bool takes(const std::string &option) const {
      return help.find("--" + option + "=") != std::string::npos;
    }
  };
  inline static std::vector<Command> commands;  // which are asked for once

  PtzctlHabits() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1); }
  ~PtzctlHabits() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

  void SetUp() override {
    if (commands.empty()) find({});
    ASSERT_GT(commands.size(), 30U);
  }
  void find(const Words &words) {
    const auto result = run(words + Words{"--help"});
    EXPECT_EQ(result.status, 0) << joined(words);
    const bool is_group = has(result, "SUBCOMMAND");
    commands.push_back({words, result.text, is_group});
    if (!is_group) return;
    for (const auto &name : all_matches(result.text, "^  ([a-z]+) ")) find(words + Words{name});
  }
  [[nodiscard]] Result run_line(const std::string &line) const {
    std::filesystem::remove(output.file("text"));
    Process process("/bin/sh", {"-c", "cd " + dir.path() + " && " + PTZCTL + line}, output.file("text"));
    const int status = process.wait();
    return {status, contents(output.file("text"))};
  }
};

TEST_F(PtzctlHabits, EveryHelpHasAnExampleThatMakesSense) {
  for (const auto &command : commands) {
    const auto examples = all_matches(command.help, "^Example: ptzctl( .*)$");
    ASSERT_EQ(examples.size(), 1U) << command.help;
    EXPECT_EQ(("ptzctl" + examples.front()).rfind(joined(command.words), 0), 0U) << examples.front();
    // Not of the driver that runs on this machine.
    const bool is_default_driver = command.takes("socket") && examples.front().find("--driver") == std::string::npos;
    const auto result = run_line(examples.front() + (is_default_driver ? " --socket " + dir.file("none") : ""));
    const bool is_doctor = command.words == Words{"doctor"};  // 2 is for faults, of which a missing driver is one
    EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == (is_doctor ? 2 : 3))
        << examples.front() << result.text;
  }
}

TEST_F(PtzctlHabits, TheExitStatusesAreToldByTheHelpTheManualAndTheDocument) {
  const auto statuses = all_matches(commands.front().help, "^  ([0-9]  .*)$");
  ASSERT_EQ(statuses.size(), 4U);
  const std::string document = contents(PTZCTL_DOCUMENT), manual = contents(PTZCTL_MANUAL);
  for (const auto &each : statuses) {
    const std::string number = each.substr(0, 1), meaning = each.substr(3);
    EXPECT_NE(document.find("| " + number + " | " + meaning + " |"), std::string::npos) << meaning;
    if (std::string(PTZCTL_MANUAL).empty()) continue;
    EXPECT_NE(manual.find(".B " + number + "\n" + meaning + "\n"), std::string::npos) << meaning;
  }
}

TEST_F(PtzctlHabits, AllTakeTheSameOptionsOrSayWhyNot) {
  for (const auto &command : commands) {
    if (command.is_group) continue;
    const bool has_json = command.words.front() != "report";  // it is HTML or text
    EXPECT_EQ(has({0, command.help}, "-j, --json "), has_json) << command.help;
    EXPECT_TRUE(command.takes("color")) << command.help;
    const std::string &first = command.words.front();
    const Words ask_drivers = {"doctor", "record", "replay", "report", "tap"};
    const bool asks_driver =
        (first == "driver" && command.words[1] != "list") || std::ranges::find(ask_drivers, first) != ask_drivers.end();
    EXPECT_EQ(command.takes("socket"), asks_driver) << command.help;
    EXPECT_EQ(command.takes("driver"), asks_driver) << command.help;
    EXPECT_EQ(command.takes("timeout"),
              (asks_driver && first != "tap") || (first == "config" && command.words[1] != "watch"));
    const std::string end = "; see " + joined(command.words) + " --help\n";
    if (!command.takes("socket")) {
      EXPECT_EQ(run(command.words + Words{"--socket", "x"}).text,
                "ptzctl: it takes no --socket: it asks no driver" + end);
      EXPECT_EQ(run(command.words + Words{"-sx"}).status, 2);
      EXPECT_EQ(run(command.words + Words{"--driver=x"}).text, "ptzctl: it takes no --driver: it asks no driver" + end);
    }
    if (!command.takes("timeout")) {
      EXPECT_EQ(run(command.words + Words{"--timeout=5"}).text,
                "ptzctl: it takes no --timeout: it waits for no answer" + end);
      EXPECT_EQ(run(command.words + Words{"-t", "5"}).status, 2);
    } else {
      EXPECT_EQ(run(command.words + Words{"--timeout=0"}).text,
                "ptzctl: --timeout 0 is not from 1 to 2147483647" + end);
    }
  }
}

TEST_F(PtzctlHabits, WhatMakesNoSenseIsNamedTogetherWithTheHelp) {
  for (const auto &command : commands) {
    const std::string help = "; see " + joined(command.words) + " --help", end = help + "\n";
    if (command.is_group) {
      const std::string problem = joined(command.words) + " has no '--json': options stand behind its subcommand";
      EXPECT_EQ(run(command.words + Words{"--json"}).text, R"({"error":{"text":")" + problem + help + "\"}}\n");
      continue;
    }
    const std::vector<std::pair<Words, std::string>> misuses = {
        {{"--jsn"}, "there is no option '--jsn' (did you mean '--json'?)"},
        {{"-Z"}, "there is no option '-Z'"},
        {{"--color", "red"}, "--color 'red' is not always, never or auto"},
    };
    for (const auto &[words, problem] : misuses) {
      const auto result = run(command.words + words);
      EXPECT_EQ(result.status, command.words == Words{"doctor"} ? 64 : 2);
      EXPECT_EQ(result.text, "ptzctl: " + problem + end);
    }
  }
}

TEST_F(PtzctlHabits, TheNearestWordIsSuggested) {
  const std::pair<Words, std::string> misuses[] = {
      {{"stauts"}, "ptzctl has no 'stauts' (did you mean 'status'?); see ptzctl --help"},
      {{"driver", "presets", "lst"}, "ptzctl driver presets has no 'lst' (did you mean 'list'?)"},
      {{"driver", "move", "absolut"}, "'absolut' is no kind of move (did you mean 'absolute'?)"},
      {{"driver", "move", "up-lefft"}, "'up-lefft' is no kind of move (did you mean 'up-left'?)"},
      {{"status", "show", "limits"}, "there is no group 'limits' (did you mean 'limit'?)"},
      {{"enum", "PTZMoveStatsu"}, "there is no type 'PTZMoveStatsu' (did you mean 'PTZMoveStatus'?)"},
      {{"config", "aaa"}, "ptzctl config has no 'aaa'; see ptzctl config --help"},
  };
  for (const auto &[words, problem] : misuses) {
    const auto result = run(words);
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(has(result, "ptzctl: " + problem)) << result.text;
  }
}

TEST_F(PtzctlHabits, OptionsStandAnywhereAndNegativeNumbersAreWords) {
  EXPECT_EQ(run({"param", "set", "PTZ.A", "-5"}).status, 0);
  EXPECT_EQ(run({"param", "--json", "get", "PTZ.A"}).status, 2);
  EXPECT_EQ(run({"param", "get", "PTZ.A", "--json"}).text, "{\"path\":\"root.PTZ.A\",\"value\":\"-5\"}\n");
  EXPECT_EQ(run({"param", "set", "PTZ.A", "-x"}).status, 2);
  EXPECT_EQ(run({"param", "set", "PTZ.A", "--", "-x"}).status, 0);
  EXPECT_EQ(run({"param", "get", "PTZ.A"}).text, "-x\n");
  EXPECT_EQ(run({"param", "set", "PTZ.A", "--", "--"}).status, 0);
  EXPECT_EQ(run({"param", "get", "PTZ.A"}).text, "--\n");
}

TEST_F(PtzctlHabits, ColoursAreForTerminalsAndWhoWantsThem) {
  ptz_status_cache_create_group(PTZ_SC_GROUP_LIMIT, 1);
  const std::string coloured = "\x1b[1mPTZ_LIMIT_IS1\x1b[0m", plain = "PTZ_LIMIT_IS1";
  const Words show = {"status", "show", "limit"};
  const auto beginning = [&](const Result &result) { return result.text.substr(0, result.text.find_first_of("\r\n")); };
  EXPECT_EQ(beginning(run(show)), plain);
  EXPECT_EQ(beginning(run(show + Words{"--color=auto"})), plain);
  EXPECT_EQ(beginning(run(show + Words{"--color=always"})), coloured);
  EXPECT_EQ(run(show + Words{"--color=always", "--json"}).text.find('\x1b'), std::string::npos);
  EXPECT_EQ(beginning(run_on_terminal(show)), coloured);
  EXPECT_EQ(beginning(run_on_terminal(show + Words{"--color=never"})), plain);
  EXPECT_EQ(run_on_terminal(show + Words{"--json"}).text.find('\x1b'), std::string::npos);
  setenv("NO_COLOR", "", 1);
  EXPECT_EQ(beginning(run_on_terminal(show)), coloured);
  setenv("NO_COLOR", "1", 1);
  EXPECT_EQ(beginning(run_on_terminal(show)), plain);
  EXPECT_EQ(beginning(run_on_terminal(show + Words{"--color=always"})), coloured);
  unsetenv("NO_COLOR");
}

struct NumbersInJson : Ptzctl {
  static void publish(gfloat pan) {
    auto *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 1, 1);
    ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_PAN, &pan);
    EXPECT_TRUE(ptz_status_cache_update_group(handle));
    ptz_status_cache_free_group(handle);
  }
  [[nodiscard]] std::string shown() const {
    const auto text = run({"status", "show", "position", "--json"}).text;
    std::smatch match;
    return std::regex_search(text, match, std::regex(R"("PAN_DEG":([^},]*))")) ? match[1].str() : text;
  }
};

TEST_F(NumbersInJson, HaveNoMoreDigitsThanTheyNeed) {
  const std::pair<gfloat, const char *> numbers[] = {{4.98F, "4.98"},    {-0.1F, "-0.1"},          {170, "170.0"},
                                                     {1e20F, "1e+20"},   {1.0F / 3, "0.33333334"}, {NAN, "null"},
                                                     {-INFINITY, "null"}};
  for (const auto &[number, text] : numbers) {
    publish(number);
    EXPECT_EQ(shown(), text);
  }
}

TEST_F(NumbersInJson, AndInTextHaveAPointInEveryLocale) {
  const std::string command = "localedef -i de_DE -f UTF-8 " + dir.file("de_DE.UTF-8") + " >/dev/null 2>&1";
  if (std::system(command.c_str()) != 0) GTEST_SKIP() << "there are no sources of locales";
  publish(4.98F);
  setenv("LOCPATH", dir.path().c_str(), 1);
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  EXPECT_EQ(shown(), "4.98");
  EXPECT_TRUE(has(run({"status", "show"}), " 4.98\n"));
  unsetenv("LOCPATH");
}

TEST_F(PtzctlHabits, JsonHasNoCharacterThatATerminalObeys) {
  const auto result = run({"driver", "info", "--json", "--socket",
                           dir.file("a\xC2\x9B\x7F\xE2\x80\xAE"
                                    "b")});
  EXPECT_TRUE(has(result, R"(a\u009b\u007f\u202eb)")) << result.text;
}

}  // namespace
