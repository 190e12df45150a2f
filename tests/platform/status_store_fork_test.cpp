// Threads and forked children that share the store's state of one process. Counts allocations by operator new.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "child_process.h"
#include "clock.h"
#include "shared_group.h"

namespace {
std::atomic<long> allocations = 0;
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define COUNTS_NOTHING  // the sanitizer's own operators are linked into the program
#endif
#endif
#ifndef COUNTS_NOTHING
void *operator new(std::size_t size) {
  ++allocations;
  return std::malloc(size != 0 ? size : 1);
}
void *operator new(std::size_t size, std::align_val_t alignment) {
  ++allocations;
  const auto unit = static_cast<std::size_t>(alignment);
  return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void *memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
#endif

namespace {

using namespace ptz_test;

// Fetches without an allocation of its own.
bool fetch() {
  gint32 value = 0;
  StatusStoreParam a = {"A", 4, &value, 1};
  StatusStoreParam *list[] = {&a, nullptr};
  return status_store_get_group("G", list, 0) == 1;
}

struct StatusStoreFork : StoreTest {
  std::atomic<bool> is_over = false;
  std::vector<std::thread> threads;

  StatusStoreFork() {
    create("G", 4096);
    Items items;
    for (int i = 0; i < 200; ++i) items.push_back(item("KEY_" + std::to_string(i), i));
    items.push_back(item("A", 1));
    set("G", items);
    EXPECT_TRUE(fetch());
  }
  void start_fetching_threads(int count) {
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this] {
        while (!is_over) EXPECT_TRUE(fetch());
      });
    }
  }
  void end_threads() {
    is_over = true;
    for (auto &thread : threads) thread.join();
  }
};

TEST_F(StatusStoreFork, FetchInAChildOfAFetchingProcessAllocatesNothingAfterTheFirstFetch) {
  start_fetching_threads(2);
  int children_that_allocate = 0;
  for (int i = 0; i < 300; ++i) {
    const int result = run_child([] {
      if (!fetch()) return 2;
      const long before = allocations;
      for (int k = 0; k < 5; ++k) {
        if (!fetch()) return 2;
      }
      return allocations == before ? 0 : 1;
    });
    ASSERT_NE(result, 2);
    children_that_allocate += result;
  }
  end_threads();
  // A look at the group's path, once a second, allocates as well.
  EXPECT_LE(children_that_allocate, 30);
}

TEST_F(StatusStoreFork, ThreadsThatFetchOneGroupDoNotAllocate) {
  const long before = allocations;
  start_fetching_threads(3);
  for (int i = 0; i < 100'000; ++i) ASSERT_TRUE(fetch());
  end_threads();
  // Each of a few workspaces is allocated once.
  EXPECT_LT(allocations - before, 8 * 10);
}

TEST_F(StatusStoreFork, SetInAChildAndInItsParentBothSucceed) {
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(set("G", {item("A", i)}), 0);
    EXPECT_EQ(run_child([i] { return set("G", {item("A", i + 1000)}) == 0 && set("G", {item("B", i)}) == 0 ? 0 : 1; }),
              0);
    EXPECT_EQ(number("G", "A"), i + 1000);
    EXPECT_EQ(number("G", "B"), i);
  }
}

// A writing thread that the kernel keeps waiting for a tenth of a second while it copies the process is a busy one.
template <typename Set>
int when_free(Set set) {
  int result = -EBUSY;
  for (int i = 0; i < 20 && result == -EBUSY; ++i) result = set();
  return result;
}

// Sets without an allocation of its own: a sanitizer's allocator that is locked at a fork stays locked in the child.
int set_text(const char *key, std::string_view text) {
  char bytes[2] = {};
  text.copy(bytes, sizeof bytes);
  StatusStoreParam param = {key, static_cast<guint32>(text.size()), bytes, 1};
  StatusStoreParam *list[] = {&param, nullptr};
  errno = 0;
  const gint result = status_store_set_group("G", list, 2);
  return result >= 0 ? result : -errno;
}

