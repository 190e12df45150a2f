// Clients that connect in one burst while the driver is stopped, more than its backlog holds. When it goes on, all have
// to be connected soon, and its path has to be there. A client of the base that fails removes the path, which a driver
// of the kit makes anew.
#include <ptz_kit.h>
#include <ptz_socket_client_command.h>

#include "../../kit/driver/recording_driver.h"
#include "processes.h"

namespace {

using namespace load;

int run_driver(const std::string &path) {
  limit_descriptors(4096);
  auto *driver =
      PTZ_KIT_DRIVER(g_object_new(recording_driver_get_type(), "name", "burst", "socket-path", path.c_str(), nullptr));
  if (!ptz_kit_driver_start(driver, nullptr)) return 1;
  run_main_loop();
  return 0;
}

// Both count the clients that are connected, and are not at the end of their stream.
struct BaseClients {
  static constexpr int limit_ms = 10'000;
  std::vector<PTZSocketClientCommand *> all;
  void add(const std::string &path) { all.push_back(ptz_socket_client_command_new(path.c_str(), -1, SOCK_STREAM)); }
  [[nodiscard]] std::size_t connected() const {
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [](auto *client) { return PTZ_SOCKET(client)->fd >= 0; }));
  }
  ~BaseClients() {
    for (auto *client : all) g_object_unref(client);
  }
};

struct KitLinks {
  static constexpr int limit_ms = 2000;
  std::vector<PTZKitLink *> all;
  void add(const std::string &path) {
    all.push_back(ptz_kit_link_new(path.c_str()));
    ptz_kit_link_open(all.back());
  }
  [[nodiscard]] std::size_t connected() const {
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [](PTZKitLink *link) {
      return ptz_kit_link_get_state(link) == PTZ_KIT_LINK_STATE_READY;
    }));
  }
  ~KitLinks() {
    for (auto *link : all) {
      ptz_kit_link_close(link);
      g_object_unref(link);
    }
  }
};

// Milliseconds until all are connected; negative if they are not in time.
template <typename Clients>
long burst(const std::string &path, std::size_t count) {
  unlink(path.c_str());
  const Process driver([&] { return run_driver(path); });
  load::wait_for([&] { return static_cast<bool>(Client(path)); }, 5000);
  sleep_ms(50);
  driver.send(SIGSTOP);
  Clients clients;
  for (std::size_t i = 0; i < count; ++i) clients.add(path);
  const auto stopped = torture::now_us();
  while (torture::now_us() - stopped < 1'500'000) {  // they retry meanwhile
    if (!g_main_context_iteration(nullptr, FALSE)) usleep(500);
  }
  driver.send(SIGCONT);
  const auto begun = torture::now_us();
  while (clients.connected() < count && torture::now_us() - begun < 3LL * 1000 * Clients::limit_ms) {
    if (!g_main_context_iteration(nullptr, FALSE)) usleep(200);
  }
  const auto spent_ms = static_cast<long>((torture::now_us() - begun) / 1000);
  const bool all = clients.connected() == count, has_path = access(path.c_str(), F_OK) == 0;
  if (!all) torture::note("%zu of %zu are connected", clients.connected(), count);
  if (!has_path) torture::note("the path is gone");
  return all && has_path ? spent_ms : -1;
}

}  // namespace

int main(int argc, char **argv) {
  const auto count = static_cast<std::size_t>(torture::amount(argc, argv, "clients", 1000));
  const ptz_test::TempDir dir;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  limit_descriptors(4096);
  const std::string path = dir.file("driver");
  long base[2], kit[2];
  const std::size_t sizes[] = {count / 5, count};
  for (int i = 0; i < 2; ++i) {
    base[i] = burst<BaseClients>(path, sizes[i]);
    kit[i] = burst<KitLinks>(path, sizes[i]);
  }
  bool good = true;
  for (int i = 0; i < 2; ++i) {
    good = good && base[i] >= 0 && base[i] <= BaseClients::limit_ms && kit[i] >= 0 && kit[i] <= KitLinks::limit_ms;
  }
  return torture::finish(good, "%zu clients: base %ld ms, kit %ld ms; %zu clients: base %ld ms, kit %ld ms", sizes[0],
                         base[0], kit[0], sizes[1], base[1], kit[1]);
}
