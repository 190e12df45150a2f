#include "peers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int patience_ms = 10'000;

sockaddr_un address_of(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() > sizeof address.sun_path) std::abort();
  path.copy(address.sun_path, sizeof address.sun_path);
  return address;
}

bool wait_for(int fd, short events, int timeout_ms) {
  pollfd waiting{fd, events, 0};
  return poll(&waiting, 1, timeout_ms) > 0;
}

}  // namespace

namespace ptz_test {

Descriptor &Descriptor::operator=(Descriptor &&other) noexcept {
  const int fd = other.release();
  reset();
  fd_ = fd;
  return *this;
}

void Descriptor::reset() {
  if (const int fd = release(); fd >= 0) close(fd);
}

Pair::Pair(int type) {
  std::array<int, 2> fds{};
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds.data()) != 0) std::abort();
  ours = Descriptor(fds[0]);
  theirs = Descriptor(fds[1]);
  fcntl(ours.get(), F_SETFL, O_NONBLOCK);
}

Listener::Listener(const std::string &path, int type, int backlog) : fd_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {
  const auto address = address_of(path);
  if (bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) std::abort();
  if (type != SOCK_DGRAM && listen(fd_.get(), backlog) != 0) std::abort();
}

Descriptor Listener::accept() const {
  if (!wait_for(fd_.get(), POLLIN, patience_ms)) return Descriptor();
  return Descriptor(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

bool Listener::has_waiting_client() const { return is_readable(fd_.get()); }

Descriptor connect_to(const std::string &path, int type) {
  Descriptor fd(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  const auto address = address_of(path);
  if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) fd.reset();
  return fd;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) >= 0; }
bool is_non_blocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }
bool is_inherited(int fd) { return (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0; }
bool is_readable(int fd) { return wait_for(fd, POLLIN, 0); }

bool is_at_end(int fd) {
  char byte = 0;
  return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

bool send_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      text.remove_prefix(static_cast<std::size_t>(sent));
    } else if (errno != EAGAIN || !wait_for(fd, POLLOUT, patience_ms)) {
      return false;
    }
  }
  return true;
}

std::string receive(int fd, std::size_t length) {
  std::string text(length, '\0');
  std::size_t filled = 0;
  while (filled < length && wait_for(fd, POLLIN, patience_ms)) {
    const ssize_t got = recv(fd, text.data() + filled, length - filled, MSG_DONTWAIT);
    if (got <= 0) break;
    filled += static_cast<std::size_t>(got);
  }
  text.resize(filled);
  return text;
}

std::string receive_waiting(int fd) {
  std::string text;
  std::array<char, 65'536> piece{};
  for (ssize_t got = 0; (got = recv(fd, piece.data(), piece.size(), MSG_DONTWAIT)) > 0;) {
    text.append(piece.data(), static_cast<std::size_t>(got));
  }
  return text;
}

std::size_t fill(int fd) {
  std::size_t total = 0;
  const std::array<char, 4096> block{};
  // A smaller piece may still fit where a block does not.
  for (std::size_t size = block.size(); size > 0;) {
    const ssize_t sent = send(fd, block.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent > 0) {
      total += static_cast<std::size_t>(sent);
    } else {
      size /= 2;
    }
  }
  return total;
}

Descriptor move_up(Descriptor fd, int number) {
  rlimit limit{};
  const auto needed = static_cast<rlim_t>(number) + 64;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < needed) {
    limit.rlim_cur = std::min(limit.rlim_max, needed);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  return Descriptor(fcntl(fd.get(), F_DUPFD_CLOEXEC, number));
}

std::string frame_claiming(std::uint32_t length, std::uint32_t id, std::string_view body) {
  std::string bytes(sizeof length + sizeof id, '\0');
  std::memcpy(bytes.data(), &length, sizeof length);
  std::memcpy(bytes.data() + sizeof length, &id, sizeof id);
  return bytes.append(body);
}

std::string frame(std::uint32_t id, std::string_view body) {
  return frame_claiming(static_cast<std::uint32_t>(body.size() + 8), id, body);
}

std::optional<Frame> receive_frame(int fd) {
  const std::string header = receive(fd, 8);
  if (header.size() < 8) return std::nullopt;
  Frame received{};
  std::memcpy(&received.length, header.data(), 4);
  std::memcpy(&received.id, header.data() + 4, 4);
  if (received.length < 8) return std::nullopt;
  received.body = receive(fd, received.length - 8);
  if (received.body.size() != received.length - 8) return std::nullopt;
  return received;
}

}  // namespace ptz_test
