// The files of the parameter tree: their access, files that are put in their place, and their size.
#include <gio/gio.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "clock.h"
#include "parameter_tree.h"
#include "platform/param_service_backup.h"
#include "ptz_tessel.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

constexpr uid_t owner = 4711, other = 4712;
constexpr gid_t group = 4713;

Answer value(const std::string &text) { return {text, PARAM_SERVICE_OK}; }

void copy(const std::string &from, const std::string &to, bool with_time = false) {
  const std::string command = std::string(with_time ? "cp -p " : "cp ") + from + " " + to;
  ASSERT_EQ(std::system(command.c_str()), 0);
}

// --- users ------------------------------------------------------------------------------------------------------

// Runs the function as another user of the group, with a umask that keeps the group out.
int run_as(uid_t user, const std::function<void()> &function) {
  return wait_for(start([&] {
    umask(077);
    if (user != 0) {
      ASSERT_EQ(setgroups(1, &group), 0);
      ASSERT_EQ(setresgid(user, user, user), 0);
      ASSERT_EQ(setresuid(user, user, user), 0);
    }
    function();
  }));
}

struct SharedFolder : ParameterTree {
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can act as other users";
    ASSERT_EQ(chown(dir.path().c_str(), owner, group), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 02770), 0);
  }
  void expect_shared_files() const {
    for (const char *suffix : {"", "-wal", "-shm", "-lock"}) {
      struct stat status = {};
      ASSERT_EQ(stat((file + suffix).c_str(), &status), 0) << suffix;
      EXPECT_EQ(status.st_mode & 07777, 0660U) << suffix;
      EXPECT_EQ(status.st_gid, group) << suffix;
    }
  }
};

