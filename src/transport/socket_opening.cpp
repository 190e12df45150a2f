// src/transport/socket_opening.cpp - opens an endpoint's descriptor, to listen or to connect.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <optional>
#include <utility>

#include "base/check.h"
#include "base/descriptor_flags.h"
#include "transport/socket_private.h"

namespace ptz {

namespace {

constexpr int listen_backlog = 128;
constexpr mode_t world_writable = 0666;
constexpr guint failures_per_log_line = 300;  // one line in five minutes for a client that retries once a second
constexpr int repeats_max = 30;  // of eight clients that retry every millisecond, one removes every third path

bool make_non_blocking(const char *function, gint fd) {
  switch (set_non_blocking(fd)) {
    case NonBlocking::set:
      return true;
    case NonBlocking::flags_not_read:
      syslog(LOG_ERR, "%s: Failed to get file descriptor flags.", function);
      return false;
    case NonBlocking::flags_not_written:
      syslog(LOG_ERR, "%s: Failed to set file descriptor to O_NONBLOCK.", function);
      return false;
  }
  return false;
}

bool fill_address(const char *function, const gchar *path, sockaddr_un &address) {
  address = {};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof address.sun_path) {
    syslog(LOG_ERR, "%s: server_addr.sun_path too short(truncated).", function);
    return false;
  }
  std::memcpy(address.sun_path, path, length);
  return true;
}

// A client that tries to connect between bind() and listen() fails, and then removes the path. So the path is checked
// once clients can connect, and again a moment later, because a client may have failed before and remove it after. An
// open socket keeps its inode, so the number is not used for another file meanwhile.
constexpr useconds_t second_look_us = 2000;

enum class Listening { yes, failed, path_lost };

// Whether the path names another file than the one that was bound, or none. If the path cannot be examined, nothing
// shows that it was lost.
bool is_lost(const gchar *path, const std::optional<FileIdentity> &own_file) {
  struct stat status;
  if (lstat(path, &status) < 0) return errno == ENOENT || errno == ENOTDIR;
  return !S_ISSOCK(status.st_mode) || (own_file && *own_file != FileIdentity{status.st_dev, status.st_ino});
}

Listening listen_on(const char *function, gint fd, const gchar *path, std::optional<FileIdentity> &own_file) {
  sockaddr_un address;
  if (!make_non_blocking(function, fd) || !fill_address(function, path, address)) return Listening::failed;
  unlink(path);
  const auto address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), address_length) < 0) {
    syslog(LOG_ERR, "%s: Unable to bind to path '%s' %s.", function, path, std::strerror(errno));
    return Listening::failed;
  }
  own_file = socket_at(path);
  if (!own_file && is_lost(path, own_file)) return Listening::path_lost;
  if (chmod(path, world_writable) < 0) {
    if (is_lost(path, own_file)) return Listening::path_lost;
    syslog(LOG_ERR, "%s: chmod failed on '%s'.", function, path);
    return Listening::failed;
  }
  if (listen(fd, listen_backlog) < 0) {
    syslog(LOG_ERR, "%s: listen failed.", function);
    return Listening::failed;
  }
  if (is_lost(path, own_file)) return Listening::path_lost;
  usleep(second_look_us);
  return is_lost(path, own_file) ? Listening::path_lost : Listening::yes;
}

bool connect_to(const char *function, gint fd, const gchar *path) {
  sockaddr_un address;
  if (!make_non_blocking(function, fd) || !fill_address(function, path, address)) return false;
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return true;
  static std::atomic<guint> failures = 0;  // of all endpoints of the process
  const int error = errno;
  if (++failures % failures_per_log_line == 0) {
    syslog(LOG_WARNING, "%s: Unable to connect to '%s': errno=%d, %s", function, path, error, std::strerror(error));
  }
  return false;
}

}  // namespace

std::optional<FileIdentity> socket_at(const gchar *path) {
  struct stat status;
  if (lstat(path, &status) < 0 || !S_ISSOCK(status.st_mode)) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}

std::optional<FileIdentity> open_server_socket(PTZSocket *self) {
  if (self->fd != -1) unlink(self->socket);
  for (int repeats = 0;; ++repeats) {
    self->fd = socket(AF_UNIX, self->type, 0);
    if (self->fd < 0) {
      syslog(LOG_ERR, "Failed to create listening socket");
      return std::nullopt;
    }
    set_close_on_exec(self->fd);
    std::optional<FileIdentity> own_file;
    const Listening result = listen_on(__func__, self->fd, self->socket, own_file);
    if (result == Listening::yes) return own_file;
    if (result == Listening::failed) {
      // contract: the path is removed and the descriptor is left open.
      unlink(self->socket);
      self->fd = -1;
      return std::nullopt;
    }
    close(std::exchange(self->fd, -1));
    if (repeats == repeats_max) {
      log_func(LOG_ERR, "'%s' was removed or replaced each of the %d times that it was bound.", self->socket,
               repeats + 1);
      return std::nullopt;
    }
  }
}

int open_client_socket(const gchar *path, gint32 *fd, gint type) {
  *fd = socket(AF_UNIX, type, 0);
  if (*fd < 0) {
    syslog(LOG_ERR, "Could not open client socket, type=%d, errno=%s", type, std::strerror(errno));
    *fd = -1;
    return -1;
  }
  set_close_on_exec(*fd);
  if (connect_to(__func__, *fd, path)) return 0;
  close(*fd);
  unlink(path);  // contract: whatever the error. A file that refuses connections only keeps its server from binding.
  *fd = -1;
  return -1;
}

}  // namespace ptz
