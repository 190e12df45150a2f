// A driver that is killed and started again, under daemons that connect every millisecond. A client that fails to
// connect removes the path, so each birth is a race. All daemons have to be connected after each start.
#include <ptz_socket_client_command.h>

#include <atomic>

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

}  // namespace

int main(int argc, char **argv) {
  const long rounds = torture::amount(argc, argv, "rounds", 500);
  const ptz_test::TempDir dir;
  const std::string path = dir.file("driver");
  auto *shared = torture::shared<Shared>();
  std::vector<std::unique_ptr<Process>> clients;
  for (int i = 0; i < daemons; ++i) {
    clients.push_back(std::make_unique<Process>([&] { return run_daemon(path, *shared); }));
  }
  long good = 0;
  std::int64_t longest_us = 0;
  for (long i = 0; i < rounds; ++i) {
    shared->connected = 0;
    ++shared->round;
    usleep(static_cast<useconds_t>(i * 131 % 4000));  // the daemons are at any point of their millisecond
    const auto begun = torture::now_us();
    const Process driver([&] { return serve_echo(path); });
    if (load::wait_for([&] { return shared->connected == daemons; }, limit_ms)) ++good;
    longest_us = std::max(longest_us, torture::now_us() - begun);
  }
  return torture::finish(good == rounds, "%ld of %ld restarts with all %d daemons connected, longest %.0f ms", good,
                         rounds, daemons, static_cast<double>(longest_us) * 1e-3);
}
