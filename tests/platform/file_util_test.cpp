#include "platform/file_util.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "faults.h"
#include "file_calls.h"
#include "fixtures.h"
#include "handles.h"
#include "syslog_capture.h"

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

// A file as a killed process leaves it.
void leave(const std::string &path, time_t age_s) {
  write_file(path, "password");
  const timespec then = {time(nullptr) - age_s, 0}, times[] = {then, then};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(FileUtil, WriteRemovesOldTemporaryFilesOfTheSameFileOnly) {
  const std::string left = dir.file(".file.0123abcd"), fresh = dir.file(".file.0123abce"),
                    other = dir.file(".else.0123abcd"), longer = dir.file(".file.0123abcde"),
                    no_digits = dir.file(".file.saved-01");
  for (const auto &name : {left, other, longer, no_digits}) leave(name, 3600);
  leave(fresh, 60);
  EXPECT_TRUE(write("new"));
  EXPECT_FALSE(fs::exists(left));
  for (const auto &name : {fresh, other, longer, no_digits}) EXPECT_TRUE(fs::exists(name)) << name;
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

// --- permissions and owners -------------------------------------------------------------------------------------

constexpr uid_t nobody = 65534;
constexpr uid_t some_user = 4001, other_user = 4002;
constexpr gid_t some_group = 4003, other_group = 4004;

struct Access {
  mode_t mode;
  uid_t owner;
  gid_t group;
  bool operator==(const Access &) const = default;
};
void PrintTo(const Access &access, std::ostream *out) {
  *out << std::oct << access.mode << std::dec << " " << access.owner << ":" << access.group;
}

Access access_of(const std::string &path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
  return {status.st_mode & 07777, status.st_uid, status.st_gid};
}

struct FileUtilAccess : FileUtil {
  mode_t old_mask = umask(0);
  ~FileUtilAccess() override { umask(old_mask); }

  void provide(const std::string &of, const Access &access) const {
    write_file(of, "old");
    ASSERT_EQ(chown(of.c_str(), access.owner, access.group), 0);
    ASSERT_EQ(chmod(of.c_str(), access.mode), 0);
  }
  void provide_mode(mode_t mode) const { provide(path, {mode, geteuid(), getegid()}); }

  // In a child process, which root lets become a user that is in no other groups.
  template <typename Check>
  static void as_user(uid_t user, gid_t group, const Check &check) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      EXPECT_EQ(setgroups(0, nullptr), 0);
      EXPECT_EQ(setgid(group), 0);
      EXPECT_EQ(setuid(user), 0);
      check();
      std::fflush(nullptr);
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
};

struct FileUtilUsers : FileUtilAccess {
  FileUtilUsers() { chmod(dir.path().c_str(), 0777); }
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can be other users";
  }
};

TEST_F(FileUtilAccess, NewFileIsReadableByAllAndWritableByItsOwner) {
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path).mode, 0644U);
}

TEST_F(FileUtilAccess, NewFileObeysTheUmask) {
  umask(0027);
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path).mode, 0640U);
}

TEST_F(FileUtilAccess, ReplacedFileKeepsItsModeWhateverTheUmask) {
  umask(0077);
  for (const mode_t mode : {0600U, 0640U, 0660U, 0664U, 0666U, 0400U, 0444U, 0604U}) {
    provide_mode(mode);
    EXPECT_TRUE(write("new"));
    EXPECT_EQ(access_of(path).mode, mode);
    EXPECT_EQ(read_file(path), "new");
    fs::remove(path);
  }
}

TEST_F(FileUtilAccess, ReplacedFileLosesSetIdBits) {
  provide_mode(06755);
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path).mode, 0755U);
}

TEST_F(FileUtilAccess, NewContentOfAPrivateFileIsPrivateFromTheFirstByte) {
  provide_mode(0600);
  int writes = 0;
  const Interposer watch([&](Attempt &attempt) -> std::optional<Outcome> {
    if (attempt.call != Call::write) return std::nullopt;
    ++writes;
    for (const auto &entry : fs::directory_iterator(dir.path())) EXPECT_EQ(access_of(entry.path()).mode, 0600U);
    EXPECT_EQ(entries(), 2);
    return std::nullopt;
  });
  EXPECT_TRUE(write("password"));
  EXPECT_EQ(writes, 1);
}

// An access control list as the kernel has it: the given permissions of one more user, and those of group and others.
std::string acl_for(uid_t user, std::uint32_t of_user = 4, std::uint32_t of_all = 0) {
  const std::uint32_t words[] = {2,   6 << 16 | 1,  ~0U, of_user << 16 | 2, user, of_all << 16 | 4,
                                 ~0U, 4 << 16 | 16, ~0U, of_all << 16 | 32, ~0U};
  return {reinterpret_cast<const char *>(words), sizeof words};
}
constexpr char access_acl[] = "system.posix_acl_access", default_acl[] = "system.posix_acl_default";

