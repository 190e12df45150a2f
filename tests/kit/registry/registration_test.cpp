// What a driver enters into the registry, and which second driver is refused.
#include <gio/gio.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "../driver/running_driver.h"
#include "clock.h"
#include "entry_files.h"
#include "interpose.h"
#include "syslog_capture.h"

static bool setgid_is_forbidden = false;  // as in a unit with RestrictSUIDSGID=

INTERPOSE(int, fchmod, (int fd, mode_t mode)) {
  if (setgid_is_forbidden && (mode & S_ISGID) != 0) {
    errno = EPERM;
    return -1;
  }
  return REAL(fchmod)(fd, mode);
}

namespace {

using registry_test::Owned;

struct StopAndUnref {
  void operator()(PTZKitDriver *driver) const {
    ptz_kit_driver_stop(driver);
    g_object_unref(driver);
  }
};
using Driver = std::unique_ptr<PTZKitDriver, StopAndUnref>;

// Empty on success.
std::string start(const Driver &driver) {
  GError *error = nullptr;
  if (ptz_kit_driver_start(driver.get(), &error) != FALSE) return {};
  const Owned<GError> owned(error);
  return error->message;
}

class Registration : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string path_ = dir_.file("a.socket");
  const std::string folder_ = dir_.file("drivers");
  const std::string own_pid_ = std::to_string(getpid());

