// The monitor socket: its file, its limits, and peers that misbehave.
#include <glib/gstdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fstream>
#include <string_view>

#include "monitored_driver.h"
#include "syslog_capture.h"

namespace {

constexpr char ask_name[] = "{'command': <'get_driver_name'>}";
constexpr std::string_view figures_request("\1\0\0\0\7\0\0\0", 8);
constexpr std::string_view subscribe_request("\2\0\0\0\0\0\0\0", 8);

class MonitorSocket : public MonitoredDriver {
 protected:
  static std::string mode_of(const std::string &path) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return "none";
    return std::to_string(status.st_mode & 07777);
  }
  ptz_test::Descriptor connect_peer() {
    auto peer = ptz_test::connect_to(monitor_path_, SOCK_SEQPACKET);
    ptz_test::run_pending();
    return peer;
  }
  static bool send_packet(const ptz_test::Descriptor &peer, std::string_view packet) {
    return ::send(peer.get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
  }
  static bool is_closed(const ptz_test::Descriptor &peer) {
    return ptz_test::run_until([&] {
      char packet[8192];
      return recv(peer.get(), packet, sizeof packet, MSG_DONTWAIT) == 0;
    });
  }
  bool driver_answers() { return ask(ask_name).find("recording") != std::string::npos; }
  bool is_monitored() { return figures() != nullptr; }
};

class MonitorSocketMode : public MonitorSocket, public testing::WithParamInterface<mode_t> {};

TEST_P(MonitorSocketMode, IsThatOfTheGroupWhateverTheUmask) {
  const mode_t before = umask(GetParam());
  start();
  umask(before);
  EXPECT_EQ(mode_of(monitor_path_), std::to_string(0660));
}

INSTANTIATE_TEST_SUITE_P(Umasks, MonitorSocketMode, testing::Values(0, 022, 077, 0777));

TEST_F(MonitorSocket, HasTheGroupOfItsFolder) {
  constexpr gid_t other_group = 12345;
  if (chown(dir_.path().c_str(), static_cast<uid_t>(-1), other_group) != 0) GTEST_SKIP() << "needs root";
  start();
  struct stat status;
  ASSERT_EQ(lstat(monitor_path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_gid, other_group);
}

TEST_F(MonitorSocket, IsRemovedWhenTheDriverStops) {
  start();
  end();
  EXPECT_EQ(mode_of(monitor_path_), "none");
}

TEST_F(MonitorSocket, OfAnotherProcessStaysWhenTheDriverStops) {
  start();
  g_unlink(monitor_path_.c_str());
  const ptz_test::Listener other(monitor_path_, SOCK_SEQPACKET);
  end();
  EXPECT_NE(mode_of(monitor_path_), "none");
}

TEST_F(MonitorSocket, ThatIsStaleIsReplaced) {
  { const ptz_test::Listener ended(monitor_path_, SOCK_SEQPACKET); }
  ASSERT_NE(mode_of(monitor_path_), "none");
  start();
  EXPECT_TRUE(is_monitored());
}

TEST_F(MonitorSocket, PathWithFileOfAnotherTypeLeavesTheFileAndServesWithout) {
  const ptz_test::SyslogCapture log;
  std::ofstream(monitor_path_) << "notes";
  start();
  EXPECT_TRUE(driver_answers());
  EXPECT_EQ(log.containing("no monitor can connect"), 1U);
  end();
  std::string text;
  std::ifstream(monitor_path_) >> text;
  EXPECT_EQ(text, "notes");
}

TEST_F(MonitorSocket, PathThatIsServedByAnotherProcessIsLeftToIt) {
  const ptz_test::SyslogCapture log;
  const ptz_test::Listener other(monitor_path_, SOCK_SEQPACKET);
  start();
  EXPECT_TRUE(driver_answers());
  EXPECT_EQ(log.containing("no monitor can connect"), 1U);
  const auto peer = ptz_test::connect_to(monitor_path_, SOCK_SEQPACKET);
  EXPECT_TRUE(other.has_waiting_client());
}

TEST_F(MonitorSocket, PathThatIsTooLongLeavesTheDriverServing) {
  const ptz_test::SyslogCapture log;
  const std::string path = dir_.file(std::string(sizeof sockaddr_un::sun_path - 3 - dir_.path().size(), 's'));
  make();
  g_object_set(driver_, "socket-path", path.c_str(), nullptr);
  GError *error = nullptr;
  ASSERT_TRUE(ptz_kit_driver_start(kit(), &error)) << error->message;
  client_ = ptz_test::connect_to(path);
  EXPECT_TRUE(driver_answers());
  EXPECT_EQ(log.containing("the path is too long"), 1U);
  Monitor monitor(path);
  EXPECT_EQ(monitor.open(), io_error(G_IO_ERROR_NOT_FOUND));
}

TEST_F(MonitorSocket, IsMadeAnewWhenItsFileWasRemoved) {
  start();
  g_unlink(monitor_path_.c_str());
  EXPECT_TRUE(ptz_test::run_until([&] { return mode_of(monitor_path_) == std::to_string(0660); }));
  EXPECT_TRUE(is_monitored());
}

TEST_F(MonitorSocket, IsMadeAnewWhenBothFilesWereRemoved) {
  start();
  Monitor monitor(path_);
  ASSERT_EQ(monitor.open(), "");
  ASSERT_EQ(monitor.subscribe(), "");
  g_unlink(path_.c_str());
  g_unlink(monitor_path_.c_str());
  EXPECT_TRUE(
      ptz_test::run_until([&] { return mode_of(monitor_path_) == std::to_string(0660) && mode_of(path_) != "none"; }));
  EXPECT_TRUE(is_monitored());
  EXPECT_TRUE(driver_answers());  // the client of the old socket
  EXPECT_TRUE(ptz_test::run_until([&] { return monitor.frames.size() == 2; }));
}

TEST_F(MonitorSocket, OfDriverThatWasStartedAgainIsMadeAnewToo) {
  start();
  for (int i = 0; i < 3; ++i) {
    client_.reset();
    ptz_kit_driver_stop(kit());
    start();
  }
  const auto is_back = [](const std::string &path) {
    return ptz_test::run_until([&] { return mode_of(path) != "none"; });
  };
  g_unlink(path_.c_str());
  EXPECT_TRUE(is_back(path_));
  g_unlink(monitor_path_.c_str());
  EXPECT_TRUE(is_back(monitor_path_));
}

TEST_F(MonitorSocket, NinthMonitorIsToldBusy) {
  start();
  std::vector<ptz_test::Descriptor> peers;
  for (int i = 0; i < 8; ++i) {
    peers.push_back(connect_peer());
    ASSERT_TRUE(send_packet(peers.back(), subscribe_request));
    ptz_test::run_pending();
  }
  Monitor ninth(path_);
  EXPECT_EQ(ninth.open(), "");
  EXPECT_TRUE(ptz_test::run_until([&] { return ninth.closed == 1; }));
  EXPECT_EQ(ninth.subscribe(), io_error(G_IO_ERROR_BUSY));
  std::string error;
  EXPECT_EQ(figures_of(path_, &error), nullptr);
  EXPECT_EQ(error, io_error(G_IO_ERROR_BUSY));
  peers.pop_back();
  ptz_test::run_pending();
  EXPECT_TRUE(is_monitored());
}

TEST_F(MonitorSocket, PeersThatAskForNothingGiveTheirPlaceAway) {
  start();
  std::vector<ptz_test::Descriptor> peers;
  for (int i = 0; i < 8; ++i) peers.push_back(connect_peer());
  EXPECT_FALSE(is_monitored());
  g_usleep(1'050'000);
  EXPECT_TRUE(is_monitored());
}

class MonitorSocketGarbage : public MonitorSocket, public testing::WithParamInterface<std::string> {};

TEST_P(MonitorSocketGarbage, ClosesTheConnectionAndTheDriverServesOn) {
  start();
  const auto peer = connect_peer();
  ASSERT_TRUE(send_packet(peer, GetParam()));
  EXPECT_TRUE(is_closed(peer));
  EXPECT_TRUE(driver_answers());
  EXPECT_TRUE(is_monitored());
}

INSTANTIATE_TEST_SUITE_P(Packets, MonitorSocketGarbage,
                         testing::Values(std::string(), std::string("\1"), std::string("\1\0\0\0\0\0\0", 7),
                                         std::string(8, '\0'), std::string(8, '\xff'), std::string(200, 'x'),
                                         std::string(5000, '\1'), std::string("\4\1\0\0\0\0\0\0", 8)));

TEST_F(MonitorSocket, FloodOfRequestsForFiguresLetsTheDriverServe) {
  start();
  const auto peer = connect_peer();
  int sent = 0;
  while (sent < 10'000 && send_packet(peer, figures_request)) ++sent;
  EXPECT_GT(sent, 100);
  const gint64 begin_us = g_get_monotonic_time();
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(driver_answers());
  EXPECT_LT(g_get_monotonic_time() - begin_us, 5 * G_USEC_PER_SEC);
  EXPECT_TRUE(is_monitored());
}

TEST_F(MonitorSocket, FloodOfConnectionsLetsTheDriverServe) {
  start();
  struct Flood {
    const std::string &path;
    gint done = 0;
  } flood{monitor_path_, 0};
  GThread *thread = g_thread_new(
      "flood",
      [](gpointer data) -> gpointer {
        auto &self = *static_cast<Flood *>(data);
        for (int i = 0; i < 1000; ++i) static_cast<void>(ptz_test::connect_to(self.path, SOCK_SEQPACKET));
        g_atomic_int_set(&self.done, 1);
        return nullptr;
      },
      &flood);
  while (g_atomic_int_get(&flood.done) == 0) {
    const gint64 begin_us = g_get_monotonic_time();
    EXPECT_TRUE(driver_answers());
    EXPECT_LT(g_get_monotonic_time() - begin_us, G_USEC_PER_SEC);
    ptz_test::run_until([] { return false; }, 1);
  }
  g_thread_join(thread);
  EXPECT_TRUE(is_monitored());
}

TEST_F(MonitorSocket, IsServedByADriverThatIsNeverIdle) {
  start();
  struct Flood {
    const std::string path;
    gint stop = 0;
  } flood{path_, 0};
  std::vector<GThread *> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(g_thread_new(
        "flood",
        [](gpointer data) -> gpointer {
          auto &self = *static_cast<Flood *>(data);
          const auto client = ptz_test::connect_to(self.path);
          std::string requests;
          for (int n = 0; n < 64; ++n) requests += ptz_test::frame(1, bytes_of(ask_name));
          char replies[65536];
          while (g_atomic_int_get(&self.stop) == 0) {
            ::send(client.get(), requests.data(), requests.size() / 64 * 64, MSG_NOSIGNAL);
            for (std::size_t got = 0; got < 64 * 23;) {
              const ssize_t count = recv(client.get(), replies, sizeof replies, 0);
              if (count <= 0) return nullptr;
              got += static_cast<std::size_t>(count);
            }
          }
          return nullptr;
        },
        &flood));
  }
  const gint64 begin_us = g_get_monotonic_time();
  EXPECT_TRUE(is_monitored());
  EXPECT_LT(g_get_monotonic_time() - begin_us, 3 * G_USEC_PER_SEC);
  g_atomic_int_set(&flood.stop, 1);
  bool joined = false;
  std::vector<GThread *> *all = &clients;
  GThread *joiner = g_thread_new(
      "joiner",
      [](gpointer data) -> gpointer {
        for (GThread *thread : *static_cast<std::vector<GThread *> *>(data)) g_thread_join(thread);
        return nullptr;
      },
      all);
  ptz_test::run_until([&] { return joined = true; }, 1);
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
  end();  // closes the connections of clients that still wait
  g_thread_join(joiner);
}

}  // namespace
