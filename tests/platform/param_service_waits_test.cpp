// What waits for a slow disk or a stopped process, and what does not.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/file.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "clock.h"
#include "interpose.h"
#include "parameter_tree.h"
#include "platform/param_service_backup.h"

namespace {

using namespace ptz_test;
namespace fs = std::filesystem;

std::atomic<int> flush_ms = 0;
std::atomic<int> flushes_under_way = 0;

Answer value(const std::string &text) { return {text, PARAM_SERVICE_OK}; }

// A child process whose function stops it.
class StoppedProcess {
  pid_t pid_;

 public:
  explicit StoppedProcess(const std::function<void()> &function) : pid_(start(function)) {
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, WUNTRACED), pid_);
    EXPECT_TRUE(WIFSTOPPED(status));
  }
  StoppedProcess(const StoppedProcess &) = delete;
  ~StoppedProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
};

std::atomic<bool> stop_in_flush = false;

struct SlowDisk : ParameterTree {
  ~SlowDisk() override { flush_ms = 0; }
};

TEST_F(SlowDisk, ReadsAndForksTakeLessThan50MsWhileAnotherThreadFlushes) {
  ASSERT_EQ(set("root.A", "1"), 0);
  flush_ms = 300;  // for each of several
  std::atomic<bool> done = false;
  std::thread flusher([&] {
    EXPECT_EQ(sync_tree(), 0);
    done = true;
  });
  while (flushes_under_way == 0) g_usleep(100);
  std::int64_t best_read = 1000, worst_read = 0, worst_fork = 0;
  int forks = 0;
  while (!done) {
    auto begun = real_time_ms();
    EXPECT_EQ(get("root.A"), value("1"));
    const auto took = real_time_ms() - begun;
    best_read = std::min(best_read, took);
    worst_read = std::max(worst_read, took);
    if (++forks <= 5) {
      begun = real_time_ms();
      const pid_t child = start([] {
        flush_ms = 0;
        EXPECT_EQ(get("root.A"), value("1"));
      });
      worst_fork = std::max(worst_fork, real_time_ms() - begun);
      EXPECT_EQ(wait_for(child), 0);
    }
    g_usleep(5000);
  }
  flusher.join();
  flush_ms = 0;
  EXPECT_LT(best_read, 50);
  EXPECT_LT(worst_read, 250) << "less than one flush";
  EXPECT_LT(worst_fork, 250) << "less than one flush";
  EXPECT_GE(forks, 5);
}

TEST_F(SlowDisk, ChildOfAForkDuringAFlushWritesWhenTheFlushIsOver) {
  ASSERT_EQ(set("root.A", "1"), 0);
  flush_ms = 200;
  std::thread flusher([] { EXPECT_EQ(sync_tree(), 0); });
  while (flushes_under_way == 0) g_usleep(100);
  const pid_t child = start([] {
    flush_ms = 0;
    EXPECT_EQ(get("root.A"), value("1"));
    for (int i = 0; i < 50; ++i) ASSERT_EQ(set("root.Child.P" + std::to_string(i), "v"), 0);
    EXPECT_EQ(sync_tree(), 0);
  });
  flusher.join();
  flush_ms = 0;
  EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(parameters_of("root.Child").value_or(Names{}).size(), 50U);
  EXPECT_EQ(set("root.A", "2"), 0);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SlowDisk, ManyWritesAreReadBesideTheirFlushes) {
  ASSERT_EQ(set("root.A", "1"), 0);
  flush_ms = 50;
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int i = 0; i < 500; ++i) ASSERT_EQ(set("root.W.P" + std::to_string(i % 50), std::string(200, 'w')), 0);
    done = true;
  });
  std::int64_t worst = 0;
  while (!done) {
    const auto begun = real_time_ms();
    EXPECT_EQ(get("root.A"), value("1"));
    worst = std::max(worst, real_time_ms() - begun);
    g_usleep(1000);
  }
  writer.join();
  flush_ms = 0;
  EXPECT_LT(worst, 50);
}

// The longest read of root.A beside the function, in milliseconds.
std::int64_t worst_read_beside(const std::function<void()> &function) {
  std::atomic<bool> done = false;
  std::thread thread([&] {
    function();
    done = true;
  });
  std::int64_t worst = 0;
  while (!done) {
    const auto begun = real_time_ms();
    EXPECT_EQ(get("root.A"), value("1"));
    worst = std::max(worst, real_time_ms() - begun);
    g_usleep(500);
  }
  thread.join();
  return worst;
}

