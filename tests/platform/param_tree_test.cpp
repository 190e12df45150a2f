// The tree's connection with a schema of the test, and with system calls that fail or are recorded.
#include "param_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clock.h"
#include "interpose.h"
#include "parameter_tree.h"
#include "platform/param_service_backup.h"

namespace {

struct FlushCall {
  bool with_times;  // fsync(), not fdatasync()
  ino_t inode;
};
std::vector<FlushCall> flush_calls;
std::function<void()> before_next_flush;
std::atomic<bool> in_test_of_flushes = false;

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

// --- flushes ------------------------------------------------------------------------------------------------------

// A child process that has run a function and then waits for its end.
class HeldProcess {
  int end_[2] = {};
  pid_t pid_ = 0;

 public:
  explicit HeldProcess(const std::function<void()> &function) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    EXPECT_EQ(pipe(end_), 0);
    pid_ = start([&] {
      close(end_[1]);
      function();
      char byte = 'r';
      EXPECT_EQ(::write(ready[1], &byte, 1), 1);
      _exit(static_cast<int>(::read(end_[0], &byte, 1)));
    });
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    close(ready[0]);
  }
  HeldProcess(const HeldProcess &) = delete;
  ~HeldProcess() {
    close(end_[0]);
    close(end_[1]);
    EXPECT_EQ(wait_for(pid_), 0);
  }
};

struct Flushed : ParameterTree {
  Flushed() { tree_times.busy_limit_us = 200'000; }
  ~Flushed() override {
    tree_times = {};
    before_next_flush = nullptr;
    in_test_of_flushes = false;
  }
  [[nodiscard]] ino_t inode_of(const std::string &suffix) const {
    struct stat status = {};
    EXPECT_EQ(stat((file + suffix).c_str(), &status), 0);
    return status.st_ino;
  }
  void begin_read() const {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "BEGIN; SELECT count(*) FROM parameters", nullptr, nullptr, nullptr), SQLITE_OK);
  }
  void expect_in_database_alone(const std::string &path, const std::string &text) const {
    const TempDir elsewhere;
    fs::copy_file(file, elsewhere.file("params.db"));
    EXPECT_EQ(wait_for(start([&] {
                setenv("PTZ_PLATFORM_STATE_DIR", elsewhere.path().c_str(), 1);
                EXPECT_EQ(get(path), value(text));
              })),
              0);
  }
};

TEST_F(Flushed, SyncBesideAReaderThatStaysFailsAndNamesTheReader) {
  ASSERT_EQ(set("root.A", "1"), 0);
  {
    const HeldProcess reader([this] { begin_read(); });
    ASSERT_EQ(set("root.B", "2"), 0);
    EXPECT_EQ(sync_tree(), PARAM_SERVICE_STORAGE);
    EXPECT_EQ(log.containing("a reader of another process keeps the log"), 1U) << testing::PrintToString(log.lines());
    EXPECT_EQ(get("root.B"), value("2"));
  }
  EXPECT_EQ(sync_tree(), 0);
  expect_in_database_alone("root.B", "2");
}