bool set_acl(const std::string &path, const char *name, const std::string &acl) {
  return setxattr(path.c_str(), name, acl.data(), acl.size(), 0) == 0;
}
std::string acl_of(const std::string &path) {
  char bytes[1000];
  const ssize_t length = getxattr(path.c_str(), access_acl, bytes, sizeof bytes);
  return {bytes, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

TEST_F(FileUtilAccess, ReplacedFileKeepsItsAccessControlList) {
  write_file(path, "old");
  if (!set_acl(path, access_acl, acl_for(1234))) GTEST_SKIP() << "the file system has no access control lists";
  ASSERT_EQ(access_of(path).mode, 0640U) << "the group's bits are the mask";
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path).mode, 0640U);
  EXPECT_EQ(acl_of(path), acl_for(1234));
}

TEST_F(FileUtilAccess, ReplacedFileTakesNoAccessFromTheDefaultListOfTheFolder) {
  provide_mode(0640);
  if (!set_acl(dir.path(), default_acl, acl_for(1234))) GTEST_SKIP() << "the file system has no access control lists";
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path).mode, 0640U);
  EXPECT_EQ(acl_of(path), "");
}

// The list keeps one user from what all others may read.
TEST_F(FileUtilUsers, StrangerToTheGroupLeavesAFileWithAListToTheOwnerOnly) {
  provide(path, {0644, some_user, some_group});
  if (!set_acl(path, access_acl, acl_for(1234, 0, 4))) GTEST_SKIP() << "the file system has no access control lists";
  as_user(other_user, other_group, [&] { EXPECT_TRUE(write("new")); });
  EXPECT_EQ(acl_of(path), "");
  EXPECT_EQ(access_of(path), (Access{0600, other_user, other_group}));
}

TEST_F(FileUtilUsers, RootKeepsOwnerAndGroup) {
  const Access access = {0640, some_user, some_group};
  provide(path, access);
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(access_of(path), access);
  EXPECT_EQ(read_file(path), "new");
}

TEST_F(FileUtilUsers, OwnerKeepsTheGroupOfAnotherFolder) {
  chown(dir.path().c_str(), 0, other_group);
  chmod(dir.path().c_str(), 02777);
  const Access access = {0660, some_user, some_group};
  provide(path, access);
  as_user(some_user, some_group, [&] { EXPECT_TRUE(write("new")); });
  EXPECT_EQ(access_of(path), access);
}

TEST_F(FileUtilUsers, MemberOfTheGroupTakesTheFileAndKeepsItsGroup) {
  provide(path, {0640, 0, some_group});
  as_user(some_user, some_group, [&] { EXPECT_TRUE(write("new")); });
  EXPECT_EQ(access_of(path), (Access{0640, some_user, some_group}));
  EXPECT_EQ(read_file(path), "new");
}

TEST_F(FileUtilUsers, StrangerToTheGroupGivesItsGroupNoMoreThanAllHad) {
  struct Case {
    mode_t before, after;
  };
  for (const auto &[before, after] : {Case{0660, 0600}, Case{0640, 0600}, Case{0664, 0644}, Case{0604, 0600}}) {
    provide(path, {before, some_user, some_group});
    as_user(other_user, other_group, [&] { EXPECT_TRUE(write("new")); });
    EXPECT_EQ(access_of(path), (Access{after, other_user, other_group}));
  }
}

TEST_F(FileUtilUsers, FolderThatMayNotBeWrittenIsAnError) {
  provide(path, {0666, nobody, nobody});
  chmod(dir.path().c_str(), 0755);
  as_user(nobody, nobody, [&] {
    EXPECT_FALSE(write("new"));
    EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ACCES));
  });
  EXPECT_EQ(read_file(path), "old");
  EXPECT_EQ(entries(), 1);
}

// --- symbolic links ---------------------------------------------------------------------------------------------

struct FileUtilLinks : FileUtilAccess {
  const std::string target_folder = dir.file("folder");
  const std::string target = target_folder + "/target";
  FileUtilLinks() { fs::create_directory(target_folder); }

  void expect_replaced(const std::string &link) {
    const auto text = fs::read_symlink(link);
    EXPECT_TRUE(write_to(link, "new")) << (error ? error->message : "");
    EXPECT_EQ(fs::read_symlink(link), text);
    EXPECT_EQ(read_file(target), "new");
    EXPECT_FALSE(fs::is_symlink(target));
    EXPECT_EQ(std::distance(fs::directory_iterator(target_folder), {}), 1);
  }
};

TEST_F(FileUtilLinks, TargetIsReplacedAndLinkStays) {
  provide(target, {0600, geteuid(), getegid()});
  fs::create_symlink(target, path);
  expect_replaced(path);
  EXPECT_EQ(access_of(target).mode, 0600U);
}

