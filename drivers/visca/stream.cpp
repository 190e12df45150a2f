#include <glib-unix.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>

#include "transport.h"

namespace visca {

void Stream::start(UniqueFd fd) {
  fd_ = std::move(fd);
  kept_.clear();
  readable_.keep(g_unix_fd_add(fd_.get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), on_readable, this));
}

void Stream::close() {
  readable_.stop();
  writable_.stop();
  kept_.clear();
  fd_ = UniqueFd();
}

void Stream::fail(const std::string &reason) {
  close();
  user_.transport_is_closed(reason);
}

gboolean Stream::on_readable(gint fd, GIOCondition condition, gpointer user_data) {
  auto &stream = *static_cast<Stream *>(user_data);
  Byte bytes[512];
  const ssize_t count = read(fd, bytes, sizeof bytes);
  if (count > 0) {
    stream.user_.on_bytes({bytes, static_cast<std::size_t>(count)});
  } else if (count < 0 && (errno == EAGAIN || errno == EINTR) && (condition & (G_IO_HUP | G_IO_ERR)) == 0) {
    return G_SOURCE_CONTINUE;
  } else {
    stream.fail(count == 0 ? "the other end has hung up" : g_strerror(errno));
  }
  return G_SOURCE_CONTINUE;
}

gboolean Stream::on_writable(gint, GIOCondition, gpointer user_data) {
  auto &stream = *static_cast<Stream *>(user_data);
  const std::string left = std::exchange(stream.kept_, {});
  stream.writable_.stop();
  stream.write({reinterpret_cast<const Byte *>(left.data()), left.size()});
  return G_SOURCE_CONTINUE;
}

void Stream::write(ByteSpan bytes) {
  if (!fd_) return;
  if (kept_.empty()) {
    const ssize_t written = ::write(fd_.get(), bytes.data(), bytes.size());
    // A hang-up is told by the watch: the caller is not ready for it here.
    if (written < 0 && errno != EAGAIN && errno != EINTR) return;
    if (written > 0) bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  if (bytes.empty() || kept_.size() + bytes.size() > most_kept) return;
  kept_.append(bytes.begin(), bytes.end());
  if (!writable_.runs()) writable_.keep(g_unix_fd_add(fd_.get(), G_IO_OUT, on_writable, this));
}

std::unique_ptr<Transport> make_transport(const Address &address, const IpOptions &options, TransportUser &user) {
  switch (address.kind) {
    case TransportKind::serial:
      return make_serial_transport(address, user);
    case TransportKind::tcp:
      return make_tcp_transport(address, user);
    default:
      return make_udp_transport(address, options, user);
  }
}

}  // namespace visca
