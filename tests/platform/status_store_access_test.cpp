// Users that share a status store, and what the store logs if it cannot write a group.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "child_process.h"
#include "clock.h"
#include "shared_group.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

constexpr uid_t alice = 21001, bob = 21002, mallory = 21003;
constexpr gid_t drivers = 22001;

mode_t mode_of(const std::string &path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

struct StatusStoreAccess : StoreTest {
  const mode_t umask_before = umask(077);
  ~StatusStoreAccess() override { umask(umask_before); }
};

TEST_F(StatusStoreAccess, CreateGivesTheFileTheModeOfTheFolderWhateverTheUmask) {
  chmod(dir.path().c_str(), 0770);
  EXPECT_EQ(create("G"), 0);
  EXPECT_EQ(mode_of(path("G")), 0660U);
  chmod(dir.path().c_str(), 0755);
  EXPECT_EQ(create("H"), 0);
  EXPECT_EQ(mode_of(path("H")), 0644U);
  chmod(dir.path().c_str(), 0777);
  EXPECT_EQ(create("I"), 0);
  EXPECT_EQ(mode_of(path("I")), 0664U) << "never writable for every user";
}

// --- several users ----------------------------------------------------------------------------------------------

// A folder as the packages install it.
struct SharedByUsers : StatusStoreAccess {
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root may become other users";
    ASSERT_EQ(chown(dir.path().c_str(), 0, drivers), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 02770), 0);
  }
  // Every user may enter the folder, and the group's file is the given user's.
  void give_group_to(uid_t user, gid_t group) {
    ASSERT_EQ(create("G"), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 02775), 0);
    ASSERT_EQ(chown(path("G").c_str(), user, group), 0);
    ASSERT_EQ(chmod(path("G").c_str(), 0664), 0);
  }
};