TEST_F(SlowDisk, ReadsBesideABackupAndARestoreOfALargeTreeTakeLessThan50Ms) {
  ASSERT_EQ(wait_for(start([this] {
              ASSERT_EQ(set("root.A", "1"), 0);
              ASSERT_EQ(sync_tree(), 0);
              sqlite3 *database = nullptr;
              ASSERT_EQ(sqlite3_open(file.c_str(), &database), SQLITE_OK);
              ASSERT_EQ(sqlite3_exec(database,
                                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 30000)"
                                     "INSERT INTO parameters SELECT 'root.Many.', 'P' || i, printf('%0100d', i) FROM n",
                                     nullptr, nullptr, nullptr),
                        SQLITE_OK);
              sqlite3_close(database);
            })),
            0);
  const std::string backup = dir.file("backup");
  flush_ms = 100;
  EXPECT_LT(worst_read_beside([&] { EXPECT_TRUE(param_service_backup(backup.c_str(), nullptr)); }), 50);
  EXPECT_LT(worst_read_beside([&] { EXPECT_TRUE(param_service_restore(backup.c_str(), nullptr)); }), 50);
  flush_ms = 0;
  EXPECT_EQ(parameters_of("root.Many").value_or(Names{}).size(), 30'000U);
}

TEST_F(SlowDisk, WritersOfTwoProcessesBothGoOn) {
  ASSERT_EQ(set("root.A", "1"), 0);
  const pid_t other = start([] {
    flush_ms = 40;
    for (int n = 0; true; ++n) set("root.Other.P" + std::to_string(n % 200), std::string(1000, 'o'));
  });
  std::int64_t worst = 0;
  for (int n = 0; n < 10; ++n) {
    const auto begun = real_time_ms();
    EXPECT_EQ(set("root.A", std::to_string(n)), 0);
    worst = std::max(worst, real_time_ms() - begun);
    g_usleep(10'000);
  }
  EXPECT_LT(worst, 1000);
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
}

struct Stopped : ParameterTree {
  ~Stopped() override { stop_in_flush = false; }
};

// Waits out the ten seconds with the clock of the test: the write ends after the third step of four seconds.
gint32 set_for_ten_seconds(const std::string &path) {
  std::atomic<gint32> error = no_answer;
  std::thread writer([&] { error = set(path, "new"); });
  g_usleep(50'000);
  int steps = 0;
  for (; steps < 100 && error == no_answer; ++steps) {
    advance_clock(4000);
    for (int i = 0; i < 200 && (steps < 2 ? i < 20 : error == no_answer); ++i) g_usleep(5000);
  }
  EXPECT_EQ(steps, 3);
  writer.join();
  return error;
}

void expect_fast_read() {
  const auto begun = real_time_ms();
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_LT(real_time_ms() - begun, 500);
}

TEST_F(Stopped, WriterHoldsUpWritesForABoundedTimeAndNoReads) {
  ASSERT_EQ(set("root.A", "1"), 0);
  {
    const StoppedProcess stopped([this] {
      const int lock = open((file + "-lock").c_str(), O_RDWR);
      struct flock whole = {};
      whole.l_type = F_WRLCK;
      ASSERT_EQ(fcntl(lock, F_SETLK, &whole), 0);
      raise(SIGSTOP);
    });
    expect_fast_read();
    connect_anew();
    expect_fast_read();
    EXPECT_EQ(set_for_ten_seconds("root.B"), PARAM_SERVICE_STORAGE);
    EXPECT_EQ(log.containing("Parameter root.B: not written to " + file + ": database is locked"), 1U);
    expect_fast_read();
  }
  EXPECT_EQ(set("root.B", "2"), 0) << "the lock of a killed process is free";
}

TEST_F(Stopped, FlusherHoldsUpWritesForABoundedTimeAndNoReadsAndIsFinishedAfterItsDeath) {
  ASSERT_EQ(set("root.A", "1"), 0);
  {
    const StoppedProcess stopped([] {
      stop_in_flush = true;
      static_cast<void>(sync_tree());
    });
    connect_anew();
    expect_fast_read();
    EXPECT_EQ(set_for_ten_seconds("root.B"), PARAM_SERVICE_STORAGE);
    advance_clock(2000);
    expect_fast_read();
  }
  EXPECT_EQ(set("root.B", "2"), 0);
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_EQ(log.containing("was replaced"), 0U);
}

TEST_F(Stopped, FirstCreationBesideAStoppedCreatorFailsAfterTenSeconds) {
  const StoppedProcess stranger([this] {
    const int folder = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(flock(folder, LOCK_EX), 0);
    write(file + "-lock", "");
    const int lock = open((file + "-lock").c_str(), O_RDWR);
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(lock, F_SETLK, &whole), 0);
    raise(SIGSTOP);
  });
  EXPECT_EQ(set_for_ten_seconds("root.A"), PARAM_SERVICE_STORAGE);
}

void before_flush() {
  if (stop_in_flush.exchange(false)) raise(SIGSTOP);
  ++flushes_under_way;
  if (flush_ms > 0) g_usleep(static_cast<gulong>(flush_ms) * 1000);
  --flushes_under_way;
}
}  // namespace

INTERPOSE(int, fdatasync, (int fd)) {
  before_flush();
  return REAL(fdatasync)(fd);
}

INTERPOSE(int, fsync, (int fd)) {
  before_flush();
  return REAL(fsync)(fd);
}
