// What waits for a slow disk or a stopped process, and what does not.
#include <gtest/gtest.h>
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
  std::int64_t best_read = 1000, worst_read = 0, best_fork = 1000;
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
      best_fork = std::min(best_fork, real_time_ms() - begun);
      EXPECT_EQ(wait_for(child), 0);
    }
    g_usleep(5000);
  }
  flusher.join();
  flush_ms = 0;
  EXPECT_LT(best_read, 50);
  EXPECT_LT(worst_read, 500);
  EXPECT_LT(best_fork, 50);
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

struct Stopped : ParameterTree {
  ~Stopped() override { stop_in_flush = false; }
};

// Waits out the ten seconds with the clock of the test.
gint32 set_within_bounds(const std::string &path) {
  std::atomic<gint32> error = no_answer;
  std::thread writer([&] { error = set(path, "new"); });
  for (int i = 0; i < 100 && error == no_answer; ++i) {
    advance_clock(4000);
    g_usleep(20'000);
  }
  writer.join();
  return error;
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
    EXPECT_EQ(get("root.A"), value("1"));
    connect_anew();
    EXPECT_EQ(get("root.A"), value("1"));
    EXPECT_EQ(set_within_bounds("root.B"), PARAM_SERVICE_STORAGE);
    EXPECT_EQ(log.containing("Parameter root.B: not written to " + file + ": database is locked"), 1U);
    EXPECT_EQ(get("root.A"), value("1"));
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
    EXPECT_EQ(get("root.A"), value("1"));
    EXPECT_EQ(set_within_bounds("root.B"), PARAM_SERVICE_STORAGE);
    advance_clock(2000);
    EXPECT_EQ(get("root.A"), value("1"));
  }
  EXPECT_EQ(set("root.B", "2"), 0);
  EXPECT_EQ(get("root.A"), value("1"));
  EXPECT_EQ(log.containing("was replaced"), 0U);
}

TEST_F(Stopped, FirstCreationBesideAStoppedCreatorWaitsForABoundedTime) {
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
  EXPECT_EQ(set_within_bounds("root.A"), PARAM_SERVICE_STORAGE);
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
