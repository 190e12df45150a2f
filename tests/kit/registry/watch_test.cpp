// The signals of a registry: drivers come and go.
#include <dirent.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>

#include "../driver/running_driver.h"
#include "clock.h"
#include "entry_files.h"
#include "interpose.h"

static int looks = 0;
static int look_takes_ms = 0;

INTERPOSE(DIR *, fdopendir, (int fd)) {
  ++looks;
  ptz_test::advance_clock(look_takes_ms);
  return REAL(fdopendir)(fd);
}

namespace {

using registry_test::Owned;

class RegistryWatch : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  const std::string folder_ = dir_.file("drivers");
  Owned<PTZKitRegistry> registry_;
  std::vector<std::string> seen_;

  void SetUp() override {
    setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.path().c_str(), 1);
    registry_.reset(ptz_kit_registry_new(nullptr));
    g_signal_connect(registry_.get(), "driver-appeared",
                     G_CALLBACK(+[](PTZKitRegistry *, PTZKitRegistryEntry *entry, RegistryWatch *test) {
                       test->seen_.push_back(std::string("+") + entry->name);
                     }),
                     this);
    g_signal_connect(registry_.get(), "driver-gone",
                     G_CALLBACK(+[](PTZKitRegistry *, PTZKitRegistryEntry *entry, RegistryWatch *test) {
                       test->seen_.push_back(std::string("-") + entry->name);
                     }),
                     this);
  }
  void watch() { ASSERT_TRUE(ptz_kit_registry_watch(registry_.get(), nullptr)); }
  PTZKitDriver *start(const char *name) {
    auto *driver = PTZ_KIT_DRIVER(
        g_object_new(recording_driver_get_type(), "name", name, "socket-path", dir_.file(name).c_str(), nullptr));
    EXPECT_TRUE(ptz_kit_driver_start(driver, nullptr));
    return driver;
  }
  static void stop(PTZKitDriver *driver) {
    ptz_kit_driver_stop(driver);
    g_object_unref(driver);
  }
  // What was signalled, when as much as expected is there and a moment later no more.
  std::vector<std::string> signals(std::size_t count) {
    ptz_test::run_until([&] { return seen_.size() >= count; }, 2000);
    ptz_test::run_until([] { return false; }, 30);
    return std::exchange(seen_, {});
  }
  using Names = std::vector<std::string>;
};

class RegistryOfEntryFiles : public registry_test::Registry {};

TEST_F(RegistryWatch, SignalsStartAndStopOnce) {
  ASSERT_EQ(mkdir(folder_.c_str(), 0700), 0);
  watch();
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  stop(driver);
  EXPECT_EQ(signals(1), Names{"-a"});
}

TEST_F(RegistryWatch, SignalsDriverThatRunsAlreadyFromMainLoop) {
  PTZKitDriver *driver = start("a");
  watch();
  EXPECT_EQ(seen_, Names{});
  EXPECT_EQ(signals(1), Names{"+a"});
  stop(driver);
  EXPECT_EQ(signals(1), Names{"-a"});
}

TEST_F(RegistryWatch, FollowsFolderThatIsMadeLater) {
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir_.file("later/runtime").c_str(), 1);
  const Owned<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
  int appeared = 0;
  g_signal_connect_swapped(registry.get(), "driver-appeared", G_CALLBACK(+[](int *count) { ++*count; }), &appeared);
  ASSERT_TRUE(ptz_kit_registry_watch(registry.get(), nullptr));
  ptz_test::run_pending();
  std::filesystem::create_directories(dir_.file("later/runtime"));
  PTZKitDriver *driver = start("a");
  EXPECT_TRUE(ptz_test::run_until([&] { return appeared == 1; }, 2000));
  stop(driver);
}

TEST_F(RegistryWatch, FollowsFolderThatIsRemovedAndMadeAgain) {
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  stop(driver);
  EXPECT_EQ(signals(1), Names{"-a"});
  std::filesystem::remove_all(folder_);
  ptz_test::run_pending();
  driver = start("b");
  EXPECT_EQ(signals(1), Names{"+b"});
  stop(driver);
}

TEST_F(RegistryWatch, SignalsKilledDriver) {
  watch();
  const pid_t child = fork();
  if (child == 0) {
    start("killed");
    for (;;) pause();
  }
  EXPECT_EQ(signals(1), Names{"+killed"});
  kill(child, SIGKILL);
  EXPECT_EQ(signals(1), Names{"-killed"});
  waitpid(child, nullptr, 0);
}

