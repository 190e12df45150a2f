#include "platform/status_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "clock.h"
#include "interpose.h"
#include "shared_group.h"

namespace {

std::atomic<int> allocation_error = 0, mapping_error = 0;
std::atomic<int> interrupted_allocations = 0;
std::atomic<bool> others_make_folder = false;

}  // namespace

// Offsets have 64 bits on every machine: the library calls the functions whose names end in 64.
static_assert(sizeof(off_t) == 8);

INTERPOSE(int, posix_fallocate64, (int fd, off_t offset, off_t length)) {
  if (interrupted_allocations > 0) return --interrupted_allocations, EINTR;
  return allocation_error != 0 ? allocation_error.load() : REAL(posix_fallocate64)(fd, offset, length);
}

// The folder is made under a temporary name.
INTERPOSE(char *, mkdtemp, (char *pattern)) {
  const std::string_view name(pattern);
  const std::string folder(name.substr(0, name.find(".new-")));
  if (others_make_folder.exchange(false)) mkdir(folder.c_str(), 0700);
  return REAL(mkdtemp)(pattern);
}

INTERPOSE(void *, mmap64, (void *address, size_t length, int protection, int flags, int fd, off_t offset)) {
  if (mapping_error != 0 && fd >= 0) {
    errno = mapping_error;
    return MAP_FAILED;
  }
  return REAL(mmap64)(address, length, protection, flags, fd, offset);
}