  void SetUp() override { setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1); }

  Driver make(const std::string &path, guint instance = 0, const char *name = "first") {
    return Driver(PTZ_KIT_DRIVER(g_object_new(recording_driver_get_type(), "name", name, "socket-path", path.c_str(),
                                              "instance", instance, nullptr)));
  }
  Owned<GPtrArray> list() {
    const Owned<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
    return Owned<GPtrArray>(ptz_kit_registry_list(registry.get(), nullptr));
  }
  static const PTZKitRegistryEntry &at(const Owned<GPtrArray> &list, guint index) {
    return *static_cast<const PTZKitRegistryEntry *>(list->pdata[index]);
  }
  [[nodiscard]] std::string entry_file() const { return std::filesystem::directory_iterator(folder_)->path(); }
  // Of the clock of the test program; the driver is told of changes before and after.
  static void pass_ms(int interval) {
    ptz_test::run_pending();
    ptz_test::advance_clock(interval);
    ptz_test::run_pending();
  }
  bool is_made() {
    for (int i = 0; i < 3 && list()->len == 0; ++i) pass_ms(10'000);
    return list()->len == 1;
  }
  // A process that starts a driver and calls `then`, and that lives until it is killed.
  pid_t start_in_child(const std::function<void()> &then = [] {}) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    if (child == 0) {
      const Driver driver = make(path_, 7, "child");
      if (!start(driver).empty()) _exit(1);
      then();
      if (write(ready[1], "", 1) != 1) _exit(1);
      for (;;) pause();
    }
    char byte = 0;
    close(ready[1]);
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    return child;
  }
  // In a process that ends without cleaning up, and so without a search for leaks.
  static void in_child(const std::function<void()> &checks) {
    const pid_t child = fork();
    if (child == 0) {
      checks();
      _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  static void kill_and_wait(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
};

TEST_F(Registration, ListsDriverFromStartToStop) {
  const gint64 before = g_get_real_time();
  Driver driver = make(path_, 3);
  ASSERT_EQ(start(driver), "");
  const auto drivers = list();
  ASSERT_EQ(drivers->len, 1u);
  const PTZKitRegistryEntry &entry = at(drivers, 0);
  EXPECT_STREQ(entry.name, "first");
  EXPECT_EQ(entry.socket_path, std::filesystem::canonical(dir_.path()).string() + "/a.socket");
  EXPECT_EQ(entry.program, std::filesystem::read_symlink("/proc/self/exe").string());
  EXPECT_EQ(entry.pid, getpid());
  EXPECT_EQ(entry.uid, getuid());
  EXPECT_EQ(entry.instance, 3u);
  EXPECT_EQ(entry.protocol_version, 1u);
  EXPECT_GE(entry.since, before);
  EXPECT_LE(entry.since, g_get_real_time());
  EXPECT_EQ(entry.liveness, PTZ_KIT_DRIVER_LIVE);
  driver.reset();
  EXPECT_EQ(list()->len, 0u);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Registration, OfDriverThatCannotOpenItsDeviceIsWithdrawn) {
  const Driver driver = make(path_);
  reinterpret_cast<RecordingDriver *>(driver.get())->fails_to_open = TRUE;
  EXPECT_NE(start(driver), "");
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Registration, RefusesSecondDriverOfSocketBeforeItOpensItsDevice) {
  const Driver first = make(path_);
  ASSERT_EQ(start(first), "");
  const Driver second = make(path_, 0, "second");
  reinterpret_cast<RecordingDriver *>(second.get())->fails_to_open = TRUE;
  const std::string path = std::filesystem::canonical(dir_.path()).string() + "/a.socket";
  EXPECT_EQ(start(second), "socket '" + path + "' is served by driver 'first', process " + own_pid_);
  EXPECT_TRUE(ptz_test::connect_to(path_));
  EXPECT_EQ(list()->len, 1u);
}

TEST_F(Registration, RefusesSecondDriverOfSocketByOtherSpelling) {
  const Driver first = make(path_);
  ASSERT_EQ(start(first), "");
  std::filesystem::create_directory_symlink(dir_.path(), dir_.file("link"));
  const Driver second = make(dir_.file("link/../link/a.socket"));
  EXPECT_NE(start(second).find("is served by driver 'first'"), std::string::npos);
}

TEST_F(Registration, RefusesSecondDriverOfInstance) {
  const Driver first = make(path_, 5);
  ASSERT_EQ(start(first), "");
  const Driver second = make(dir_.file("b.socket"), 5);
  EXPECT_EQ(start(second), "instance 5 is published by driver 'first', process " + own_pid_);
}

TEST_F(Registration, AllowsDriversWithoutInstanceSideBySide) {
  const Driver first = make(path_);
  const Driver second = make(dir_.file("b.socket"));
  EXPECT_EQ(start(first), "");
  EXPECT_EQ(start(second), "");
  EXPECT_EQ(list()->len, 2u);
}

TEST_F(Registration, RefusesSocketOfProcessWithoutEntry) {
  const ptz_test::Listener other(path_, SOCK_STREAM, 0);
  const Driver driver = make(path_);
  const std::string path = std::filesystem::canonical(dir_.path()).string() + "/a.socket";
  EXPECT_EQ(start(driver), "socket '" + path + "' is served by process " + own_pid_);
  // The first attempt has filled the backlog.
  EXPECT_NE(start(driver).find("' is served by another process"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_socket(path_));
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Registration, RefusesToReplaceFileThatIsNoSocket) {
  std::ofstream(path_) << "kept";
  const Driver driver = make(path_);
  EXPECT_NE(start(driver).find("is no socket"), std::string::npos);
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
}

TEST_F(Registration, ReplacesStaleSocket) {
  { const ptz_test::Listener ended(path_); }
  ASSERT_TRUE(std::filesystem::is_socket(path_));
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver), "");
}

TEST_F(Registration, WithoutRuntimeDirectoryDriverServesWithWarning) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("missing/runtime").c_str(), 1);
  const ptz_test::SyslogCapture log;
  const Driver first = make(path_);
  EXPECT_EQ(start(first), "");
  EXPECT_EQ(log.count(LOG_WARNING, "the driver has no entry in '" + dir_.file("missing/runtime") +
                                       "/drivers': No such file or directory"),
            1u);
  EXPECT_EQ(log.lines().size(), 1u);
  const Driver second = make(path_);
  EXPECT_NE(start(second).find("is served by process " + own_pid_), std::string::npos);
}

TEST_F(Registration, MakesRuntimeDirectoryWithTheModeThatTheStatusStoreGivesIt) {
  const std::string runtime = dir_.file("missing");
  setenv("PTZ_PLATFORM_RUNTIME_DIR", runtime.c_str(), 1);
  const mode_t old = umask(077);
  const ptz_test::SyslogCapture log;
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver), "");
  umask(old);
  EXPECT_EQ(list()->len, 1u);
  EXPECT_EQ(log.lines().size(), 0u);
  for (const std::string &folder : {runtime, runtime + "/drivers"}) {
    struct stat status = {};
    ASSERT_EQ(stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 02770u);
  }
}

TEST_F(Registration, OfDriverThatStartedWithoutRuntimeDirectoryIsMadeWhenItsParentIsThere) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("missing/runtime").c_str(), 1);
  const Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  EXPECT_EQ(list()->len, 0u);
  EXPECT_LE(ptz_test::iterations_within(100), 3);
  std::filesystem::create_directory(dir_.file("missing"));
  EXPECT_TRUE(is_made());
}

