// Processes that share a status store while some of them are stopped, stepped through and killed. With
// PTZ_TEST_KILLS=1000 in the environment as many writers are killed; otherwise a few.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <new>
#include <optional>
#include <random>
#include <thread>

#include "clock.h"
#include "interpose.h"
#include "shared_group.h"
#include "syslog_capture.h"

namespace {

bool dies_before_modes = false;

}  // namespace

INTERPOSE(int, fchmod, (int fd, mode_t mode)) {
  if (dies_before_modes) raise(SIGKILL);
  return REAL(fchmod)(fd, mode);
}

namespace {

using namespace ptz_test;

pid_t start(const std::function<void()> &run) {
  const pid_t child = fork();
  if (child == 0) {
    run();
    _exit(0);
  }
  return child;
}

int wait_for(pid_t child, int options = 0) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, options), child);
  return status;
}

void end(pid_t child) {
  kill(child, SIGKILL);
  wait_for(child);
}

bool is_done(int status) { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }

// Memory that this process shares with its children.
template <typename T>
T *shared() {
  void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (memory) T;
}

struct StatusStoreProcesses : StoreTest {};

// --- writers that stop inside an update -------------------------------------------------------------------------

// The words that a linked list of locks would have; the owner of a lock would write through them.
struct Link {
  Link *previous, *next;
};
constexpr off_t lock_offset = 128;
// After a word, a count, an owner and the kind of the lock: what the C library's robust mutex keeps there.
constexpr off_t link_offset = lock_offset + 24;

void *guarded_page = nullptr;
int signal_inside = 0;
Link planted_link = {};
std::string planted_path;

// Runs where the store reads the value that is to be written.
void on_value_read(int) {
  if (signal_inside != 0) {
    kill(getpid(), signal_inside);
  } else {
    const int fd = open(planted_path.c_str(), O_RDWR | O_CLOEXEC);
    if (pwrite(fd, &planted_link, sizeof planted_link, link_offset) != sizeof planted_link) _exit(2);
    close(fd);
  }
  mprotect(guarded_page, static_cast<std::size_t>(sysconf(_SC_PAGESIZE)), PROT_READ | PROT_WRITE);
}

// Gets a signal in the middle of setting A and B to 2.
void enter_update_and_get(int signal) {
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  signal_inside = signal;
  guarded_page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  auto *value = static_cast<gint32 *>(guarded_page);
  *value = 2;
  mprotect(guarded_page, size, PROT_NONE);
  struct sigaction action = {};
  action.sa_handler = on_value_read;
  sigaction(SIGSEGV, &action, nullptr);
  gint32 first = 2;
  StatusStoreParam a = {"A", 4, &first, 1}, b = {"B", 4, value, 1};
  StatusStoreParam *list[] = {&a, &b, nullptr};
  if (status_store_set_group("G", list, 2) != 0) _exit(1);
}

// A writer that gets a signal in the middle of setting A and B to 2.
pid_t start_writer_that_gets(int signal) {
  return start([signal] { enter_update_and_get(signal); });
}

TEST_F(StatusStoreProcesses, AStoppedWriterDelaysNoReaderAndFailsOtherWritersSoon) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  const pid_t writer = start_writer_that_gets(SIGSTOP);
  ASSERT_TRUE(WIFSTOPPED(wait_for(writer, WUNTRACED)));

  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(number("G", "A"), 1);
    ASSERT_EQ(number("G", "B"), 1);
  }
  // The best of a few: this process may be kept waiting for the processor.
  std::int64_t waited_ms = 1'000'000;
  for (int i = 0; i < 5 && waited_ms > 150; ++i) {
    const auto begin = real_time_ms();
    EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY);
    waited_ms = real_time_ms() - begin;
    EXPECT_GE(waited_ms, 99);
  }
  EXPECT_LE(waited_ms, 150);
  kill(writer, SIGCONT);
  EXPECT_TRUE(is_done(wait_for(writer)));
  EXPECT_EQ(number("G", "A"), 2);
  EXPECT_EQ(number("G", "B"), 2);
  EXPECT_EQ(set("G", {item("A", 3)}), 0);
}

TEST_F(StatusStoreProcesses, AWriterThatDiesInsideAnUpdateChangesNothingAndDelaysNoOtherWriter) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  for (int i = 0; i < 10; ++i) {
    const int status = wait_for(start_writer_that_gets(SIGKILL));
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(number("G", "A"), 1);
    EXPECT_EQ(set("G", {item("B", 1)}), 0);
  }
  EXPECT_EQ(set("G", {item("A", 4)}), 0);
  EXPECT_EQ(number("G", "A"), 4);
  EXPECT_EQ(number("G", "B"), 1);
}

