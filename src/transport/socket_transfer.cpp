// src/transport/socket_transfer.cpp - the endpoint's read and write operations, bounded by poll(2) and the clock.
#include <poll.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "base/check.h"
#include "base/clock.h"
#include "transport/socket_private.h"

namespace ptz {

namespace {

constexpr int read_attempts = 5;
constexpr useconds_t pause_us = 1000;

const gchar *path_of(const PTZSocket *self) { return self->socket != nullptr ? self->socket : "(null)"; }

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

}  // namespace

gssize socket_read(PTZSocket *self, gint fd, gpointer buffer, gsize length, gint timeout_ms) {
  if (fd < 0) {
    log_func(LOG_WARNING, "not opened %s", path_of(self));
    return 0;
  }
  if (length == 0) return 0;
  auto *bytes = static_cast<guint8 *>(buffer);
  if (timeout_ms == 0) return read_attempting(fd, bytes, length);
  if (timeout_ms < 1) return 0;

  const timespec start = clock_now();
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
      if (received == 0) usleep(pause_us);  // at end of file poll() returns at once: do not spin
    }
    remaining_ms = timeout_ms - elapsed_ms(start, clock_now());
  } while (count < length && remaining_ms >= 1);
  return static_cast<gssize>(count);
}

gssize socket_write(PTZSocket *self, gint fd, gconstpointer buffer, gsize length, gint timeout_ms) {
  if (fd < 0) {
    log_func(LOG_WARNING, "not opened %s", path_of(self));
    return 0;  // contract: callers test for a negative result, so writing to an endpoint that is not open succeeds
  }
  if (timeout_ms == 0) {
    const gssize sent = write(fd, buffer, length);
    return sent > 0 ? sent : -1;
  }
  int error = EAGAIN;  // for a peer that took nothing in time
  gsize sent = 0;
  if (length > 0 && timeout_ms >= 1) {
    const auto *bytes = static_cast<const guint8 *>(buffer);
    const timespec start = clock_now();
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
          usleep(pause_us);  // the error may last: do not fill the log in a tight loop
        }
      }
      remaining_ms = timeout_ms - elapsed_ms(start, clock_now());
    } while (sent < length && remaining_ms > 0);
  }
  if (sent > 0) return static_cast<gssize>(sent);
  errno = error;
  return -1;
}

}  // namespace ptz
