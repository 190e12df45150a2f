#include "param_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "temp_dir.h"

namespace {

using namespace ptz::platform;
using ptz_test::TempDir;

constexpr std::uint64_t lock_inode = 7;
constexpr std::int64_t second_ns = 1'000'000'000;

Record record_of(const FileStamp &database, std::uint32_t flags) {
  Record record;
  record.own_inode = lock_inode;
  record.database = database;
  record.flags = flags;
  record.begun_ns = 100 * second_ns;
  return record;
}

constexpr FileStamp recorded{1, 4096, 50 * second_ns};

TEST(ParamLockMatch, DatabaseAsRecordedIsTheSame) {
  EXPECT_EQ(match(record_of(recorded, 0), lock_inode, recorded), Match::same);
  EXPECT_EQ(match(record_of(recorded, Record::flushed), lock_inode, recorded), Match::same);
}

TEST(ParamLockMatch, AnyDifferenceOutsideOfAFlushIsAReplacement) {
  for (const FileStamp found : {FileStamp{2, 4096, recorded.modified_ns}, FileStamp{1, 8192, recorded.modified_ns},
                                FileStamp{1, 4096, recorded.modified_ns + 1}}) {
    EXPECT_EQ(match(record_of(recorded, 0), lock_inode, found), Match::replaced);
  }
}

TEST(ParamLockMatch, ChangeAtTheTimeOfAnUnfinishedFlushIsTheFlushs) {
  const auto record = record_of(recorded, Record::flushing);
  EXPECT_EQ(match(record, lock_inode, recorded), Match::unfinished);
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 101 * second_ns}), Match::unfinished);
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 100 * second_ns - 1'000'000}), Match::unfinished) << "a clock tick";
  EXPECT_EQ(match(record, lock_inode, {2, 8192, 101 * second_ns}), Match::replaced) << "another inode";
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 40 * second_ns}), Match::replaced) << "cp -p of an older file";
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 500 * second_ns}), Match::replaced) << "long after the flush";
  EXPECT_EQ(match(record, lock_inode, {1, 8192, recorded.modified_ns}), Match::unfinished)
      << "pages without their time";
}

TEST(ParamLockMatch, LaterTimeOfAnUnfinishedMoveIsTheMoves) {
  const auto record = record_of(recorded, Record::flushed | Record::moving);
  EXPECT_EQ(match(record, lock_inode, {1, 4096, 101 * second_ns}), Match::unfinished);
  EXPECT_EQ(match(record, lock_inode, {1, 4096, recorded.modified_ns + 1}), Match::unfinished)
      << "the clock was set back";
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 101 * second_ns}), Match::replaced) << "another size";
}

// The time of a move is not flushed, and neither is the record.
TEST(ParamLockMatch, TimeFromBeforeTheLastMoveIsTheSameFileOnlyAfterAnotherBoot) {
  auto record = record_of(recorded, 0);
  record.previous_ns = 40 * second_ns;
  EXPECT_EQ(match(record, lock_inode, {1, 4096, 40 * second_ns}), Match::same);
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 40 * second_ns}), Match::replaced) << "another size";
  EXPECT_EQ(match(record, lock_inode, {2, 4096, 40 * second_ns}), Match::replaced) << "another inode";
  EXPECT_EQ(match(record, lock_inode, {1, 4096, 39 * second_ns}), Match::replaced) << "an older copy";
  record.flags = Record::flushing;
  EXPECT_EQ(match(record, lock_inode, {1, 8192, 40 * second_ns}), Match::unfinished);
}

TEST(ParamLockMatch, RecordOfAnotherFolderOrNoneIsIgnored) {
  EXPECT_EQ(match(record_of(recorded, 0), lock_inode + 1, recorded), Match::unrecorded);
  EXPECT_EQ(match(Record{}, lock_inode, recorded), Match::unrecorded);
}

struct ParamLockFile : testing::Test {
  TempDir dir;
  const std::string file = dir.file("params.db");
  std::unique_ptr<ParamLock> lock;
  void SetUp() override {
    struct stat folder = {};
    ASSERT_EQ(stat(dir.path().c_str(), &folder), 0);
    lock = ParamLock::open(file, folder);
    ASSERT_NE(lock, nullptr);
  }
};

TEST_F(ParamLockFile, KeepsItsRecordAndKnowsWhetherItIsInPlace) {
  EXPECT_EQ(lock->load().magic, Record{}.magic);
  EXPECT_EQ(lock->load().own_inode, 0U);
  Record record = record_of(recorded, Record::flushed);
  record.generation = 3;
  ASSERT_TRUE(lock->save(record));
  EXPECT_EQ(lock->load().own_inode, lock->inode());
  EXPECT_EQ(lock->load().generation, 3U);
  EXPECT_EQ(lock->load().database, recorded);
  EXPECT_TRUE(lock->is_in_place());
  ASSERT_EQ(rename((file + "-lock").c_str(), dir.file("moved").c_str()), 0);
  EXPECT_FALSE(lock->is_in_place());
}

// A process that is killed before it copies leaves the database as recorded; `copying` may not be on disk after a
// reboot.
TEST_F(ParamLockFile, ChangeDuringAFlushThatDoesNotCopyIsAReplacementUntilTheNextBoot) {
  Record record = record_of(recorded, Record::flushing);
  ASSERT_TRUE(lock->save(record));
  const FileStamp changed{1, 8192, 101 * second_ns};
  EXPECT_EQ(match(lock->load(), lock->inode(), changed), Match::replaced);
  record.flags |= Record::copying;
  ASSERT_TRUE(lock->save(record));
  EXPECT_EQ(match(lock->load(), lock->inode(), changed), Match::unfinished);
  record = lock->load();
  record.flags = Record::flushing;
  ++record.boot;
  EXPECT_EQ(match(record, lock->inode(), changed), Match::unfinished) << "another boot";
}

TEST_F(ParamLockFile, OfAnotherVersionIsNoRecord) {
  Record record = record_of(recorded, 0);
  record.version = Record::current_version + 1;
  ASSERT_TRUE(lock->save(record));
  EXPECT_EQ(match(lock->load(), lock->inode(), recorded), Match::unrecorded);
  EXPECT_EQ(lock->load().version, Record::current_version + 1);
}

TEST_F(ParamLockFile, ChildOfAForkDoesNotHoldTheLock) {
  ASSERT_TRUE(lock->try_lock());
  const pid_t child = fork();
  if (child == 0) _exit(lock->try_lock() ? 1 : 0);
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "held by the parent";
  lock->unlock();
  const pid_t second = fork();
  if (second == 0) _exit(lock->try_lock() ? 0 : 1);
  ASSERT_EQ(waitpid(second, &status, 0), second);
  EXPECT_EQ(status, 0) << "free";
}

}  // namespace
