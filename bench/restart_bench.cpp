// Restarts a driver under links, and measures how long the links take to be ready again.
//
//   restart_bench [--restarts N] [--links N] [--limit MILLISECONDS]
//
// The driver is killed and ended by SIGTERM in turns, and started again at once. The time is from the signal until
// every link has completed the handshake with the new driver and has called it. Fails if it is ever more than the
// limit, by default a second.
#include <ptz_kit.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "handles.h"
#include "statistics.h"
#include "temp_dir.h"

namespace {

using ptz_test::Object;

constexpr guint patience_s = 10;

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "%s\n", what);
  std::exit(2);
}

int drive(char *program, char *path, const char *name) {
  const Object<PTZKitDriver> driver(PTZ_KIT_DRIVER(g_object_new(PTZ_KIT_TYPE_DRIVER, "name", name, nullptr)));
  char socket[] = "--socket", instance[] = "--instance", one[] = "1";
  char *arguments[] = {program, socket, path, instance, one, nullptr};
  return ptz_kit_driver_run(driver.get(), static_cast<gint>(std::size(arguments) - 1), arguments);
}

pid_t start_driver(const std::string &path, const std::string &name) {
  const pid_t child = fork();
  if (child < 0) give_up("no process for the driver");
  if (child > 0) return child;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (freopen("/dev/null", "w", stderr) == nullptr) _exit(127);  // its log, of each start
  execl("/proc/self/exe", "restart_bench", "--drive", path.c_str(), name.c_str(), nullptr);
  _exit(127);
}

bool serves(PTZKitLink *link, const std::string &name) {
  const ptz_test::Text driver(ptz_kit_link_dup_driver_name(link));
  return ptz_kit_link_get_state(link) == PTZ_KIT_LINK_STATE_READY && driver != nullptr && name == driver.get();
}

using Links = std::vector<Object<PTZKitLink>>;

double wait_ready(const Links &links, const std::string &name, gint64 begin_us) {
  bool patient = true;
  const guint timer = g_timeout_add_seconds(
      patience_s,
      [](gpointer flag) -> gboolean {
        *static_cast<bool *>(flag) = false;
        return G_SOURCE_CONTINUE;
      },
      &patient);
  const auto all_ready = [&] {
    return std::ranges::all_of(links, [&](auto &link) { return serves(link.get(), name); });
  };
  while (patient && !all_ready()) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(timer);
  if (!patient) give_up("a link was not ready within ten seconds");
  for (const auto &link : links) {
    PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(link.get(), 1000, nullptr, nullptr);
    if (reply == nullptr) give_up("a call failed");
    ptz_kit_query_position_reply_free(reply);
  }
  return static_cast<double>(g_get_monotonic_time() - begin_us) / 1000;
}

int measure(int restarts, int link_count, int limit_ms) {
  const ptz_test::TempDir dir;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  const std::string path = dir.file("driver.socket");
  Links links;
  for (int i = 0; i < link_count; ++i) ptz_kit_link_open(links.emplace_back(ptz_kit_link_new(path.c_str())).get());
  std::string name = "driver-0";
  pid_t driver = start_driver(path, name);
  wait_ready(links, name, 0);
  std::vector<double> times_ms;
  for (int i = 1; i <= restarts; ++i) {
    const gint64 begin_us = g_get_monotonic_time();
    kill(driver, i % 2 != 0 ? SIGKILL : SIGTERM);
    waitpid(driver, nullptr, 0);
    name = "driver-" + std::to_string(i);
    driver = start_driver(path, name);
    times_ms.push_back(wait_ready(links, name, begin_us));
  }
  kill(driver, SIGTERM);
  waitpid(driver, nullptr, 0);
  const double longest = *std::ranges::max_element(times_ms);
  std::printf(
      "%d restarts under %d links, until all are ready again: median %.1f ms, 99th percentile %.1f ms, longest "
      "%.1f ms\n",
      restarts, link_count, bench::median(times_ms), bench::quantile(times_ms, 0.99), longest);
  return longest <= limit_ms ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 4 && std::strcmp(argv[1], "--drive") == 0) return drive(argv[0], argv[2], argv[3]);
  int restarts = 500, links = 8, limit_ms = 1000;
  for (int i = 1; i < argc; i += 2) {
    int *number = std::strcmp(argv[i], "--restarts") == 0 ? &restarts
                  : std::strcmp(argv[i], "--links") == 0  ? &links
                  : std::strcmp(argv[i], "--limit") == 0  ? &limit_ms
                                                          : nullptr;
    if (number == nullptr || i + 1 == argc || (*number = std::atoi(argv[i + 1])) <= 0) {
      give_up("usage: restart_bench [--restarts N] [--links N] [--limit MILLISECONDS]");
    }
  }
  return measure(restarts, links, limit_ms);
}