TEST_F(StatusStoreProcesses, SetWhileAStoppedWriterHoldsTheLockLogsTheCause) {
  const SyslogCapture log;
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  const pid_t writer = start_writer_that_gets(SIGSTOP);
  ASSERT_TRUE(WIFSTOPPED(wait_for(writer, WUNTRACED)));
  EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY);
  EXPECT_EQ(log.containing("/G.status is not written: another writer holds its lock"), 1U);
  end(writer);
}

TEST_F(StatusStoreProcesses, ThreadsThatWaitForAStoppedWriterFailAfterATenthOfASecondEach) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  const pid_t writer = start_writer_that_gets(SIGSTOP);
  ASSERT_TRUE(WIFSTOPPED(wait_for(writer, WUNTRACED)));
  std::int64_t waited_ms = 1'000'000;
  for (int i = 0; i < 5 && waited_ms > 150; ++i) {
    const auto begin = real_time_ms();
    std::thread other([] { EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY); });
    EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY);
    other.join();
    waited_ms = real_time_ms() - begin;
  }
  EXPECT_LE(waited_ms, 150);
  end(writer);
}

TEST_F(StatusStoreProcesses, TheLockOfAKilledWriterIsFreeWithinTenMilliseconds) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  std::int64_t waited_ms = 1'000;
  for (int i = 0; i < 5 && waited_ms > 10; ++i) {
    const pid_t writer = start_writer_that_gets(SIGSTOP);
    ASSERT_TRUE(WIFSTOPPED(wait_for(writer, WUNTRACED)));
    const auto begin = real_time_ms();
    kill(writer, SIGKILL);
    ASSERT_EQ(set("G", {item("A", 1)}), 0);
    waited_ms = real_time_ms() - begin;
    wait_for(writer);
  }
  EXPECT_LE(waited_ms, 10);
}

// A child has a copy of its parent's descriptors, which would keep the parent's lock alive.
TEST_F(StatusStoreProcesses, TheLockOfAKilledWriterIsFreeWhileItsChildLives) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  auto *grandchild = shared<std::atomic<pid_t>>();
  const pid_t parent = start([&] {
    set("G", {item("A", 1)});
    *grandchild = start([] { pause(); });
    enter_update_and_get(SIGKILL);
  });
  wait_for(parent);
  ASSERT_NE(*grandchild, 0);
  EXPECT_EQ(set("G", {item("A", 5)}), 0);
  EXPECT_EQ(number("G", "B"), 1);
  kill(*grandchild, SIGKILL);
}

// A program that closes all descriptors loses its lock's one, too. It gets a new one within a second.
TEST_F(StatusStoreProcesses, AWriterThatClosedAllDescriptorsIsProtectedAgainAfterASecond) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  const pid_t writer = start([] {
    set("G", {item("A", 1)});
    close_range(3, ~0U, 0);
    advance_clock(1000);
    enter_update_and_get(SIGSTOP);
  });
  ASSERT_TRUE(WIFSTOPPED(wait_for(writer, WUNTRACED)));
  EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY);
  end(writer);
  EXPECT_EQ(set("G", {item("A", 3)}), 0);
}

// In a process id namespace of its own a writer's process id means nothing to the others.
TEST_F(StatusStoreProcesses, AWriterInAnotherPidNamespaceIsKnownToLiveAndToDie) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  constexpr int refused_status = 77;
  struct Progress {
    std::atomic<pid_t> init;
    std::atomic<bool> is_stopped;
  };
  auto *progress = shared<Progress>();
  const pid_t outside = start([&] {
    if (unshare(CLONE_NEWPID) != 0) _exit(refused_status);
    const pid_t init = start([&] {
      const pid_t writer = start_writer_that_gets(SIGSTOP);
      wait_for(writer, WUNTRACED);
      progress->is_stopped = true;
      pause();
    });
    progress->init = init;
    wait_for(init);
  });
  while (!progress->is_stopped) {
    int status = 0;
    if (waitpid(outside, &status, WNOHANG) == outside) GTEST_SKIP() << "a process id namespace is refused here";
    usleep(1000);
  }
  EXPECT_EQ(set("G", {item("A", 3)}), -EBUSY);
  kill(progress->init, SIGKILL);
  wait_for(outside);
  EXPECT_EQ(set("G", {item("A", 3)}), 0);
  EXPECT_EQ(number("G", "B"), 1);
}

// --- writers that plant pointers ----------------------------------------------------------------------------------

// Another member of the group may write anything into the shared page, also while this process is in an update.
TEST_F(StatusStoreProcesses, PointersPlantedInTheFileDuringAnUpdateAreNotFollowed) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 1), item("B", 1)}), 0);
  auto *victim = shared<Link>();
  *victim = {nullptr, nullptr};
  const pid_t writer = start([&] {
    planted_link = {victim, victim};
    planted_path = path("G");
    enter_update_and_get(0);
  });
  EXPECT_TRUE(is_done(wait_for(writer)));
  EXPECT_EQ(victim->previous, nullptr);
  EXPECT_EQ(victim->next, nullptr);
  EXPECT_EQ(set("G", {item("A", 3)}), 0);
  EXPECT_EQ(number("G", "A"), 3);
}