TEST_F(SharedFolder, TreeThatRootBeganBelongsToTheFoldersOwnerAndIsWrittenByAll) {
  ASSERT_EQ(run_as(0, [] { EXPECT_EQ(set("root.A", "root"), 0); }), 0);
  struct stat status = {};
  for (const char *suffix : {"", "-wal", "-shm", "-lock"}) {
    ASSERT_EQ(stat((file + suffix).c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, owner) << suffix;
  }
  expect_shared_files();
  EXPECT_EQ(run_as(owner, [] { EXPECT_EQ(set("root.B", "owner"), 0); }), 0);
  EXPECT_EQ(run_as(other,
                   [] {
                     EXPECT_EQ(set("root.A", "other"), 0);
                     EXPECT_EQ(sync_tree(), 0);
                     EXPECT_EQ(get("root.B"), value("owner"));
                   }),
            0);
  EXPECT_EQ(run_as(0, [] { EXPECT_EQ(set("root.C", "root"), 0); }), 0);
  EXPECT_EQ(run_as(owner, [] { EXPECT_EQ(get("root.A"), value("other")); }), 0);
  expect_shared_files();
}

TEST_F(SharedFolder, ReadByAMemberOfTheGroupDoesNotLockTheOwnerOut) {
  ASSERT_EQ(run_as(owner, [] { EXPECT_EQ(set("root.A", "v"), 0); }), 0);
  fs::remove(file + "-wal");
  fs::remove(file + "-shm");
  ASSERT_EQ(run_as(other, [] { EXPECT_EQ(get("root.Missing").error, PARAM_SERVICE_NO_PARAMETER); }), 0);
  EXPECT_EQ(run_as(owner, [] { EXPECT_EQ(set("root.A", "w"), 0); }), 0);
  expect_shared_files();
}

TEST_F(SharedFolder, FilesWithANarrowModeAreRepairedByTheirOwner) {
  ASSERT_EQ(run_as(owner, [] { EXPECT_EQ(set("root.A", "v"), 0); }), 0);
  for (const char *suffix : {"", "-wal", "-shm", "-lock"}) {
    ASSERT_EQ(chmod((file + suffix).c_str(), 0644), 0);
    ASSERT_EQ(chown((file + suffix).c_str(), owner, owner), 0);
  }
  // root gives the group as well, which the owner may not be a member of.
  ASSERT_EQ(run_as(0, [] { EXPECT_EQ(get("root.A"), value("v")); }), 0);
  EXPECT_EQ(run_as(other, [] { EXPECT_EQ(set("root.A", "w"), 0); }), 0);
  expect_shared_files();
}

// What another member of the group may put beside the database.
struct SpecialFile {
  const char *name;
  const char *suffix;
  bool is_fifo;
};
struct SpecialFiles : SharedFolder, testing::WithParamInterface<SpecialFile> {};

TEST_P(SpecialFiles, BesideTheDatabaseAreSetAsideAndBlockNobody) {
  ASSERT_EQ(run_as(owner, [] { EXPECT_EQ(set("root.A", "v") + sync_tree(), 0); }), 0);
  const std::string path = file + GetParam().suffix;
  fs::remove(path);
  if (GetParam().is_fifo) {
    ASSERT_EQ(mkfifo(path.c_str(), 0440), 0);
    ASSERT_EQ(chown(path.c_str(), other, group), 0);
  } else {
    fs::create_symlink("/dev/null", path);
  }
  EXPECT_EQ(run_as(owner,
                   [] {
                     alarm(20);
                     EXPECT_EQ(get("root.A"), value("v"));
                     EXPECT_EQ(set("root.A", "w") + sync_tree(), 0);
                     EXPECT_EQ(get("root.A"), value("w"));
                   }),
            0);
  EXPECT_TRUE(fs::exists(fs::symlink_status(path + ".old")));
}

INSTANTIATE_TEST_SUITE_P(
    , SpecialFiles,
    testing::Values(SpecialFile{"FifoAsLog", "-wal", true}, SpecialFile{"FifoAsIndex", "-shm", true},
                    SpecialFile{"FifoAsLock", "-lock", true}, SpecialFile{"LinkAsLog", "-wal", false},
                    SpecialFile{"LinkAsIndex", "-shm", false}, SpecialFile{"LinkAsLock", "-lock", false}),
    [](const auto &info) { return info.param.name; });

TEST_F(SharedFolder, LostWriteOfANewParameterIsLoggedWithPathAndCauseAtMostOnceASecond) {
  ASSERT_EQ(run_as(0, [] { EXPECT_EQ(set("root.A", "v"), 0); }), 0);
  ASSERT_EQ(chmod(dir.path().c_str(), 02775), 0);
  for (const char *suffix : {"", "-wal", "-shm", "-lock"}) ASSERT_EQ(chmod((file + suffix).c_str(), 0664), 0);
  EXPECT_EQ(wait_for(start([&] {
              ASSERT_EQ(setgroups(0, nullptr), 0);
              ASSERT_EQ(setresgid(other, other, other), 0);
              ASSERT_EQ(setresuid(other, other, other), 0);
              const SyslogCapture lines;
              const std::string cause = "no permission to write " + file + "-lock (owner 4711, group 4713, mode 0664)";
              for (int i = 0; i < 5; ++i) {
                EXPECT_EQ(ptz_tessel_set("root.New", "v", FALSE, FALSE, FALSE, 0), 0) << "contract of the wrapper";
              }
              EXPECT_EQ(lines.containing("Parameter root.New: not written to " + file + ": " + cause), 1U)
                  << testing::PrintToString(lines.lines());
              advance_clock(1000);
              ptz_tessel_set("root.Newer", "v", FALSE, FALSE, FALSE, 0);
              EXPECT_EQ(lines.containing("Parameter root.Newer: not written to " + file + ": " + cause), 1U);
            })),
            0);
}

// --- a file that is put in the tree's place ---------------------------------------------------------------------

constexpr int many = 2000;

struct Restored : ParameterTree, testing::WithParamInterface<const char *> {
  const std::string backup = dir.file("backup");

  // After this, the backup holds "old" for all parameters, and the tree's log holds "new".
  void prepare() const {
    for (int i = 0; i < many; ++i)
      ASSERT_EQ(set("root.G" + std::to_string(i / 50) + ".P" + std::to_string(i), "old"), 0);
    ASSERT_EQ(sync_tree(), 0);
    copy(file, backup, true);
  }
  static void overwrite() {
    for (int i = 0; i < many; i += 7) {
      ASSERT_EQ(set("root.G" + std::to_string(i / 50) + ".P" + std::to_string(i), "new"), 0);
    }
    ASSERT_EQ(set("root.Later.P", "new"), 0);
  }
  void put_back() const {
    const std::string how = GetParam();
    if (how == "mv") {
      fs::rename(backup, file);
    } else {
      copy(backup, file, how == "cp_p");
    }
  }
  static int count_old() {
    int found = 0;
    for (int i = 0; i < many; ++i) {
      found += static_cast<int>(get("root.G" + std::to_string(i / 50) + ".P" + std::to_string(i)) == value("old"));
    }
    return found;
  }
};
INSTANTIATE_TEST_SUITE_P(By, Restored, testing::Values("mv", "cp", "cp_p"),
                         [](const auto &info) { return std::string(info.param); });

TEST_P(Restored, BackupIsTheTreeForProcessesThatStartLater) {
  EXPECT_EQ(wait_for(start([this] { prepare(); })), 0);
  EXPECT_EQ(wait_for(start([] { overwrite(); })), 0);
  put_back();
  EXPECT_EQ(wait_for(start([this] {
              const auto begun = real_time_ms();
              EXPECT_EQ(get("root.Later.P").error, PARAM_SERVICE_NO_PARAMETER);
              EXPECT_EQ(count_old(), many);
              EXPECT_LT(real_time_ms() - begun, 2000);
              EXPECT_EQ(log.containing("was replaced by another file"), 1U);
              EXPECT_EQ(set("root.Later.P", "v"), 0);
              EXPECT_EQ(sync_tree(), 0);
            })),
            0);
  EXPECT_EQ(wait_for(start([] { EXPECT_EQ(count_old(), many); })), 0);
}

TEST_P(Restored, BackupIsFollowedByProcessesThatHaveTheTreeOpen) {
  prepare();
  overwrite();
  int ready[2], go[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(go), 0);
  const pid_t child = start([&] {
    char byte = 0;
    ASSERT_EQ(get("root.Later.P"), value("new"));
    ASSERT_EQ(set("root.G0.P0", "newer"), 0);
    ASSERT_EQ(::write(ready[1], "r", 1), 1);
    ASSERT_EQ(::read(go[0], &byte, 1), 1);
    EXPECT_TRUE(run_until([] { return get("root.G0.P0") == value("old"); }));
    EXPECT_EQ(count_old(), many);
    EXPECT_EQ(get("root.Later.P").error, PARAM_SERVICE_NO_PARAMETER);
    EXPECT_EQ(set("root.Child.P", "v"), 0);
  });
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(get("root.G0.P0"), value("newer"));
  put_back();
  const auto begun = real_time_ms();
  ASSERT_EQ(::write(go[1], "g", 1), 1);
  while (get("root.G0.P0") != value("old") && real_time_ms() - begun < 5000) g_usleep(5000);
  EXPECT_LT(real_time_ms() - begun, 2000);
  EXPECT_EQ(count_old(), many);
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(get("root.Child.P"), value("v"));
  EXPECT_EQ(set("root.G0.P0", "written to the restored tree"), 0);
  EXPECT_EQ(sync_tree(), 0);
  connect_anew();
  EXPECT_EQ(get("root.G0.P0"), value("written to the restored tree"));
  EXPECT_EQ(get("root.Later.P").error, PARAM_SERVICE_NO_PARAMETER);
}

TEST_P(Restored, FirstWriteAfterwardsGoesToTheBackup) {
  prepare();
  overwrite();
  put_back();
  EXPECT_EQ(set("root.First.P", "v"), 0);
  EXPECT_EQ(get("root.First.P"), value("v"));
  EXPECT_EQ(count_old(), many);
  EXPECT_EQ(get("root.Later.P").error, PARAM_SERVICE_NO_PARAMETER);
}

struct Following : ParameterTree {};

TEST_F(Following, CopyOfTheDatabaseAloneHoldsEverythingAfterASync) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(set("root.B", std::string(50'000, 'b')), 0);
  EXPECT_EQ(sync_tree(), 0);
  const TempDir elsewhere;
  copy(file, elsewhere.file("params.db"));
  EXPECT_EQ(wait_for(start([&] {
              setenv("PTZ_PLATFORM_STATE_DIR", elsewhere.path().c_str(), 1);
              EXPECT_EQ(get("root.A"), value("1"));
              EXPECT_EQ(get("root.B"), value(std::string(50'000, 'b')));
            })),
            0);
}

// Nothing but the time of the first write after the sync tells the copy from the database that it was made of.
TEST_F(Following, CopyWithItsTimeThatIsPutBackIsFollowedAfterASingleWrite) {
  EXPECT_EQ(set("root.A", "old"), 0);
  EXPECT_EQ(sync_tree(), 0);
  copy(file, dir.file("backup"), true);
  EXPECT_EQ(set("root.A", "new"), 0);
  copy(dir.file("backup"), file, true);
  EXPECT_TRUE(run_until([] { return get("root.A") == value("old"); }));
  EXPECT_EQ(set("root.B", "v"), 0);
  connect_anew();
  EXPECT_EQ(get("root.A"), value("old"));
}

TEST_F(Following, JournalModeOfARestoredFileIsSetAgain) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(sync_tree(), 0);
  const std::string restored = dir.file("restored");
  copy(file, restored);
  sqlite3 *database = nullptr;
  ASSERT_EQ(sqlite3_open(restored.c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "PRAGMA journal_mode = DELETE", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  fs::rename(restored, file);
  EXPECT_EQ(set("root.A", "2"), 0);
  EXPECT_EQ(read(file)[18], 2) << "write-ahead log";
  EXPECT_GT(fs::file_size(file + "-wal"), 0U);
}

TEST_F(Following, CheckpointOfAnotherProgramIsNoReplacement) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(sync_tree(), 0);
  EXPECT_EQ(set("root.A", "2"), 0);
  EXPECT_EQ(wait_for(start([this] {
              sqlite3 *database = nullptr;
              ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
              ASSERT_EQ(sqlite3_exec(database,
                                     "PRAGMA wal_checkpoint; UPDATE parameters SET value = '3';"
                                     "PRAGMA wal_checkpoint; UPDATE parameters SET value = '4'",
                                     nullptr, nullptr, nullptr),
                        SQLITE_OK);
              _exit(0);  // without the last close, which would copy the log
            })),
            0);
  connect_anew();
  EXPECT_EQ(get("root.A"), value("4"));
  EXPECT_EQ(set("root.B", "5"), 0);
  EXPECT_EQ(get("root.A"), value("4"));
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
}

TEST_F(Following, WholeFolderThatIsCopiedKeepsItsLog) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(sync_tree(), 0);
  EXPECT_EQ(set("root.A", "in the log"), 0);
  const TempDir elsewhere;
  for (const char *suffix : {"", "-wal", "-lock"}) copy(file + suffix, elsewhere.file("params.db") + suffix);
  EXPECT_EQ(wait_for(start([&] {
              setenv("PTZ_PLATFORM_STATE_DIR", elsewhere.path().c_str(), 1);
              EXPECT_EQ(get("root.A"), value("in the log"));
            })),
            0);
}

TEST_F(Following, WholeFolderThatIsCopiedBackKeepsTheLogThatItHad) {
  const TempDir elsewhere;
  const auto in_child = [](const std::function<void()> &function) { ASSERT_EQ(wait_for(start(function)), 0); };
  in_child([] { EXPECT_EQ(set("root.A", "1") + sync_tree() + set("root.A", "in the log"), 0); });
  for (const char *suffix : {"", "-wal", "-lock"}) copy(file + suffix, elsewhere.file("params.db") + suffix);
  in_child([] { EXPECT_EQ(set("root.A", "later") + sync_tree() + set("root.B", "later"), 0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(60));  // a copy has another time than what it is copied from
  for (const char *suffix : {"", "-wal", "-lock"}) copy(elsewhere.file("params.db") + suffix, file + suffix);
  in_child([] { EXPECT_EQ(get("root.A"), value("in the log")); });
}

TEST_F(Following, LeftoverTemporaryFilesAreRemoved) {
  for (const char *name : {"params.db.new-AbCdEf", "params.db.new-AbCdEf-wal", "params.db-lock.new-AbCdEf"}) {
    write(dir.file(name), "x");
    fs::last_write_time(dir.file(name), fs::last_write_time(dir.file(name)) - std::chrono::hours(1));
  }
  write(dir.file("params.db.newest"), "kept");
  write(dir.file("params.db.backup"), "kept");
  EXPECT_EQ(set("root.A", "v"), 0);
  EXPECT_FALSE(fs::exists(dir.file("params.db.new-AbCdEf")));
  EXPECT_FALSE(fs::exists(dir.file("params.db.new-AbCdEf-wal")));
  EXPECT_FALSE(fs::exists(dir.file("params.db-lock.new-AbCdEf")));
  EXPECT_TRUE(fs::exists(dir.file("params.db.newest")));
  EXPECT_TRUE(fs::exists(dir.file("params.db.backup")));
}

// --- backup and restore -----------------------------------------------------------------------------------------

using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;

struct Backup : ParameterTree {
  const std::string backup = dir.file("copy");
  static Error failure(gboolean (*operation)(const gchar *, GError **), const std::string &path) {
    GError *error = nullptr;
    EXPECT_FALSE(operation(path.c_str(), &error));
    EXPECT_NE(error, nullptr);
    return Error(error);
  }
};

TEST_F(Backup, IsOneFileThatRestoresTheTree) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(set("root.G.B", "2"), 0);
  ASSERT_TRUE(param_service_backup(backup.c_str(), nullptr));
  EXPECT_FALSE(fs::exists(backup + "-wal"));
  EXPECT_EQ(set("root.A", "changed"), 0);
  EXPECT_EQ(remove_group("root.G"), 0);
  EXPECT_EQ(set("root.H.C", "3"), 0);
  const auto names = std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator());
  const pid_t child = start([] {
    EXPECT_EQ(get("root.A"), value("changed"));
    EXPECT_TRUE(run_until([] { return get("root.A") == value("1"); }));
    EXPECT_EQ(get("root.G.B"), value("2"));
    EXPECT_EQ(get("root.H.C").error, PARAM_SERVICE_NO_PARAMETER);
  });
  g_usleep(20'000);
  ASSERT_TRUE(param_service_restore(backup.c_str(), nullptr));
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_EQ(get("root.G.B"), value("2"));
  EXPECT_EQ(groups_of("root"), Names{"root.G"});
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), names);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Backup, FailureLeavesAnExistingFileAndTheTreeAsTheyAre) {
  EXPECT_EQ(set("root.A", "1"), 0);
  write(dir.file("garbage"), std::string(5000, 'g'));
  write(dir.file("empty"), "");
  EXPECT_TRUE(
      g_error_matches(failure(param_service_restore, dir.file("missing")).get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
  EXPECT_TRUE(
      g_error_matches(failure(param_service_restore, dir.file("garbage")).get(), G_IO_ERROR, G_IO_ERROR_INVALID_DATA));
  EXPECT_TRUE(
      g_error_matches(failure(param_service_restore, dir.file("empty")).get(), G_IO_ERROR, G_IO_ERROR_INVALID_DATA));
  EXPECT_TRUE(
      g_error_matches(failure(param_service_backup, dir.file("none/file")).get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_EQ(read(dir.file("garbage")), std::string(5000, 'g'));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Backup, PlainCopyOfTheDatabaseIsRestoredToo) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(sync_tree(), 0);
  copy(file, backup);
  EXPECT_EQ(set("root.A", "2"), 0);
  ASSERT_TRUE(param_service_restore(backup.c_str(), nullptr));
  EXPECT_EQ(get("root.A"), value("1"));
}

TEST_F(Backup, OfTheTreeOverItselfIsAnInvalidArgument) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_TRUE(g_error_matches(failure(param_service_backup, file).get(), G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT));
  EXPECT_TRUE(g_error_matches(failure(param_service_restore, file).get(), G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT));
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Backup, OverAnotherFileOfTheTreeIsAnInvalidArgument) {
  EXPECT_EQ(set("root.A", "1"), 0);
  fs::create_hard_link(file, dir.file("hard link"));
  fs::create_symlink(dir.path(), dir.file("folder"));
  for (const auto &path : {file + "-wal", file + "-shm", file + "-lock", file + "-journal", dir.file("hard link"),
                           dir.file("folder/params.db-wal")}) {
    const auto error = failure(param_service_backup, path);
    EXPECT_TRUE(g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT)) << path;
  }
  EXPECT_EQ(get("root.A"), value("1"));
}

TEST_F(Backup, IsAFileInRollbackModeThatIsOpenedWithoutALog) {
  EXPECT_EQ(set("root.A", "1"), 0);
  ASSERT_TRUE(param_service_backup(backup.c_str(), nullptr));
  EXPECT_EQ(read(backup)[18], 1);
  EXPECT_EQ(read(backup)[19], 1);
  sqlite3 *database = nullptr;
  ASSERT_EQ(sqlite3_open(backup.c_str(), &database), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(database, "PRAGMA integrity_check; SELECT * FROM groups", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(database);
  EXPECT_FALSE(fs::exists(backup + "-wal"));
}

TEST_F(Backup, RestoreOfANewerReleaseFailsAndKeepsTheTree) {
  EXPECT_EQ(set("root.A", "1"), 0);
  ASSERT_TRUE(param_service_backup(backup.c_str(), nullptr));
  sqlite3 *database = nullptr;
  ASSERT_EQ(sqlite3_open(backup.c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "PRAGMA user_version = 9", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  EXPECT_EQ(set("root.A", "2"), 0);
  const auto error = failure(param_service_restore, backup);
  EXPECT_NE(std::string(error->message).find("made by a newer release"), std::string::npos) << error->message;
  EXPECT_EQ(get("root.A"), value("2"));
}

// --- versions ---------------------------------------------------------------------------------------------------

TEST_F(Following, TreeOfANewerReleaseIsReportedAndLeftAlone) {
  EXPECT_EQ(set("root.A", "1"), 0);
  EXPECT_EQ(sync_tree(), 0);
  const std::string newer = dir.file("newer");
  copy(file, newer);
  sqlite3 *database = nullptr;
  ASSERT_EQ(sqlite3_open(newer.c_str(), &database), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(database, "PRAGMA user_version = 2", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  fs::rename(newer, file);
  connect_anew();
  const auto bytes = read(file);
  EXPECT_EQ(get("root.A").error, PARAM_SERVICE_STORAGE);
  EXPECT_EQ(set("root.A", "2"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.containing("made by a newer release"), 2U) << testing::PrintToString(log.lines());
  EXPECT_EQ(read(file), bytes);
}

TEST_F(Following, TreeOfTheFirstReleaseIsReadWithItsLog) {
  for (const char *suffix : {"", "-wal"}) copy(VERSION1_FILES "/params.db" + std::string(suffix), file + suffix);
  EXPECT_EQ(get("root.PTZ.InTheLog"), value("yes"));
  EXPECT_EQ(get("root.PTZ.Numbers.N3"), value("three"));
  EXPECT_EQ(get("root.PTZ.Numbers.N39"), value("39"));
  EXPECT_EQ(get("root.PTZ.Preset.P7.Limit.Max"), value("90"));
  EXPECT_EQ(get("root.PTZ.Empty"), value(""));
  EXPECT_EQ(get("root.PTZ.Bytes").text.value_or("").size(), 255U);
  EXPECT_EQ(groups_of("root.PTZ.Preset"), (Names{"root.PTZ.Preset.P0", "root.PTZ.Preset.P7"}));
  EXPECT_EQ(set("root.PTZ.InTheLog", "written"), 0);
  EXPECT_EQ(sync_tree(), 0);
  connect_anew();
  EXPECT_EQ(get("root.PTZ.InTheLog"), value("written"));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Following, DamagedPageIsFoundWhenItIsReadAndTheTreeStartsAnew) {
  for (int i = 0; i < 500; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", std::string(100, 'v')), 0);
  ASSERT_EQ(sync_tree(), 0);
  connect_anew();
  auto bytes = read(file);
  for (std::size_t i = bytes.size() / 2 / 4096 * 4096; i < bytes.size() / 2 / 4096 * 4096 + 8192; ++i)
    bytes[i] = '\x55';
  write(file, bytes);
  fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(1));
  for (int i = 0; i < 500; ++i) {
    const auto answer = get("root.G" + std::to_string(i) + ".P");
    EXPECT_TRUE(answer.error == 0 || answer.error == PARAM_SERVICE_NO_PARAMETER) << answer.error;
  }
  EXPECT_EQ(log.containing("a new tree is started"), 1U) << testing::PrintToString(log.lines());
  EXPECT_TRUE(fs::exists(file + ".damaged-1"));
  EXPECT_EQ(set("root.A", "v"), 0);
}

TEST_F(Following, ValueThatIsTooLongIsABadArgumentAndLogged) {
  EXPECT_EQ(set("root.A", std::string(PARAM_SERVICE_VALUE_MAX + 1, 'v')), PARAM_SERVICE_BAD_ARGUMENT);
  EXPECT_EQ(log.containing("Parameter root.A: not written to " + file + ": the value is longer than"), 1U);
  EXPECT_EQ(get("root.A").error, PARAM_SERVICE_NO_PARAMETER);
  EXPECT_EQ(groups_of("root"), std::nullopt);
}

// --- small flash ------------------------------------------------------------------------------------------------

constexpr int no_mount = 77;

// Runs in a child, in a mount namespace with a small file system of its own.
void write_to_small_flash(const ParameterTree &tree) {
  if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", tree.dir.path().c_str(), "tmpfs", 0, "size=4m") != 0) {
    _exit(no_mount);
  }
  std::uintmax_t largest = 0;
  for (int n = 0; n < 20'000; ++n) {
    const auto text = std::to_string(n) + std::string(100, 'v');
    ASSERT_EQ(set("root.G" + std::to_string(n % 10) + ".P" + std::to_string(n % 200), text), 0) << n;
    if (n % 10 == 0) largest = std::max(largest, fs::file_size(tree.file + "-wal"));
  }
  EXPECT_LT(largest, 1U << 20U);
  EXPECT_EQ(get("root.G9.P199"), value("19999" + std::string(100, 'v')));
  EXPECT_TRUE(tree.log.lines().empty()) << testing::PrintToString(tree.log.lines());
}

TEST_F(Following, TwentyThousandWritesFitIntoFourMebibytesWithALogBelowOne) {
  const int status = wait_for(start([this] { write_to_small_flash(*this); }));
  if (WIFEXITED(status) && WEXITSTATUS(status) == no_mount) GTEST_SKIP() << "no mount namespace of our own";
  EXPECT_EQ(status, 0);
}

TEST_F(Following, LogIsEmptiedWhenNothingIsWrittenForAWhile) {
  EXPECT_EQ(set("root.A", "v"), 0);
  EXPECT_GT(fs::file_size(file + "-wal"), 0U);
  advance_clock(10'000);
  EXPECT_TRUE(run_until([this] { return fs::file_size(file + "-wal") == 0; }));
  EXPECT_EQ(get("root.A"), value("v"));
}

}  // namespace
