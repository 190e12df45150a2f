// Processes that share one parameter tree, and some that die over it. PTZ_TEST_SECONDS and PTZ_TEST_KILLS in the
// environment make the tests longer than they are by themselves:
//   PTZ_TEST_SECONDS=5 PTZ_TEST_KILLS=200 build/tests/platform/param_service_processes_test
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "clock.h"
#include "interpose.h"
#include "parameter_tree.h"

namespace {

bool dies_after_the_time_is_set = false;

}  // namespace

INTERPOSE(int, futimens, (int fd, const timespec times[2])) {
  const int result = REAL(futimens)(fd, times);
  if (dies_after_the_time_is_set) ::kill(getpid(), SIGKILL);
  return result;
}

namespace {

using namespace ptz_test;
using std::chrono::microseconds;

int from_environment(const char *variable, int otherwise) {
  const char *text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : otherwise;
}

// Numbers that processes share.
class SharedNumbers {
  static constexpr std::size_t count = 8;
  void *memory_ =
      mmap(nullptr, count * sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);

 public:
  SharedNumbers() = default;
  SharedNumbers(const SharedNumbers &) = delete;
  ~SharedNumbers() { munmap(memory_, count * sizeof(std::atomic<int>)); }
  std::atomic<int> &operator[](std::size_t index) { return static_cast<std::atomic<int> *>(memory_)[index]; }
};

int number_at(const std::string &path) {
  const auto answer = get(path);
  EXPECT_EQ(answer.error, 0) << path;
  return std::atoi(answer.text.value_or("-1").c_str());
}

struct ParamServiceProcesses : ParameterTree {
  ParamServiceProcesses() { provide_template("t", "A=1\nB=1\nC=1\n"); }
  void expect_sound() const {
    sqlite3 *database = nullptr;
    ASSERT_EQ(sqlite3_open_v2(file.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    const auto keep = [](void *text, int, char **columns, char **) {
      static_cast<std::string *>(text)->append(columns[0]);
      return 0;
    };
    std::string result;
    EXPECT_EQ(sqlite3_exec(database, "PRAGMA integrity_check", keep, &result, nullptr), SQLITE_OK);
    EXPECT_EQ(result, "ok");
    sqlite3_close(database);
  }
};

TEST_F(ParamServiceProcesses, NothingOfTwoWritersAndNoReadIsLost) {
  const int seconds = from_environment("PTZ_TEST_SECONDS", 1);
  const auto end = real_time_ms() + 1000 * seconds;
  SharedNumbers written, created;
  std::vector<pid_t> children;
  for (int writer = 0; writer < 2; ++writer) {
    children.push_back(start([&] {
      const std::string group = "root.W" + std::to_string(writer);
      for (int n = 1; real_time_ms() < end; ++n) {
        ASSERT_EQ(set(group + ".Last", std::to_string(n)), 0);
        ASSERT_EQ(set(group + ".New" + std::to_string(n), "v"), 0);
        if (n % 10 == 0) {
          ASSERT_EQ(create("root.Group", "t", -1).error, 0);
          ++created[0];
        }
        if (n % 50 == 0) {
          ASSERT_EQ(sync_tree(), 0);
        }
        written[writer] = n;
      }
    }));
  }
  children.push_back(start([&] {
    std::map<std::string, int> last;
    int reads = 0;
    for (; real_time_ms() < end; ++reads) {
      const std::string path = "root.W" + std::to_string(reads % 2) + ".Last";
      const auto answer = get(path);
      ASSERT_TRUE(answer.error == 0 || answer.error == PARAM_SERVICE_NO_PARAMETER) << answer.error;
      const int n = std::atoi(answer.text.value_or("0").c_str());
      ASSERT_GE(n, last[path]) << "a value from before";
      last[path] = n;
      if (reads % 100 != 0) continue;
      for (const auto &group : groups_of("root.Group").value_or(Names{})) {
        ASSERT_EQ(parameters_of(group), (Names{"A", "B", "C"})) << "a group that is not whole";
      }
    }
    ASSERT_GT(reads, 0);
  }));
  for (const pid_t child : children) EXPECT_EQ(wait_for(child), 0);
  for (int writer = 0; writer < 2; ++writer) {
    const std::string group = "root.W" + std::to_string(writer);
    EXPECT_GT(written[writer], 0);
    EXPECT_EQ(number_at(group + ".Last"), written[writer]);
    EXPECT_EQ(parameters_of(group)->size(), static_cast<std::size_t>(written[writer]) + 1);
  }
  EXPECT_EQ(groups_of("root.Group").value_or(Names{}).size(), static_cast<std::size_t>(created[0]));
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
  expect_sound();
}

TEST_F(ParamServiceProcesses, ManyThatBeginAtOnceShareOneFile) {
  std::vector<pid_t> children;
  for (int i = 0; i < 8; ++i) {
    children.push_back(start([&] { ASSERT_EQ(set("root.A.P" + std::to_string(i), "v"), 0); }));
  }
  for (const pid_t child : children) EXPECT_EQ(wait_for(child), 0);
  EXPECT_EQ(parameters_of("root.A").value_or(Names{}).size(), 8U);
}

TEST_F(ParamServiceProcesses, AWriterMayBeKilledAtAnyMoment) {
  const int kills = from_environment("PTZ_TEST_KILLS", 10);
  std::mt19937 random(4711);
  std::uniform_int_distribution<int> life_us(500, 30'000);
  SharedNumbers acknowledged;
  for (int kill_number = 0; kill_number < kills; ++kill_number) {
    const int before = acknowledged[0];
    const pid_t writer = start([&] {
      for (int n = acknowledged[0] + 1; true; ++n) {
        ASSERT_EQ(set("root.A.N", std::to_string(n)), 0);
        ASSERT_EQ(set("root.B.N" + std::to_string(n), std::string(200, 'v')), 0);
        ASSERT_EQ(create("root.Group", "t", -1).error, 0);
        ASSERT_EQ(sync_tree(), 0);
        acknowledged[0] = n;
      }
    });
    ASSERT_GT(writer, 0);
    // At once every other time; else in the middle of its work, however long a busy machine takes to get there.
    if (kill_number % 2 == 0) {
      EXPECT_TRUE(run_until([&] { return acknowledged[0] > before; }));
    }
    std::this_thread::sleep_for(microseconds(life_us(random)));
    ASSERT_EQ(::kill(writer, SIGKILL), 0);
    ASSERT_EQ(wait_for(writer), SIGKILL);
    // What was written and not acknowledged may be there or not.
    const auto answer = get("root.A.N");
    const int n = std::atoi(answer.text.value_or("0").c_str());
    if (acknowledged[0] > 0) {
      ASSERT_EQ(answer.error, 0);
    }
    ASSERT_GE(n, acknowledged[0]);
    const auto others = parameters_of("root.B").value_or(Names{}).size();
    ASSERT_GE(others, static_cast<std::size_t>(acknowledged[0]));
    for (const auto &group : groups_of("root.Group").value_or(Names{})) {
      ASSERT_EQ(parameters_of(group), (Names{"A", "B", "C"})) << "a group that is not whole";
    }
    if (groups_of("root.Group")) {
      ASSERT_EQ(remove_group("root.Group"), 0) << testing::PrintToString(log.lines());
    }
  }
  EXPECT_GT(acknowledged[0], 0);
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
  expect_sound();
}

TEST_F(ParamServiceProcesses, WriterKilledBetweenTheTimeOfTheFileAndItsRecordLeavesATreeThatCanBeWritten) {
  ASSERT_EQ(set("root.A.N", "1"), 0);
  ASSERT_EQ(sync_tree(), 0);
  for (int death = 0; death < 2; ++death) {
    const pid_t writer = start([&] {
      dies_after_the_time_is_set = true;
      static_cast<void>(set("root.A.N", "2"));
    });
    ASSERT_EQ(wait_for(writer), SIGKILL);
    EXPECT_EQ(number_at("root.A.N"), 1);
  }
  EXPECT_EQ(set("root.A.N", "3"), 0);
  EXPECT_EQ(number_at("root.A.N"), 3);
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
  expect_sound();
}

// The writers fill the log, so that many of them die in the flush that keeps it small.
TEST_F(ParamServiceProcesses, WriterMayBeKilledInAFlushBesideAnotherWriter) {
  const int kills = from_environment("PTZ_TEST_KILLS", 10);
  std::mt19937 random(4712);
  std::uniform_int_distribution<int> life_us(500, 20'000);
  SharedNumbers acknowledged;
  const auto write_for_ever = [&](int writer) {
    const std::string group = "root.W" + std::to_string(writer);
    for (int n = acknowledged[writer] + 1; true; ++n) {
      ASSERT_EQ(set(group + ".N", std::to_string(n)), 0);
      ASSERT_EQ(set(group + ".P" + std::to_string(n % 40), std::string(5000, 'v')), 0);
      acknowledged[writer] = n;
    }
  };
  pid_t writers[] = {start([&] { write_for_ever(0); }), start([&] { write_for_ever(1); })};
  for (int kill_number = 0; kill_number < kills; ++kill_number) {
    const int writer = kill_number % 2;
    const int before = acknowledged[writer];
    EXPECT_TRUE(run_until([&] { return acknowledged[writer] > before + 5; }));
    std::this_thread::sleep_for(microseconds(life_us(random)));
    ASSERT_EQ(::kill(writers[writer], SIGKILL), 0);
    ASSERT_EQ(wait_for(writers[writer]), SIGKILL);
    ASSERT_GE(number_at("root.W" + std::to_string(writer) + ".N"), acknowledged[writer]);
    writers[writer] = start([&] { write_for_ever(writer); });
  }
  for (const pid_t writer : writers) {
    ASSERT_EQ(::kill(writer, SIGKILL), 0);
    ASSERT_EQ(wait_for(writer), SIGKILL);
  }
  for (int writer = 0; writer < 2; ++writer) {
    EXPECT_GE(number_at("root.W" + std::to_string(writer) + ".N"), acknowledged[writer]);
  }
  EXPECT_EQ(set("root.Last", "v"), 0);
  EXPECT_EQ(sync_tree(), 0);
  EXPECT_TRUE(log.lines().empty()) << testing::PrintToString(log.lines());
  EXPECT_LT(std::filesystem::file_size(file + "-wal"), 1U << 20U);
  expect_sound();
}

TEST_F(ParamServiceProcesses, WriteAfterAReaderWasKilledSucceeds) {
  ASSERT_EQ(set("root.A", "v"), 0);
  for (int i = 0; i < 5; ++i) {
    const pid_t reader = start([] {
      while (true) get("root.A");
    });
    std::this_thread::sleep_for(microseconds(3000));
    ASSERT_EQ(::kill(reader, SIGKILL), 0);
    ASSERT_EQ(wait_for(reader), SIGKILL);
    const auto begun = real_time_ms();
    ASSERT_EQ(set("root.A", "w"), 0);
    EXPECT_LT(real_time_ms() - begun, 5000);
  }
}

TEST_F(ParamServiceProcesses, ForkBesideAWritingThreadLetsBothProcessesWrite) {
  std::atomic<bool> done = false;
  std::atomic<int> written = 0;
  std::thread thread([&] {
    while (!done) {
      ASSERT_EQ(set("root.Parent.N", std::to_string(written + 1)), 0);
      ++written;
    }
  });
  constexpr int forks = 20;
  for (int i = 0; i < forks; ++i) {
    ASSERT_EQ(set("root.Parent.Fork", std::to_string(i)), 0);
    const pid_t child = start([i] {
      ASSERT_EQ(number_at("root.Parent.Fork"), i);
      ASSERT_EQ(set("root.Child.C" + std::to_string(i), "v"), 0);
      ASSERT_EQ(sync_tree(), 0);
    });
    ASSERT_EQ(number_at("root.Parent.Fork"), i);
    ASSERT_EQ(wait_for(child), 0);
  }
  done = true;
  thread.join();
  EXPECT_EQ(number_at("root.Parent.N"), written);
  EXPECT_EQ(parameters_of("root.Child").value_or(Names{}).size(), static_cast<std::size_t>(forks));
  expect_sound();
}

TEST_F(ParamServiceProcesses, ThreadsShareTheConnection) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string path = "root.T" + std::to_string(t) + ".N";
      for (int n = 0; n < 100; ++n) {
        ASSERT_EQ(set(path, std::to_string(n)), 0);
        ASSERT_EQ(number_at(path), n);
        ASSERT_TRUE(groups_of("root").has_value());
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(groups_of("root").value_or(Names{}).size(), 4U);
}

}  // namespace
