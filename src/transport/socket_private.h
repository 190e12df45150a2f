// src/transport/socket_private.h - what the endpoint's class shares with the other files of this folder.
#pragma once
#include <sys/types.h>
#include <atomic>
#include <optional>

#include "ptz_socket.h"
#include "transport/endpoint_use.h"

namespace ptz {

// Identifies a file independently of its path.
struct FileIdentity {
  dev_t device;
  ino_t inode;
  bool operator==(const FileIdentity &) const = default;
};

// The public field `fd`, which the retry timer may change while another thread sends.
[[nodiscard]] inline gint descriptor_of(PTZSocket *endpoint) {
  return std::atomic_ref(endpoint->fd).load(std::memory_order_acquire);
}
inline void set_descriptor(PTZSocket *endpoint, gint fd) {
  std::atomic_ref(endpoint->fd).store(fd, std::memory_order_release);
}

// For endpoint_use.cpp only.
[[nodiscard]] EndpointLifetime &lifetime_of(PTZSocket *endpoint);

// The finalizer of a server leaves the path alone if it names the socket of another server by then.
void keep_path_of_successor(PTZSocket *endpoint);

// How an endpoint is opened, and the base implementations of the class operations. Their names are part of what they
// log. open_server_socket() returns the identity of the file that it has bound, if it listens.
std::optional<FileIdentity> open_server_socket(PTZSocket *self);
int open_client_socket(const gchar *path, gint32 *fd, gint type);
gssize socket_read(PTZSocket *self, gint fd, gpointer buffer, gsize length, gint timeout_ms);
gssize socket_write(PTZSocket *self, gint fd, gconstpointer buffer, gsize length, gint timeout_ms);

// Of the file that the path names now, if it is a socket. A symbolic link is not followed.
[[nodiscard]] std::optional<FileIdentity> socket_at(const gchar *path);

}  // namespace ptz