TEST_F(FileUtilLinks, RelativeLinkIsRelativeToItsFolder) {
  write_file(target, "old");
  fs::create_symlink("folder/target", path);
  expect_replaced(path);
}

TEST_F(FileUtilLinks, ChainOfLinksIsFollowed) {
  write_file(target, "old");
  fs::create_directory(dir.file("second"));
  fs::create_symlink("../folder/target", dir.file("second/link"));
  fs::create_symlink("second/link", path);
  expect_replaced(path);
  EXPECT_TRUE(fs::is_symlink(dir.file("second/link")));
}

TEST_F(FileUtilLinks, LinkToTheFolderIsFollowed) {
  write_file(target, "old");
  fs::create_directory_symlink("folder", dir.file("alias"));
  EXPECT_TRUE(write_to(dir.file("alias/target"), "new"));
  EXPECT_EQ(read_file(target), "new");
}

TEST_F(FileUtilLinks, DanglingLinkCreatesItsTarget) {
  fs::create_symlink("folder/target", path);
  expect_replaced(path);
  EXPECT_EQ(access_of(target).mode, 0644U);
}

TEST_F(FileUtilLinks, DanglingLinkIntoAMissingFolderIsAnError) {
  fs::create_symlink("missing/target", path);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
  EXPECT_TRUE(fs::is_symlink(path));
}

TEST_F(FileUtilLinks, LoopOfLinksIsAnError) {
  fs::create_symlink("other", path);
  fs::create_symlink("file", dir.file("other"));
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_LOOP));
  EXPECT_TRUE(fs::is_symlink(path));
}

TEST_F(FileUtilLinks, FailureLeavesLinkAndTarget) {
  write_file(target, "old");
  fs::create_symlink(target, path);
  const FileFault fault(Failing::fsync, EIO);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(read_file(target), "old");
  EXPECT_EQ(std::distance(fs::directory_iterator(target_folder), {}), 1);
}

struct FileUtilForeignLinks : FileUtilLinks {
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can make links of other users";
  }
  void link_of(uid_t owner, const std::string &to) const {
    fs::create_symlink(to, path);
    ASSERT_EQ(lchown(path.c_str(), owner, some_group), 0);
  }
};

TEST_F(FileUtilForeignLinks, LinkOfAnotherUserLeadsToNoFileOfRoot) {
  provide(target, {0644, 0, 0});
  link_of(some_user, target);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ACCES));
  EXPECT_EQ(read_file(target), "old");
}

TEST_F(FileUtilForeignLinks, LinkOfAnotherUserCreatesNoFile) {
  link_of(some_user, target);
  EXPECT_FALSE(write("new"));
  EXPECT_FALSE(fs::exists(target));
}

TEST_F(FileUtilForeignLinks, LinkOfAnotherUserLeadsToTheUsersOwnFile) {
  provide(target, {0600, some_user, some_group});
  link_of(some_user, target);
  expect_replaced(path);
  EXPECT_EQ(access_of(target), (Access{0600, some_user, some_group}));
}

TEST_F(FileUtilForeignLinks, LinksOfSeveralUsersLeadNowhere) {
  provide(target, {0600, some_user, some_group});
  fs::create_symlink(target, dir.file("second"));
  ASSERT_EQ(lchown(dir.file("second").c_str(), other_user, some_group), 0);
  link_of(some_user, dir.file("second"));
  EXPECT_FALSE(write("new"));
  EXPECT_EQ(read_file(target), "old");
}

// --- other paths ------------------------------------------------------------------------------------------------

TEST_F(FileUtil, WhatIsNoRegularFileIsNotReplaced) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(write("new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_INVAL));
  EXPECT_FALSE(write_to(dir.path(), "new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ISDIR));
  EXPECT_FALSE(write_to(dir.path() + "/", "new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_ISDIR));
  EXPECT_FALSE(write_to("", "new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NOENT));
  EXPECT_EQ(entries(), 1);
}

TEST_F(FileUtil, NameOfTheGreatestLengthIsWritten) {
  const auto long_path = dir.file(std::string(255, 'n'));
  EXPECT_TRUE(write_to(long_path, "new"));
  EXPECT_EQ(read_file(long_path), "new");
  EXPECT_FALSE(write_to(dir.file(std::string(256, 'n')), "new"));
  EXPECT_TRUE(g_error_matches(error.get(), G_FILE_ERROR, G_FILE_ERROR_NAMETOOLONG));
}

TEST_F(FileUtil, FolderThatCannotBeFlushedIsLogged) {
  const SyslogCapture log;
  const FileFault fault(Failing::fsync, EIO, {.skip = 1});
  EXPECT_TRUE(write("new"));
  EXPECT_EQ(fault.hits(), 1);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, path + ": is replaced, but its folder cannot be flushed: Input/output error");
}

}  // namespace