TEST_F(SharedByUsers, MembersOfTheGroupReadAndWriteAGroupThatAnotherMemberCreated) {
  EXPECT_EQ(run_as(alice, drivers, [] { return create("G") == 0 && set("G", {item("A", 1)}) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(run_as(bob, drivers, [] { return number("G", "A") == 1 && set("G", {item("A", 2)}) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(set("G", {item("A", 3)}), 0) << "root";
  EXPECT_EQ(run_as(alice, drivers, [] { return number("G", "A") == 3 && set("G", {item("A", 4)}) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(run_as(mallory, mallory, [] { return number("G", "A") == -EACCES ? 0 : 1; }), 0);
}

TEST_F(SharedByUsers, CreateByRootGivesTheFileToTheOwnerOfTheFolder) {
  ASSERT_EQ(chown(dir.path().c_str(), alice, drivers), 0);
  ASSERT_EQ(chmod(dir.path().c_str(), 0750), 0);  // no setgid bit, and the group only reads
  EXPECT_EQ(create("G"), 0);
  struct stat status = {};
  ASSERT_EQ(stat(path("G").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, alice);
  EXPECT_EQ(status.st_gid, drivers);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(run_as(alice, alice, [] { return set("G", {item("A", 2)}) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(run_as(bob, drivers, [] { return number("G", "A") == 2 ? 0 : 1; }), 0);
}

TEST_F(SharedByUsers, SetOfAForeignUsersFileFailsWithEbadmsg) {
  give_group_to(mallory, mallory);
  EXPECT_EQ(set("G", {item("A", 1)}), -EBADMSG) << "root";
  EXPECT_EQ(run_as(bob, mallory, [] { return set("G", {item("A", 1)}) == -EBADMSG ? 0 : 1; }), 0);
  EXPECT_EQ(run_as(mallory, mallory, [] { return set("G", {item("A", 1)}) == 0 ? 0 : 1; }), 0) << "the user's own";
  EXPECT_EQ(number("G", "A"), 1) << "reading is harmless";
}

TEST_F(SharedByUsers, SetOfAFileOfTheFoldersGroupSucceeds) {
  give_group_to(mallory, drivers);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(run_as(bob, drivers, [] { return set("G", {item("A", 2)}) == 0 ? 0 : 1; }), 0);
}

TEST_F(SharedByUsers, SetOfAGroupThatWasGivenToAForeignUserFailsWithinASecond) {
  create("G");
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  ASSERT_EQ(chown(path("G").c_str(), mallory, mallory), 0);
  advance_clock(1000);
  EXPECT_EQ(set("G", {item("A", 2)}), -EBADMSG);
}

// --- causes in the log ------------------------------------------------------------------------------------------

TEST_F(StatusStoreAccess, AFailedSetIsLoggedOnceAMinuteForEachGroup) {
  const SyslogCapture log;
  for (const std::string name : {"G", "H"}) {
    create(name);
    chmod(path(name).c_str(), 0666);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(set(name, {item("A", 1)}), -EBADMSG);
    EXPECT_EQ(
        log.count(LOG_WARNING, "Status group " + path(name) +
                                   " is not written: the file is damaged, of another release or of a foreign user"),
        1U);
  }
  EXPECT_EQ(log.lines().size(), 2U);
  advance_clock(59'000);
  set("G", {item("A", 1)});
  EXPECT_EQ(log.lines().size(), 2U);
  advance_clock(1'100);
  set("G", {item("A", 1)});
  EXPECT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(log.containing("/G.status is not written"), 2U);
}

TEST_F(StatusStoreAccess, SetOfValuesThatDoNotFitLogsTheCause) {
  const SyslogCapture log;
  create("G", 8);
  EXPECT_EQ(set("G", {{"A", "too long for it", 1}}), -ENOSPC);
  EXPECT_EQ(log.containing("/G.status is not written: the values are larger than the group"), 1U);
}

TEST_F(StatusStoreAccess, SetWithoutPermissionLogsTheCause) {
  chmod(dir.path().c_str(), 0755);
  create("G");
  const auto set_logs_cause = [] {
    const SyslogCapture log;
    const int result = set("G", {item("A", 1)});
    return result == -EACCES && log.containing("/G.status is not written: Permission denied") == 1 ? 0 : 1;
  };
  chmod(path("G").c_str(), 0444);
  EXPECT_EQ(geteuid() == 0 ? run_as(alice, alice, set_logs_cause) : run_child(set_logs_cause), 0);
}

TEST_F(StatusStoreAccess, SetOfAMissingGroupAndSetOfABadValueLogNothing) {
  const SyslogCapture log;
  EXPECT_EQ(set("G", {item("A", 1)}), -ENOENT);
  create("G");
  EXPECT_EQ(set("G", {{"", "x", 1}}), -EINVAL);
  EXPECT_EQ(set("", {item("A", 1)}), -EINVAL);
  EXPECT_TRUE(log.lines().empty());
}

// --- files of an older release ----------------------------------------------------------------------------------

TEST_F(StatusStoreAccess, CreateReplacesAGroupOfAnOlderRelease) {
  const SyslogCapture log;
  write_content(path("G"), "PTZSTAT1" + std::string(4000, '\1'));
  EXPECT_EQ(number("G", "A"), -EBADMSG);
  EXPECT_EQ(set("G", {item("A", 1)}), -EBADMSG);
  EXPECT_EQ(create("G"), 0);
  EXPECT_EQ(log.count(LOG_NOTICE, "Status group " + path("G") + " of an older release is replaced"), 1U);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(number("G", "A"), 1);
  EXPECT_EQ(create("G"), -EEXIST);
  EXPECT_EQ(files(), std::vector<std::string>{"G.status"});
}

TEST_F(StatusStoreAccess, CreateLeavesOtherFilesAlone) {
  for (const std::string content : {"", "PTZSTAT", "PTZSTAT3 and more", "something else"}) {
    write_content(path("G"), content);
    EXPECT_EQ(create("G"), -EEXIST) << content;
    EXPECT_EQ(content_of(path("G")), content);
    unlink(path("G").c_str());
  }
  write_content(dir.file("old"), "PTZSTAT1 and more");
  ASSERT_EQ(symlink(dir.file("old").c_str(), path("G").c_str()), 0);
  EXPECT_EQ(create("G"), -EEXIST);
}

TEST_F(StatusStoreAccess, OneOfSeveralMakersReplacesAGroupOfAnOlderRelease) {
  auto *made = shared_memory<std::atomic<int>>();
  for (int round = 0; round < 20; ++round) {
    const auto name = "G" + std::to_string(round);
    write_content(path(name), "PTZSTAT1" + std::string(4000, '\1'));
    *made = 0;
    std::vector<pid_t> makers;
    for (int i = 0; i < 4; ++i) {
      makers.push_back(start_child([&] {
        if (create(name) == 0) ++*made;
        return 0;
      }));
    }
    for (const pid_t maker : makers) wait_for_child(maker);
    EXPECT_EQ(*made, 1);
    EXPECT_EQ(set(name, {item("A", 1)}), 0);
  }
}

}  // namespace
