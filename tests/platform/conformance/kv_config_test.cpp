#include "platform/kv_config.h"

#include <sys/mman.h>

#include <cerrno>
#include <tuple>
#include <vector>

#include "conformance.h"

namespace {

using namespace conformance;

using Record = std::tuple<std::string, std::string, std::string>;
using Records = std::vector<Record>;

// The format of the files is the device's own. Only what the settings files of drivers use is tested.
struct KvConfig : ServiceTest {
  TempDir dir;
  const std::string path = dir.file("settings.conf");
  KvConfig() : ServiceTest("kv_config") {}

  static Records read(const std::string &of) {
    Records records;
    EXPECT_NE(kv_config_open(of.c_str()), 0);
    while (const auto *record = kv_config_get()) {
      records.emplace_back(record->group, record->key, record->value != nullptr ? record->value : "");
      if (records.size() > 1000) break;
    }
    kv_config_close();
    return records;
  }
};

TEST_F(KvConfig, RecordsComeInTheOrderOfTheFile) {
  write_file(path, "[First]\nB=1\nA=2\n[Second]\nA=3\n");
  EXPECT_EQ(read(path), (Records{{"First", "B", "1"}, {"First", "A", "2"}, {"Second", "A", "3"}}));
}

TEST_F(KvConfig, ValueIsAsTheFileHasIt) {
  write_file(path, "[G]\nA=C:\\\\temp\\n\nB=\"two words\"\nC=a=b\nD=caf\xE9\n");
  EXPECT_EQ(
      read(path),
      (Records{{"G", "A", "C:\\\\temp\\n"}, {"G", "B", "\"two words\""}, {"G", "C", "a=b"}, {"G", "D", "caf\xE9"}}));
}

TEST_F(KvConfig, FileWithoutRecordsEndsAtOnce) {
  write_file(path, "");
  EXPECT_EQ(read(path), Records{});
}

TEST_F(KvConfig, SeveralFilesAreReadOneAfterTheOther) {
  write_file(path, "[G]\nA=1\n");
  write_file(dir.file("second.conf"), "[G]\nA=2\n");
  EXPECT_EQ(read(path), (Records{{"G", "A", "1"}}));
  EXPECT_EQ(read(dir.file("second.conf")), (Records{{"G", "A", "2"}}));
  EXPECT_EQ(read(path), (Records{{"G", "A", "1"}}));
}

TEST_F(KvConfig, MissingFileCannotBeOpened) {
  errno = 0;
  EXPECT_EQ(kv_config_open(dir.file("missing").c_str()), 0);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(KvConfig, CloseWithoutAnOpenFileHasNoEffect) {
  kv_config_close();
  kv_config_close();
}

// The library reads a pipe itself and passes the copy on.
TEST_F(KvConfig, CopyInMemoryIsReadThroughItsDescriptor) {
  const std::string text = "[G]\nA=1\n";
  const int copy = memfd_create("copy", MFD_CLOEXEC);
  ASSERT_EQ(write(copy, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(read("/proc/self/fd/" + std::to_string(copy)), (Records{{"G", "A", "1"}}));
  close(copy);
}

}  // namespace
