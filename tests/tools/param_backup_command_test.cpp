#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

struct PtzctlBackup : Ptzctl {
  const std::string backup = output.file("params.backup");

  [[nodiscard]] Result param(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "param");
    return run(arguments);
  }
  void expect(const std::vector<std::string> &arguments, const std::string &text) const {
    const auto result = param(arguments);
    EXPECT_EQ(result.status, 0) << arguments.front();
    EXPECT_EQ(result.text, text);
  }
  // The message names the file.
  void expect_failure(const std::string &subcommand, const std::string &file) const {
    const auto result = param({subcommand, file});
    EXPECT_EQ(result.status, 1) << subcommand;
    EXPECT_TRUE(has(result, "ptzctl: " + file + ": ")) << result.text;
  }
  void expect_only_first_value() const {
    expect({"get", "PTZ.A"}, "first\n");
    EXPECT_EQ(param({"get", "PTZ.B"}).status, 1);
  }
};

TEST_F(PtzctlBackup, RestoredBackupIsTheWholeTree) {
  expect({"set", "PTZ.A", "first"}, "");
  expect({"backup", backup}, "");
  expect({"set", "PTZ.A", "second"}, "");
  expect({"set", "PTZ.B", "new"}, "");
  expect({"restore", backup}, "");
  expect_only_first_value();
}

TEST_F(PtzctlBackup, BackupReplacesAnEarlierOne) {
  expect({"set", "PTZ.A", "zero"}, "");
  expect({"backup", backup}, "");
  expect({"set", "PTZ.A", "first"}, "");
  expect({"backup", backup}, "");
  expect({"set", "PTZ.B", "new"}, "");
  expect({"restore", backup}, "");
  expect_only_first_value();
}

TEST_F(PtzctlBackup, BackupIsOneFile) {
  expect({"set", "PTZ.A", "first"}, "");
  expect({"backup", backup}, "");
  std::vector<std::string> names;
  for (const auto &entry : std::filesystem::directory_iterator(output.path())) {
    if (entry.path().filename() != "text") names.push_back(entry.path().filename());
  }
  EXPECT_EQ(names, std::vector<std::string>{"params.backup"});
}

TEST_F(PtzctlBackup, CopyOfTheDatabaseAfterASyncIsABackup) {
  expect({"set", "PTZ.A", "first"}, "");
  expect({"sync"}, "");
  std::filesystem::copy_file(dir.file("params.db"), backup);
  expect({"set", "PTZ.B", "new"}, "");
  expect({"restore", backup}, "");
  expect_only_first_value();
}

TEST_F(PtzctlBackup, JsonNamesTheFile) {
  expect({"set", "PTZ.A", "first"}, "");
  const std::string line = "{\"file\":\"" + backup + "\"}\n";
  expect({"backup", "--json", backup}, line);
  expect({"restore", "--json", backup}, line);
}

TEST_F(PtzctlBackup, FailureNamesTheFileAndLeavesTheTree) {
  expect({"set", "PTZ.A", "first"}, "");
  expect_failure("backup", output.file("missing/params.backup"));
  expect_failure("restore", output.file("missing"));
  expect_failure("restore", output.path());
  std::ofstream(output.file("text-file")) << "no database at all, but a text of some length";
  expect_failure("restore", output.file("text-file"));
  expect_only_first_value();
}

TEST_F(PtzctlBackup, MisuseIsStatus2) {
  for (const auto *subcommand : {"backup", "restore"}) {
    EXPECT_EQ(param({subcommand}).status, 2);
    EXPECT_EQ(param({subcommand, "a", "b"}).status, 2);
  }
}

TEST_F(PtzctlBackup, PlatformLibraryWithoutBackupIsStatus1) {
  std::filesystem::create_symlink(DEVICE_PLATFORM, dir.file("libptznimbo_platform.so.0"));
  const char *before = getenv("LD_LIBRARY_PATH");
  const std::string folders = before != nullptr ? before : "";
  setenv("LD_LIBRARY_PATH", (dir.path() + ":" + folders).c_str(), 1);
  for (const auto *subcommand : {"backup", "restore"}) {
    const auto result = param({subcommand, backup});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.text, "ptzctl: this platform library has no backup\n");
  }
  // The other functions come from the device's library.
  EXPECT_EQ(param({"get", "PTZ.A"}).text, "device: root.PTZ.A, mode 9\n");
  setenv("LD_LIBRARY_PATH", folders.c_str(), 1);
}

}  // namespace
