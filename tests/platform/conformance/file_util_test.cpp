#include "platform/file_util.h"

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "conformance.h"

namespace {

using namespace conformance;
namespace fs = std::filesystem;

struct FileUtil : ServiceTest {
  TempDir dir;
  const std::string path = dir.file("file");
  Error error;
  FileUtil() : ServiceTest("file_util") {}

  bool write_to(const std::string &to, const std::string &data) {
    GError *raw = nullptr;
    const bool is_written = file_util_set_contents_synced(to.c_str(), data.data(), data.size(), &raw) != FALSE;
    error.reset(raw);
    EXPECT_EQ(is_written, error == nullptr) << "an error is set on failure and only then";
    return is_written;
  }
  [[nodiscard]] std::ptrdiff_t entries() const { return std::distance(fs::directory_iterator(dir.path()), {}); }
};

TEST_F(FileUtil, NewFileHoldsTheBytesAndNoOtherFileIsLeft) {
  const std::string bytes("a\0b\xFF\n", 5);
  EXPECT_TRUE(write_to(path, bytes));
  EXPECT_EQ(read_file(path), bytes);
  EXPECT_EQ(entries(), 1);
}

TEST_F(FileUtil, OldFileIsReplacedAsAWhole) {
  write_file(path, std::string(100'000, 'x'));
  EXPECT_TRUE(write_to(path, "short"));
  EXPECT_EQ(read_file(path), "short");
  EXPECT_TRUE(write_to(path, ""));
  EXPECT_EQ(read_file(path), "");
  EXPECT_EQ(entries(), 1);
}

TEST_F(FileUtil, ReplacedFileKeepsPermissionsAndOwner) {
  write_file(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(chown(path.c_str(), 4001, 4002), 0);
  }
  struct stat before = {}, after = {};
  ASSERT_EQ(stat(path.c_str(), &before), 0);
  EXPECT_TRUE(write_to(path, "new"));
  ASSERT_EQ(stat(path.c_str(), &after), 0);
  EXPECT_EQ(after.st_mode, before.st_mode);
  EXPECT_EQ(after.st_uid, before.st_uid);
  EXPECT_EQ(after.st_gid, before.st_gid);
  EXPECT_EQ(read_file(path), "new");
}

TEST_F(FileUtil, SymbolicLinkStaysAndItsTargetIsReplaced) {
  fs::create_directory(dir.file("folder"));
  write_file(dir.file("folder/target"), "old");
  fs::create_symlink("folder/target", path);
  EXPECT_TRUE(write_to(path, "new"));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(read_file(dir.file("folder/target")), "new");
}

TEST_F(FileUtil, FailureHasAnErrorWhichTheCallerNeedNotTake) {
  const auto missing = dir.file("missing/file");
  EXPECT_FALSE(write_to(missing, "new"));
  EXPECT_FALSE(file_util_set_contents_synced(missing.c_str(), "new", 3, nullptr));
  EXPECT_FALSE(write_to(dir.path(), "new"));
  EXPECT_EQ(entries(), 0);
}

TEST_F(FileUtil, ReadersSeeOneOfSeveralWritersWholeContents) {
  constexpr std::size_t size = 50'000;
  write_file(path, std::string(size, 'a'));
  std::atomic<int> running = 2, failures = 0;
  std::vector<std::thread> writers;
  for (const char letter : {'b', 'c'}) {
    writers.emplace_back([&, letter] {
      const std::string data(size, letter);
      for (int round = 0; round < 20; ++round) {
        if (!file_util_set_contents_synced(path.c_str(), data.data(), size, nullptr)) ++failures;
      }
      --running;
    });
  }
  int torn = 0;
  while (running > 0) {
    const auto data = read_file(path);
    if (data.size() != size || data.find_first_not_of(data[0]) != std::string::npos) ++torn;
  }
  for (auto &writer : writers) writer.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(entries(), 1);
}

}  // namespace
