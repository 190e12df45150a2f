// The path of a running driver: lost, taken, and found again.
#include <sys/inotify.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "clock.h"
#include "faults.h"
#include "interpose.h"
#include "running_driver.h"
#include "syslog_capture.h"

static bool watches_are_refused = false;

INTERPOSE(int, inotify_add_watch, (int fd, const char *path, std::uint32_t events)) {
  if (watches_are_refused) {
    errno = ENOSPC;
    return -1;
  }
  return REAL(inotify_add_watch)(fd, path, events);
}

namespace {

class DriverPath : public RunningDriver {
 protected:
  const StatusStore store_;

  [[nodiscard]] ino_t inode() const {
    struct stat status = {};
    return lstat(path_.c_str(), &status) == 0 ? status.st_ino : 0;
  }
  // A new client's request is answered.
  bool serves_new_client() {
    const ptz_test::Descriptor client = ptz_test::connect_to(path_);
    if (!client) return false;
    ptz_test::send_all(client.get(), ptz_test::frame(1, bytes_of("{'command': <'get_driver_name'>}")));
    return ptz_test::run_until([&] { return ptz_test::is_readable(client.get()); }, 2000) &&
           ptz_test::receive_frame(client.get()).has_value();
  }
  bool comes_back() {
    return ptz_test::run_until([&] { return inode() != 0 && serves_new_client(); }, 1000);
  }
  bool answers_first_client() { return ask("{'command': <'get_driver_name'>}").find("recording") != std::string::npos; }
  static std::size_t open_descriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
  }
};

TEST_F(DriverPath, RemovedIsServedAgainAndClientsStay) {
  start();
  const ptz_test::SyslogCapture log;
  ASSERT_EQ(unlink(path_.c_str()), 0);
  EXPECT_TRUE(comes_back());
  EXPECT_TRUE(answers_first_client());
  EXPECT_EQ(log.containing("was removed: listening there again"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DriverPath, RenamedIsServedAgain) {
  start();
  std::filesystem::rename(path_, dir_.file("elsewhere"));
  EXPECT_TRUE(comes_back());
  EXPECT_TRUE(answers_first_client());
}

TEST_F(DriverPath, RemovedHundredTimesLosesNoRequestAndNoDescriptor) {
  start();
  ASSERT_TRUE(answers_first_client());
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 100; ++i) {
    send(bytes_of("{'command': <'query_position'>}"));
    const ino_t old = inode();
    ASSERT_EQ(unlink(path_.c_str()), 0);
    send(bytes_of("{'command': <'query_position'>}"));
    --id_;
    ASSERT_NE(receive(), "");
    ++id_;
    ASSERT_NE(receive(), "");
    ASSERT_TRUE(ptz_test::run_until([&] { return inode() != 0 && inode() != old; }, 1000)) << i;
  }
  EXPECT_TRUE(serves_new_client());
  ptz_test::run_pending();
  EXPECT_LE(open_descriptors(), before + 1);  // the first server, for its client
}

TEST_F(DriverPath, ServerWithoutClientsIsFreed) {
  start();
  client_.reset();
  ptz_test::run_pending();
  const std::size_t before = open_descriptors();
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(unlink(path_.c_str()), 0);
    ASSERT_TRUE(comes_back());
    ptz_test::run_pending();
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(DriverPath, ConnectionThatWaitedWhenPathWasRemovedIsServed) {
  start();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_TRUE(comes_back());  // with a server whose source comes after the watch
  ptz_test::run_pending();
  ptz_test::advance_clock(100);
  const ptz_test::Descriptor waiting = ptz_test::connect_to(path_);
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ptz_test::send_all(waiting.get(), ptz_test::frame(1, bytes_of("{'command': <'get_driver_name'>}")));
  EXPECT_TRUE(ptz_test::run_until([&] { return ptz_test::is_readable(waiting.get()); }));
  EXPECT_TRUE(ptz_test::receive_frame(waiting.get()).has_value());
}

TEST_F(DriverPath, ReplyAfterClientHasGoneAndPathWasRemovedTwiceIsDropped) {
  start();
  send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
  ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  client_.reset();
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(unlink(path_.c_str()), 0);
    ASSERT_TRUE(comes_back());
  }
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_INTERNAL, "late");
  g_clear_object(&driver_->deferred);
  EXPECT_TRUE(comes_back());
}

