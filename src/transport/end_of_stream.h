// src/transport/end_of_stream.h - tells an end of file, which stays readable, from data.
#pragma once
#include <sys/socket.h>
#include <cerrno>

namespace ptz {

// After a peer has half-closed, the descriptor stays readable without a hang-up. An empty datagram is not an end.
[[nodiscard]] inline bool at_end_of_stream(int fd) {
  char byte;
  if (recv(fd, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) != 0) return false;
  int type = 0;
  socklen_t size = sizeof type;
  return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type != SOCK_DGRAM;
}

// Whether no more data can come, after a read that failed with `read_error` (0 if it reported none).
[[nodiscard]] inline bool nothing_more_to_read(int fd, int read_error) {
  if (read_error == EAGAIN || read_error == EINTR) return false;
  char byte;
  const auto waiting = recv(fd, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
  if (waiting < 0) return errno != EAGAIN && errno != EINTR;
  return waiting == 0 && at_end_of_stream(fd);
}

}  // namespace ptz
