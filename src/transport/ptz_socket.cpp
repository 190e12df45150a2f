#include "ptz_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <type_traits>

#include "base/check.h"
#include "base/clock.h"
#include "base/descriptor_flags.h"

static_assert(std::is_standard_layout_v<PTZSocket> && std::is_standard_layout_v<PTZSocketClass>);
static_assert(offsetof(PTZSocket, socket) == sizeof(GObject));
static_assert(offsetof(PTZSocketClass, read) == sizeof(GObjectClass));

G_DEFINE_TYPE(PTZSocket, ptz_socket, G_TYPE_OBJECT)

namespace {

constexpr int listen_backlog = 128;
constexpr mode_t everybody_reads_and_writes = 0666;
constexpr guint retry_interval_s = 1;
constexpr guint failures_per_log_line = 300;  // one line in five minutes for a client that tries once a second
constexpr int read_attempts = 5;
constexpr useconds_t pause_us = 1000;

enum Property { property_socket = 1 };

const gchar *path_of(const PTZSocket *self) { return self->socket != nullptr ? self->socket : "(null)"; }

bool make_non_blocking(const char *function, gint fd) {
  switch (ptz::set_non_blocking(fd)) {
    case ptz::NonBlocking::set:
      return true;
    case ptz::NonBlocking::flags_not_read:
      syslog(LOG_ERR, "%s: Failed to get file descriptor flags.", function);
      return false;
    case ptz::NonBlocking::flags_not_written:
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

bool listen_on(const char *function, gint fd, const gchar *path) {
  sockaddr_un address;
  if (!make_non_blocking(function, fd) || !fill_address(function, path, address)) return false;
  unlink(path);
  const auto address_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), address_length) < 0) {
    syslog(LOG_ERR, "%s: Unable to bind to path '%s' %s.", function, path, std::strerror(errno));
    return false;
  }
  if (chmod(path, everybody_reads_and_writes) < 0) {
    syslog(LOG_ERR, "%s: chmod failed on '%s'.", function, path);
    return false;
  }
  if (listen(fd, listen_backlog) < 0) {
    syslog(LOG_ERR, "%s: listen failed.", function);
    return false;
  }
  return true;
}

void open_server_socket(PTZSocket *self) {
  if (self->fd != -1) unlink(self->socket);
  self->fd = socket(AF_UNIX, self->type, 0);
  if (self->fd < 0) {
    syslog(LOG_ERR, "Failed to create listening socket");
    return;
  }
  ptz::set_close_on_exec(self->fd);
  if (!listen_on(__func__, self->fd, self->socket)) {
    // Only the file goes; the descriptor is left open, so that its number is not given out again while a process that
    // could not listen still believes that it does.
    unlink(self->socket);
    self->fd = -1;
  }
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

int open_client_socket(const gchar *path, gint32 *fd, gint type) {
  *fd = socket(AF_UNIX, type, 0);
  if (*fd < 0) {
    syslog(LOG_ERR, "Could not open client socket, type=%d, errno=%s", type, std::strerror(errno));
    *fd = -1;
    return -1;
  }
  ptz::set_close_on_exec(*fd);
  if (connect_to(__func__, *fd, path)) return 0;
  close(*fd);
  unlink(path);  // a file that nobody can connect to only hides from its server that it has to listen anew
  *fd = -1;
  return -1;
}

// Default main context.
gboolean retry_connection(gpointer user_data) {
  auto *self = static_cast<PTZSocket *>(user_data);
  if (self == nullptr) return G_SOURCE_REMOVE;
  if (self->socket != nullptr) open_client_socket(self->socket, &self->fd, self->type);
  if (self->fd == -1) return G_SOURCE_CONTINUE;
  self->retry_source = 0;
  return G_SOURCE_REMOVE;
}

guint ptz_socket_add_retry(PTZSocket *self) {
  assert_in("ptz_socket.c", self->socket);
  if (self->fd >= 0) {
    close(self->fd);
    self->fd = -1;
  }
  if (self->retry_source == 0) self->retry_source = g_timeout_add_seconds(retry_interval_s, retry_connection, self);
  return self->retry_source;
}

gssize read_attempting(gint fd, guint8 *buffer, gsize length) {
  gsize count = 0;
  for (int attempt = 0; attempt < read_attempts && count < length; ++attempt) {
    const gssize received = read(fd, buffer + count, length - count);
    if (received >= 0) {
      count += static_cast<gsize>(received);
    } else if (errno == EAGAIN || errno == EINTR) {
      usleep(pause_us);
    } else {
      return -1;
    }
  }
  return static_cast<gssize>(count);
}

gssize socket_read(PTZSocket *self, gint fd, gpointer buffer, gsize length, gint timeout_ms) {
  if (fd < 0) {
    log_func(LOG_WARNING, "not opened %s", path_of(self));
    return 0;
  }
  if (length == 0) return 0;
  auto *bytes = static_cast<guint8 *>(buffer);
  if (timeout_ms == 0) return read_attempting(fd, bytes, length);
  if (timeout_ms < 1) return 0;

  const timespec start = ptz::clock_now();
  gsize count = 0;
  gint64 remaining_ms = timeout_ms;
  do {
    pollfd watched = {fd, POLLIN, 0};
    const int ready = poll(&watched, 1, static_cast<int>(remaining_ms));
    if (ready < 0 && errno != EINTR) {
      log_func(LOG_ERR, "poll returned with error: '%s'", std::strerror(errno));
      return -1;
    }
    if (ready > 0) {
      const gssize received = read(fd, bytes + count, length - count);
      if (received < 0) {
        log_func(LOG_ERR, "read from port failed: '%m'");
        return -1;
      }
      count += static_cast<gsize>(received);
      if (received == 0) usleep(pause_us);  // an end of file stays readable: do not ask in a tight loop
    }
    remaining_ms = timeout_ms - ptz::elapsed_ms(start, ptz::clock_now());
  } while (count < length && remaining_ms >= 1);
  return static_cast<gssize>(count);
}

gssize socket_write(PTZSocket *self, gint fd, gconstpointer buffer, gsize length, gint timeout_ms) {
  if (fd < 0) {
    log_func(LOG_WARNING, "not opened %s", path_of(self));
    return 0;  // success to a caller that tests for a negative result: what is sent to nobody is not an error
  }
  if (timeout_ms == 0) {
    const gssize sent = write(fd, buffer, length);
    return sent > 0 ? sent : -1;
  }
  int error = EAGAIN;  // what errno says of a peer that took nothing in time
  gsize sent = 0;
  if (length > 0 && timeout_ms >= 1) {
    const auto *bytes = static_cast<const guint8 *>(buffer);
    const timespec start = ptz::clock_now();
    gint64 remaining_ms = timeout_ms;
    do {
      pollfd watched = {fd, POLLOUT, 0};
      const int ready = poll(&watched, 1, static_cast<int>(remaining_ms));
      if (ready < 0) {
        log_func(LOG_ERR, "poll failed: '%s'", std::strerror(errno));
        usleep(pause_us);
      } else if (ready > 0 && watched.revents != 0) {
        const gssize written = write(fd, bytes + sent, length - sent);
        if (written >= 0) {
          sent += static_cast<gsize>(written);
          if (sent == length) break;
        } else {
          error = errno;
          if (error == ECONNREFUSED || error == EPIPE) break;
          if (error != EAGAIN) log_func(LOG_ERR, "send failed on: %s, '%m'", path_of(self));
          usleep(pause_us);  // the condition may last: do not fill the log in a tight loop
        }
      }
      remaining_ms = timeout_ms - ptz::elapsed_ms(start, ptz::clock_now());
    } while (sent < length && remaining_ms > 0);
  }
  if (sent > 0) return static_cast<gssize>(sent);
  errno = error;
  return -1;
}

// As GIO does: a process that has chosen nothing else must not die of a peer that went away.
void ignore_broken_pipes() {
  struct sigaction current = {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
      current.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

}  // namespace

static void ptz_socket_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  auto *self = PTZ_SOCKET(object);
  if (id != property_socket) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    return;
  }
  g_free(self->socket);
  self->socket = g_value_dup_string(value);
}

