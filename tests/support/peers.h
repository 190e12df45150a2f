// tests/support/peers.h - the other end of a connection, made with plain system calls and nothing of the library.
#pragma once
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace ptz_test {

// Owns a descriptor.
class Descriptor {
  int fd_;

 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
  Descriptor &operator=(Descriptor &&other) noexcept;
  ~Descriptor() { reset(); }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }
  void reset();
};

// Two connected ends: ours non-blocking, as the library's descriptors are, theirs blocking.
struct Pair {
  Descriptor ours;
  Descriptor theirs;
  explicit Pair(int type = SOCK_STREAM);
};

// Listens on a path; of a datagram type, receives on it.
class Listener {
  Descriptor fd_;

 public:
  explicit Listener(const std::string &path, int type = SOCK_STREAM, int backlog = 128);
  [[nodiscard]] int fd() const { return fd_.get(); }
  // The next client, for which it waits a moment; none if nobody connects.
  [[nodiscard]] Descriptor accept() const;
  [[nodiscard]] bool has_waiting_client() const;
  void close() { fd_.reset(); }
};

// A blocking connection to a path; none if nobody listens there.
[[nodiscard]] Descriptor connect_to(const std::string &path, int type = SOCK_STREAM);

[[nodiscard]] bool is_open(int fd);
[[nodiscard]] bool is_non_blocking(int fd);
[[nodiscard]] bool is_inherited(int fd);  // by child programs
[[nodiscard]] bool is_readable(int fd);   // data, or an end of file
[[nodiscard]] bool is_at_end(int fd);     // the other end has closed and everything was read

// All of the text, also to a descriptor that would block; false if the other end has gone.
bool send_all(int fd, std::string_view text);
// As many bytes as asked for, waiting for them; fewer at an end of file and after ten seconds without any.
[[nodiscard]] std::string receive(int fd, std::size_t length);
// What is there now, without waiting.
[[nodiscard]] std::string receive_waiting(int fd);
// Sends until nothing more fits; the number of bytes.
std::size_t fill(int fd);

// A descriptor for the same thing, with this number or the next free one above it. The test program's limit of
// descriptors is raised for it; none where the system does not allow that.
[[nodiscard]] Descriptor move_up(Descriptor fd, int number);

// A frame of the command channel.
struct Frame {
  std::uint32_t length;
  std::uint32_t id;
  std::string body;
};
[[nodiscard]] std::string frame(std::uint32_t id, std::string_view body);
// A frame whose header claims a length of its own.
[[nodiscard]] std::string frame_claiming(std::uint32_t length, std::uint32_t id, std::string_view body);
[[nodiscard]] std::optional<Frame> receive_frame(int fd);

}  // namespace ptz_test
