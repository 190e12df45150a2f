// Of the live state: its age, and the drivers that publish it.
#include <fcntl.h>
#include <ptz_status_cache.h>

#include <csignal>
#include <filesystem>
#include <memory>

#include "ptzctl.h"

namespace {

using namespace ptz_test;

// As a publisher would have left it ten seconds ago.
void make_stale(guint instance) {
  gint32 rate = 25;
  PTZStatusCacheTime time = {static_cast<guint32>(g_get_monotonic_time() / G_USEC_PER_SEC) - 10, 0};
  auto *handle = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, 2);
  ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_UPDATE_RATE, &rate);
  ptz_status_cache_add_param(handle, PTZ_SC_PARAM_POSITION_TIME_VAL, &time);
  EXPECT_TRUE(ptz_status_cache_update_group(handle));
  ptz_status_cache_free_group(handle);
}

struct LiveStatus : Ptzctl {
  std::vector<std::unique_ptr<Process>> drivers;
  std::vector<pid_t> pids;

  void start(const std::string &socket, int instance) {
    drivers.push_back(std::make_unique<Process>(
        SIM_DRIVER, std::vector<std::string>{"--socket", dir.file(socket), "--instance", std::to_string(instance)},
        dir.file("log")));
    pids.push_back(drivers.back()->pid());
    ASSERT_TRUE(run_until([&] {
      return run({"driver", "info", "--socket", dir.file(socket)}).status == 0;
    })) << contents(dir.file("log"));
  }
  [[nodiscard]] std::string of(std::size_t driver, const char *state) const {
    return "sim-driver[" + std::to_string(pids.at(driver)) + "]" + state;
  }
  [[nodiscard]] bool soon(const std::vector<std::string> &arguments, const std::string &part) const {
    return run_until([&] { return has(run(arguments), part); });
  }
  const std::vector<std::string> watch = {"status", "watch", "--count=1"}, show = {"status", "show", "position"};
};

TEST_F(LiveStatus, OfALivePublisherShowTellsAgeAndPublisher) {
  start("s", 1);
  const auto shown = run(show);
  EXPECT_TRUE(has(shown, "  age                          ")) << shown.text;
  EXPECT_TRUE(has(shown, "  publisher                    " + of(0, "\n"))) << shown.text;
  EXPECT_FALSE(has(shown, "dead")) << shown.text;
  const auto limit = run({"status", "show", "limit"});
  EXPECT_FALSE(has(limit, "  age ")) << limit.text;
  EXPECT_TRUE(has(limit, "  publisher ")) << limit.text;
}

TEST_F(LiveStatus, OfALivePublisherValuesAreNotStale) {
  start("s", 1);
  EXPECT_TRUE(soon(watch, "ms\n")) << run(watch).text;  // without a mark behind the age
  EXPECT_TRUE(soon({"status", "watch", "--count=1", "--json"}, "\"stale\":false,\"publishers\":[{\"name\":"))
      << run({"status", "watch", "--count=1", "--json"}).text;
}

TEST_F(LiveStatus, OfAKilledPublisherItSaysThatItIsDeadAndThatTheValuesAreStale) {
  start("s", 1);
  drivers.front()->signal(SIGKILL);
  drivers.front()->wait();
  make_stale(1);
  EXPECT_TRUE(soon(watch, "stale  " + of(0, " is dead\n"))) << run(watch).text;
  EXPECT_TRUE(soon(show, "publisher                    " + of(0, " (dead)\n"))) << run(show).text;
  EXPECT_TRUE(has(run(show), "stale\n")) << run(show).text;
  const auto json = run({"status", "watch", "--count=1", "--json"});
  EXPECT_TRUE(has(json, "\"stale\":true,")) << json.text;
  EXPECT_TRUE(has(json, "\"state\":\"dead\"}]}")) << json.text;
}

TEST_F(LiveStatus, OfAStoppedPublisherItSaysThatItIsStopped) {
  start("s", 1);
  drivers.front()->signal(SIGSTOP);
  make_stale(1);
  EXPECT_TRUE(soon(watch, "stale  " + of(0, " is stopped\n"))) << run(watch).text;
  drivers.front()->signal(SIGCONT);
}

TEST_F(LiveStatus, StaleValuesAreColoured) {
  start("s", 1);
  drivers.front()->signal(SIGSTOP);
  make_stale(1);
  EXPECT_TRUE(soon({"status", "watch", "--count=1", "--color=always"}, "\x1b[31mstale\x1b[0m"));
  EXPECT_TRUE(soon({"status", "show", "position", "--color=always"}, "\x1b[31mstale\x1b[0m"));
  drivers.front()->signal(SIGCONT);
}

TEST_F(LiveStatus, TwoPublishersOfOneInstanceAreNamed) {
  start("s", 1);
  std::filesystem::path entry;
  for (const auto &file : std::filesystem::directory_iterator(dir.file("drivers")))
    if (file.path().extension() == ".driver") entry = file.path();
  const std::string second = dir.file("drivers/second.driver");
  std::filesystem::copy_file(entry, second);
  EXPECT_FALSE(has(run(watch), "sim-driver")) << "an entry of a dead driver is of no interest";
  // The driver of an entry holds a lock on it.
  const int fd = open(second.c_str(), O_RDWR | O_CLOEXEC);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &lock), 0);
  EXPECT_TRUE(has(run(watch), "  2 drivers publish it: " + of(0, ", ") + of(0, "\n"))) << run(watch).text;
  close(fd);
}

TEST_F(LiveStatus, OnATerminalADeadPublisherIsTold) {
  start("s", 1);
  drivers.front()->signal(SIGKILL);
  drivers.front()->wait();
  make_stale(1);
  ASSERT_TRUE(soon(watch, "stale")) << run(watch).text;
  const auto drawn = run_on_terminal({"status", "watch", "--interval=20"}, "(dead)", "q");
  EXPECT_EQ(drawn.status, 0);
  EXPECT_TRUE(has(drawn, "published by " + of(0, " (dead)"))) << drawn.text;
  EXPECT_TRUE(has(drawn, "stale")) << drawn.text;
}

}  // namespace