TEST_F(Flushed, SyncBesideAReaderThatEndsSucceedsAndTheDatabaseAloneHoldsEverything) {
  tree_times.busy_limit_us = 10'000'000;
  ASSERT_EQ(set("root.A", "1"), 0);
  const pid_t reader = start([this] {
    begin_read();
    raise(SIGSTOP);
    g_usleep(100'000);
    _exit(0);
  });
  int status = 0;
  ASSERT_EQ(waitpid(reader, &status, WUNTRACED), reader);
  ASSERT_EQ(set("root.B", "2"), 0);
  ASSERT_EQ(kill(reader, SIGCONT), 0);
  EXPECT_EQ(sync_tree(), 0);
  expect_in_database_alone("root.B", "2");
  EXPECT_EQ(wait_for(reader), 0);
}

// After a power cut, a record that names a time which the file does not have means another file. The record has the
// time that was durable before the last move.
TEST_F(Flushed, RecordWithTheDurableTimeIsFlushedFirstAndTheCopyWithItsTimeAtTheEnd) {
  ASSERT_EQ(set("root.A", "1"), 0);
  ASSERT_EQ(sync_tree(), 0);
  struct stat status = {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  const auto durable_ns = stamp_of(status).modified_ns;
  ASSERT_EQ(set("root.B", "2"), 0);
  flush_calls.clear();
  in_test_of_flushes = true;
  std::int64_t previous_ns = 0;
  before_next_flush = [&] {
    std::memcpy(&previous_ns, read(file + "-lock").data() + offsetof(Record, previous_ns), sizeof previous_ns);
  };
  ASSERT_EQ(sync_tree(), 0);
  in_test_of_flushes = false;
  ASSERT_GE(flush_calls.size(), 4U);
  EXPECT_EQ(flush_calls.front().inode, inode_of("-lock"));
  EXPECT_EQ(previous_ns, durable_ns);
  const auto &of_copy = flush_calls[flush_calls.size() - 2];
  EXPECT_TRUE(of_copy.with_times);
  EXPECT_EQ(of_copy.inode, inode_of(""));
}

// The next log overwrites the former one in place. If a power cut could bring the former one back, its first frames
// would be replayed over the newer pages of the database.
TEST_F(Flushed, EmptyLogIsDurableBeforeTheRecordSaysThatTheFlushIsDone) {
  ASSERT_EQ(set("root.A", "1"), 0);
  ASSERT_EQ(sync_tree(), 0);
  ASSERT_EQ(set("root.B", "2"), 0);
  // The flushes of the lock file, the log, the database and the empty log.
  std::uintmax_t log_size = 1;
  std::uint32_t flags = 0;
  const std::function<void()> last = [&] {
    log_size = fs::file_size(file + "-wal");
    std::memcpy(&flags, read(file + "-lock").data() + offsetof(Record, flags), sizeof flags);
  };
  before_next_flush = [&] { before_next_flush = [&] { before_next_flush = [&] { before_next_flush = last; }; }; };
  ASSERT_EQ(sync_tree(), 0);
  EXPECT_EQ(log_size, 0U);
  EXPECT_NE(flags & Record::flushing, 0U);
  std::memcpy(&flags, read(file + "-lock").data() + offsetof(Record, flags), sizeof flags);
  EXPECT_EQ(flags, Record::flushed);
}

TEST_F(Flushed, NewTreeIsDurableBeforeItHasItsName) {
  bool had_name = true;
  std::uintmax_t size = 0;
  before_next_flush = [&] {
    had_name = fs::exists(file);
    for (const auto &entry : fs::directory_iterator(dir.path())) {
      const auto name = entry.path().filename().string();
      if (name.starts_with("params.db.new-") && name.size() == 20) size = entry.file_size();
    }
  };
  ASSERT_EQ(set("root.A", "1"), 0);
  EXPECT_FALSE(had_name);
  EXPECT_GT(size, 0U);
}

TEST_F(Flushed, FileThatIsPutInPlaceDuringAFlushGetsNothingOfTheLog) {
  tree_times.busy_limit_us = 10'000'000;
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "old"), 0);
  ASSERT_EQ(sync_tree(), 0);
  fs::copy_file(file, dir.file("backup"));
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "new"), 0);
  before_next_flush = [this] { write(file, read(dir.file("backup"))); };
  static_cast<void>(sync_tree());
  for (int i = 0; i < 60; ++i) ASSERT_EQ(get("root.G" + std::to_string(i) + ".P"), value("old")) << i;
  EXPECT_EQ(log.containing("was replaced by another file"), 1U) << testing::PrintToString(log.lines());
  EXPECT_FALSE(fs::exists(file + ".damaged-1"));
}

