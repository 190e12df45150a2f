// A driver that is killed and started again, under daemons that connect every millisecond. A client that fails to
// connect removes the path, so each birth is a race. All daemons have to be connected after each start.
#include <ptz_kit.h>
#include <ptz_socket_client_command.h>

#include <syslog.h>

#include <atomic>

#include "../../kit/driver/recording_driver.h"
#include "processes.h"

namespace {

using namespace load;

constexpr int daemons = 8, limit_ms = 5000;

struct Shared {
  std::atomic<long> round, connected;
};

// Connects once in each round.
int run_daemon(const std::string &path, Shared &shared) {
  for (long done = 0; getppid() != 1;) {
    const long round = shared.round;
    if (round == done) {
      usleep(200);
      continue;
    }
    auto *client = ptz_socket_client_command_new(path.c_str(), -1, SOCK_STREAM);
    if (PTZ_SOCKET(client)->fd >= 0) {
      done = round;
      ++shared.connected;
      while (shared.round == round && getppid() != 1) usleep(200);
    } else {
      usleep(1000);
    }
    g_object_unref(client);
  }
  return 0;
}

int run_kit_driver(const std::string &path) {
  openlog("driver", LOG_PERROR, LOG_USER);
  auto *driver =
      PTZ_KIT_DRIVER(g_object_new(recording_driver_get_type(), "name", "birth", "socket-path", path.c_str(), nullptr));
  GError *error = nullptr;
  if (!ptz_kit_driver_start(driver, &error)) {
    torture::note("a driver cannot start: %s", error->message);
    return 1;
  }
  run_main_loop();
  return 0;
}

struct Result {
  long good = 0;
  std::int64_t longest_us = 0;
};

Result restart(const std::string &path, Shared &shared, long rounds, int (*run_driver)(const std::string &)) {
  Result result;
  for (long i = 0; i < rounds; ++i) {
    shared.connected = 0;
    ++shared.round;
    usleep(static_cast<useconds_t>(i * 131 % 4000));  // the daemons are at any point of their millisecond
    const auto begun = torture::now_us();
    const Process driver([&] { return run_driver(path); });
    if (load::wait_for([&] { return shared.connected == daemons; }, limit_ms)) {
      ++result.good;
    } else {
      torture::note("%ld daemons are connected, the driver %s, the path %s", shared.connected.load(),
                    driver.runs() ? "runs" : "has ended", access(path.c_str(), F_OK) == 0 ? "is there" : "is gone");
    }
    result.longest_us = std::max(result.longest_us, torture::now_us() - begun);
  }
  return result;
}

}  // namespace

int main(int argc, char **argv) {
  const long rounds = torture::amount(argc, argv, "rounds", 500);
  const ptz_test::TempDir dir;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  const std::string path = dir.file("driver");
  auto *shared = torture::shared<Shared>();
  std::vector<std::unique_ptr<Process>> clients;
  for (int i = 0; i < daemons; ++i) {
    clients.push_back(std::make_unique<Process>([&] { return run_daemon(path, *shared); }));
  }
  const Result kit = restart(path, *shared, rounds, run_kit_driver);
  // contract: a failed client removes the path, however late. A server of the base looks for it for two milliseconds.
  const Result base = restart(path, *shared, rounds, [](const std::string &server) { return serve_echo(server); });
  return torture::finish(
      kit.good == rounds,
      "%ld of %ld restarts with all %d daemons connected, longest %.0f ms; of a server of the base %ld", kit.good,
      rounds, daemons, static_cast<double>(kit.longest_us) * 1e-3, base.good);
}
