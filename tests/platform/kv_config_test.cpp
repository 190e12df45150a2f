#include "platform/kv_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <future>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "faults.h"
#include "file_calls.h"
#include "fixtures.h"

namespace {

using namespace ptz_test;

using Record = std::tuple<std::string, std::string, std::optional<std::string>>;
using Records = std::vector<Record>;

struct KvConfig : testing::Test {
  TempDir dir;
  std::string path = dir.file("file");

  ~KvConfig() override { kv_config_close(); }

  static Records rest() {
    Records records;
    while (const auto *record = kv_config_get()) {
      records.emplace_back(record->group, record->key,
                           record->value != nullptr ? std::optional<std::string>(record->value) : std::nullopt);
    }
    return records;
  }
  Records read(std::string_view text) const {
    write_file(path, text);
    EXPECT_NE(kv_config_open(path.c_str()), 0);
    auto records = rest();
    kv_config_close();
    return records;
  }
  // The error of an open that fails.
  static int failure(const std::string &path) {
    errno = 0;
    EXPECT_EQ(kv_config_open(path.c_str()), 0);
    const int error = errno;
    EXPECT_EQ(kv_config_get(), nullptr);
    return error;
  }
};

TEST_F(KvConfig, KeysBelongToTheGroupAboveThem) {
  EXPECT_EQ(read("[First]\nA=1\nB=2\n[Second]\nA=3\n[First]\nC=4\n"),
            (Records{{"First", "A", "1"}, {"First", "B", "2"}, {"Second", "A", "3"}, {"First", "C", "4"}}));
}

TEST_F(KvConfig, OpenOfAFileThatIsNeverReadyFailsAtOnce) {
  write_file(path, "[Group]\nA=1\n");
  const Fault never_ready(Call::read, EAGAIN, {.times = 1000});
  EXPECT_EQ(failure(path), EAGAIN);
  EXPECT_EQ(never_ready.hits(), 1);
}

TEST_F(KvConfig, CommentsAndBlankLinesAreLeftOut) {
  EXPECT_EQ(read("# one\n; two\n\n \t\n[Group]\n#A=1\n;B=2\n  # three\nC=4 # no comment\n"),
            (Records{{"Group", "C", "4 # no comment"}}));
}

TEST_F(KvConfig, AKeyBeforeAnyGroupNamesItsGroup) {
  EXPECT_EQ(read("root.PTZ.Limit.Speed=1\nPTZ.Limit.Speed=2\nDriver.Name=3\nroot.Brand=4\nroot.root.A=5\n"),
            (Records{{"PTZ.Limit", "Speed", "1"},
                     {"PTZ.Limit", "Speed", "2"},
                     {"Driver", "Name", "3"},
                     {"root", "Brand", "4"},
                     {"root", "A", "5"}}));
}

TEST_F(KvConfig, AKeyBeforeAnyGroupWithoutADotHasNone) { EXPECT_EQ(read("Speed=1\n"), (Records{{"", "Speed", "1"}})); }

TEST_F(KvConfig, DotsInAGroupsKeysMeanNothing) {
  EXPECT_EQ(read("[root.Group]\nroot.A.B=1\n"), (Records{{"root.Group", "root.A.B", "1"}}));
}

TEST_F(KvConfig, QuotesAroundAValueStay) {
  EXPECT_EQ(read("[G]\nA=\"one\"\nB='two'\nC=\"  spaced  \"\nD=\"\n"),
            (Records{{"G", "A", "\"one\""}, {"G", "B", "'two'"}, {"G", "C", "\"  spaced  \""}, {"G", "D", "\""}}));
}

TEST_F(KvConfig, BytesPassUnchanged) {
  EXPECT_EQ(read("[G\xE9]\nK\xE9=\xE9\xFF\x01%s\\n\\\n"), (Records{{"G\xE9", "K\xE9", "\xE9\xFF\x01%s\\n\\"}}));
  EXPECT_EQ(read("[G]\nK=caf\xC3\xA9\n"), (Records{{"G", "K", "caf\xC3\xA9"}}));
}

TEST_F(KvConfig, OnlyTheFirstEqualsSignDivides) {
  EXPECT_EQ(read("[G]\nA=b=c\nD==\n=e\n"), (Records{{"G", "A", "b=c"}, {"G", "D", "="}, {"G", "", "e"}}));
}

TEST_F(KvConfig, SpacesAroundKeysAndValuesAndLineEndsOfOtherSystemsDoNotCount) {
  EXPECT_EQ(read("[ G ]\r\n  A =  b c  \r\nD=\r\n"), (Records{{"G", "A", "b c"}, {"G", "D", ""}}));
}

TEST_F(KvConfig, AKeyWithoutAnEqualsSignHasNoValue) {
  EXPECT_EQ(read("[G]\nA\nB=\n"), (Records{{"G", "A", std::nullopt}, {"G", "B", ""}}));
}

TEST_F(KvConfig, ALastLineNeedsNoEnd) { EXPECT_EQ(read("[G]\nA=1"), (Records{{"G", "A", "1"}})); }

TEST_F(KvConfig, AnEmptyFileHasNoRecords) {
  EXPECT_EQ(read(""), Records{});
  EXPECT_EQ(read("\n\n"), Records{});
  EXPECT_EQ(read("[G]\n"), Records{});
}

TEST_F(KvConfig, ALongLineIsWhole) {
  const std::string text(1'000'000, 'x');
  EXPECT_EQ(read("[G]\nA=" + text + "\nB=1\n"), (Records{{"G", "A", text}, {"G", "B", "1"}}));
}

TEST_F(KvConfig, BinaryFilesAreReadToTheirEnd) {
  std::string bytes;
  for (int i = 0; i < 10'000; ++i) bytes.push_back(static_cast<char>(i * 37 ^ i >> 3));
  read(bytes);
  EXPECT_EQ(read(std::string("[G]\nA=1\0x\nB=2\n", 14)), (Records{{"G", "A", "1"}, {"G", "B", "2"}}));
  EXPECT_EQ(read(std::string("[Gr")), (Records{{"", "[Gr", std::nullopt}}));
}

TEST_F(KvConfig, AtTheEndThereIsNothingHoweverOftenOneAsks) {
  write_file(path, "[G]\nA=1\n");
  ASSERT_NE(kv_config_open(path.c_str()), 0);
  EXPECT_NE(kv_config_get(), nullptr);
  EXPECT_EQ(kv_config_get(), nullptr);
  EXPECT_EQ(kv_config_get(), nullptr);
}

TEST_F(KvConfig, WithoutAnOpenFileThereIsNothing) {
  kv_config_close();
  kv_config_close();
  EXPECT_EQ(kv_config_get(), nullptr);
}

TEST_F(KvConfig, OpeningAnotherFileLeavesTheFirst) {
  const auto other = dir.file("other");
  write_file(path, "[G]\nA=1\nB=2\n");
  write_file(other, "[H]\nC=3\n");
  ASSERT_NE(kv_config_open(path.c_str()), 0);
  ASSERT_NE(kv_config_get(), nullptr);
  ASSERT_NE(kv_config_open(other.c_str()), 0);
  EXPECT_EQ(rest(), (Records{{"H", "C", "3"}}));
}

TEST_F(KvConfig, AFileThatCannotBeOpenedSaysWhy) {
  EXPECT_EQ(failure(path), ENOENT);
  EXPECT_EQ(failure(dir.path()), EISDIR);
  EXPECT_EQ(failure(""), ENOENT);
  write_file(path, "[G]\nA=1\n");
  EXPECT_EQ(failure(path + "/below"), ENOTDIR);
  const FileFault fault(Failing::open, EACCES, {.path = path});
  EXPECT_EQ(failure(path), EACCES);
}

TEST_F(KvConfig, WhatHasNoEndIsNotRead) { EXPECT_EQ(failure("/dev/zero"), EINVAL); }

TEST_F(KvConfig, APipeThatBringsNothingIsWaitedForTenSecondsOnly) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const Interposer no_time([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::poll) return std::nullopt;
    EXPECT_GT(attempt.argument, 9'000);
    EXPECT_LE(attempt.argument, 10'000);
    return Outcome{0};
  });
  EXPECT_EQ(failure(path), ETIMEDOUT);
}

TEST_F(KvConfig, APipeIsReadUntilItsWriterHasGone) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  auto writer = std::async(std::launch::async, [this] { write_file(path, "[G]\nA=1\n"); });
  ASSERT_NE(kv_config_open(path.c_str()), 0);
  EXPECT_EQ(rest(), (Records{{"G", "A", "1"}}));
}

TEST_F(KvConfig, TheNullDeviceIsAnEmptyFile) {
  ASSERT_NE(kv_config_open("/dev/null"), 0);
  EXPECT_EQ(rest(), Records{});
}

TEST_F(KvConfig, ACommentMayFollowAGroup) {
  EXPECT_EQ(read("[G] # one\nA=1\n[H];\nB=2\n[I] x\n"),
            (Records{{"G", "A", "1"}, {"H", "B", "2"}, {"H", "[I] x", std::nullopt}}));
}

TEST_F(KvConfig, AFileThatCannotBeReadToItsEndIsNotOpened) {
  write_file(path, "[G]\nA=1\n");
  const auto descriptors = open_descriptors();
  {
    const Fault fault(Call::read, EIO, {.times = 1, .skip = 1});
    EXPECT_EQ(failure(path), EIO);
  }
  const Fault fault(Call::read, EINTR, {.times = 2});
  ASSERT_NE(kv_config_open(path.c_str()), 0);
  EXPECT_EQ(rest(), (Records{{"G", "A", "1"}}));
  EXPECT_EQ(open_descriptors(), descriptors);
}

}  // namespace