// --- writers that are killed at any moment ----------------------------------------------------------------------

constexpr int related_values = 40;

Items related(gint32 value, gint32 round) {
  Items items;
  for (int i = 0; i < related_values; ++i) items.push_back(item("VALUE_" + std::to_string(i), value));
  // Now and then the group is laid out anew.
  items.push_back({"LENGTH", std::string(static_cast<std::size_t>(1 + round % 64 / 16), 'x'), 1});
  return items;
}

struct Readings {
  std::atomic<bool> is_over = false;
  std::atomic<long> made = 0, torn = 0, failed = 0, waits = 0;
};

void read_until_over(Readings &readings) {
  struct rusage before = {}, after = {};
  auto items = related(0, 0);
  items.pop_back();
  get("G", items);
  getrusage(RUSAGE_THREAD, &before);
  while (!readings.is_over) {
    const int found = get("G", items);
    if (found != related_values) ++readings.failed;
    const auto differs = [&](const Item &one) { return one.bytes != items[0].bytes; };
    if (std::any_of(items.begin(), items.end(), differs)) ++readings.torn;
    ++readings.made;
  }
  getrusage(RUSAGE_THREAD, &after);
  readings.waits += after.ru_nvcsw - before.ru_nvcsw;
}

TEST_F(StatusStoreProcesses, KilledWritersTearNothingAndDelayNoOtherWriter) {
  const char *wanted = getenv("PTZ_TEST_KILLS");
  const int kills = wanted != nullptr ? std::atoi(wanted) : 100;
  create("G", 2048);
  ASSERT_EQ(set("G", related(0, 0)), 0);
  auto *readings = shared<Readings>();
  std::vector<pid_t> readers;
  for (int i = 0; i < 4; ++i) readers.push_back(start([&] { read_until_over(*readings); }));

  std::mt19937 random(4711);
  int refused = 0;
  for (int i = 1; i <= kills; ++i) {
    const pid_t writer = start([i] {
      for (gint32 round = 1;; ++round) set("G", related(i * 1'000'000 + round, round));
    });
    usleep(random() % 3000);
    end(writer);
    // A writer that waited for longer than a tenth of a second would be refused.
    if (set("G", related(i, 0)) != 0) ++refused;
  }
  readings->is_over = true;
  for (const pid_t reader : readers) EXPECT_TRUE(is_done(wait_for(reader)));
  EXPECT_EQ(refused, 0);
  EXPECT_GT(readings->made, 0);
  EXPECT_EQ(readings->torn, 0);
  EXPECT_EQ(readings->failed, 0);
  EXPECT_LE(readings->waits, 20) << "a reader gives the processor up for nobody, but for a page that is not there yet";
  EXPECT_EQ(files(), std::vector<std::string>{"G.status"});
}

TEST_F(StatusStoreProcesses, KilledMakersLeaveNoHalfGroups) {
  std::mt19937 random(4711);
  for (int i = 0; i < 50; ++i) {
    const pid_t maker = start([i] {
      for (int round = 0;; ++round) create("G" + std::to_string(i) + "_" + std::to_string(round % 50), 64);
    });
    usleep(random() % 500);
    end(maker);
  }
  for (const auto &file : files()) {
    const auto name = file.substr(0, file.find('.'));
    ASSERT_EQ(file, name + ".status");
    EXPECT_EQ(set(name, {item("A", 1)}), 0) << file;
    EXPECT_EQ(number(name, "A"), 1) << file;
  }
}

