#include "driver/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace ptz_kit {

namespace {

bool told = false;  // that it cannot be notified, since it could

void notify(const char *state) {
  const char *path = g_getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  const std::size_t length = path != nullptr ? strlen(path) : 0;
  if (length < 2 || length >= sizeof address.sun_path || (*path != '/' && *path != '@')) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, length);
  if (*path == '@') address.sun_path[0] = '\0';  // an abstract address
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  if (fd < 0 || sendto(fd, state, strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
                       reinterpret_cast<const sockaddr *>(&address), size) < 0) {
    if (!told) syslog(LOG_WARNING, "the service manager cannot be notified: %s", g_strerror(errno));
    told = true;
  } else {
    told = false;
  }
  if (fd >= 0) close(fd);
}

// 0 if the unit has none, or has one for another process.
guint64 watchdog_interval_us() {
  const char *process = g_getenv("WATCHDOG_PID");
  const char *interval = g_getenv("WATCHDOG_USEC");
  if (interval == nullptr) return 0;
  if (process != nullptr && g_ascii_strtoull(process, nullptr, 10) != static_cast<guint64>(getpid())) return 0;
  return g_ascii_strtoull(interval, nullptr, 10);
}

}  // namespace

gboolean ServiceManager::on_alive(gpointer) {
  notify("WATCHDOG=1");
  return G_SOURCE_CONTINUE;
}

void ServiceManager::ready() {
  notify("READY=1");
  const guint64 interval_us = watchdog_interval_us();
  if (interval_us == 0) return;
  constexpr guint64 shortest_ms = 1;
  constexpr guint64 longest_ms = G_MAXINT32;
  watchdog_.start(static_cast<guint>(std::clamp(interval_us / 2 / 1000, shortest_ms, longest_ms)), on_alive, nullptr);
}

void ServiceManager::stopping() {
  watchdog_.stop();
  notify("STOPPING=1");
}

}  // namespace ptz_kit
