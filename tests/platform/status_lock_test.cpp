#include "status_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>

#include "child_process.h"
#include "clock.h"
#include "fixtures.h"

namespace {

using namespace ptz::platform;
using namespace ptz_test;
using ptz::UniqueFd;

struct StatusLock : testing::Test {
  TempDir dir;
  const std::string path = dir.file("group");
  SharedLock *shared = shared_memory<SharedLock>();
  Word *owner = &shared->owner;
  WriterLock one, two;

  StatusLock() {
    *shared = {};
    EXPECT_EQ(one.enrol(open_file(O_CREAT)), 0);
    EXPECT_EQ(two.enrol(open_file()), 0);
  }
  [[nodiscard]] int lock_with(const WriterLock &lock) const {
    WriterPatience patience;
    return lock.lock(*shared, patience);
  }
  [[nodiscard]] UniqueFd open_file(int flags = 0) const {
    return UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0600));
  }
};

TEST_F(StatusLock, LockPutsATokenIntoTheWordAndUnlockTakesItAway) {
  EXPECT_EQ(lock_with(one), 0);
  EXPECT_NE(*owner, 0U);
  EXPECT_TRUE(one.is_held(*shared));
  EXPECT_FALSE(two.is_held(*shared));
  one.unlock(*shared);
  EXPECT_EQ(*owner, 0U);
}

TEST_F(StatusLock, LockOfALiveOwnersWordFailsAfterATenthOfASecond) {
  ASSERT_EQ(lock_with(one), 0);
  const auto begin = real_time_ms();
  EXPECT_EQ(lock_with(two), EBUSY);
  EXPECT_GE(real_time_ms() - begin, 99);
  one.unlock(*shared);
  EXPECT_EQ(lock_with(two), 0);
}

TEST_F(StatusLock, LockOfADeadOwnersWordSucceedsWithinTenMilliseconds) {
  std::int64_t waited_ms = 1'000;
  for (int i = 0; i < 5 && waited_ms > 10; ++i) {
    *owner = 0;
    EXPECT_EQ(run_child([this] {
                WriterLock lock;
                return lock.enrol(open_file()) == 0 && lock_with(lock) == 0 ? 0 : 1;
              }),
              0);
    ASSERT_NE(*owner, 0U);
    const auto begin = real_time_ms();
    ASSERT_EQ(lock_with(two), 0);
    waited_ms = real_time_ms() - begin;
    EXPECT_TRUE(two.is_held(*shared));
  }
  EXPECT_LE(waited_ms, 10);
}

TEST_F(StatusLock, LockTreatsAnyForeignWordAsADeadOwner) {
  for (const Word word :
       {Word{1}, Word{4711}, Word{1} << 61, (Word{1} << 62) - 1, Word{1} << 62, Word{1} << 63, ~Word{0}}) {
    *owner = word;
    EXPECT_EQ(lock_with(two), 0) << word;
    two.unlock(*shared);
    EXPECT_EQ(*owner, 0U);
  }
}

TEST_F(StatusLock, AReaderOfTheFileCannotMakeADeadOwnerLookAlive) {
  const UniqueFd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct flock byte = {};
  byte.l_type = F_RDLCK;
  byte.l_start = 4711;
  byte.l_len = 1;
  ASSERT_EQ(fcntl(reader.get(), F_OFD_SETLK, &byte), 0);
  *owner = 4711;
  EXPECT_EQ(lock_with(two), 0);
}

// Only damage, or a child made without fork handlers, puts the token of this process there.
TEST_F(StatusLock, LockOfItsOwnStaleTokenFailsUntilANewTokenIsTaken) {
  ASSERT_EQ(lock_with(one), 0);
  EXPECT_FALSE(one.is_intact(*shared));
  EXPECT_EQ(lock_with(one), EBUSY);
  one.withdraw();
  EXPECT_EQ(one.enrol(open_file()), 0);
  EXPECT_TRUE(one.is_intact(*shared));
  EXPECT_EQ(lock_with(one), 0);
}