TEST_F(StatusStoreProcesses, MakerThatDiesBeforeTheFolderHasItsModeLeavesNoFolder) {
  const std::string folder = dir.file("run");
  use_folder(folder + "/");
  wait_for(start([] {
    dies_before_modes = true;
    create("G");
  }));
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_EQ(create("G"), 0);
  struct stat status = {};
  ASSERT_EQ(stat(folder.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 02770U);
}

TEST_F(StatusStoreProcesses, OfSeveralMakersOneMakesTheGroup) {
  auto *made = shared<std::atomic<int>>();
  for (int round = 0; round < 20; ++round) {
    *made = 0;
    std::vector<pid_t> makers;
    const auto name = "G" + std::to_string(round);
    for (int i = 0; i < 4; ++i) {
      makers.push_back(start([&] {
        const int result = create(name);
        if (result == 0) ++*made;
        if (result != 0 && result != -EEXIST) _exit(1);
      }));
    }
    for (const pid_t maker : makers) EXPECT_TRUE(is_done(wait_for(maker)));
    EXPECT_EQ(*made, 1);
  }
}

// --- step by step -----------------------------------------------------------------------------------------------

// A child that this process traces, stopped before it runs; none where that is refused.
std::optional<pid_t> trace(const std::function<void()> &run) {
  const pid_t child = start([&] {
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(125);
    raise(SIGSTOP);
    run();
  });
  if (WIFSTOPPED(wait_for(child))) return child;
  return std::nullopt;
}

constexpr char refused[] = "tracing a child process is refused here";

// After each instruction of a writer that changes the group's file, a copy of the file has the state before the update
// or the one after it.
TEST_F(StatusStoreProcesses, EveryInstructionOfAWriterLeavesAWholeState) {
  constexpr int updates = 20;
  create("G", 64);
  ASSERT_EQ(set("G", {item("A", 0), item("B", 0)}), 0);
  const auto whole = content_of(path("G"));
  // Updates in place, and every fifth that lays the group out anew.
  const auto writer = trace([] {
    // Nothing but the store is worth stepping through.
    gint32 value = 0;
    char text[updates] = {};
    StatusStoreParam a = {"A", 4, &value, 1}, b = {"B", 4, &value, 1}, c = {"C", 1, text, 1};
    StatusStoreParam *list[] = {&a, &b, nullptr, nullptr};
    for (value = 1; value <= updates; ++value) {
      c.size = static_cast<guint32>(value);
      list[2] = value % 5 == 0 ? &c : nullptr;
      if (status_store_set_group("G", list, 2) != 0) _exit(1);
    }
  });
  if (!writer) GTEST_SKIP() << refused;
  Items unused = {item("A", 0)};
  get("G", unused);  // maps the file
  const int fd = open(path("G").c_str(), O_RDONLY);
  const void *memory = mmap(nullptr, whole.size(), PROT_READ, MAP_SHARED, fd, 0);
  close(fd);

  auto seen = whole;
  gint32 last = 0;
  int changes = 0, states = 0, status = 0;
  while (true) {
    ASSERT_EQ(ptrace(PTRACE_SINGLESTEP, *writer, nullptr, nullptr), 0) << std::strerror(errno);
    status = wait_for(*writer);
    if (!WIFSTOPPED(status)) break;
    if (std::memcmp(memory, seen.data(), seen.size()) == 0) continue;
    seen.assign(static_cast<const char *>(memory), seen.size());
    const auto copy = "copy" + std::to_string(changes++);
    write_content(path(copy), seen);
    Items items = {item("A", -1), item("B", -1)};
    ASSERT_EQ(get(copy, items), 2) << "after change " << changes << " of the update from " << last;
    ASSERT_EQ(items[0].bytes, items[1].bytes);
    gint32 value = 0;
    items[0].bytes.copy(reinterpret_cast<char *>(&value), sizeof value);
    ASSERT_TRUE(value == last || value == last + 1) << value << " after " << last;
    if (value != last) ++states;
    last = value;
    unlink(path(copy).c_str());
  }
  EXPECT_TRUE(is_done(status));
  EXPECT_EQ(states, updates);
  EXPECT_GT(changes, updates * 5) << "words of the slot, the mutex, the sequence";
}

TEST_F(StatusStoreProcesses, AReaderMakesNoSystemCall) {
  create("G");
  ASSERT_EQ(set("G", {item("A", 0), item("B", 0)}), 0);
  const auto reader = trace([] {
    gint32 value = 0;
    StatusStoreParam a = {"A", 4, &value, 1};
    StatusStoreParam *list[] = {&a, nullptr};
    status_store_get_group("G", list, 0);
    syscall(SYS_getppid);
    for (int i = 0; i < 100; ++i) status_store_get_group("G", list, 0);
    syscall(SYS_getppid);
  });
  if (!reader) GTEST_SKIP() << refused;
  ASSERT_EQ(ptrace(PTRACE_SETOPTIONS, *reader, nullptr, PTRACE_O_TRACESYSGOOD), 0);
  int marks = 0;
  std::vector<std::uint64_t> calls;
  while (true) {
    ASSERT_EQ(ptrace(PTRACE_SYSCALL, *reader, nullptr, nullptr), 0);
    const int status = wait_for(*reader);
    if (!WIFSTOPPED(status)) break;
    __ptrace_syscall_info info = {};
    ptrace(PTRACE_GET_SYSCALL_INFO, *reader, sizeof info, &info);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY) continue;
    if (info.entry.nr == SYS_getppid) ++marks;
    // The clock that tests move is read with one; a program's own is not.
    if (marks == 1 && info.entry.nr != SYS_getppid && info.entry.nr != SYS_clock_gettime)
      calls.push_back(info.entry.nr);
  }
  EXPECT_EQ(marks, 2);
  EXPECT_EQ(calls, std::vector<std::uint64_t>{});
}

}  // namespace
