// Drivers by their names: the list of those that run, and --driver.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <system_error>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

struct DriverList : Ptzctl {
  std::vector<std::unique_ptr<Process>> drivers;

  [[nodiscard]] std::string socket(int instance) const { return dir.file("socket" + std::to_string(instance)); }
  void start(int instance) {
    drivers.push_back(std::make_unique<Process>(
        TWO_AXIS_DRIVER, std::vector<std::string>{"--socket", socket(instance), "--instance", std::to_string(instance)},
        dir.file("log")));
    ASSERT_TRUE(run_until([&] {
      return run({"driver", "info", "--socket", socket(instance)}).status == 0;
    })) << contents(dir.file("log"));
  }
  [[nodiscard]] std::string list() const { return run({"driver", "list"}).text; }
};

TEST_F(DriverList, WithoutDriversIsEmpty) {
  const auto list = run({"driver", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.text, "");
}

TEST_F(DriverList, ShowsALineForEachDriver) {
  start(7);
  start(3);
  const std::string row = " +live +[0-9]+  \\S+ +1  [0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}  ";
  EXPECT_TRUE(std::regex_match(list(), std::regex("name +instance  state +pid  user +protocol  since +socket\n"
                                                  "two-axis-driver +3" +
                                                  row + socket(3) + "\ntwo-axis-driver +7" + row + socket(7) + "\n")))
      << list();
}

TEST_F(DriverList, PrintsAnObjectForEachDriver) {
  start(7);
  const auto json = run({"driver", "list", "--json"}).text;
  const std::string pid = std::to_string(drivers.front()->pid());
  EXPECT_TRUE(std::regex_match(
      json, std::regex("\\{\"name\":\"two-axis-driver\",\"instance\":7,\"state\":\"live\",\"pid\":" + pid +
                       ",\"user\":\"[^\"]+\",\"protocol_version\":1,\"since\":\"[-0-9]+T[0-9:]+Z\",\"socket\":\"" +
                       socket(7) + "\",\"program\":\"[^\"]*two-axis-driver\"\\}\n")))
      << json;
}

TEST_F(DriverList, ShowsADriverThatWasKilledAsDead) {
  start(7);
  drivers.front()->signal(SIGKILL);
  drivers.front()->wait();
  EXPECT_NE(list().find("7  dead  "), std::string::npos) << list();
  EXPECT_EQ(run({"driver", "info", "--driver", "two-axis-driver"}).text,
            "ptzctl: there is no driver 'two-axis-driver'; none runs\n");
}

TEST_F(DriverList, ShowsADriverWithoutItsSocketAsStolen) {
  start(7);
  drivers.front()->signal(SIGSTOP);  // it would listen there again
  std::filesystem::remove(socket(7));
  EXPECT_NE(list().find("7  stolen"), std::string::npos) << list();
  EXPECT_EQ(run({"driver", "info", "--driver", "7"}).status, 3);
  drivers.front()->signal(SIGCONT);
}

TEST_F(DriverList, NamesAndPathsDoNotReachTheTerminalAsControls) {
  start(7);
  std::string entry;
  for (const auto &file : std::filesystem::directory_iterator(dir.file("drivers")))
    if (file.path().extension() == ".driver") entry = contents(file.path());
  ASSERT_NE(entry, "");
  // As any member of the group could write it.
  const auto add = [&](const std::string &file, const std::string &name) {
    const std::string renamed = std::regex_replace(entry, std::regex("Name=\"[^\"]*"), "Name=\"" + name);
    std::ofstream(dir.file("drivers/" + file + ".driver"))
        << std::regex_replace(renamed, std::regex("Socket=\""), "Socket=\"/\\033[2J");
  };
  add("a", "ev\\033[2Jil\\nlive");
  add("b", std::string(3000, 'n'));
  const std::string text = list();
  EXPECT_EQ(text.find('\033'), std::string::npos) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("\nev\\?\\[2Jil\\?live +7  dead .*  /\\?\\[2J/"))) << text;
  EXPECT_TRUE(std::regex_search(text, std::regex("\ntwo-axis-driver  +7  live"))) << text;
  EXPECT_LT(text.find('\n'), 200U) << "the titles are as wide as the longest name";
}