TEST_F(Registration, IsMadeAgainThoughFirstAttemptFailed) {
  const std::string parent = dir_.file("parent");
  setenv("PTZ_PLATFORM_RUNTIME_DIR", (parent + "/runtime").c_str(), 1);
  std::filesystem::create_directory(parent);
  const Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  const ptz_test::SyslogCapture log;
  std::filesystem::remove_all(parent);
  for (int i = 0; i < 3; ++i) pass_ms(10'000);
  EXPECT_EQ(log.containing("the driver has no entry in"), 1u);
  std::filesystem::create_directory(parent);
  EXPECT_TRUE(is_made());
}

TEST_F(Registration, RemovedIsMadeAgainWhenLockOfFolderIsFree) {
  const Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  const ptz_test::Descriptor holder(open(folder_.c_str(), O_RDONLY));
  ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
  std::filesystem::remove(entry_file());
  pass_ms(500);
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
  ASSERT_EQ(flock(holder.get(), LOCK_UN), 0);
  EXPECT_TRUE(is_made());
}

TEST_F(Registration, RemovedWhileSecondDriverOfInstanceStartsIsMadeAgainWithWarning) {
  const Driver first = make(path_, 5);
  ASSERT_EQ(start(first), "");
  std::filesystem::remove(entry_file());
  const Driver second = make(dir_.file("b.socket"), 5, "second");
  ASSERT_EQ(start(second), "");
  const ptz_test::SyslogCapture log;
  pass_ms(500);
  EXPECT_EQ(list()->len, 2u);
  EXPECT_EQ(log.count(LOG_WARNING,
                      "a second driver was started while the entry of this one was missing: instance 5 is published "
                      "by driver 'second', process " +
                          own_pid_),
            1u);
}

TEST_F(Registration, RenamedIsMadeAgainAtItsOwnPath) {
  const Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  std::filesystem::rename(entry_file(), folder_ + "/renamed.driver");
  pass_ms(500);
  EXPECT_TRUE(is_made());
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/renamed.driver"));
  EXPECT_EQ(list()->len, 1u);
}

TEST_F(Registration, IsMadeAgainWhenItsFolderOrTheFolderOfThatWasRenamed) {
  const std::string runtime = dir_.file("parent/runtime");
  setenv("PTZ_PLATFORM_RUNTIME_DIR", runtime.c_str(), 1);
  std::filesystem::create_directories(runtime);
  const Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  std::filesystem::rename(runtime + "/drivers", dir_.file("old"));
  EXPECT_TRUE(is_made());
  std::filesystem::rename(dir_.file("parent"), dir_.file("old_parent"));
  std::filesystem::create_directory(dir_.file("parent"));
  EXPECT_TRUE(is_made());
}

TEST_F(Registration, RefusesRelativePathThatIsTooLongForAnAddress) {
  const std::string deep = dir_.file(std::string(100, 'd'));
  std::filesystem::create_directory(deep);
  in_child([&] {
    ASSERT_EQ(chdir(deep.c_str()), 0);
    const Driver driver = make("socket");
    EXPECT_NE(start(driver).find("' is longer than 107 bytes"), std::string::npos);
  });
}

TEST_F(Registration, OnFullDiskDriverServesWithWarning) {
  in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit nothing = {0, 0};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
    const ptz_test::SyslogCapture log;
    const Driver driver = make(path_);
    EXPECT_EQ(start(driver), "");
    EXPECT_EQ(log.containing("the driver has no entry in"), 1u);
  });
  EXPECT_TRUE(std::filesystem::is_empty(folder_));
}

TEST_F(Registration, MakesFolderLikeItsParentWhateverTheUmask) {
  ASSERT_EQ(chmod(dir_.path().c_str(), 02770), 0);
  const mode_t old = umask(077);
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver), "");
  umask(old);
  struct stat folder = {}, parent = {}, entry = {};
  ASSERT_EQ(stat(folder_.c_str(), &folder), 0);
  ASSERT_EQ(stat(dir_.path().c_str(), &parent), 0);
  EXPECT_EQ(folder.st_mode, parent.st_mode);
  EXPECT_EQ(folder.st_gid, parent.st_gid);
  const auto file = std::filesystem::directory_iterator(folder_)->path();
  ASSERT_EQ(stat(file.c_str(), &entry), 0);
  EXPECT_EQ(entry.st_mode & 07777, 0640u);
}

