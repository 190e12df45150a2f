// A server with 64 descriptors. Eight clients are served, an attacker opens 1,000 connections and leaves. The clients
// have to be served throughout, the server must not compute, and a new client has to be served at once afterwards.
#include "processes.h"

namespace {

using namespace load;

constexpr int attacks_usual = 3, connections = 1000, early_clients = 8, hold_ms = 1500;

int attack(const std::string &path) {
  limit_descriptors(4096);
  std::vector<Descriptor> held;
  for (int i = 0; i < connections; ++i) held.push_back(ptz_test::connect_to(path));
  sleep_ms(hold_ms);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const long attacks = torture::amount(argc, argv, "attacks", attacks_usual);
  const ptz_test::TempDir dir;
  const std::string path = dir.file("server");
  const Process server([&] { return serve_echo(path, 64); });
  if (!load::wait_for([&] { return static_cast<bool>(Client(path)); }, 5000))
    return torture::finish(false, "no server");
  std::vector<Client> early;
  for (int i = 0; i < early_clients; ++i) early.emplace_back(path);
  long requests = 0, lost = 0;
  std::int64_t longest_us = 0, first_us = 0;
  double share = 0;
  for (long i = 0; i < attacks; ++i) {
    const double before_s = server.processor_s();
    const auto begun = torture::now_us();
    Process attacker([&] { return attack(path); });
    while (attacker.runs()) {
      for (Client &client : early) {
        const auto spent_us = client.ask("early");
        ++requests;
        lost += spent_us < 0 ? 1 : 0;
        longest_us = std::max(longest_us, spent_us);
      }
      sleep_ms(20);
    }
    share =
        std::max(share, (server.processor_s() - before_s) / (static_cast<double>(torture::now_us() - begun) * 1e-6));
    const auto left = torture::now_us();
    const bool served = load::wait_for([&] { return Client(path).ask("new", 50) >= 0; }, 5000);
    first_us = std::max(first_us, served ? torture::now_us() - left : 5'000'000);
  }
  return torture::finish(lost == 0 && first_us <= 100'000 && share < 0.05,
                         "%ld requests of earlier clients, %ld lost, longest %.1f ms; a new client after %.1f ms; "
                         "%.1f %% of a core",
                         requests, lost, static_cast<double>(longest_us) * 1e-3, static_cast<double>(first_us) * 1e-3,
                         share * 100);
}