TEST_F(DriverList, AnUnreadableFolderIsAFailure) {
  ASSERT_TRUE(g_file_set_contents(dir.file("drivers").c_str(), "x", 1, nullptr));
  const auto list = run({"driver", "list"});
  EXPECT_EQ(list.status, 1);
  EXPECT_TRUE(has(list, "ptzctl: the drivers cannot be listed: ")) << list.text;
}

TEST_F(DriverList, ADriverIsAskedByItsNameOrItsInstance) {
  start(7);
  EXPECT_EQ(run({"driver", "info", "--driver", "two-axis-driver"}).text, "two-axis-driver\n");
  EXPECT_EQ(run({"driver", "info", "-d", "7"}).text, "two-axis-driver\n");
  EXPECT_EQ(run({"driver", "send", "u32:21", "--reply", "u32,text", "-d", "7"}).text,
            "u32   21\ntext  two-axis-driver\n");
  const auto unknown = run({"driver", "info", "--driver", "head"});
  EXPECT_EQ(unknown.status, 3);
  EXPECT_EQ(unknown.text, "ptzctl: there is no driver 'head'; these run: two-axis-driver:7\n");
  const auto both = run({"driver", "info", "--driver", "7", "--socket", socket(7)});
  EXPECT_EQ(both.status, 2);
  EXPECT_TRUE(has(both, "ptzctl: --socket and --driver exclude each other")) << both.text;
}

TEST_F(DriverList, SeveralDriversOfOneNameAreToldApartByTheirInstances) {
  start(3);
  start(7);
  const auto several = run({"driver", "info", "--driver", "two-axis-driver"});
  EXPECT_EQ(several.status, 3);
  EXPECT_TRUE(has(several, "two-axis-driver:3, two-axis-driver:7")) << several.text;
  EXPECT_EQ(run({"driver", "info", "--driver", "two-axis-driver:7"}).status, 0);
}

TEST_F(DriverList, TheOnlyDriverNeedNotBeNamed) {
  std::error_code error;
  if (std::filesystem::exists("/run/ptz/driver.socket", error) || error) {
    GTEST_SKIP() << "this machine has a driver at the default path, or its folder is closed to this user";
  }
  EXPECT_EQ(run({"driver", "info"}).text, "ptzctl: no driver at /run/ptz/driver.socket: No such file or directory\n");
  start(7);
  EXPECT_EQ(run({"driver", "info"}).text, "two-axis-driver\n");
  EXPECT_EQ(run({"driver", "send", "u32:21", "--reply", "u32,text"}).status, 0);
  start(3);
  for (const std::vector<std::string> &arguments :
       {std::vector<std::string>{"driver", "info"}, {"driver", "send", "u32:21"}}) {
    const auto several = run(arguments);
    EXPECT_EQ(several.status, 2);
    EXPECT_TRUE(
        has(several, "ptzctl: several drivers run: two-axis-driver:3, two-axis-driver:7: name one with --driver;"))
        << several.text;
  }
}

TEST_F(DriverList, ComplianceChecksADriverByItsNameAndTakesItsInstance) {
  start(7);
  Process tool(PTZ_COMPLIANCE, {"--driver", "two-axis-driver", "--only", "status.limit-group"}, output.file("checks"));
  EXPECT_EQ(tool.wait(), 0);
  EXPECT_EQ(contents(output.file("checks")).find("passed  "), 0U) << contents(output.file("checks"));
  Process unknown(PTZ_COMPLIANCE, {"--driver", "head"}, output.file("unknown"));
  EXPECT_EQ(unknown.wait(), 2);
  EXPECT_EQ(contents(output.file("unknown")),
            "ptz-compliance: there is no driver 'head'; these run: two-axis-driver:7\n");
}

}  // namespace
