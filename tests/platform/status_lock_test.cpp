#include "status_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
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
  Word *owner = shared_memory<Word>();
  WriterLock one, two;

  StatusLock() {
    *owner = 0;
    EXPECT_EQ(one.enrol(open_file(O_CREAT)), 0);
    EXPECT_EQ(two.enrol(open_file()), 0);
  }
  [[nodiscard]] UniqueFd open_file(int flags = 0) const {
    return UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0600));
  }
};

TEST_F(StatusLock, LockPutsATokenIntoTheWordAndUnlockTakesItAway) {
  EXPECT_EQ(one.lock(*owner), 0);
  EXPECT_NE(*owner, 0U);
  EXPECT_TRUE(one.is_held(*owner));
  EXPECT_FALSE(two.is_held(*owner));
  one.unlock(*owner);
  EXPECT_EQ(*owner, 0U);
}

TEST_F(StatusLock, LockOfALiveOwnersWordFailsAfterATenthOfASecond) {
  ASSERT_EQ(one.lock(*owner), 0);
  const auto begin = real_time_ms();
  EXPECT_EQ(two.lock(*owner), EBUSY);
  EXPECT_GE(real_time_ms() - begin, 99);
  one.unlock(*owner);
  EXPECT_EQ(two.lock(*owner), 0);
}

TEST_F(StatusLock, LockOfADeadOwnersWordSucceedsWithinTenMilliseconds) {
  std::int64_t waited_ms = 1'000;
  for (int i = 0; i < 5 && waited_ms > 10; ++i) {
    *owner = 0;
    EXPECT_EQ(run_child([this] {
                WriterLock lock;
                return lock.enrol(open_file()) == 0 && lock.lock(*owner) == 0 ? 0 : 1;
              }),
              0);
    ASSERT_NE(*owner, 0U);
    const auto begin = real_time_ms();
    ASSERT_EQ(two.lock(*owner), 0);
    waited_ms = real_time_ms() - begin;
    EXPECT_TRUE(two.is_held(*owner));
  }
  EXPECT_LE(waited_ms, 10);
}

TEST_F(StatusLock, LockTreatsAnyForeignWordAsADeadOwner) {
  for (const Word word :
       {Word{1}, Word{4711}, Word{1} << 61, (Word{1} << 62) - 1, Word{1} << 62, Word{1} << 63, ~Word{0}}) {
    *owner = word;
    EXPECT_EQ(two.lock(*owner), 0) << word;
    two.unlock(*owner);
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
  EXPECT_EQ(two.lock(*owner), 0);
}

// Only damage, or a child made without fork handlers, puts the token of this process there.
TEST_F(StatusLock, LockOfItsOwnStaleTokenFailsUntilANewTokenIsTaken) {
  ASSERT_EQ(one.lock(*owner), 0);
  EXPECT_FALSE(one.is_intact(*owner));
  EXPECT_EQ(one.lock(*owner), EBUSY);
  one.withdraw();
  EXPECT_EQ(one.enrol(open_file()), 0);
  EXPECT_TRUE(one.is_intact(*owner));
  EXPECT_EQ(one.lock(*owner), 0);
}

TEST_F(StatusLock, UnlockLeavesTheWordOfAnotherOwner) {
  ASSERT_EQ(one.lock(*owner), 0);
  *owner = 4711;
  EXPECT_FALSE(one.is_held(*owner));
  one.unlock(*owner);
  EXPECT_EQ(*owner, 4711U);
}

TEST_F(StatusLock, LockAfterWithdrawFailsWithEstale) {
  one.withdraw();
  EXPECT_FALSE(one.is_enrolled());
  EXPECT_EQ(one.lock(*owner), ESTALE);
  EXPECT_EQ(*owner, 0U);
}

TEST_F(StatusLock, IsIntactReturnsFalseIfTheDescriptorWasClosedOrReplaced) {
  UniqueFd fd = open_file();
  const int number = fd.get();
  WriterLock lock;
  ASSERT_EQ(lock.enrol(std::move(fd)), 0);
  EXPECT_TRUE(lock.is_intact(*owner));
  close(number);
  EXPECT_FALSE(lock.is_intact(*owner));
  ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), number);
  EXPECT_FALSE(lock.is_intact(*owner));
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
  ASSERT_EQ(one.lock(*owner), 0);
  EXPECT_EQ(lock.lock(*owner), EBUSY);
  EXPECT_TRUE(one.is_held(*owner));
  lock.withdraw();
}

TEST_F(StatusLock, ProcessesExcludeEachOther) {
  struct Shared {
    std::atomic<int> inside, overlaps, locked, refused;
  };
  auto *shared = shared_memory<Shared>();
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    children.push_back(start_child([&] {
      WriterLock lock;
      if (lock.enrol(open_file()) != 0) return 1;
      for (int k = 0; k < 5'000; ++k) {
        if (lock.lock(*owner) != 0) {
          ++shared->refused;
          continue;
        }
        if (shared->inside++ != 0) ++shared->overlaps;
        --shared->inside;
        ++shared->locked;
        lock.unlock(*owner);
      }
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(wait_for_child(child), 0);
  EXPECT_EQ(shared->overlaps, 0);
  EXPECT_EQ(shared->refused, 0);
  EXPECT_EQ(shared->locked, 20'000);
}

}  // namespace