namespace {

using namespace ptz_test;

std::size_t open_descriptors() {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// Runs in a child process, without the rights of a superuser; its exit status.
int as_stranger(const std::function<int()> &run) {
  const pid_t child = fork();
  if (child == 0) {
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(125);
    _exit(run());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int in_child(const std::function<int()> &run) {
  const pid_t child = fork();
  if (child == 0) _exit(run());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

struct StatusStore : StoreTest {};

// --- groups and values ------------------------------------------------------------------------------------------

TEST_F(StatusStore, AGroupIsMadeOnce) {
  EXPECT_EQ(create("G"), 0);
  EXPECT_EQ(files(), std::vector<std::string>{"G.status"});
  EXPECT_EQ(create("G"), -EEXIST);
  EXPECT_EQ(create("G", 8), -EEXIST);
  EXPECT_EQ(create("H"), 0);
}

TEST_F(StatusStore, AGroupThatWasNeverMadeIsMissing) {
  Items items = {item("A", 1)};
  EXPECT_EQ(get("G", items), -ENOENT);
  EXPECT_EQ(set("G", items), -ENOENT);
  EXPECT_TRUE(files().empty());
}

TEST_F(StatusStore, WhatWasSetIsRead) {
  create("G");
  EXPECT_EQ(set("G", {item("A", 1), {"Text", "some text", 7}, {"Byte", "x", 9}}), 0);
  Items items = {{"Byte", " ", 9}, {"Text", "123456789", 7}, item("A", 0)};
  EXPECT_EQ(get("G", items), 3);
  EXPECT_EQ(items, (Items{{"Byte", "x", 9}, {"Text", "some text", 7}, item("A", 1)}));
}

TEST_F(StatusStore, GetOfAGroupThatWasNeverWrittenFailsWithEnoent) {
  create("G");
  Items items = {item("A", 17)};
  EXPECT_EQ(get("G", items), -ENOENT);
  EXPECT_EQ(items[0], item("A", 17));
  EXPECT_EQ(in_child([] { return number("G", "A") == -ENOENT ? 0 : 1; }), 0);
  EXPECT_EQ(set("G", {{"TOO LONG", std::string(1000, 'x'), 1}}), -ENOSPC);
  EXPECT_EQ(get("G", items), -ENOENT) << "a set that failed writes nothing";
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(get("G", items), 1);
}

TEST_F(StatusStore, GetAfterASetWithoutValuesReadsNothing) {
  create("G");
  Items items = {item("A", 17)}, none;
  EXPECT_EQ(set("G", {}), 0);
  EXPECT_EQ(get("G", none), 0);
  EXPECT_EQ(get("G", items), 0);
  EXPECT_EQ(items[0], item("A", 17));
}

TEST_F(StatusStore, OnlyValuesOfTheSameSizeAndTypeAreRead) {
  create("G");
  set("G", {item("A", 1), item("B", 2), item("C", 3), item("D", 4)});
  Items items = {{"A", "12345678", 1}, {"B", "1234", 2}, item("C", 0), item("E", 5), {"D", "1", 1}};
  EXPECT_EQ(get("G", items), 1);
  EXPECT_EQ(items, (Items{{"A", "12345678", 1}, {"B", "1234", 2}, item("C", 3), item("E", 5), {"D", "1", 1}}));
}

TEST_F(StatusStore, SettingAddsAndReplacesAndLeavesTheRest) {
  create("G");
  set("G", {item("A", 1), item("B", 2)});
  set("G", {item("C", 3), item("A", 10)});
  Items items = {item("A", 0), item("B", 0), item("C", 0)};
  EXPECT_EQ(get("G", items), 3);
  EXPECT_EQ(items, (Items{item("A", 10), item("B", 2), item("C", 3)}));
}

TEST_F(StatusStore, AValueMayChangeItsSizeAndType) {
  create("G");
  set("G", {item("A", 1), item("B", 2), item("C", 3)});
  set("G", {{"B", "longer than before", 1}});
  set("G", {{"A", "1234", 6}});
  Items items = {{"A", "0000", 6}, {"B", std::string(18, ' '), 1}, item("C", 0)};
  EXPECT_EQ(get("G", items), 3);
  EXPECT_EQ(items, (Items{{"A", "1234", 6}, {"B", "longer than before", 1}, item("C", 3)}));
  set("G", {{"B", "s", 1}});
  EXPECT_EQ(number("G", "C"), 3);
}

TEST_F(StatusStore, TheLastOfSeveralValuesUnderOneKeyCounts) {
  create("G");
  EXPECT_EQ(set("G", {item("A", 1), item("A", 2)}), 0);
  EXPECT_EQ(number("G", "A"), 2);
  EXPECT_EQ(set("G", {item("A", 3), item("B", 1), item("A", 4)}), 0);
  EXPECT_EQ(number("G", "A"), 4);
  EXPECT_EQ(set("G", {item("A", 5), item("A", 6)}), 0);
  EXPECT_EQ(number("G", "A"), 6);
}

TEST_F(StatusStore, KeysAreToldApartWhateverTheirOrder) {
  create("G", 4096);
  Items items;
  for (int i = 0; i < 200; ++i) items.push_back(item("KEY_" + std::to_string(i * 37 % 200), i));
  ASSERT_EQ(set("G", items), 0);
  for (int i = 199; i >= 0; --i) EXPECT_EQ(number("G", "KEY_" + std::to_string(i * 37 % 200)), i);
  EXPECT_EQ(number("G", "KEY_"), -ENOKEY);
  EXPECT_EQ(number("G", "KEY_1999"), -ENOKEY);
  std::reverse(items.begin(), items.end());
  auto wanted = items;
  for (auto &wanted_item : wanted) wanted_item.bytes = std::string(4, ' ');
  EXPECT_EQ(get("G", wanted), 200);
  EXPECT_EQ(wanted, items);
}

// The store recognises constant keys by their address.
TEST_F(StatusStore, AKeyInWritableMemoryMayChangeItsText) {
  create("G");
  static char key[] = "A";
  gint32 value = 1;
  StatusStoreParam param = {key, 4, &value, 1};
  StatusStoreParam *list[] = {&param, nullptr};
  for (int i = 0; i < 3; ++i) ASSERT_EQ(status_store_set_group("G", list, 2), 0);
  key[0] = 'B';
  value = 2;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(status_store_set_group("G", list, 2), 0);
  EXPECT_EQ(number("G", "A"), 1);
  EXPECT_EQ(number("G", "B"), 2);
  key[0] = 'A';
  for (int i = 0; i < 3; ++i) ASSERT_EQ(status_store_get_group("G", list, 0), 1);
  EXPECT_EQ(value, 1);
  key[0] = 'B';
  for (int i = 0; i < 3; ++i) ASSERT_EQ(status_store_get_group("G", list, 0), 1);
  EXPECT_EQ(value, 2);
}

TEST_F(StatusStore, AConstantKeyIsFoundInAnyOrderWithItsSizeAndType) {
  create("G");
  gint32 values[2] = {1, 2};
  gint64 large = 0;
  StatusStoreParam a = {"A", 4, &values[0], 1}, b = {"B", 4, &values[1], 1};
  StatusStoreParam *list[] = {&a, &b, nullptr}, *reversed[] = {&b, &a, nullptr};
  for (int i = 0; i < 10; ++i) {
    ASSERT_EQ(status_store_set_group("G", i % 2 == 0 ? list : reversed, 2), 0);
    ASSERT_EQ(status_store_get_group("G", i % 3 == 0 ? list : reversed, 0), 2);
    ASSERT_EQ(values[0], 1);
    ASSERT_EQ(values[1], 2);
  }
  a.value = nullptr;
  EXPECT_LT(status_store_get_group("G", list, 0), 0);
  EXPECT_EQ(errno, EINVAL);
  a = {"A", 8, &large, 1};
  EXPECT_EQ(status_store_get_group("G", list, 0), 1);
  a = {"A", 4, &values[0], 2};
  EXPECT_EQ(status_store_get_group("G", list, 0), 1);
}

TEST_F(StatusStore, ManyUpdatesInTurnAreEachReadBack) {
  create("G");
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(set("G", {item(i % 3 == 0 ? "A" : "B", i), {"C", std::string(1 + i % 9, 'x'), 1}}), 0);
    ASSERT_EQ(number("G", i % 3 == 0 ? "A" : "B"), i);
  }
}

// --- sizes ------------------------------------------------------------------------------------------------------

TEST_F(StatusStore, TheSizeBoundsKeysAndValuesTogether) {
  create("G", 20);
  EXPECT_EQ(set("G", {item("ABC", 1), {"D", std::string(10, 'x'), 1}}), 0) << "4 + 4 + 2 + 10";
  EXPECT_EQ(set("G", {{"E", "y", 1}}), -ENOSPC);
  EXPECT_EQ(set("G", {{"D", std::string(11, 'y'), 1}}), -ENOSPC);
  EXPECT_EQ(set("G", {item("ABC", 2), {"E", "y", 1}}), -ENOSPC);
  EXPECT_EQ(number("G", "ABC"), 1) << "all or nothing";
  EXPECT_EQ(set("G", {item("ABC", 2)}), 0);
  EXPECT_EQ(set("G", {{"D", std::string(7, 'y'), 1}, {"E", "y", 1}}), 0) << "one makes room for the other";
  EXPECT_EQ(number("G", "ABC"), 2);
}

TEST_F(StatusStore, AGroupMayBeFullOfTheSmallestValues) {
  create("G", 3 * 40 + 2);
  for (int i = 0; i < 40; ++i) ASSERT_EQ(set("G", {{std::string(1, static_cast<char>('A' + i)), "v", 1}}), 0) << i;
  EXPECT_EQ(set("G", {{"~", "v", 1}}), -ENOSPC);
  Items items = {{"A", " ", 1}, {std::string(1, 'A' + 39), " ", 1}};
  EXPECT_EQ(get("G", items), 2);
}

TEST_F(StatusStore, ValuesThatCouldFillNoGroupAreRefused) {
  create("G", 32768);
  EXPECT_EQ(set("G", {{"A", std::string(32766, 'x'), 1}}), 0);
  EXPECT_EQ(set("G", {{"A", std::string(32767, 'x'), 1}}), -ENOSPC);
  EXPECT_EQ(set("G", {{"A", std::string(100'000, 'x'), 1}}), -ENOSPC);
  EXPECT_EQ(set("G", {{std::string(100'000, 'x'), "x", 1}}), -ENOSPC);
  gint32 value = 0;
  StatusStoreParam huge = {"A", 4294967295U, &value, 1};
  StatusStoreParam *list[] = {&huge, nullptr};
  EXPECT_LT(status_store_set_group("G", list, 2), 0);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(status_store_get_group("G", list, 0), 0);
}

TEST_F(StatusStore, AGroupOfNoSizeHoldsNothing) {
  EXPECT_EQ(create("G", 0), 0);
  EXPECT_EQ(set("G", {{"A", "x", 1}}), -ENOSPC);
  EXPECT_EQ(set("G", {}), 0);
}

TEST_F(StatusStore, AGroupThatIsTooLargeIsNotMade) {
  EXPECT_EQ(create("G", 32769), -EFBIG);
  EXPECT_EQ(create("G", 4294967295U), -EFBIG);
  EXPECT_TRUE(files().empty());
}

// --- what callers may get wrong ---------------------------------------------------------------------------------

TEST_F(StatusStore, BadNamesAreRefused) {
  for (const auto &name : {std::string(), std::string("."), std::string(".."), std::string(".G"), std::string("a/b"),
                           std::string("/G"), std::string("../G"), std::string(201, 'x')}) {
    Items items = {item("A", 1)};
    EXPECT_EQ(create(name), -EINVAL) << name;
    EXPECT_EQ(set(name, items), -EINVAL) << name;
    EXPECT_EQ(get(name, items), -EINVAL) << name;
  }
  EXPECT_LT(status_store_create_group(nullptr, 1, 0), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(files().empty());
  for (const auto &name : {std::string(200, 'x'), std::string("a b"), std::string("G.H"), std::string("%s\n")}) {
    EXPECT_EQ(create(name), 0) << name;
    EXPECT_EQ(set(name, {item("A", 1)}), 0) << name;
    EXPECT_EQ(number(name, "A"), 1) << name;
  }
}

TEST_F(StatusStore, BadValuesAreRefusedAndNothingIsWritten) {
  create("G");
  set("G", {item("A", 1)});
  gint32 value = 2;
  StatusStoreParam good = {"A", 4, &value, 1};
  for (auto bad : {StatusStoreParam{nullptr, 4, &value, 1}, StatusStoreParam{"", 4, &value, 1},
                   StatusStoreParam{"B", 0, &value, 1}, StatusStoreParam{"B", 4, nullptr, 1}}) {
    StatusStoreParam *list[] = {&good, &bad, nullptr};
    errno = 0;
    EXPECT_LT(status_store_set_group("G", list, 2), 0);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_LT(status_store_get_group("G", list, 0), 0);
    EXPECT_EQ(errno, EINVAL);
  }
  errno = 0;
  EXPECT_LT(status_store_set_group("G", nullptr, 2), 0);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_LT(status_store_get_group("G", nullptr, 0), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(number("G", "A"), 1);
}

TEST_F(StatusStore, EveryModeWordIsTheSame) {
  gint32 value = 5;
  StatusStoreParam param = {"A", 4, &value, 1};
  StatusStoreParam *list[] = {&param, nullptr};
  for (const int mode : {-1, 0, 1, 2, 99}) {
    const auto name = "G" + std::to_string(mode);
    EXPECT_EQ(status_store_create_group(name.c_str(), 20, mode), 0);
    EXPECT_EQ(status_store_set_group(name.c_str(), list, mode), 0);
    EXPECT_EQ(status_store_get_group(name.c_str(), list, mode), 1);
  }
}

// --- sharing ----------------------------------------------------------------------------------------------------

TEST_F(StatusStore, ProcessesShareAGroup) {
  create("G");
  set("G", {item("A", 1)});
  EXPECT_EQ(in_child([] { return number("G", "A") == 1 && set("G", {item("A", 2), item("B", 3)}) == 0 ? 0 : 1; }), 0);
  EXPECT_EQ(number("G", "A"), 2);
  EXPECT_EQ(number("G", "B"), 3);
}

// A group that this process, and so its children, have not mapped.
void given_by_another_process() {
  EXPECT_EQ(in_child([] { return create("G") == 0 && set("G", {item("A", 1)}) == 0 ? 0 : 1; }), 0);
}

TEST_F(StatusStore, AReaderOnlyReads) {
  chmod(dir.path().c_str(), 0755);
  given_by_another_process();
  chmod(path("G").c_str(), 0444);
  EXPECT_EQ(as_stranger([] { return number("G", "A") == 1 && set("G", {item("A", 2)}) == -EACCES ? 0 : 1; }), 0);
  EXPECT_EQ(number("G", "A"), 1);
}

TEST_F(StatusStore, NoStrangerMayWriteIntoOrShortenAGroup) {
  const mode_t umask_before = umask(0);
  chmod(dir.path().c_str(), 0777);
  create("G");
  umask(umask_before);
  struct stat status = {};
  ASSERT_EQ(stat(path("G").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0664U);
  if (geteuid() != 0) GTEST_SKIP() << "only the superuser may turn into a stranger";
  chmod(dir.path().c_str(), 0755);
  EXPECT_EQ(as_stranger([this] {
              const bool refused = truncate(path("G").c_str(), 0) < 0 && errno == EACCES;
              return refused && open(path("G").c_str(), O_RDWR) < 0 ? 0 : 1;
            }),
            0);
}

TEST_F(StatusStore, AGroupThatEverybodyMayWriteIsRefused) {
  create("G");
  chmod(path("G").c_str(), 0666);
  EXPECT_EQ(set("G", {item("A", 1)}), -EBADMSG);
  EXPECT_EQ(number("G", "A"), -EBADMSG);
}

TEST_F(StatusStore, ThreadsReadAndWriteAtOnce) {
  create("G");
  set("G", {item("A", 0), item("B", 0)});
  std::atomic<bool> is_over = false;
  std::atomic<int> torn = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!is_over) {
        Items items = {item("A", 0), item("B", 0)};
        if (get("G", items) != 2 || items[0].bytes != items[1].bytes) ++torn;
      }
    });
  }
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([i] {
      for (int value = 0; value < 5000; ++value) set("G", {item("A", value * 2 + i), item("B", value * 2 + i)});
    });
  }
  threads[3].join();
  threads[4].join();
  is_over = true;
  for (int i = 0; i < 3; ++i) threads[i].join();
  EXPECT_EQ(torn, 0);
}

TEST_F(StatusStore, AGroupMadeAnewIsNoticedWithinASecond) {
  create("G");
  set("G", {item("A", 1)});
  EXPECT_EQ(number("G", "A"), 1);
  ASSERT_EQ(unlink(path("G").c_str()), 0);
  advance_clock(1000);
  EXPECT_EQ(number("G", "A"), -ENOENT);
  EXPECT_EQ(set("G", {item("A", 2)}), -ENOENT);
  create("G");
  EXPECT_EQ(number("G", "A"), -ENOENT) << "at once, where it was known to be missing";
  EXPECT_EQ(set("G", {item("A", 3)}), 0);
  EXPECT_EQ(number("G", "A"), 3);
  ASSERT_EQ(unlink(path("G").c_str()), 0);
  create("G");
  advance_clock(1000);
  EXPECT_EQ(in_child([] { return set("G", {item("A", 4)}); }), 0);
  EXPECT_EQ(number("G", "A"), 4);
  EXPECT_EQ(set("G", {item("B", 5)}), 0);
  EXPECT_EQ(number("G", "B"), 5);
}

TEST_F(StatusStore, FoldersAreStoresOfTheirOwn) {
  create("G");
  set("G", {item("A", 1)});
  const TempDir other;
  use_folder(other.path());
  EXPECT_EQ(number("G", "A"), -ENOENT);
  create("G");
  set("G", {item("A", 2)});
  use_folder(dir.path());
  EXPECT_EQ(number("G", "A"), 1);
}

// --- folders that are not as they should be ---------------------------------------------------------------------

TEST_F(StatusStore, CreateInAMissingFolderMakesTheFolderForItsGroupOnlyWhateverTheUmask) {
  const mode_t umask_before = umask(077);
  use_folder(dir.file("new"));
  EXPECT_EQ(number("G", "A"), -ENOENT);
  EXPECT_EQ(create("G"), 0);
  umask(umask_before);
  struct stat status = {};
  ASSERT_EQ(stat(dir.file("new").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 02770U);
  ASSERT_EQ(stat(dir.file("new/G.status").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0660U);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  use_folder(dir.file("more/than/one"));
  EXPECT_EQ(create("G"), -ENOENT);
}

TEST_F(StatusStore, AFolderWithoutPermissionSaysSo) {
  chmod(dir.path().c_str(), 0755);
  given_by_another_process();
  chmod(dir.path().c_str(), 0555);
  EXPECT_EQ(
      as_stranger([] { return create("H") == -EACCES && create("G") == -EEXIST && number("G", "A") == 1 ? 0 : 1; }), 0);
  chmod(dir.path().c_str(), 0);
  EXPECT_EQ(as_stranger([] {
              Items items = {item("A", 1)};
              return create("G") == -EACCES && set("G", items) == -EACCES && get("G", items) == -EACCES ? 0 : 1;
            }),
            0);
  chmod(dir.path().c_str(), 0755);
}

TEST_F(StatusStore, TheFolderMayBeMadeByAnotherProcessMeanwhile) {
  use_folder(dir.file("new"));
  others_make_folder = true;
  EXPECT_EQ(create("G"), 0);
  EXPECT_FALSE(others_make_folder);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(number("G", "A"), 1);
}

TEST_F(StatusStore, SignalsDoNotKeepAGroupFromBeingMade) {
  interrupted_allocations = 3;
  EXPECT_EQ(create("G"), 0);
  EXPECT_EQ(interrupted_allocations, 0);
  EXPECT_EQ(number("G", "A"), -ENOENT);
}

TEST_F(StatusStore, AFullFolderSaysSoAndKeepsNothing) {
  create("G");
  const auto descriptors = open_descriptors();
  allocation_error = ENOSPC;
  EXPECT_EQ(create("H"), -ENOSPC);
  allocation_error = 0;
  EXPECT_EQ(files(), std::vector<std::string>{"G.status"});
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(set("G", {item("A", 1)}), 0);
  EXPECT_EQ(create("H"), 0);
}

TEST_F(StatusStore, AFullFileSystemSaysSoAndItsGroupsGoOn) {
  constexpr int refused = 77;
  const int result = in_child([this] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", dir.path().c_str(), "tmpfs", 0, "size=100k") != 0) {
      return refused;
    }
    int made = 0, failure = 0;
    while ((failure = create("G" + std::to_string(made))) == 0) ++made;
    if (failure != -ENOSPC || made == 0 || files().size() != static_cast<std::size_t>(made)) return 1;
    for (int i = 0; i < made; ++i) {
      const auto name = "G" + std::to_string(i);
      if (set(name, {item("A", i)}) != 0 || number(name, "A") != i) return 2;
    }
    return 0;
  });
  if (result == refused) GTEST_SKIP() << "only the superuser may make a file system that is soon full";
  EXPECT_EQ(result, 0);
}

TEST_F(StatusStore, AGroupThatCannotBeMappedSaysSo) {
  create("G");
  const auto descriptors = open_descriptors();
  mapping_error = ENOMEM;
  Items items = {item("A", 1)};
  EXPECT_EQ(create("H"), -ENOMEM);
  EXPECT_EQ(set("G", items), -ENOMEM);
  EXPECT_EQ(get("G", items), -ENOMEM);
  mapping_error = 0;
  EXPECT_EQ(files(), std::vector<std::string>{"G.status"});
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(set("G", items), 0);
}

TEST_F(StatusStore, AFileInPlaceOfTheFolderSaysSo) {
  write_content(dir.file("file"), "");
  use_folder(dir.file("file"));
  Items items = {item("A", 1)};
  EXPECT_EQ(create("G"), -ENOTDIR);
  EXPECT_EQ(set("G", items), -ENOTDIR);
  EXPECT_EQ(get("G", items), -ENOTDIR);
}

}  // namespace
