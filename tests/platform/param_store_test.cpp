#include "param_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>

#include "interpose.h"

#include "platform/param_service.h"
#include "temp_dir.h"

namespace {

bool database_has_no_room = false;

bool is_database(int fd) {
  char path[400] = {};
  const auto link = "/proc/self/fd/" + std::to_string(fd);
  if (readlink(link.c_str(), path, sizeof path - 1) < 0) return false;
  const std::string_view name(path);
  return !name.ends_with("-wal") && !name.ends_with("-shm") && !name.ends_with("-journal");
}

}  // namespace

INTERPOSE(ssize_t, pwrite64, (int fd, const void *bytes, size_t size, off64_t offset)) {
  // The first page says that the file has a log; it is there before the log is.
  if (database_has_no_room && offset > 0 && is_database(fd)) {
    errno = ENOSPC;
    return -1;
  }
  return REAL(pwrite64)(fd, bytes, size, offset);
}

namespace {

using namespace ptz::platform;
using ptz_test::TempDir;

struct TestedStore : testing::Test {
  TempDir dir;
  const std::string file = dir.file("params.db");
  std::unique_ptr<ParamStore> store;
  std::string reason;

  void SetUp() override {
    struct stat folder = {};
    ASSERT_EQ(stat(dir.path().c_str(), &folder), 0);
    ASSERT_EQ(make_database(file, folder, reason), StoreResult::ok) << reason;
    store = open();
  }
  std::unique_ptr<ParamStore> open() {
    Database database;
    auto result = open_database(file, database, reason);
    EXPECT_EQ(result, StoreResult::ok) << reason;
    auto opened = ParamStore::on(std::move(database), result, reason);
    EXPECT_NE(opened, nullptr) << reason;
    return opened;
  }
  std::string create(gint32 number = -1, const std::string &parent = "root.Group") {
    std::string path;
    return store->create_group(parent, 'G', number, {{"A", "1"}}, path) == StoreResult::ok ? path : "";
  }
};

using ParamStoreSet = TestedStore;
using ParamStoreCreateGroup = TestedStore;
using ParamDatabase = TestedStore;

TEST_F(ParamStoreSet, ValueAboveTheLimitIsTooLongAndNothingIsWritten) {
  EXPECT_EQ(store->set("root.A", std::string(PARAM_SERVICE_VALUE_MAX, 'v')), StoreResult::ok);
  EXPECT_EQ(store->set("root.B", std::string(PARAM_SERVICE_VALUE_MAX + 1, 'v')), StoreResult::value_too_long);
  ptz::Text value;
  EXPECT_EQ(store->get("root.B", value), StoreResult::not_found);
}

// A constraint that a set fails is a failure of the database, and not an existing group.
TEST_F(ParamStoreSet, SetThatFailsAConstraintReturnsFailed) {
  ASSERT_EQ(
      execute(store->database(), "CREATE TRIGGER no BEFORE INSERT ON parameters BEGIN SELECT RAISE(ABORT, 'no'); END"),
      SQLITE_OK);
  EXPECT_EQ(store->set("root.A", "v"), StoreResult::failed);
}

TEST_F(ParamStoreSet, TextThatCannotBeBoundIsTooLongAndNotWrittenAsNull) {
  sqlite3_limit(store->database(), SQLITE_LIMIT_LENGTH, 1000);
  EXPECT_EQ(store->set("root.A", std::string(2000, 'v')), StoreResult::value_too_long);
  ptz::Text value;
  EXPECT_EQ(store->get("root.A", value), StoreResult::not_found);
}

TEST_F(ParamStoreCreateGroup, TakesTheLowestFreeNumberWhateverElseIsThere) {
  EXPECT_EQ(create(), "root.Group.G0");
  EXPECT_EQ(create(2), "root.Group.G2");
  EXPECT_EQ(create(), "root.Group.G1");
  EXPECT_EQ(create(), "root.Group.G3");
  EXPECT_EQ(store->set("root.Group.G4.P", "v"), StoreResult::ok);
  for (const char *other :
       {"root.Group.G06.P", "root.Group.G+7.P", "root.Group.Gx.P", "root.Group.H5.P", "root.Group.G99999999999.P"}) {
    EXPECT_EQ(store->set(other, "v"), StoreResult::ok);
  }
  EXPECT_EQ(create(), "root.Group.G5");
  EXPECT_EQ(store->delete_group("root.Group.G1"), StoreResult::ok);
  EXPECT_EQ(create(), "root.Group.G1");
  EXPECT_EQ(create(), "root.Group.G6");
}

TEST_F(ParamStoreCreateGroup, SeesWhatOtherConnectionsCreateAndDelete) {
  for (int i = 0; i < 5; ++i) EXPECT_EQ(create(), "root.Group.G" + std::to_string(i));
  const auto other = open();
  std::string path;
  EXPECT_EQ(other->create_group("root.Group", 'G', -1, {}, path), StoreResult::ok);
  EXPECT_EQ(path, "root.Group.G5");
  EXPECT_EQ(other->delete_group("root.Group.G2"), StoreResult::ok);
  EXPECT_EQ(create(), "root.Group.G2");
  EXPECT_EQ(create(), "root.Group.G6");
}

// Counts the steps of SQLite's machine, which do not depend on the load of the computer.
TEST_F(ParamStoreCreateGroup, CostsTheSameInAGroupOfManyAsInAGroupOfFew) {
  long steps = 0;
  sqlite3_progress_handler(
      store->database(), 10, [](void *count) { return ++*static_cast<long *>(count), 0; }, &steps);
  const auto steps_of_hundred = [&] {
    steps = 0;
    for (int i = 0; i < 100; ++i) EXPECT_NE(create(), "");
    return steps;
  };
  steps_of_hundred();
  const long few = steps_of_hundred();
  for (int i = 0; i < 1800; ++i) ASSERT_NE(create(), "");
  const long many = steps_of_hundred();
  EXPECT_LT(many, 2 * few + 100);
}

// --- versions -----------------------------------------------------------------------------------------------------

constexpr UpgradeStep steps_for_test[] = {{1, "ALTER TABLE groups ADD COLUMN note TEXT NOT NULL DEFAULT 'n'"},
                                          {2, "CREATE TABLE extra (a)"}};

TEST_F(ParamDatabase, UpgradesStepByStepAndKeepsTheParameters) {
  ASSERT_EQ(store->set("root.A", "v"), StoreResult::ok);
  EXPECT_EQ(upgrade(store->database(), 1, steps_for_test, 3, reason), StoreResult::ok) << reason;
  EXPECT_EQ(number_of(store->database(), "PRAGMA user_version"), 3);
  EXPECT_EQ(number_of(store->database(), "SELECT count(*) FROM groups WHERE note = 'n'"), 1);
  ptz::Text value;
  EXPECT_EQ(store->get("root.A", value), StoreResult::ok);
  EXPECT_EQ(store->set("root.New.Group.P", "v"), StoreResult::ok) << "the group has a column more";
}

TEST_F(ParamDatabase, FailedUpgradeStepLeavesTheVersionBeforeIt) {
  constexpr UpgradeStep broken[] = {steps_for_test[0], {2, "CREATE TABLE one (a); CREATE TABLE groups (b)"}};
  EXPECT_EQ(upgrade(store->database(), 1, broken, 3, reason), StoreResult::failed);
  EXPECT_EQ(number_of(store->database(), "PRAGMA user_version"), 2);
  EXPECT_EQ(number_of(store->database(), "SELECT count(*) FROM sqlite_schema WHERE name = 'one'"), 0);
  EXPECT_EQ(upgrade(store->database(), 2, {}, 3, reason), StoreResult::failed) << "no step leads there";
}

TEST_F(ParamDatabase, OfTheFirstReleaseIsUpgraded) {
  const std::string kept = dir.file("kept.db");
  for (const char *suffix : {"", "-wal"}) {
    ASSERT_EQ(std::system(("cp " VERSION1_FILES "/params.db" + std::string(suffix) + " " + kept + suffix).c_str()), 0);
  }
  Database database;
  ASSERT_EQ(open_database(kept, database, reason), StoreResult::ok);
  int version = 0;
  ASSERT_EQ(check_tree(database.get(), version, reason), StoreResult::ok) << reason;
  EXPECT_EQ(version, 1);
  EXPECT_EQ(upgrade(database.get(), version, steps_for_test, 3, reason), StoreResult::ok) << reason;
  EXPECT_EQ(number_of(database.get(), "SELECT count(*) FROM parameters"), 49);
  EXPECT_EQ(number_of(database.get(), "SELECT count(*) FROM parameters WHERE name = 'InTheLog' AND value = 'yes'"), 1);
}

TEST_F(ParamDatabase, CheckTreeOfANewerReleaseReturnsNewer) {
  int version = 0;
  ASSERT_EQ(execute(store->database(), "PRAGMA user_version = 2"), SQLITE_OK);
  EXPECT_EQ(check_tree(store->database(), version, reason), StoreResult::newer);
  EXPECT_EQ(reason, "made by a newer release (version 2, this one knows 1)");
}

TEST_F(ParamDatabase, CheckTreeOfAnotherProgramReturnsForeign) {
  int version = 0;
  ASSERT_EQ(execute(store->database(), "PRAGMA application_id = 1"), SQLITE_OK);
  EXPECT_EQ(check_tree(store->database(), version, reason), StoreResult::foreign);
}

// --- a disk that is full -------------------------------------------------------------------------------------------

// The log fits, and its copy in the database does not.
TEST_F(ParamDatabase, MadeWithoutRoomForTheCopyOfTheLogFailsAndLeavesNoFile) {
  struct stat folder = {};
  ASSERT_EQ(stat(dir.path().c_str(), &folder), 0);
  database_has_no_room = true;
  const auto result = make_database(dir.file("full.db"), folder, reason);
  database_has_no_room = false;
  EXPECT_EQ(result, StoreResult::full) << reason;
  for (const auto &entry : std::filesystem::directory_iterator(dir.path())) {
    EXPECT_FALSE(entry.path().filename().string().starts_with("full.db")) << entry.path();
  }
}

// Of a page whose damage no other check finds.
TEST_F(TestedStore, LengthThatNoValueHasIsDamage) {
  ASSERT_EQ(store->set("root.A", std::string(100, 'v')), StoreResult::ok);
  sqlite3_limit(store->database(), SQLITE_LIMIT_LENGTH, 50);
  ptz::Text value;
  EXPECT_EQ(store->get("root.A", value), StoreResult::damaged);
}

}  // namespace