// As the kernel does it when it ends a process: the file is closed first, and its lock released a moment later.
TEST_F(RegistryOfEntryFiles, SignalsDriverWhoseLockGoesAfterItsFileWasClosed) {
  write_entry("1.driver", {.socket = listen_at("a.socket")});
  const ptz_test::Descriptor &holder = held_.back();
  int gone = 0;
  g_signal_connect_swapped(registry_.get(), "driver-gone", G_CALLBACK(+[](int *count) { ++*count; }), &gone);
  ASSERT_TRUE(ptz_kit_registry_watch(registry_.get(), nullptr));
  ptz_test::run_pending();
  { const ptz_test::Descriptor closed(open((folder_ + "/1.driver").c_str(), O_RDWR)); }
  ptz_test::run_pending();
  EXPECT_EQ(gone, 0);
  struct flock unlock = {};
  unlock.l_type = F_UNLCK;
  ASSERT_EQ(fcntl(holder.get(), F_OFD_SETLK, &unlock), 0);
  EXPECT_TRUE(ptz_test::run_until([&] { return gone == 1; }, 1000));
}

TEST_F(RegistryWatch, SignalsNothingWhenPathOfDriverIsRemoved) {
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  ASSERT_EQ(unlink(dir_.file("a").c_str()), 0);
  EXPECT_EQ(signals(0), Names{});
  stop(driver);
}

TEST_F(RegistryWatch, SignalsNothingWhenEntryOfRunningDriverIsRemoved) {
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  std::filesystem::remove_all(folder_);
  ptz_test::run_pending();
  ptz_test::advance_clock(1000);
  EXPECT_TRUE(ptz_test::run_until([&] { return std::filesystem::exists(folder_); }, 2000));
  EXPECT_EQ(signals(0), Names{});
  stop(driver);
  EXPECT_EQ(signals(1), Names{"-a"});
}

TEST_F(RegistryWatch, SignalsKilledDriverWhoseFolderWasRemovedOnce) {
  const pid_t child = fork();
  if (child == 0) {
    start("killed");
    for (;;) pause();
  }
  watch();
  ASSERT_TRUE(ptz_test::run_until([&] { return !seen_.empty(); }, 2000));
  std::filesystem::remove_all(folder_);
  EXPECT_EQ(signals(1), Names{"+killed"});
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ptz_test::advance_clock(500);
  EXPECT_EQ(signals(1), Names{"-killed"});
}

TEST_F(RegistryWatch, WithoutDescriptorsSignalsNothingUntilThereAreSome) {
  watch();
  PTZKitDriver *first = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  PTZKitDriver *second = start("b");
  rlimit old = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit few = {200, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<ptz_test::Descriptor> all;
  for (int fd = dup(0); fd >= 0; fd = dup(0)) all.emplace_back(fd);
  const Names seen = signals(0);
  all.clear();
  setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_EQ(seen, Names{});
  ptz_test::advance_clock(500);
  EXPECT_EQ(signals(1), Names{"+b"});
  stop(first);
  stop(second);
}

TEST_F(RegistryOfEntryFiles, AreReadForAtMostATenthOfTheTime) {
  write_entry("1.driver", {.socket = listen_at("a.socket")});
  ASSERT_TRUE(ptz_kit_registry_watch(registry_.get(), nullptr));
  look_takes_ms = 20;
  ptz_test::run_pending();
  looks = 0;
  for (int i = 0; i < 100; ++i) {
    std::ofstream(folder_ + "/other.driver") << i;
    ptz_test::run_pending();
    ptz_test::advance_clock(10);
  }
  EXPECT_GE(looks, 3);
  EXPECT_LE(looks, 7);
  look_takes_ms = 0;
}

TEST_F(RegistryWatch, HandlerMayDropTheRegistry) {
  g_signal_connect_swapped(registry_.get(), "driver-appeared",
                           G_CALLBACK(+[](Owned<PTZKitRegistry> *registry) { registry->reset(); }), &registry_);
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  EXPECT_EQ(registry_, nullptr);
  stop(driver);
  EXPECT_EQ(signals(0), Names{});
}

TEST_F(RegistryWatch, SleepsWhileNothingChanges) {
  watch();
  PTZKitDriver *driver = start("a");
  EXPECT_EQ(signals(1), Names{"+a"});
  EXPECT_LE(ptz_test::iterations_within(200), 5);
  stop(driver);
}

TEST_F(RegistryWatch, WithoutInotifyFails) {
  rlimit old = {}, none = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  none = {0, old.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  GError *error = nullptr;
  const gboolean watches = ptz_kit_registry_watch(registry_.get(), &error);
  setrlimit(RLIMIT_NOFILE, &old);
  const Owned<GError> owned(error);
  EXPECT_FALSE(watches);
  EXPECT_TRUE(g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_MFILE));
}

}  // namespace