TEST_F(Flushed, FailureOfAFlushThatNothingWaitsForIsLogged) {
  ASSERT_EQ(set("root.G0.P", "v"), 0);
  before_next_flush = [] { errno = EIO; };
  for (int i = 0; i < 400; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", std::string(500, 'v')), 0);
  EXPECT_EQ(log.containing("cannot be flushed: Input/output error"), 1U) << testing::PrintToString(log.lines());
}

// --- restore ------------------------------------------------------------------------------------------------------

struct Restore : Flushed {
  const std::string backup = dir.file("backup");
  void SetUp() override {
    ASSERT_EQ(set("root.A", "old"), 0);
    ASSERT_TRUE(param_service_backup(backup.c_str(), nullptr));
    ASSERT_EQ(set("root.A", "new"), 0);
  }
  [[nodiscard]] std::string failure() const {
    GError *raw = nullptr;
    EXPECT_FALSE(param_service_restore(backup.c_str(), &raw));
    const std::unique_ptr<GError, FreeWith<g_error_free>> error(raw);
    return error != nullptr ? error->message : "";
  }
};

TEST_F(Restore, WhoseFileCannotBeFlushedLeavesTheTree) {
  before_next_flush = [] { errno = EIO; };
  EXPECT_NE(failure().find("cannot be written: Input/output error"), std::string::npos);
  EXPECT_EQ(get("root.A"), value("new"));
  connect_anew();
  EXPECT_EQ(get("root.A"), value("new"));
}

TEST_F(Restore, WhoseNameCannotBeFlushedReplacesTheTreeAndSaysSo) {
  before_next_flush = [] { before_next_flush = [] { errno = EIO; }; };
  EXPECT_NE(failure().find("is restored, but may not survive a power failure"), std::string::npos);
  EXPECT_EQ(get("root.A"), value("old"));
}

TEST_F(Restore, ThatIsKilledAfterTheRenameIsFollowedByTheNextProcess) {
  tree_times = {};
  EXPECT_EQ(wait_for(start([this] {
              before_next_flush = [] { before_next_flush = [] { _exit(0); }; };
              param_service_restore(backup.c_str(), nullptr);
            })),
            0);
  EXPECT_EQ(get("root.A"), value("old"));
  EXPECT_EQ(set("root.A", "newer"), 0);
  EXPECT_EQ(get("root.A"), value("newer"));
}

// A power cut must not bring the former log back beside a record that accepts the new file.
TEST_F(Restore, FlushesTheRemovalOfTheFormerLogBeforeTheRecordAcceptsTheFile) {
  bool had_log = true, is_accepted = true;
  const std::function<void()> last = [&] {
    had_log = fs::exists(file + "-wal");
    ino_t recorded = 0;
    std::memcpy(&recorded, read(file + "-lock").data() + offsetof(Record, database), sizeof recorded);
    is_accepted = recorded == inode_of("");
  };
  // The flushes of the new file, of its name, and of the removal.
  before_next_flush = [&] { before_next_flush = [&] { before_next_flush = last; }; };
  ASSERT_TRUE(param_service_restore(backup.c_str(), nullptr));
  EXPECT_FALSE(had_log);
  EXPECT_FALSE(is_accepted);
}

TEST_F(Restore, ThatIsKilledBeforeTheRenameLeavesTheTree) {
  EXPECT_EQ(wait_for(start([this] {
              before_next_flush = [] { _exit(0); };
              param_service_restore(backup.c_str(), nullptr);
            })),
            0);
  EXPECT_EQ(get("root.A"), value("new"));
}

// --- files in the way ---------------------------------------------------------------------------------------------

using InTheWay = Flushed;

TEST_F(InTheWay, LogOfAReplacedDatabaseThatCannotBeSetAsideIsReportedAndNotReplayed) {
  ASSERT_EQ(set("root.A", "old"), 0);
  ASSERT_EQ(sync_tree(), 0);
  fs::copy_file(file, dir.file("backup"));
  ASSERT_EQ(set("root.A", "new"), 0);
  fs::create_directory(file + "-wal.old");
  fs::last_write_time(dir.file("backup"), fs::last_write_time(file) - std::chrono::hours(1));
  fs::rename(dir.file("backup"), file);
  connect_anew();
  EXPECT_EQ(get("root.A").error, PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.containing("cannot be set aside"), 1U) << testing::PrintToString(log.lines());
  EXPECT_EQ(log.containing("is kept in"), 0U);
  fs::remove(file + "-wal.old");
  EXPECT_EQ(get("root.A"), value("old"));
  EXPECT_TRUE(fs::exists(file + "-wal.old"));
}

TEST_F(InTheWay, JournalBesideAReplacedDatabaseIsKeptAndNotRolledBack) {
  ASSERT_EQ(set("root.A", "old"), 0);
  ASSERT_EQ(sync_tree(), 0);
  fs::copy_file(file, dir.file("backup"));
  write(file + "-journal", "of another database");
  fs::last_write_time(dir.file("backup"), fs::last_write_time(file) - std::chrono::hours(1));
  fs::rename(dir.file("backup"), file);
  connect_anew();
  EXPECT_EQ(get("root.A"), value("old"));
  EXPECT_FALSE(fs::exists(file + "-journal"));
  EXPECT_EQ(read(file + "-journal.old"), "of another database");
}

TEST_F(InTheWay, LockFileThatWasReplacedIsNotUsedByAWriterThatHasTheOldOneOpen) {
  int go[2], ready[2];
  ASSERT_EQ(pipe(go), 0);
  ASSERT_EQ(pipe(ready), 0);
  // A fork closes the connection, so the child is there before the parent connects.
  const pid_t holder = start([&] {
    char byte = 0;
    ASSERT_EQ(::read(go[0], &byte, 1), 1);
    fs::remove(file + "-lock");
    write(file + "-lock", "");
    const int lock = open((file + "-lock").c_str(), O_RDWR);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(lock, F_SETLK, &whole), 0);
    ASSERT_EQ(::write(ready[1], &byte, 1), 1);
    ASSERT_EQ(::read(go[0], &byte, 1), 1);
  });
  char byte = 'g';
  ASSERT_EQ(set("root.A", "1"), 0);
  ASSERT_EQ(::write(go[1], &byte, 1), 1);
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(set("root.A", "2"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(get("root.A"), value("1"));
  ASSERT_EQ(::write(go[1], &byte, 1), 1);
  EXPECT_EQ(wait_for(holder), 0);
  EXPECT_EQ(set("root.A", "3"), 0);
  connect_anew();
  EXPECT_EQ(get("root.A"), value("3"));
}

TEST_F(InTheWay, SymbolicLinkKeepsTheAccessOfItsTarget) {
  ASSERT_EQ(set("root.A", "1"), 0);
  const TempDir elsewhere;
  const std::string target = elsewhere.file("target");
  write(target, "secret");
  for (const char *suffix : {"-wal", "-shm", "-lock", ""}) {
    ASSERT_EQ(chmod(target.c_str(), 0640), 0);
    connect_anew();
    fs::remove(file + suffix);
    fs::create_symlink(target, file + suffix);
    static_cast<void>(get("root.A"));
    struct stat status = {};
    ASSERT_EQ(stat(target.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U) << suffix;
    fs::remove(file + suffix);
  }
  EXPECT_EQ(read(target), "secret");
}

TEST_F(InTheWay, SymbolicLinkInPlaceOfTheDatabaseIsReported) {
  const TempDir elsewhere;
  fs::create_symlink(elsewhere.file("params.db"), file);
  EXPECT_EQ(set("root.A", "1"), PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.containing("is a symbolic link"), 1U) << testing::PrintToString(log.lines());
}

// As a program finds the file that overwrites it: empty at first, with its old time.
TEST_F(InTheWay, DatabaseThatIsEmptyForAMomentIsNotDamaged) {
  tree_times.busy_limit_us = 10 * G_USEC_PER_SEC;
  ASSERT_EQ(set("root.A", "1") + sync_tree(), 0);
  connect_anew();
  const std::string content = read(file);
  ASSERT_EQ(truncate(file.c_str(), 0), 0);
  fs::last_write_time(file, fs::last_write_time(file) - std::chrono::hours(1));
  std::thread copy([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    write(file, content);
  });
  EXPECT_EQ(set("root.B", "2"), 0);
  copy.join();
  EXPECT_EQ(get("root.A"), (Answer{"1", 0}));
  EXPECT_FALSE(fs::exists(file + ".damaged-1"));
}

TEST_F(InTheWay, FifoInPlaceOfTheDatabaseIsReportedAndDoesNotBlock) {
  ASSERT_EQ(mkfifo(file.c_str(), 0440), 0);
  EXPECT_EQ(wait_for(start([] {
              alarm(5);
              EXPECT_EQ(get("root.A").error, PARAM_SERVICE_STORAGE);
              EXPECT_EQ(set("root.A", "2"), PARAM_SERVICE_STORAGE);
            })),
            0);
}

// A process that was stopped in a change of the index of the log. SQLite itself would sleep ten seconds in each read.
TEST_F(InTheWay, IndexThatIsBeingChangedByAStoppedProcessDoesNotHoldTheServicesLock) {
  ASSERT_EQ(set("root.A", "1"), 0);
  const HeldProcess stopped([this] {
    const int index = open((file + "-shm").c_str(), O_RDWR);
    ASSERT_EQ(pwrite(index, "torn", 4, 8), 4);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = 120;  // of SQLite's writers
    lock.l_len = 1;
    ASSERT_EQ(fcntl(index, F_SETLK, &lock), 0);
  });
  const auto begun = real_time_ms();
  EXPECT_EQ(get("root.A").error, PARAM_SERVICE_STORAGE);
  EXPECT_LT(real_time_ms() - begun, 3000);
}

TEST_F(InTheWay, ThreeDamagedDatabasesAreKeptAndTheLastIsOverwritten) {
  tree_times.damage_settled_us = tree_times.settled_us = 0;
  for (const std::string suffix : {".damaged-1", ".damaged-2", ".damaged-3", ".damaged-3"}) {
    connect_anew();
    write(file, suffix + std::string(1000, 'x'));
    EXPECT_EQ(set("root.A", "v"), 0);
    EXPECT_EQ(read(file + suffix).substr(0, suffix.size()), suffix);
    fs::remove(file);
  }
  EXPECT_FALSE(fs::exists(file + ".damaged-4"));
}

// A connected process keeps SQLite's lock of the file, with which another one cannot change the journal mode.
TEST_F(InTheWay, BackupThatIsCopiedOverTheTreeIsReadBesideAnIdleProcess) {
  tree_times = {};
  ASSERT_EQ(set("root.A", "old"), 0);
  ASSERT_TRUE(param_service_backup(dir.file("backup").c_str(), nullptr));
  ASSERT_EQ(set("root.A", "new"), 0);
  const HeldProcess idle([] { EXPECT_EQ(get("root.A"), value("new")); });
  write(file, read(dir.file("backup")));
  tree_times.busy_limit_us = 2'000'000;
  EXPECT_EQ(get("root.A"), value("old"));
  EXPECT_EQ(set("root.B", "v"), 0);
}

TEST_F(InTheWay, LockFileOfANewerReleaseIsReportedAndKept) {
  ASSERT_EQ(set("root.A", "1"), 0);
  connect_anew();
  std::string record = read(file + "-lock");
  record[4] = 9;
  write(file + "-lock", record);
  EXPECT_EQ(get("root.A").error, PARAM_SERVICE_STORAGE);
  EXPECT_EQ(log.containing("made by a newer release"), 1U) << testing::PrintToString(log.lines());
  EXPECT_EQ(read(file + "-lock"), record);
}

TEST_F(Flushed, CopyPutInPlaceAfterAFlushWasKilledBeforeItCopiedIsTheTree) {
  tree_times = {};
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "old"), 0);
  ASSERT_EQ(sync_tree(), 0);
  fs::copy_file(file, dir.file("backup"));
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "new"), 0);
  EXPECT_EQ(wait_for(start([] {
              before_next_flush = [] { _exit(0); };
              static_cast<void>(sync_tree());
            })),
            0);
  write(file, read(dir.file("backup")));
  for (int i = 0; i < 60; ++i) ASSERT_EQ(get("root.G" + std::to_string(i) + ".P"), value("old")) << i;
  EXPECT_FALSE(fs::exists(file + ".damaged-1"));
}

