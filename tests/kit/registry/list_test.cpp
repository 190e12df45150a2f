// Listing and finding the drivers that have an entry.
#include <gio/gio.h>
#include <sys/resource.h>

#include <dirent.h>

#include "entry_files.h"
#include "interpose.h"

static bool folders_are_unreadable = false;

#define INTERPOSE_READDIR(name, Entry)                      \
  INTERPOSE(Entry *, name, (DIR * folder)) {                \
    if (!folders_are_unreadable) return REAL(name)(folder); \
    errno = EIO;                                            \
    return nullptr;                                         \
  }

INTERPOSE_READDIR(readdir, dirent)
INTERPOSE_READDIR(readdir64, dirent64)

namespace {

using namespace registry_test;

class RegistryList : public Registry {};
class RegistryFind : public Registry {
 protected:
  // The name and instance of what is found, or the message of the error.
  std::string find(const char *name, int code = G_IO_ERROR_NOT_FOUND) {
    GError *error = nullptr;
    const Owned<PTZKitRegistryEntry> entry(ptz_kit_registry_find(registry_.get(), name, &error));
    if (entry) return std::string(entry->name) + " " + std::to_string(entry->instance);
    const Owned<GError> owned(error);
    EXPECT_TRUE(g_error_matches(error, G_IO_ERROR, code));
    return error->message;
  }
};

TEST_F(RegistryList, ReturnsFieldsOfLiveDriver) {
  const std::string path = listen_at("a.socket");
  write_entry("1.driver", {.socket = path, .instance = 3});
  const auto drivers = list();
  ASSERT_EQ(drivers->len, 1u);
  const PTZKitRegistryEntry &entry = at(drivers, 0);
  EXPECT_STREQ(entry.name, "head");
  EXPECT_EQ(entry.socket_path, path);
  EXPECT_STREQ(entry.program, "/usr/bin/head");
  EXPECT_EQ(entry.pid, 4711);
  EXPECT_EQ(entry.uid, geteuid());
  EXPECT_EQ(entry.instance, 3u);
  EXPECT_EQ(entry.protocol_version, 1u);
  EXPECT_EQ(entry.since, 1700000000000000);
  EXPECT_EQ(entry.liveness, PTZ_KIT_DRIVER_LIVE);
}

TEST_F(RegistryList, IsEmptyWithoutDirectory) {
  ASSERT_EQ(rmdir(folder_.c_str()), 0);
  EXPECT_EQ(list()->len, 0u);
}

TEST_F(RegistryList, OfFileInsteadOfDirectoryFails) {
  const Owned<PTZKitRegistry> registry(ptz_kit_registry_new("/dev/null"));
  GError *error = nullptr;
  EXPECT_EQ(ptz_kit_registry_list(registry.get(), &error), nullptr);
  const Owned<GError> owned(error);
  EXPECT_TRUE(g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOTDIR));
}

TEST_F(RegistryList, FailsIfFolderCannotBeRead) {
  write_entry("1.driver", {.socket = listen_at("a.socket")});
  folders_are_unreadable = true;
  GError *error = nullptr;
  EXPECT_EQ(ptz_kit_registry_list(registry_.get(), &error), nullptr);
  folders_are_unreadable = false;
  const Owned<GError> owned(error);
  EXPECT_TRUE(g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_IO));
}

TEST_F(RegistryList, FailsIfEntryCannotBeOpenedForLackOfDescriptors) {
  write_entry("1.driver", {.socket = listen_at("a.socket")});
  const ptz_test::Descriptor lowest(dup(0));
  rlimit old = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit two_more = {static_cast<rlim_t>(lowest.get()) + 3, old.rlim_max};  // of the folder
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &two_more), 0);
  GError *error = nullptr;
  const Owned<GPtrArray> drivers(ptz_kit_registry_list(registry_.get(), &error));
  setrlimit(RLIMIT_NOFILE, &old);
  const Owned<GError> owned(error);
  EXPECT_EQ(drivers, nullptr);
  EXPECT_TRUE(g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_MFILE));
}

TEST_F(RegistryList, SortsByNameThenInstance) {
  const std::string path = listen_at("a.socket");
  write_entry("1.driver", {.name = "b", .socket = path, .instance = 10});
  write_entry("2.driver", {.name = "b", .socket = path, .instance = 9});
  write_entry("3.driver", {.name = "a", .socket = path, .instance = 11});
  const auto drivers = list();
  ASSERT_EQ(drivers->len, 3u);
  EXPECT_EQ(at(drivers, 0).instance, 11u);
  EXPECT_EQ(at(drivers, 1).instance, 9u);
  EXPECT_EQ(at(drivers, 2).instance, 10u);
}

TEST_F(RegistryList, TellsDeadDriverByItsLock) {
  write_entry("1.driver", {.socket = listen_at("a.socket"), .locked = false});
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_DEAD);
}

TEST_F(RegistryList, IgnoresReadLockOfOtherProcess) {
  write_entry("1.driver", {.socket = listen_at("a.socket"), .locked = false});
  const ptz_test::Descriptor reader(open((folder_ + "/1.driver").c_str(), O_RDONLY));
  struct flock lock = {};
  lock.l_type = F_RDLCK;
  ASSERT_EQ(fcntl(reader.get(), F_OFD_SETLK, &lock), 0);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_DEAD);
}

