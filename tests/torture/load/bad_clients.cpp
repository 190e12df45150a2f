// Fifty clients that are measured, beside one that never reads, one that is stopped within a frame, one that sends a
// byte a second, and one that floods. The others' 99th percentile may be at most twice the idle one, the server's
// memory may grow by 1 MiB, and what a bad client reads in the end consists of whole frames.
#include "processes.h"

namespace {

using namespace load;

constexpr int clients_measured = 50, think_us = 400, never_read_requests = 4000;
constexpr long growth_max_kib = 1024;
const std::string body(200, 'b');

struct Shared {
  bool half_frame;
};

// Sends until the server has stopped reading or has hung up, then reads all: only whole frames.
int never_read(const std::string &path, Shared &shared) {
  Descriptor fd = ptz_test::connect_to(path);
  const std::string request = ptz_test::frame(1, body);
  for (int i = 0; i < never_read_requests; ++i) {
    if (send(fd.get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) usleep(1000);
  }
  sleep_ms(200);
  shutdown(fd.get(), SHUT_WR);
  std::string received;
  char buffer[65536];
  for (ssize_t count; (count = read(fd.get(), buffer, sizeof buffer)) > 0;) {
    received.append(buffer, static_cast<std::size_t>(count));
  }
  shared.half_frame = received.size() % request.size() != 0;
  return 0;
}

// Is stopped by its owner in the middle of a frame.
int stop_within_frame(const std::string &path) {
  Descriptor fd = ptz_test::connect_to(path);
  ptz_test::send_all(fd.get(), ptz_test::frame(1, body).substr(0, 50));
  while (getppid() != 1) sleep_ms(100);
  return 0;
}

int send_a_byte_a_second(const std::string &path) {
  Descriptor fd = ptz_test::connect_to(path);
  for (const char byte : ptz_test::frame(1, body)) {
    if (getppid() == 1 || !ptz_test::send_all(fd.get(), {&byte, 1})) return 0;
    sleep_ms(1000);
  }
  return 0;
}

// Reads its replies, so that nothing but fairness restrains it.
int flood(const std::string &path) {
  Descriptor fd = ptz_test::connect_to(path);
  const std::string request = ptz_test::frame(1, body);
  char buffer[65536];
  while (getppid() != 1) {
    if (send(fd.get(), request.data(), request.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
      if (recv(fd.get(), buffer, sizeof buffer, 0) <= 0) return 0;
    }
  }
  return 0;
}

struct Measured {
  std::int64_t p99_us = 0;
  long requests = 0, lost = 0;
};

Measured measure(std::vector<Client> &clients, double seconds) {
  Measured result;
  std::vector<std::int64_t> times;
  const auto end = torture::now_us() + static_cast<std::int64_t>(seconds * 1e6);
  while (torture::now_us() < end) {
    for (Client &client : clients) {
      const auto spent_us = client.ask(body);
      result.lost += spent_us < 0 ? 1 : 0;
      times.push_back(spent_us);
      usleep(think_us);
    }
  }
  result.requests = static_cast<long>(times.size());
  result.p99_us = percentile(std::move(times), 0.99);
  return result;
}

struct Round {
  Measured idle, bad;
  long growth_kib = 0;
  [[nodiscard]] bool is_right() const { return bad.lost == 0 && growth_kib <= growth_max_kib; }
  [[nodiscard]] double ratio() const { return static_cast<double>(bad.p99_us) / static_cast<double>(idle.p99_us); }
};

// Half of the idle time before and half after: the machine may have other work meanwhile.
Round run_round(const std::string &path, const Process &server, std::vector<Client> &clients, double seconds,
                Shared &shared) {
  Round round;
  round.idle = measure(clients, seconds / 2);
  const long memory_kib = server.memory_kib();
  {
    const Process silent([&] { return never_read(path, shared); });
    const Process stopped([&] { return stop_within_frame(path); });
    const Process slow([&] { return send_a_byte_a_second(path); });
    const Process flooding([&] { return flood(path); });
    sleep_ms(100);
    stopped.send(SIGSTOP);
    round.bad = measure(clients, seconds);
    round.growth_kib = server.memory_kib() - memory_kib;
    load::wait_for([&] { return !silent.runs(); }, 8000);
  }
  const Measured after = measure(clients, seconds / 2);
  round.idle.p99_us = std::max(round.idle.p99_us, after.p99_us);
  return round;
}

}  // namespace

int main(int argc, char **argv) {
  const long seconds = torture::amount(argc, argv, "seconds", 3), rounds = torture::amount(argc, argv, "rounds", 3);
  const ptz_test::TempDir dir;
  const std::string path = dir.file("server");
  auto *shared = torture::shared<Shared>();
  const Process server([&] { return serve_echo(path); });
  if (!load::wait_for([&] { return Client(path).ask(body) >= 0; }, 5000)) return torture::finish(false, "no server");
  std::vector<Client> clients;
  for (int i = 0; i < clients_measured; ++i) clients.emplace_back(path);
  (void)measure(clients, 0.5);
  // Other work of the machine makes a round worse, never better: the best one counts for the time.
  Round best;
  bool is_right = true;
  for (long i = 0; i < rounds; ++i) {
    const Round round = run_round(path, server, clients, static_cast<double>(seconds), *shared);
    is_right = is_right && round.is_right() && !shared->half_frame;
    if (i == 0 || round.ratio() < best.ratio()) best = round;
    best.growth_kib = std::max(best.growth_kib, round.growth_kib);
  }
  return torture::finish(is_right && best.ratio() <= 2,
                         "99 %% of %ld requests within %lld us, idle %lld us; %ld lost; %ld KiB more; %s half frame",
                         best.bad.requests, static_cast<long long>(best.bad.p99_us),
                         static_cast<long long>(best.idle.p99_us), best.bad.lost, best.growth_kib,
                         shared->half_frame ? "a" : "no");
}
