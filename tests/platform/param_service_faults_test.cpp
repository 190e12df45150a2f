// System calls on the files of the tree that fail once, and what is left of the tree afterwards.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <string>

#include "interpose.h"
#include "parameter_tree.h"

namespace {

using namespace ptz_test;

// The calls on files whose path ends so fail: so many, after so many that go through.
struct Failing {
  std::string suffix;
  int skip = 0, times = 0, error = 0;

  bool fails(const std::string &path) {
    if (times == 0 || !path.ends_with(suffix)) return false;
    if (skip > 0) {
      --skip;
      return false;
    }
    --times;
    errno = error;
    return true;
  }
};
Failing reads, opens, writes;

std::string path_of(int fd) {
  std::error_code ignored;
  return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ignored).string();
}

Answer value(const std::string &text) { return {text, PARAM_SERVICE_OK}; }

struct ParamServiceFaults : ParameterTree {
  ~ParamServiceFaults() override { reads = opens = writes = {}; }
  void pass_a_second() const { advance_clock(1100); }
};

TEST_F(ParamServiceFaults, RecordThatCannotBeReadIsNotReplaced) {
  ASSERT_EQ(set("root.A", "1"), 0);
  for (const int skip : {0, 1, 2, 3, 4}) {
    ASSERT_EQ(set("root.A", std::to_string(skip)), 0);
    reads = {"/params.db-lock", skip, 1, EIO};
    sync_tree();
    reads = {};
    pass_a_second();
    EXPECT_EQ(get("root.A"), value(std::to_string(skip)));
    EXPECT_FALSE(std::filesystem::exists(file + "-wal.old")) << skip;
  }
}

TEST_F(ParamServiceFaults, LackOfDescriptorsDoesNotMakeTheTreeReadOnly) {
  opens = {"/params.db-lock", 0, 2, EMFILE};
  EXPECT_NE(set("root.A", "1"), 0);
  opens = {};
  pass_a_second();
  EXPECT_EQ(set("root.A", "2"), 0);
  EXPECT_EQ(get("root.A"), value("2"));
}

TEST_F(ParamServiceFaults, DiskThatIsFullWhileTheTreeIsMadeLeavesNoForeignFile) {
  for (int skip = 0; skip < 40; ++skip) {
    const TempDir folder;
    setenv("PTZ_PLATFORM_STATE_DIR", folder.path().c_str(), 1);
    connect_anew();
    pass_a_second();
    writes = {"", skip, 1000, ENOSPC};
    static_cast<void>(set("root.A", "1"));
    writes = {};
    pass_a_second();
    EXPECT_EQ(set("root.A", "2"), 0) << skip;
    EXPECT_EQ(get("root.A"), value("2")) << skip;
  }
}

}  // namespace

INTERPOSE(ssize_t, pread64, (int fd, void *buffer, size_t length, off64_t offset)) {
  if (reads.times > 0 && reads.fails(path_of(fd))) return -1;
  return REAL(pread64)(fd, buffer, length, offset);
}

INTERPOSE(ssize_t, pwrite64, (int fd, const void *buffer, size_t length, off64_t offset)) {
  if (writes.times > 0 && writes.fails(path_of(fd))) return -1;
  return REAL(pwrite64)(fd, buffer, length, offset);
}

INTERPOSE(int, open64, (const char *path, int flags, ...)) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (opens.times > 0 && (flags & O_ACCMODE) == O_RDWR && opens.fails(path)) return -1;
  return REAL(open64)(path, flags, mode);
}
