#include "platform/file_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "faults.h"
#include "file_calls.h"
#include "fixtures.h"
#include "handles.h"

namespace {

using namespace ptz_test;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;
namespace fs = std::filesystem;

struct FileUtil : testing::Test {
  TempDir dir;
  std::string path = dir.file("file");
  Error error;

  bool write(const std::string &data) { return write_to(path, data); }
  bool write_to(const std::string &to, const std::string &data) {
    GError *raw = nullptr;
    const bool written = file_util_set_contents_synced(to.c_str(), data.data(), data.size(), &raw);
    error.reset(raw);
    EXPECT_EQ(written, error == nullptr);
    return written;
  }
  [[nodiscard]] std::ptrdiff_t entries() const { return std::distance(fs::directory_iterator(dir.path()), {}); }
};

TEST_F(FileUtil, ANewFileHoldsTheBytes) {
  const std::string bytes("a\0b\xFF\n", 5);
  EXPECT_TRUE(write(bytes));
  EXPECT_EQ(read_file(path), bytes);
  EXPECT_EQ(entries(), 1);
}

TEST_F(FileUtil, AnOldFileIsReplacedAsAWhole) {
  EXPECT_TRUE(write(std::string(200'000, 'x')));
  EXPECT_TRUE(write("short"));
  EXPECT_EQ(read_file(path), "short");
  EXPECT_TRUE(write(""));
  EXPECT_EQ(read_file(path), "");
}

TEST_F(FileUtil, EveryByteIsWrittenByALengthOfItsOwn) {
  EXPECT_TRUE(file_util_set_contents_synced(path.c_str(), "longer", 4, nullptr));
  EXPECT_EQ(read_file(path), "long");
}

TEST_F(FileUtil, TheFileIsFlushedBeforeItTakesItsPlace) {
  write_file(path, "old");
  const FileFault fault(Failing::fsync, EIO);
  EXPECT_FALSE(write("new"));
  EXPECT_EQ(fault.hits(), 1);
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_IO));
  EXPECT_EQ(read_file(path), "old");
  EXPECT_EQ(entries(), 1);
}

TEST_F(FileUtil, ANewFileIsFlushedToo) {
  const FileFault fault(Failing::fsync, EIO);
  EXPECT_FALSE(write("new"));
  EXPECT_FALSE(fs::exists(path));
}

TEST_F(FileUtil, AFullDiskLeavesTheOldFileWhole) {
  write_file(path, "old");
  const auto descriptors = open_descriptors();
  const Fault fault(Call::write, ENOSPC);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOSPC));
  EXPECT_EQ(read_file(path), "old");
  EXPECT_EQ(entries(), 1);
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(FileUtil, AWriteThatIsCutShortGoesOn) {
  const Interposer slow([](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call == Call::write) attempt.argument = std::min<std::int64_t>(attempt.argument, 1000);
    return std::nullopt;
  });
  const std::string bytes(10'500, 'x');
  EXPECT_TRUE(write(bytes));
  EXPECT_EQ(read_file(path), bytes);
}

TEST_F(FileUtil, AMissingOrLockedFolderIsAnError) {
  EXPECT_FALSE(write_to(dir.file("missing/file"), "new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
  write_file(path, "old");
  const FileFault fault(Failing::open, EACCES);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ACCES));
}

TEST_F(FileUtil, EverybodyMayReadItAndOnlyItsOwnerWrite) {
  const auto old_mask = umask(0);
  EXPECT_TRUE(write("new"));
  umask(old_mask);
  struct stat attributes {};
  ASSERT_EQ(stat(path.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777, 0644U);
}

}  // namespace