TEST_F(StatusStoreFork, SetInAChildThatWasForkedBesideWritingThreadsSucceeds) {
  for (const char *text : {"x", "xx"}) {
    threads.emplace_back([this, text] {
      while (!is_over) EXPECT_EQ(when_free([text] { return set_text("C", text); }), 0);
    });
  }
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(run_child([] {
                const Items items = {item("D", 1)};
                return when_free([&] { return set("G", items); }) == 0 && number("G", "D") == 1 ? 0 : 1;
              }),
              0);
  }
  end_threads();
  EXPECT_EQ(number("G", "D"), 1);
}

// Descriptors of groups' files, also of groups in other folders.
int group_descriptors() {
  int count = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    const auto target = std::filesystem::read_symlink(entry.path(), ignored).string();
    if (target.find(".status") != target.npos) ++count;
  }
  return count;
}

TEST_F(StatusStoreFork, AChildKeepsNoDescriptorOfAGroup) {
  const int in_parent = group_descriptors();
  EXPECT_GT(in_parent, 0);
  EXPECT_EQ(run_child([] { return group_descriptors(); }), 0);
  EXPECT_EQ(group_descriptors(), in_parent);
}

// Whether a process holds a lock that a writer of the group would have to respect.
bool has_lock(const std::string &path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  EXPECT_EQ(fcntl(fd, F_OFD_GETLK, &lock), 0);
  close(fd);
  return lock.l_type != F_UNLCK;
}

TEST_F(StatusStoreFork, AChildThatOutlivesItsKilledParentHoldsNoLock) {
  create("H");
  int pipe_ends[2];
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  const pid_t parent = start_child([&] {
    if (set("H", {item("A", 1)}) != 0) return 1;
    start_child([&] {
      const pid_t self = getpid();
      if (write(pipe_ends[1], &self, sizeof self) != sizeof self) return 1;
      for (;;) pause();
      return 0;
    });
    for (;;) pause();
    return 0;
  });
  pid_t child = -1;
  ASSERT_EQ(read(pipe_ends[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  EXPECT_TRUE(has_lock(path("H")));
  kill(parent, SIGKILL);
  EXPECT_EQ(wait_for_child(parent), -SIGKILL);
  EXPECT_FALSE(has_lock(path("H")));
  kill(child, SIGKILL);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

// A daemon closes all descriptors, and the number of the lock's descriptor then belongs to another file.
TEST_F(StatusStoreFork, ADescriptorThatTookTheLocksNumberStaysOpen) {
  EXPECT_EQ(run_child([] {
              if (set("G", {item("A", 1)}) != 0) return 1;
              close_range(3, ~0U, 0);
              for (int fd = 3; fd < 20; ++fd) {
                if (open("/dev/null", O_RDONLY) != fd) return 2;
              }
              if (run_child([] {
                    for (int fd = 3; fd < 20; ++fd) {
                      if (fcntl(fd, F_GETFD) < 0) return 1;
                    }
                    return set("G", {item("A", 2)}) == 0 ? 0 : 2;
                  }) != 0) {
                return 3;
              }
              advance_clock(1000);  // the look at the group finds the descriptor lost
              if (set("G", {item("A", 3)}) != 0) return 4;
              for (int fd = 3; fd < 20; ++fd) {
                if (fcntl(fd, F_GETFD) < 0) return 5;
              }
              return number("G", "A") == 3 ? 0 : 6;
            }),
            0);
}

TEST_F(StatusStoreFork, AGroupThatIsReplacedManyTimesUsesOneDescriptor) {
  const int before = group_descriptors();
  for (int i = 0; i < 50; ++i) {
    unlink(path("G").c_str());
    create("G");
    advance_clock(1000);
    ASSERT_EQ(set("G", {item("A", i)}), 0);
    ASSERT_EQ(number("G", "A"), i);
  }
  EXPECT_EQ(group_descriptors(), before);
}

}  // namespace
