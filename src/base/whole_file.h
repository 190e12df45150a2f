// src/base/whole_file.h - reading what a path names to its end, without waiting for ever, perhaps with a lock held.
#pragma once
#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <string>

#include "base/handles.h"

namespace ptz {

// A pipe ends when its last writer has gone. How long its first bytes are waited for, how long all may take, and how
// many it may bring.
inline constexpr gint64 pipe_patience_ms = 10'000;
inline constexpr std::size_t pipe_room = 16'777'216;

// A directory ends too: reading it fails. The null device is how a file is left out on purpose.
[[nodiscard]] inline bool has_end(const struct stat &status) {
  return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) ||
         (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3));
}

// To the end or for as long as a pipe is waited for.
[[nodiscard]] inline bool can_be_read_whole(const struct stat &status) {
  return has_end(status) || S_ISFIFO(status.st_mode);
}

// For reading. Nothing, and errno, for what cannot be opened or examined. What is opened is what is examined: the path
// may name something else a moment later.
[[nodiscard]] inline UniqueFd open_and_examine(const char *path, struct stat &status) {
  // Without O_NONBLOCK a pipe's first writer is waited for here, for ever.
  UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (file && fstat(file.get(), &status) < 0) file.reset();
  return file;
}

[[nodiscard]] inline gint64 pipe_deadline_us() { return g_get_monotonic_time() + pipe_patience_ms * 1000; }

// Until there is something to read or the last writer has gone; false, with errno, when there is neither by then.
[[nodiscard]] inline bool wait_for_pipe(int fd, gint64 deadline_us = pipe_deadline_us()) {
  while (true) {
    const gint64 left_ms = std::max<gint64>((deadline_us - g_get_monotonic_time()) / 1000, 0);
    pollfd pipe = {fd, POLLIN, 0};
    const int ready = poll(&pipe, 1, static_cast<int>(left_ms));
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
}

// Appends the contents of what can be read whole. False, with errno, when it cannot be read.
[[nodiscard]] inline bool read_to_end(int fd, const struct stat &status, std::string &text) {
  const bool is_pipe = S_ISFIFO(status.st_mode);
  const gint64 deadline_us = is_pipe ? pipe_deadline_us() : 0;
  char chunk[16384];
  for (std::size_t received = 0; received <= pipe_room || !is_pipe;) {
    if (is_pipe && !wait_for_pipe(fd, deadline_us)) return false;
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count == 0) return true;
    if (count > 0) {
      text.append(chunk, static_cast<std::size_t>(count));
      received += static_cast<std::size_t>(count);
    } else if (errno != EINTR && errno != EAGAIN) {
      return false;
    }
  }
  errno = EFBIG;
  return false;
}

}  // namespace ptz
