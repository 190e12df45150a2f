// src/base/descriptor_flags.h - the flags that the library sets on descriptors that it did not open with them.
#pragma once
#include <fcntl.h>
#include <sys/ioctl.h>

namespace ptz {

enum class NonBlocking { set, flags_not_read, flags_not_written };

// Adds O_NONBLOCK to the status flags. On failure errno is that of fcntl(2).
[[nodiscard]] inline NonBlocking set_non_blocking(int fd) {
  const int flags = fcntl(fd, F_GETFL, 0);
  if (flags < 0) return NonBlocking::flags_not_read;
  return fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0 ? NonBlocking::flags_not_written : NonBlocking::set;
}

// Keeps the descriptor from programs that the process starts. One ioctl(2) instead of reading and writing the
// descriptor flags with fcntl(2). Sockets get the flag here because socket(2) receives the caller's type unchanged.
inline void set_close_on_exec(int fd) { ioctl(fd, FIOCLEX); }

}  // namespace ptz
