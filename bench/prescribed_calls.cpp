// The system calls of the command channel without its code: a bare program that makes the calls which the channel's
// contract prescribes, in the same order, and no others. There is no main loop and no GLib in either process's path.
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "answering_process.h"
#include "contender.h"
#include "socket_path.h"

namespace bench {
namespace {

constexpr std::size_t length_size = 4;
constexpr std::size_t header_size = 8;
constexpr int write_timeout_ms = 1000;
constexpr time_t reply_timeout_s = 10;

class Descriptor {
  int fd_;

 public:
  Descriptor(int fd, const char *what) : fd_(fd) {
    if (fd_ < 0) give_up(what);
  }
  Descriptor(Descriptor &&) = delete;
  ~Descriptor() { close(fd_); }
  [[nodiscard]] int get() const { return fd_; }
};

int new_socket() { return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

sockaddr_un address_of(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) give_up("the socket's path is too long");
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

int connect_to(const std::string &path) {
  const int fd = new_socket();
  const sockaddr_un address = address_of(path);
  return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
}

int listen_on(const std::string &path) {
  const int fd = new_socket();
  const sockaddr_un address = address_of(path);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) return -1;
  return listen(fd, 1) == 0 ? fd : -1;
}

int accept_client(int listening) {
  pollfd watched = {listening, POLLIN, 0};
  return poll(&watched, 1, -1) == 1 ? accept4(listening, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC) : -1;
}

// What a GLib main context has, to be woken by another thread.
int new_wakeup() { return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }

enum class Received { whole, part, failed };

// A frame as it arrives: the first read takes the length, the second the rest.
class Frame {
  std::array<std::uint8_t, header_size + body_max> bytes_;
  std::size_t fill_ = 0, expected_ = length_size;

  Received read_piece(int fd) {
    const ssize_t count = read(fd, bytes_.data() + fill_, expected_ - fill_);
    if (count < 0 && errno == EAGAIN) return Received::part;
    if (count <= 0) return Received::failed;
    fill_ += static_cast<std::size_t>(count);
    return fill_ == expected_ ? Received::whole : Received::part;
  }
  [[nodiscard]] std::uint32_t word_at(std::size_t offset) const {
    std::uint32_t word;
    std::memcpy(&word, bytes_.data() + offset, sizeof word);
    return word;
  }

 public:
  Received receive(int fd) {
    if (expected_ == length_size) {
      const Received length = read_piece(fd);
      if (length != Received::whole) return length;
      expected_ = word_at(0);
      if (expected_ < header_size || expected_ > bytes_.size()) return Received::failed;
    }
    return read_piece(fd);
  }
  void forget() {
    fill_ = 0;
    expected_ = length_size;
  }
  [[nodiscard]] std::uint32_t id() const { return word_at(length_size); }
  [[nodiscard]] Bytes body() const { return Bytes(bytes_).subspan(header_size, fill_ - header_size); }
};

bool write_piece(int fd, Bytes piece) {
  return write(fd, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size());
}

bool write_piece_in_time(int fd, Bytes piece) {
  pollfd watched = {fd, POLLOUT, 0};
  return poll(&watched, 1, write_timeout_ms) == 1 && write_piece(fd, piece);
}

bool send_frame(bool (*write_function)(int fd, Bytes piece), int fd, std::uint32_t id, Bytes body) {
  const std::uint32_t header[] = {static_cast<std::uint32_t>(header_size + body.size()), id};
  std::array<std::uint8_t, sizeof header> bytes;
  std::memcpy(bytes.data(), header, sizeof header);
  return write_function(fd, bytes) && write_function(fd, body);
}

bool wait_readable(int fd) {
  timeval timeout = {reply_timeout_s, 0};
  fd_set readable;
  FD_ZERO(&readable);
  FD_SET(fd, &readable);
  return select(fd + 1, &readable, nullptr, nullptr, &timeout) == 1;
}

class PrescribedCalls final : public Caller {
  SocketPath path_;
  AnsweringProcess process_{"prescribed", path_.text()};
  Descriptor wakeup_{new_wakeup(), "eventfd"};
  Descriptor socket_{(process_.wait_until_ready(), connect_to(path_.text())), "connect"};
  Frame answer_;
  std::uint32_t next_id_ = 0;

  // The watch goes off the main context, or is put back.
  [[nodiscard]] bool change_watch() const {
    constexpr std::uint64_t one = 1;
    return write(wakeup_.get(), &one, sizeof one) == sizeof one;
  }
  // No reply is due before the request.
  [[nodiscard]] bool drain() { return answer_.receive(socket_.get()) == Received::part; }

 public:
  Bytes ask(Bytes body) override {
    answer_.forget();
    if (!change_watch() || !drain()) return {};
    if (!send_frame(write_piece_in_time, socket_.get(), next_id_, body)) return {};
    Received received = Received::part;
    while (received == Received::part) {
      if (!wait_readable(socket_.get())) return {};
      received = answer_.receive(socket_.get());
    }
    if (!change_watch() || received != Received::whole) return {};
    return answer_.id() == next_id_++ ? answer_.body() : Bytes();
  }
};

}  // namespace

std::unique_ptr<Caller> prescribed_calls() { return std::make_unique<PrescribedCalls>(); }

int answer_by_prescribed_calls(int link, const char *socket_path) {
  const Descriptor listening(listen_on(socket_path), "listen"), wakeup(new_wakeup(), "eventfd");
  announce_ready(link);
  const Descriptor client(accept_client(listening.get()), "accept");
  Frame request;
  std::array<pollfd, 3> watched = {
      {{listening.get(), POLLIN, 0}, {wakeup.get(), POLLIN, 0}, {client.get(), POLLIN, 0}}};
  while (poll(watched.data(), watched.size(), -1) > 0) {
    const Received received = request.receive(client.get());
    if (received == Received::part) continue;
    if (received == Received::failed || !send_frame(write_piece, client.get(), request.id(), request.body())) break;
    request.forget();
  }
  return 0;
}

}  // namespace bench