TEST_F(RegistryList, TellsStolenPath) {
  const std::string path = listen_at("a.socket");
  const std::string moved = listen_at("b.socket");
  write_entry("1.driver", {.name = "gone", .socket = path});
  write_entry("2.driver", {.name = "replaced", .socket = moved});
  ASSERT_EQ(unlink(path.c_str()), 0);
  ASSERT_EQ(unlink(moved.c_str()), 0);
  listen_at("b.socket");
  const auto drivers = list();
  EXPECT_EQ(at(drivers, 0).liveness, PTZ_KIT_DRIVER_STOLEN);
  EXPECT_EQ(at(drivers, 1).liveness, PTZ_KIT_DRIVER_STOLEN);
}

TEST_F(RegistryList, LeavesOutDriverThatDoesNotListenYet) {
  write_entry("1.driver", {.socket = listen_at("a.socket"), .instead = {{"Inode", "0"}}});
  EXPECT_EQ(list()->len, 0u);
}

TEST_F(RegistryList, ReadsPathWithQuotesAndOtherBytes) {
  const std::string path = listen_at("a \"b\"\n\xff ");
  write_entry("1.driver", {.socket = path, .instead = {{"Socket", "\"" + dir_.path() + "/a \\\"b\\\"\\n\\377 \""}}});
  ASSERT_EQ(list()->len, 1u);
  EXPECT_EQ(at(list(), 0).socket_path, path);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_LIVE);
}

TEST_F(RegistryList, MakesNameValidUtf8) {
  write_entry("1.driver", {.socket = listen_at("a.socket"), .instead = {{"Name", "\"a\\377\""}}});
  EXPECT_STREQ(at(list(), 0).name, "a\xef\xbf\xbd");
}

TEST_F(RegistryList, SkipsFilesThatAreNoEntries) {
  const std::string path = listen_at("a.socket");
  const auto file = [&](const char *name) { return folder_ + "/" + name; };
  write_entry("good.driver", {.socket = path});
  write_entry("other-suffix", {.socket = path});
  const std::map<std::string, std::string> bad[] = {
      {{"Process", "-1"}},     {{"Process", "99999999999"}}, {{"Instance", "x"}}, {{"Since", ""}},
      {{"Socket", "\"a\""}},   {{"Name", "unquoted"}},       {{"Name", "\""}},    {{"Program", ""}},
      {{"Program", "\"\\\""}}, {{"Protocol", "1e3"}},        {{"Inode", "0x10"}}};
  for (std::size_t i = 0; i < std::size(bad); ++i) {
    write_entry("bad" + std::to_string(i) + ".driver", {.socket = path, .instead = bad[i]});
  }
  std::ofstream(file("empty.driver"));
  std::ofstream(file("garbage.driver")) << std::string(4000, '\xfe');
  ASSERT_EQ(mkdir(file("directory.driver").c_str(), 0700), 0);
  ASSERT_EQ(mkfifo(file("fifo.driver").c_str(), 0600), 0);
  ASSERT_EQ(symlink("good.driver", file("link.driver").c_str()), 0);
  ASSERT_EQ(symlink("/nowhere", file("dangling.driver").c_str()), 0);
  write_entry("huge.driver", {.socket = path});
  ASSERT_EQ(truncate(file("huge.driver").c_str(), off_t{1} << 40), 0);
  write_entry("unreadable.driver", {.socket = path});
  ASSERT_EQ(chmod(file("unreadable.driver").c_str(), 0), 0);
  const guint readable_by_root = geteuid() == 0 ? 1 : 0;
  const ptz_test::GlibLogCapture log;
  EXPECT_EQ(list()->len, 1u + readable_by_root);
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(RegistryFind, ReturnsDriverByName) {
  write_entry("1.driver", {.name = "a", .socket = listen_at("a.socket"), .instance = 1});
  write_entry("2.driver", {.name = "b", .socket = listen_at("b.socket"), .instance = 2});
  EXPECT_EQ(find("b"), "b 2");
}

TEST_F(RegistryFind, ReturnsDriverByNumberOfInstance) {
  write_entry("1.driver", {.name = "a", .socket = listen_at("a.socket"), .instance = 1});
  write_entry("2.driver", {.name = "b", .socket = listen_at("b.socket"), .instance = 2});
  EXPECT_EQ(find("1"), "a 1");
  EXPECT_EQ(find("0"), "there is no driver '0'; these run: a:1, b:2");
}

TEST_F(RegistryFind, OfSeveralDriversOfOneNameNamesEach) {
  write_entry("1.driver", {.name = "a", .socket = listen_at("a.socket"), .instance = 1});
  write_entry("2.driver", {.name = "a", .socket = listen_at("b.socket"), .instance = 2});
  EXPECT_EQ(find("a", G_IO_ERROR_INVALID_ARGUMENT), "several drivers are 'a': a:1, a:2");
  EXPECT_EQ(find("a:2"), "a 2");
}

TEST_F(RegistryFind, PrefersNameOverInstance) {
  write_entry("1.driver", {.name = "7", .socket = listen_at("a.socket"), .instance = 1});
  write_entry("2.driver", {.name = "b", .socket = listen_at("b.socket"), .instance = 7});
  EXPECT_EQ(find("7"), "7 1");
}

TEST_F(RegistryFind, ReturnsStolenDriver) {
  const std::string path = listen_at("a.socket");
  write_entry("1.driver", {.name = "a", .socket = path});
  ASSERT_EQ(unlink(path.c_str()), 0);
  EXPECT_EQ(find("a"), "a 0");
}

TEST_F(RegistryFind, DoesNotReturnDeadDriver) {
  write_entry("1.driver", {.name = "a", .socket = listen_at("a.socket"), .locked = false});
  EXPECT_EQ(find("a"), "there is no driver 'a'; none runs");
  write_entry("2.driver", {.name = "b", .socket = listen_at("b.socket"), .instance = 4});
  EXPECT_EQ(find("a"), "there is no driver 'a'; these run: b:4");
}

}  // namespace