TEST_F(StatusLock, UnlockLeavesTheWordOfAnotherOwner) {
  ASSERT_EQ(lock_with(one), 0);
  *owner = 4711;
  EXPECT_FALSE(one.is_held(*shared));
  one.unlock(*shared);
  EXPECT_EQ(*owner, 4711U);
}

TEST_F(StatusLock, LockAfterWithdrawFailsWithEstale) {
  one.withdraw();
  EXPECT_FALSE(one.is_enrolled());
  EXPECT_EQ(lock_with(one), ESTALE);
  EXPECT_EQ(*owner, 0U);
}

TEST_F(StatusLock, IsIntactReturnsFalseIfTheDescriptorWasClosedOrReplaced) {
  UniqueFd fd = open_file();
  const int number = fd.get();
  WriterLock lock;
  ASSERT_EQ(lock.enrol(std::move(fd)), 0);
  EXPECT_TRUE(lock.is_intact(*shared));
  close(number);
  EXPECT_FALSE(lock.is_intact(*shared));
  ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), number);
  EXPECT_FALSE(lock.is_intact(*shared));
  lock.withdraw();
  EXPECT_GE(fcntl(number, F_GETFD), 0) << "another file by now";
  close(number);
}

TEST_F(StatusLock, ALockWithoutItsDescriptorDeclaresNoOwnerDead) {
  UniqueFd fd = open_file();
  const int number = fd.get();
  WriterLock lock;
  ASSERT_EQ(lock.enrol(std::move(fd)), 0);
  close(number);
  const UniqueFd other(open("/dev/null", O_RDWR | O_CLOEXEC));
  ASSERT_EQ(other.get(), number);
  ASSERT_EQ(lock_with(one), 0);
  EXPECT_EQ(lock_with(lock), EBUSY);
  EXPECT_TRUE(one.is_held(*shared));
  lock.withdraw();
}

TEST_F(StatusLock, LockOfABusyWritersWordSucceeds) {
  auto *is_over = shared_memory<std::atomic<bool>>();
  // On one core, where the waiting writer meets the busy one in the middle of an update.
  cpu_set_t cores;
  ASSERT_EQ(sched_getaffinity(0, sizeof cores, &cores), 0);
  int core = 0;
  while (!CPU_ISSET(core, &cores)) ++core;
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(core, &first);
  ASSERT_EQ(sched_setaffinity(0, sizeof first, &first), 0);
  const pid_t busy = start_child([&] {
    WriterLock lock;
    if (lock.enrol(open_file()) != 0) return 1;
    while (!*is_over) {
      if (lock_with(lock) != 0) return 2;
      for (int i = 0; i < 20'000; ++i) *static_cast<volatile int *>(&i) = i;
      lock.unlock(*shared);
    }
    return 0;
  });
  for (int i = 0; i < 20; ++i) {
    usleep(3'000);  // the busy writer runs
    EXPECT_EQ(lock_with(one), 0);
    one.unlock(*shared);
  }
  *is_over = true;
  EXPECT_EQ(wait_for_child(busy), 0);
  sched_setaffinity(0, sizeof cores, &cores);
}

TEST_F(StatusLock, ProcessesExcludeEachOther) {
  struct Counts {
    std::atomic<int> inside, overlaps, locked, refused;
  };
  auto *counts = shared_memory<Counts>();
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    children.push_back(start_child([&] {
      WriterLock lock;
      if (lock.enrol(open_file()) != 0) return 1;
      for (int k = 0; k < 5'000; ++k) {
        if (lock_with(lock) != 0) {
          ++counts->refused;
          continue;
        }
        if (counts->inside++ != 0) ++counts->overlaps;
        --counts->inside;
        ++counts->locked;
        lock.unlock(*shared);
      }
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(wait_for_child(child), 0);
  EXPECT_EQ(counts->overlaps, 0);
  EXPECT_EQ(counts->refused, 0);
  EXPECT_EQ(counts->locked, 20'000);
}

}  // namespace
