// tools/doctor/socket_probe.h - connects to a socket without waiting, and asks the kernel about it.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>

namespace ptzctl {

struct Probe {
  int error = 0;       // of connect(); 0 if the socket was listened on
  pid_t listener = 0;  // the process that has called listen(); 0 if it is not known
};

// Connects and disconnects at once. The listener sees a client that goes again.
[[nodiscard]] Probe probe(const std::string &path);

struct Backlog {
  unsigned waiting = 0, most = 0;
};

// Of the listening socket with this file; nothing if the kernel does not tell, as of a socket in another network
// namespace.
[[nodiscard]] std::optional<Backlog> backlog_of(const std::string &path);

// By the kernel's list, or by a connection.
[[nodiscard]] bool is_listened_on(const std::string &path);

}  // namespace ptzctl
