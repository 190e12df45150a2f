// src/transport/server_accept.cpp - how a connection comes to a server.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "base/check.h"
#include "base/clock.h"
#include "base/descriptor_flags.h"
#include "transport/server_source.h"

namespace ptz {

namespace {

// Descriptor numbers that are kept free, so that accept(2) does not fail with EMFILE, which would end the service.
constexpr rlim_t reserved_descriptors = 8;
constexpr gint64 log_interval_ms = 60'000;

// The kernel gives out the lowest free number, so a high one means that nearly all are in use.
bool is_near_limit(gint fd) {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) < 0 || limit.rlim_cur == RLIM_INFINITY) return false;
  return static_cast<rlim_t>(fd) + reserved_descriptors >= limit.rlim_cur;
}

void refuse(gint fd) {
  static bool logged = false;  // with what follows: thread of the default main context
  static timespec last_log;
  static guint unlogged = 0;
  ucred peer = {.pid = -1, .uid = static_cast<uid_t>(-1), .gid = static_cast<gid_t>(-1)};
  socklen_t size = sizeof peer;
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  close(fd);
  const timespec now = clock_now();
  if (logged && elapsed_ms(last_log, now) < log_interval_ms) {
    ++unlogged;
    return;
  }
  syslog(LOG_WARNING,
         "%s: connection of process %d, user %d closed: nearly all descriptors are in use (%u others closed unlogged)",
         "ptz_socket_server_source_dispatch", static_cast<int>(peer.pid), static_cast<int>(peer.uid), unlogged);
  logged = true;
  last_log = now;
  unlogged = 0;
}

}  // namespace

gboolean accept_connection(ServerSource *source) {
  const gint listener = source->base.fd;
  if (source->base.server->parent_instance.socket == nullptr) {
    if (source->find(listener) != nullptr) return G_SOURCE_CONTINUE;
    (void)set_non_blocking(listener);
    source->add_connection(listener);
    return G_SOURCE_CONTINUE;
  }
  sockaddr_un address;
  socklen_t address_length = sizeof address;
  const gint fd = accept(listener, reinterpret_cast<sockaddr *>(&address), &address_length);
  if (fd < 0) {
    const int error = errno;
    syslog(LOG_ERR, "%s: accept failed, errno=%d, %s", "ptz_socket_server_source_dispatch", error,
           std::strerror(error));
    source->stop_listening();
    return G_SOURCE_REMOVE;  // contract: the server accepts and serves no more
  }
  if (is_near_limit(fd)) {
    refuse(fd);
    return G_SOURCE_CONTINUE;
  }
  set_close_on_exec(fd);
  (void)set_non_blocking(fd);
  source->add_connection(fd);
  return G_SOURCE_CONTINUE;
}

}  // namespace ptz
