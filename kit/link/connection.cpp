#include "link/connection.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>

namespace ptz_kit {

UniqueFd connect_to(const char *path, int type) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  // An empty name would be an abstract address.
  if (length == 0 || length >= sizeof address.sun_path) {
    errno = length == 0 ? EINVAL : ENAMETOOLONG;
    return UniqueFd();
  }
  std::memcpy(address.sun_path, path, length);
  UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
  struct stat file;
  if (errno == ECONNREFUSED && stat(path, &file) == 0 && !S_ISSOCK(file.st_mode)) errno = ENOTSOCK;
  return UniqueFd();
}

void Connection::unref() {
  if (g_atomic_ref_count_dec(&references_)) delete this;
}

void Connection::send(guint32 id, std::span<const guint8> body) {
  guint32 header[2] = {static_cast<guint32>(PTZ_SOCKET_FRAME_HEADER_SIZE + body.size()), id};
  iovec parts[] = {{header, sizeof header}, {const_cast<guint8 *>(body.data()), body.size()}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = std::size(parts);
  ssize_t sent = 0;
  do {
    sent = sendmsg(fd_.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  } while (sent < 0 && errno == EINTR);
  const bool is_full = sent < 0 && (errno == EAGAIN || errno == ENOBUFS || errno == ENOMEM);
  if (sent < 0 && !is_full) return;
  std::size_t skip = sent < 0 ? 0 : static_cast<std::size_t>(sent);
  for (const iovec &part : parts) {
    const auto *bytes = static_cast<const guint8 *>(part.iov_base);
    const std::size_t taken = MIN(skip, part.iov_len);
    g_byte_array_append(unsent_.get(), bytes + taken, static_cast<guint>(part.iov_len - taken));
    skip -= taken;
  }
}

void Connection::flush() {
  const ssize_t sent = ::send(fd_.get(), unsent_->data, unsent_->len, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent > 0) g_byte_array_remove_range(unsent_.get(), 0, static_cast<guint>(sent));
}

void Connection::shut_down() {
  if (getpid() == process_) shutdown(fd_.get(), SHUT_RDWR);
}

bool Connection::fill_buffer() {
  const ssize_t count = recv(fd_.get(), buffer_.data() + fill_, buffer_.size() - fill_, MSG_DONTWAIT);
  if (count > 0) fill_ += static_cast<std::size_t>(count);
  return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

void Connection::discard(std::size_t length) {
  fill_ -= length;
  if (fill_ != 0 && length != 0) std::memmove(buffer_.data(), buffer_.data() + length, fill_);
}

}  // namespace ptz_kit
