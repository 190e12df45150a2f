// The tree's connection with a schema of the test, and with system calls that fail or are recorded.
#include "param_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "interpose.h"
#include "parameter_tree.h"

namespace {

using namespace ptz_test;
using namespace ptz::platform;
namespace fs = std::filesystem;

Answer value(const std::string &text) { return {text, PARAM_SERVICE_OK}; }

// --- versions -----------------------------------------------------------------------------------------------------

constexpr UpgradeStep steps_for_test[] = {
    {1, "ALTER TABLE groups ADD COLUMN note TEXT NOT NULL DEFAULT 'n'; CREATE TABLE extra (a)"}};

// The tree is one of the first release, and the program is of a later one.
struct OlderTree : ParameterTree {
  const Schema usual = schema;
  OlderTree() {
    for (const char *suffix : {"", "-wal"})
      fs::copy_file(VERSION1_FILES "/params.db" + std::string(suffix), file + suffix);
    schema = {2, steps_for_test};
    tree_times.busy_limit_us = 50'000;
  }
  ~OlderTree() override {
    schema = usual;
    tree_times = {};
  }
};

TEST_F(OlderTree, IsUpgradedByAReader) {
  EXPECT_EQ(get("root.PTZ.InTheLog"), value("yes"));
  EXPECT_EQ(set("root.New.P", "v"), 0);
  EXPECT_EQ(get("root.New.P"), value("v"));
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
}

TEST_F(OlderTree, OpenedWhileAnotherProcessHoldsTheLockIsReportedAndNotTakenForDamaged) {
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  write(file + "-lock", "");
  const pid_t holder = start([&] {
    const int lock = open((file + "-lock").c_str(), O_RDWR);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(lock, F_SETLK, &whole), 0);
    char byte = 'r';
    ASSERT_EQ(::write(ready[1], &byte, 1), 1);
    ASSERT_EQ(::read(go[0], &byte, 1), 1);
  });
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(get("root.PTZ.InTheLog").error, PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.containing("has to be upgraded"), 1U) << testing::PrintToString(log.lines());
  ASSERT_EQ(::write(go[1], &byte, 1), 1);
  EXPECT_EQ(wait_for(holder), 0);
  EXPECT_EQ(get("root.PTZ.InTheLog"), value("yes"));
  EXPECT_FALSE(fs::exists(file + ".damaged-1"));
}

}  // namespace
