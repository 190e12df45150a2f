// src/transport/close_on_exec.h - keeps a descriptor from the programs that the process starts.
#pragma once
#include <sys/ioctl.h>

namespace ptz {

// One call that asks nothing first and leaves the status flags and socket(2)'s type, which is the caller's, alone.
inline void close_on_exec(int fd) { ioctl(fd, FIOCLEX); }

}  // namespace ptz
