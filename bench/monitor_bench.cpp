// What it costs a round trip that a driver on the kit counts requests and keeps frames for monitors: beside a driver of
// the same program that does neither, and beside one whose frames a monitor receives.
//
//   monitor_bench [--quick]
//
// Rounds of the drivers take turns. For one core, run it with taskset. The processor time is that of the driver alone.
#include <ptz.h>
#include <ptz_kit.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "driver/accounting.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

using ptz_kit::Object;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(2);
}

int drive(const char *path, bool counts) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  ptz_kit::Accounting::enabled = counts;
  const Object<PTZKitDriver> driver(
      static_cast<PTZKitDriver *>(g_object_new(PTZ_KIT_TYPE_DRIVER, "socket-path", path, nullptr)));
  ptz_kit_driver_set_axis(driver.get(), PTZ_KIT_AXIS_PAN, -17000, 17000, 9000, 0);
  if (ptz_kit_driver_start(driver.get(), nullptr) == FALSE) give_up("the driver does not start");
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  return 0;
}

// Subscribes, and does nothing with the frames.
int listen_to(const char *path) {
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  const Object<PTZKitMonitor> monitor(ptz_kit_monitor_new(path));
  if (ptz_kit_monitor_open(monitor.get(), nullptr) == FALSE) give_up("no monitor can connect");
  ptz_kit_monitor_subscribe(monitor.get(), FALSE, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  return 0;
}

class Process {
  pid_t process_;

 public:
  // A fresh image instead of a fork alone: GLib's state does not come along.
  Process(const char *how, const std::string &path, const std::string &folder) : process_(fork()) {
    if (process_ < 0) give_up("fork");
    if (process_ > 0) return;
    setenv("PTZ_PLATFORM_RUNTIME_DIR", folder.c_str(), 1);
    execl("/proc/self/exe", "monitor_bench", how, path.c_str(), nullptr);
    _exit(127);
  }
  Process(Process &&) = delete;
  ~Process() {
    kill(process_, SIGTERM);
    waitpid(process_, nullptr, 0);
  }
  [[nodiscard]] double processor_us() const {
    clockid_t clock;
    timespec time;
    if (clock_getcpuclockid(process_, &clock) != 0 || clock_gettime(clock, &time) != 0) give_up("no processor time");
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
  }
};

class Contender {
  ptz_test::TempDir folder_;
  const std::string path_ = folder_.file("driver");
  Process process_;
  Object<PTZSocketClientCommand> client_;

 public:
  const char *name;
  std::vector<double> elapsed_us, processor_us;

  Contender(const char *title, const char *how) : process_(how, path_, folder_.path()), name(title) {
    const Object<PTZKitLink> link(ptz_kit_link_new(path_.c_str()));
    ptz_kit_link_open(link.get());
    if (ptz_kit_link_wait_ready(link.get(), 10'000, nullptr) == FALSE) give_up("the link is not ready");
    client_.reset(ptz_socket_client_command_new(path_.c_str(), -1, SOCK_STREAM));
  }
  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] const std::string &folder() const { return folder_.path(); }

  void run(int calls) {
    const guint32 request = GUINT32_TO_LE(PTZ_COMMAND_QUERY_POSITION);
    std::array<guint8, PTZ_SOCKET_BODY_MAX> reply;
    const gint64 start_us = g_get_monotonic_time();
    const double processor_start_us = process_.processor_us();
    for (int i = 0; i < calls; ++i) {
      guint32 length = 0;
      if (ptz_socket_client_command_sync_send(client_.get(), &request, sizeof request, reply.data(), &length) ==
          FALSE) {
        give_up("a call has failed");
      }
    }
    processor_us.push_back((process_.processor_us() - processor_start_us) / calls);
    elapsed_us.push_back(static_cast<double>(g_get_monotonic_time() - start_us) / calls);
  }
};

// The differences are those of rounds that followed each other.
double added(const std::vector<double> &more, const std::vector<double> &less) {
  std::vector<double> differences;
  for (std::size_t i = 0; i < more.size(); ++i) differences.push_back(more[i] - less[i]);
  return bench::median(differences);
}

void report(const Contender &contender, const Contender &first) {
  const double round_trip = std::ranges::min(first.elapsed_us);
  const double added_us = added(contender.processor_us, first.processor_us);
  std::printf("%-36s %7.2f us, x %.3f (best), x %.3f (median); driver %6.2f us, %+7.0f ns: %+.1f %% of a round trip\n",
              contender.name, std::ranges::min(contender.elapsed_us),
              std::ranges::min(contender.elapsed_us) / round_trip, bench::ratio(contender.elapsed_us, first.elapsed_us),
              bench::median(contender.processor_us), 1e3 * added_us, 100 * added_us / round_trip);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::strcmp(argv[1], "--drive") == 0) return drive(argv[2], true);
  if (argc == 3 && std::strcmp(argv[1], "--drive-without") == 0) return drive(argv[2], false);
  if (argc == 3 && std::strcmp(argv[1], "--listen") == 0) return listen_to(argv[2]);
  const bool quick = argc == 2 && std::strcmp(argv[1], "--quick") == 0;
  const int rounds = quick ? 3 : 400, calls = quick ? 200 : 2000;
  Contender without("without accounting", "--drive-without"), again("without accounting, once more", "--drive-without"),
      with("with accounting, no monitor listens", "--drive"), heard("with accounting, a monitor listens", "--drive");
  const Process monitor("--listen", heard.path(), heard.folder());
  g_usleep(100'000);
  for (int round = 0; round < rounds; ++round) {
    for (Contender *contender : {&without, &with, &again, &heard}) contender->run(calls);
  }
  for (const Contender *contender : {&without, &again, &with, &heard}) report(*contender, without);
  return 0;
}
