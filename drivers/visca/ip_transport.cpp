// TCP and UDP. Names are resolved without blocking, anew each time that the transport is opened.
#include <fcntl.h>
#include <gio/gio.h>
#include <glib-unix.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "transport.h"

namespace visca {

namespace {

constexpr guint connect_limit_s = 3;

class TcpTransport final : public Transport {
  const Address address_;
  TransportUser &user_;
  Stream stream_;
  Object<GCancellable> connecting_;

  static void on_connected(GObject *client, GAsyncResult *result, gpointer user_data) {
    Error error;
    const Object<GSocketConnection> connection(
        g_socket_client_connect_to_host_finish(G_SOCKET_CLIENT(client), result, out(error)));
    // The transport may be gone then.
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) return;
    auto &self = *static_cast<TcpTransport *>(user_data);
    self.connecting_.reset();
    if (!connection) return self.user_.transport_is_closed(error->message);
    GSocket *const socket = g_socket_connection_get_socket(connection.get());
    UniqueFd fd(fcntl(g_socket_get_fd(socket), F_DUPFD_CLOEXEC, 0));
    const int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd.get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    // Closing the connection object must not shut the duplicate down.
    g_tcp_connection_set_graceful_disconnect(G_TCP_CONNECTION(connection.get()), FALSE);
    self.stream_.start(std::move(fd));
    self.user_.transport_is_open();
  }

 public:
  TcpTransport(const Address &address, TransportUser &user) : address_(address), user_(user), stream_(user) {}
  ~TcpTransport() override { close(); }

  void open() override {
    close();
    connecting_.reset(g_cancellable_new());
    const Object<GSocketClient> client(g_socket_client_new());
    g_socket_client_set_timeout(client.get(), connect_limit_s);
    g_socket_client_set_enable_proxy(client.get(), FALSE);
    const Text host(address_.host.find(':') != std::string::npos ? g_strdup_printf("[%s]", address_.host.c_str())
                                                                 : g_strdup(address_.host.c_str()));
    g_socket_client_connect_to_host_async(client.get(), host.get(), address_.port, connecting_.get(), on_connected,
                                          this);
  }
  void close() override {
    if (connecting_) g_cancellable_cancel(connecting_.get());
    connecting_.reset();
    stream_.close();
  }
  void write(ByteSpan bytes) override { stream_.write(bytes); }
};

// The socket is not connected: some cameras answer from another port, or from another address.
class UdpTransport final : public Transport {
  const Address address_;
  const IpOptions options_;
  TransportUser &user_;
  UniqueFd fd_;
  Watch readable_;
  Object<GCancellable> resolving_;
  Object<GSocketAddressEnumerator> addresses_;  // one further address each time that the camera does not answer
  bool had_address_ = false;
  sockaddr_storage camera_ = {};
  socklen_t camera_size_ = 0;

  static void on_resolved(GObject *enumerator, GAsyncResult *result, gpointer user_data) {
    Error error;
    const Object<GSocketAddress> address(
        g_socket_address_enumerator_next_finish(G_SOCKET_ADDRESS_ENUMERATOR(enumerator), result, out(error)));
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) return;
    auto &self = *static_cast<UdpTransport *>(user_data);
    self.resolving_.reset();
    if (!address) {
      // All addresses were tried: the resolver is asked again.
      self.addresses_.reset();
      if (!error && std::exchange(self.had_address_, false)) return self.open();
      return self.user_.transport_is_closed(error ? error->message : "the name has no address");
    }
    self.had_address_ = true;
    self.start(address.get());
  }

  void start(GSocketAddress *address) {
    camera_size_ = static_cast<socklen_t>(g_socket_address_get_native_size(address));
    Error error;
    if (g_socket_address_to_native(address, &camera_, sizeof camera_, out(error)) == FALSE) {
      return user_.transport_is_closed(error->message);
    }
    UniqueFd fd(socket(camera_.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || !bind_local(fd.get())) return user_.transport_is_closed(g_strerror(errno));
    fd_ = std::move(fd);
    readable_.keep(g_unix_fd_add(fd_.get(), G_IO_IN, on_readable, this));
    user_.transport_is_open();
  }

  bool bind_local(int fd) const {
    if (options_.local_port == 0) return true;
    sockaddr_storage local = {};
    local.ss_family = camera_.ss_family;
    if (local.ss_family == AF_INET6) {
      reinterpret_cast<sockaddr_in6 &>(local).sin6_port = htons(options_.local_port);
    } else {
      reinterpret_cast<sockaddr_in &>(local).sin_port = htons(options_.local_port);
    }
    return bind(fd, reinterpret_cast<const sockaddr *>(&local), camera_size_) == 0;
  }

  [[nodiscard]] bool is_camera(const sockaddr_storage &from) const {
    if (options_.any_host) return true;
    if (from.ss_family != camera_.ss_family) return false;
    if (from.ss_family == AF_INET6) {
      return memcmp(&reinterpret_cast<const sockaddr_in6 &>(from).sin6_addr,
                    &reinterpret_cast<const sockaddr_in6 &>(camera_).sin6_addr, sizeof(in6_addr)) == 0;
    }
    return reinterpret_cast<const sockaddr_in &>(from).sin_addr.s_addr ==
           reinterpret_cast<const sockaddr_in &>(camera_).sin_addr.s_addr;
  }

  static gboolean on_readable(gint fd, GIOCondition, gpointer user_data) {
    auto &self = *static_cast<UdpTransport *>(user_data);
    Byte bytes[2048];
    // Bounded, so that a flood does not keep the requests of clients waiting.
    for (int datagrams = 0; datagrams < 16; ++datagrams) {
      sockaddr_storage from = {};
      socklen_t size = sizeof from;
      const ssize_t count = recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &size);
      if (count < 0) break;
      if (count > 0 && self.is_camera(from)) self.user_.on_bytes({bytes, static_cast<std::size_t>(count)});
      if (!self.fd_ || self.fd_.get() != fd) break;
    }
    return G_SOURCE_CONTINUE;
  }

 public:
  UdpTransport(const Address &address, const IpOptions &options, TransportUser &user)
      : address_(address), options_(options), user_(user) {}
  ~UdpTransport() override { close(); }

  void open() override {
    close();
    if (!addresses_) {
      const Object<GSocketConnectable> name(
          G_SOCKET_CONNECTABLE(g_network_address_new(address_.host.c_str(), address_.port)));
      addresses_.reset(g_socket_connectable_enumerate(name.get()));
    }
    resolving_.reset(g_cancellable_new());
    g_socket_address_enumerator_next_async(addresses_.get(), resolving_.get(), on_resolved, this);
  }
  void close() override {
    if (resolving_) {
      g_cancellable_cancel(resolving_.get());
      addresses_.reset();
    }
    resolving_.reset();
    readable_.stop();
    fd_ = UniqueFd();
  }
  // A datagram that cannot be sent now is lost, as any datagram may be.
  void write(ByteSpan bytes) override {
    if (!fd_) return;
    sendto(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&camera_),
           camera_size_);
  }
};

}  // namespace

std::unique_ptr<Transport> make_tcp_transport(const Address &address, TransportUser &user) {
  return std::make_unique<TcpTransport>(address, user);
}

std::unique_ptr<Transport> make_udp_transport(const Address &address, const IpOptions &options, TransportUser &user) {
  return std::make_unique<UdpTransport>(address, options, user);
}

}  // namespace visca