TEST_F(DriverPath, TakenByOtherProcessIsTakenBackOnceASecond) {
  start();
  const ptz_test::SyslogCapture log;
  ASSERT_EQ(unlink(path_.c_str()), 0);
  const ptz_test::Listener thief(path_);
  const ino_t taken = inode();
  ptz_test::run_until([] { return false; }, 50);
  EXPECT_EQ(inode(), taken);
  ptz_test::advance_clock(1000);
  EXPECT_TRUE(ptz_test::run_until([&] { return inode() != taken && inode() != 0; }, 1000));
  EXPECT_TRUE(serves_new_client());
  EXPECT_TRUE(answers_first_client());
  EXPECT_EQ(log.containing("was taken by process " + std::to_string(getpid()) + ": taking it back"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DriverPath, ReplacedByStaleSocketIsServedAgain) {
  start();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  { const ptz_test::Listener ended(path_); }
  EXPECT_TRUE(comes_back());
}

TEST_F(DriverPath, ReplacedByFileIsServedAgainWhenFileIsRemoved) {
  start();
  const ptz_test::SyslogCapture log;
  ASSERT_EQ(unlink(path_.c_str()), 0);
  std::ofstream(path_) << "kept";
  ptz_test::run_pending();
  ptz_test::advance_clock(1000);
  ptz_test::run_pending();
  EXPECT_TRUE(std::filesystem::is_regular_file(path_));
  EXPECT_TRUE(answers_first_client());
  ASSERT_EQ(unlink(path_.c_str()), 0);
  EXPECT_TRUE(comes_back());
  EXPECT_EQ(log.containing("was replaced by another file"), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(DriverPath, IsServedAgainWhenItsFolderIsBack) {
  std::filesystem::create_directory(dir_.file("folder"));
  make();
  const std::string path = dir_.file("folder/socket");
  g_object_set(driver_, "socket-path", path.c_str(), nullptr);
  ASSERT_TRUE(ptz_kit_driver_start(kit(), nullptr));
  const ptz_test::SyslogCapture log;
  std::filesystem::remove_all(dir_.file("folder"));
  ptz_test::run_until([] { return false; }, 50);
  std::filesystem::create_directory(dir_.file("folder"));
  EXPECT_TRUE(ptz_test::run_until([&] { return static_cast<bool>(ptz_test::connect_to(path)); }, 1000));
  std::filesystem::rename(dir_.file("folder"), dir_.file("moved"));
  std::filesystem::create_directory(dir_.file("folder"));
  EXPECT_TRUE(ptz_test::run_until([&] { return static_cast<bool>(ptz_test::connect_to(path)); }, 1000));
  EXPECT_EQ(log.lines().size(), 2u);
}

TEST_F(DriverPath, IsServedAgainWhenFolderAboveItsFolderIsRenamed) {
  std::filesystem::create_directories(dir_.file("upper/lower"));
  make();
  const std::string path = dir_.file("upper/lower/socket");
  g_object_set(driver_, "socket-path", path.c_str(), nullptr);
  ASSERT_TRUE(ptz_kit_driver_start(kit(), nullptr));
  std::filesystem::rename(dir_.file("upper"), dir_.file("moved"));
  std::filesystem::create_directories(dir_.file("upper/lower"));
  EXPECT_TRUE(ptz_test::run_until([&] { return static_cast<bool>(ptz_test::connect_to(path)); }, 1000));
}

TEST_F(DriverPath, IsLookedAtTwiceASecondIfKernelRefusesWatches) {
  const ptz_test::SyslogCapture log;
  watches_are_refused = true;
  start();
  ptz_test::run_pending();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ptz_test::advance_clock(500);
  EXPECT_TRUE(comes_back());
  watches_are_refused = false;
  EXPECT_EQ(log.containing("is looked at twice a second, because inotify is not available: No space left"), 1u);
}

TEST_F(DriverPath, IsServedAgainWithinASecondAfterItCouldNotBeBoundTenTimes) {
  start();
  const ptz_test::Fault fault(ptz_test::Call::listen, EADDRINUSE, {.times = 10});
  ASSERT_EQ(unlink(path_.c_str()), 0);
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(ptz_test::run_until([&] { return inode() != 0; }, 20));
    ptz_test::advance_clock(1000);
  }
  EXPECT_TRUE(comes_back());
}

TEST_F(DriverPath, EntryTellsNewSocket) {
  start();
  const ino_t old = inode();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  ASSERT_TRUE(comes_back());
  EXPECT_NE(inode(), old);
  PTZKitRegistry *registry = ptz_kit_registry_new(nullptr);
  GPtrArray *list = ptz_kit_registry_list(registry, nullptr);
  ASSERT_EQ(list->len, 1u);
  EXPECT_EQ(static_cast<PTZKitRegistryEntry *>(list->pdata[0])->liveness, PTZ_KIT_DRIVER_LIVE);
  g_ptr_array_unref(list);
  g_object_unref(registry);
}

TEST_F(DriverPath, IsRemovedByStop) {
  start();
  end();
  EXPECT_EQ(inode(), 0u);
}

TEST_F(DriverPath, OfOtherSocketIsNotRemovedByStop) {
  start();
  ASSERT_EQ(unlink(path_.c_str()), 0);
  const ptz_test::Listener other(path_);
  end();
  EXPECT_NE(inode(), 0u);
}

TEST_F(DriverPath, WakesNothingWhileOtherFilesOfItsFolderChange) {
  start();
  ptz_test::run_pending();
  int dispatches = 0;
  for (int i = 0; i < 10; ++i) {
    std::ofstream(dir_.file("file" + std::to_string(i)));
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) ++dispatches;
  }
  EXPECT_EQ(dispatches, 0);
}

}  // namespace
