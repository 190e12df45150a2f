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

// A pipe ends when its last writer has gone. How long the pipes of one load are waited for, all together, and how many
// bytes each may bring.
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

// The deadline of all pipes of one load, for opening and reading them. The time begins with the first wait. After the
// deadline only what is ready is read.
class PipeDeadline {
  gint64 deadline_us_ = 0;

  [[nodiscard]] int left_ms() {
    const gint64 now_us = g_get_monotonic_time();
    if (deadline_us_ == 0) deadline_us_ = now_us + pipe_patience_ms * 1000;
    return static_cast<int>(std::max<gint64>((deadline_us_ - now_us) / 1000, 0));
  }

 public:
  // Returns when there is something to read or the last writer has gone; false, with errno, if the wait fails.
  [[nodiscard]] bool wait_for(int fd) {
    while (true) {
      pollfd pipe = {fd, POLLIN, 0};
      const int ready = poll(&pipe, 1, left_ms());
      if (ready > 0) return true;
      if (ready < 0 && errno == EINTR) continue;
      if (ready == 0) errno = ETIMEDOUT;
      return false;
    }
  }
};

// Appends the contents of what can be read whole. False, with errno, when it cannot be read.
[[nodiscard]] inline bool read_to_end(int fd, const struct stat &status, std::string &text, PipeDeadline &deadline) {
  const bool is_pipe = S_ISFIFO(status.st_mode);
  char chunk[16384];
  for (std::size_t received = 0; received <= pipe_room || !is_pipe;) {
    if (is_pipe && !deadline.wait_for(fd)) return false;
    const ssize_t count = read(fd, chunk, sizeof chunk);
    if (count == 0) return true;
    if (count > 0) {
      text.append(chunk, static_cast<std::size_t>(count));
      received += static_cast<std::size_t>(count);
    } else if (errno != EINTR && !(errno == EAGAIN && is_pipe)) {  // only a pipe may get more
      return false;
    }
  }
  errno = EFBIG;
  return false;
}

}  // namespace ptz