static void ptz_socket_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  if (id != property_socket) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    return;
  }
  g_value_set_string(value, PTZ_SOCKET(object)->socket);
}

void ptz_socket_finalize(GObject *object) {
  auto *self = PTZ_SOCKET(object);
  if (self->retry_source != 0) {
    g_source_remove(self->retry_source);
    self->retry_source = 0;
  }
  if (self->mode == PTZ_SOCKET_MODE_SERVER && self->socket != nullptr) unlink(self->socket);
  if (self->socket != nullptr) {  // a descriptor without a path belongs to whoever opened it
    if (self->fd >= 0) {
      close(self->fd);
      self->fd = -1;
    }
    g_free(self->socket);
    self->socket = nullptr;
  }
  G_OBJECT_CLASS(ptz_socket_parent_class)->finalize(object);
}

static void ptz_socket_init(PTZSocket *self) {
  self->socket = nullptr;
  self->fd = -1;
  self->retry_source = 0;
}

static void ptz_socket_class_init(PTZSocketClass *klass) {
  ignore_broken_pipes();
  auto *object_class = G_OBJECT_CLASS(klass);
  object_class->set_property = ptz_socket_set_property;
  object_class->get_property = ptz_socket_get_property;
  object_class->finalize = ptz_socket_finalize;
  klass->read = socket_read;
  klass->write = socket_write;
  klass->add_retry = ptz_socket_add_retry;
  g_object_class_install_property(object_class, property_socket,
                                  g_param_spec_string("socket", "Socket", "Socket", nullptr, G_PARAM_WRITABLE));
}

PTZSocket *ptz_socket_new(GType object_type, gint mode, const gchar *path, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET), NULL);
  g_return_val_if_fail(mode != PTZ_SOCKET_MODE_SERVER || path != NULL, NULL);
  auto *self = PTZ_SOCKET(g_object_new(object_type, "socket", path, nullptr));
  self->mode = mode;
  self->type = type;
  switch (mode) {
    case PTZ_SOCKET_MODE_SERVER:
      open_server_socket(self);
      break;
    case PTZ_SOCKET_MODE_CLIENT:
      if (path == nullptr) break;
      open_client_socket(self->socket, &self->fd, type);
      if (self->fd == -1) PTZ_SOCKET_GET_CLASS(self)->add_retry(self);
      break;
    default:
      assert_not_reached_in("ptz_socket.c");
  }
  return self;
}

PTZSocket *ptz_socket_fd_new(GType object_type, gint mode, gint fd, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET), NULL);
  auto *self = PTZ_SOCKET(g_object_new(object_type, "socket", nullptr, nullptr));
  self->mode = mode;
  self->type = type;
  self->fd = fd;
  return self;
}
