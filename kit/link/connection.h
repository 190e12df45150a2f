// kit/link/connection.h - the descriptor of a connected link, and the frames in both directions.
//
// The base's command client is not used here: its waits have limits of their own (ten seconds, 360 seconds), cannot be
// cancelled, and it does not tell that the driver has gone. The frames are those of ptz_socket_frame.h.
//
// All functions are non-blocking, and called with the lock of the link held.
#pragma once
#include <ptz_socket_frame.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <span>

#include "handles.h"

namespace ptz_kit {

// Connects to a listening socket without waiting. An empty descriptor with errno set on failure; EAGAIN if the backlog
// is full, ENOTSOCK if the file is no socket. Never touches the file.
[[nodiscard]] UniqueFd connect_to(const char *path, int type = SOCK_STREAM);

class Connection {
 public:
  explicit Connection(UniqueFd fd) : fd_(std::move(fd)) { g_atomic_ref_count_init(&references_); }
  Connection(Connection &&) = delete;
  // In any thread, without the lock.
  void ref() { g_atomic_ref_count_inc(&references_); }
  void unref();
  [[nodiscard]] int fd() const { return fd_.get(); }
  // The peer has not taken what was sent: nothing may be sent before flush() has emptied the rest.
  [[nodiscard]] bool blocked() const { return unsent_->len != 0; }
  // Not while blocked. A failure shows as a hang-up of the descriptor.
  void send(guint32 id, std::span<const guint8> body);
  void flush();
  // Wakes a thread that is polling the descriptor; the peer sees the end of the connection. No effect in a forked
  // child, which shares the socket with its parent.
  void shut_down();

  // Reads once. False at the end of the connection and for a malformed frame. The handler is called for each frame as
  // handler(id, body).
  template <typename Handler>
  [[nodiscard]] bool receive(Handler &&handler) {
    if (!fill_buffer()) return false;
    std::size_t begin = 0;
    while (fill_ - begin >= PTZ_SOCKET_FRAME_HEADER_SIZE) {
      guint32 header[2];
      std::memcpy(header, buffer_.data() + begin, sizeof header);
      if (header[0] < PTZ_SOCKET_FRAME_HEADER_SIZE || header[0] > PTZ_SOCKET_FRAME_MAX) return false;
      if (fill_ - begin < header[0]) break;
      handler(header[1], std::span<const guint8>(buffer_).subspan(begin + sizeof header, header[0] - sizeof header));
      begin += header[0];
    }
    discard(begin);
    return true;
  }

 private:
  ~Connection() = default;
  [[nodiscard]] bool fill_buffer();
  void discard(std::size_t length);

  const UniqueFd fd_;
  const Handle<GByteArray, g_byte_array_unref> unsent_{g_byte_array_new()};
  const pid_t process_ = getpid();
  gatomicrefcount references_;
  std::size_t fill_ = 0;
  std::array<guint8, 2 * PTZ_SOCKET_FRAME_MAX> buffer_;
};

}  // namespace ptz_kit