TEST_F(Registration, MakesFolderWithoutSetgidBitIfThatIsForbidden) {
  ASSERT_EQ(chmod(dir_.path().c_str(), 02770), 0);
  setgid_is_forbidden = true;
  const mode_t old = umask(077);
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver), "");
  umask(old);
  setgid_is_forbidden = false;
  struct stat folder = {};
  ASSERT_EQ(stat(folder_.c_str(), &folder), 0);
  EXPECT_EQ(folder.st_mode & 0777, 0770u);
  EXPECT_EQ(list()->len, 1u);
}

TEST_F(Registration, SkipsForeignFilesInTheFolder) {
  std::filesystem::create_directory(folder_);
  ASSERT_EQ(mkfifo((folder_ + "/fifo.driver").c_str(), 0600), 0);
  std::ofstream(folder_ + "/garbage.driver") << "garbage";
  std::filesystem::create_directory(folder_ + "/folder.driver");
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver), "");
  EXPECT_EQ(list()->len, 1u);
}

TEST_F(Registration, WaitsForLockOfFolderForTwoSeconds) {
  std::filesystem::create_directory(folder_);
  const ptz_test::Descriptor holder(open(folder_.c_str(), O_RDONLY));
  ASSERT_EQ(flock(holder.get(), LOCK_EX), 0);
  std::atomic<bool> waits = true;
  std::thread clock([&] {
    while (waits) {
      ptz_test::advance_clock(500);
      g_usleep(10'000);
    }
  });
  const Driver driver = make(path_);
  EXPECT_EQ(start(driver),
            "cannot lock '" + folder_ + "' within two seconds: another process holds its lock (see lslocks)");
  waits = false;
  clock.join();
}

TEST_F(Registration, OfKilledDriverIsDeadUntilNextDriverStarts) {
  const pid_t child = start_in_child();
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_LIVE);
  EXPECT_EQ(at(list(), 0).pid, child);
  kill_and_wait(child);
  ASSERT_EQ(list()->len, 1u);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_DEAD);
  std::ofstream(folder_ + "/.entry-unfinished");
  const Driver next = make(path_, 7);
  EXPECT_EQ(start(next), "");
  ASSERT_EQ(list()->len, 1u);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_LIVE);
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/.entry-unfinished"));
}

TEST_F(Registration, OfStoppedProcessIsLive) {
  const pid_t child = start_in_child();
  kill(child, SIGSTOP);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_LIVE);
  const Driver second = make(path_);
  EXPECT_EQ(start(second).substr(0, 8), "socket '");
  kill_and_wait(child);
}

TEST_F(Registration, IsNotKeptAliveByChildOfDriver) {
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const pid_t driver = start_in_child([&] {
    if (fork() != 0) return;
    const pid_t child = getpid();  // told when the handlers of fork() have run
    if (write(pipe_ends[1], &child, sizeof child) != sizeof child) _exit(1);
    for (;;) pause();
  });
  pid_t child = 0;
  ASSERT_EQ(read(pipe_ends[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  kill_and_wait(driver);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_DEAD);
  // The child still has the listening socket of its parent.
  EXPECT_TRUE(ptz_test::connect_to(path_));
  const Driver next = make(path_);
  EXPECT_EQ(start(next), "");
  kill(child, SIGKILL);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST_F(Registration, DoesNotCountKilledDriverThatItsParentHasNotWaitedForAsServer) {
  pid_t child = 0;
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  const pid_t driver = start_in_child([&] {
    child = fork();
    if (child == 0) {
      for (;;) pause();
    }
    if (write(pipe_ends[1], &child, sizeof child) != sizeof child) _exit(1);
  });
  ASSERT_EQ(read(pipe_ends[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  kill(driver, SIGKILL);
  siginfo_t info = {};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(driver), &info, WEXITED | WNOWAIT), 0);
  EXPECT_TRUE(ptz_test::connect_to(path_));
  const Driver next = make(path_);
  EXPECT_EQ(start(next), "");
  kill(child, SIGKILL);
  waitpid(driver, nullptr, 0);
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

TEST_F(Registration, IsNotWithdrawnByChildOfDriver) {
  Driver driver = make(path_);
  ASSERT_EQ(start(driver), "");
  in_child([&] { driver.reset(); });
  ASSERT_EQ(list()->len, 1u);
  EXPECT_EQ(at(list(), 0).liveness, PTZ_KIT_DRIVER_LIVE);
  EXPECT_TRUE(ptz_test::connect_to(path_));
}

}  // namespace