// The log's frames have checksums, which SQLite does not read while other processes have the index of the log.
TEST_F(InTheWay, DamagedLogIsSetAsideAndTheDatabaseKept) {
  tree_times.busy_limit_us = 10'000'000;
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "synced"), 0);
  ASSERT_EQ(sync_tree(), 0);
  for (int i = 0; i < 60; ++i) ASSERT_EQ(set("root.G" + std::to_string(i) + ".P", "in the log"), 0);
  tree_times.damage_settled_us = 0;
  const HeldProcess other([] { EXPECT_EQ(get("root.G0.P"), value("in the log")); });
  auto bytes = read(file + "-wal");
  for (std::size_t i = 56; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7919);
  {
    std::fstream stream(file + "-wal", std::ios::binary | std::ios::in | std::ios::out);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }
  connect_anew();
  for (int i = 0; i < 60; ++i) ASSERT_EQ(get("root.G" + std::to_string(i) + ".P"), value("synced")) << i;
  EXPECT_EQ(log.containing("the log of the last changes is damaged"), 1U) << testing::PrintToString(log.lines());
  EXPECT_FALSE(fs::exists(file + ".damaged-1"));
}

int before_flush(int fd, bool with_times) {
  if (in_test_of_flushes) {
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    flush_calls.push_back({with_times, status.st_ino});
  }
  const auto hook = std::exchange(before_next_flush, nullptr);
  errno = 0;
  if (hook) hook();
  return errno == EIO ? -1 : 0;
}

}  // namespace

INTERPOSE(int, fdatasync, (int fd)) { return before_flush(fd, false) != 0 ? -1 : REAL(fdatasync)(fd); }
INTERPOSE(int, fsync, (int fd)) { return before_flush(fd, true) != 0 ? -1 : REAL(fsync)(fd); }
