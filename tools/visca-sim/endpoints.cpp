// The descriptors of the server: how they are opened and read.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "server.h"

namespace visca_sim {

namespace {

bool fail(const char *what) {
  fprintf(stderr, "visca-sim: %s: %s\n", what, strerror(errno));
  return false;
}

socklen_t make_address(const char *host, int port, sockaddr_storage &address) {
  auto *const v4 = reinterpret_cast<sockaddr_in *>(&address);
  auto *const v6 = reinterpret_cast<sockaddr_in6 *>(&address);
  if (inet_pton(AF_INET6, host, &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<std::uint16_t>(port));
    return sizeof *v6;
  }
  if (inet_pton(AF_INET, host, &v4->sin_addr) != 1) return 0;
  v4->sin_family = AF_INET;
  v4->sin_port = htons(static_cast<std::uint16_t>(port));
  return sizeof *v4;
}

int port_of(int fd) {
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port
                                             : reinterpret_cast<sockaddr_in *>(&address)->sin_port);
}

int bound_socket(const char *host, int port, int type) {
  sockaddr_storage address = {};
  const socklen_t size = make_address(host, port, address);
  if (size == 0) {
    errno = EINVAL;
    return -1;
  }
  const int fd = socket(address.ss_family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  if (fd >= 0 && type == SOCK_STREAM) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0) return fd;
  const int saved = errno;
  if (fd >= 0) close(fd);
  errno = saved;
  return -1;
}

}  // namespace

void Server::watch(int fd, GUnixFDSourceFunc function) {
  watches_.emplace_back(fd,
                        g_unix_fd_add(fd, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), function, this));
}

void Server::unwatch(int fd) {
  std::erase_if(watches_, [&](const auto &each) {
    if (each.first != fd) return false;
    g_source_remove(each.second);
    close(fd);
    return true;
  });
  std::erase_if(clients_, [&](const auto &each) { return each.second.fd == fd; });
  client_of_fd_.erase(fd);
}

bool Server::open_terminal(const std::string &link) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return fail("a pseudo-terminal");
  const char *const name = ptsname(master);
  // The other end stays open here, so that a controller may close and open it without a hang-up of this end.
  terminal_slave_ = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal_slave_ < 0) return fail(name);
  termios settings = {};
  tcgetattr(terminal_slave_, &settings);
  cfmakeraw(&settings);
  tcsetattr(terminal_slave_, TCSANOW, &settings);
  if (!link.empty()) {
    unlink(link.c_str());
    if (symlink(name, link.c_str()) != 0) return fail(link.c_str());
    terminal_link_ = link;
  }
  const unsigned number = next_client_++;
  clients_[number].kind = Kind::terminal;
  clients_[number].fd = master;
  client_of_fd_[master] = number;
  watch(master, on_stream);
  printf("pty %s\n", name);
  fflush(stdout);
  return true;
}

bool Server::open_udp(const char *host, int port, bool has_header) {
  const int fd = bound_socket(host, port, SOCK_DGRAM);
  if (fd < 0) return fail("UDP");
  if (other_udp_ < 0) other_udp_ = bound_socket(host, 0, SOCK_DGRAM);
  watch(fd, has_header ? on_header_datagram : on_datagram);
  printf("%s %d\n", has_header ? "udp" : "udp-raw", port_of(fd));
  fflush(stdout);
  return true;
}

bool Server::open_tcp(const char *host, int port) {
  const int fd = bound_socket(host, port, SOCK_STREAM);
  if (fd < 0 || listen(fd, 8) != 0) return fail("TCP");
  watch(fd, on_accept);
  printf("tcp %d\n", port_of(fd));
  fflush(stdout);
  return true;
}

gboolean Server::on_accept(gint fd, GIOCondition, gpointer user_data) {
  auto &server = *static_cast<Server *>(user_data);
  const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (connection < 0) return G_SOURCE_CONTINUE;
  const int on = 1;
  setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const unsigned number = server.next_client_++;
  server.clients_[number].kind = Kind::tcp;
  server.clients_[number].fd = connection;
  server.client_of_fd_[connection] = number;
  server.watch(connection, on_stream);
  return G_SOURCE_CONTINUE;
}

gboolean Server::on_stream(gint fd, GIOCondition, gpointer user_data) {
  auto &server = *static_cast<Server *>(user_data);
  std::uint8_t bytes[256];
  const ssize_t count = read(fd, bytes, sizeof bytes);
  if (count > 0) {
    server.take_stream(server.client_of_fd_[fd], bytes, static_cast<std::size_t>(count));
  } else if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
    server.unwatch(fd);
  }
  return G_SOURCE_CONTINUE;
}

unsigned Server::client_at(int fd, Kind kind, const sockaddr_storage &address, socklen_t size) {
  for (const auto &[number, client] : clients_) {
    if (client.fd == fd && client.address_size == size && memcmp(&client.address, &address, size) == 0) return number;
  }
  const unsigned number = next_client_++;
  Client &client = clients_[number];
  client.kind = kind;
  client.fd = fd;
  client.address = address;
  client.address_size = size;
  return number;
}

void Server::read_datagram(int fd, Kind kind) {
  std::uint8_t bytes[2048];
  sockaddr_storage address = {};
  socklen_t size = sizeof address;
  const ssize_t count = recvfrom(fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&address), &size);
  if (count <= 0 || by_chance(options_.loss_percent)) return;
  const unsigned client = client_at(fd, kind, address, size);
  const int times = by_chance(options_.duplicate_percent) ? 2 : 1;
  for (int time = 0; time < times; ++time) {
    if (kind == Kind::udp) {
      take_stream(client, bytes, static_cast<std::size_t>(count));
    } else {
      take_message(client, Packet(bytes, bytes + count));
    }
  }
}

gboolean Server::on_datagram(gint fd, GIOCondition, gpointer user_data) {
  static_cast<Server *>(user_data)->read_datagram(fd, Kind::udp);
  return G_SOURCE_CONTINUE;
}

gboolean Server::on_header_datagram(gint fd, GIOCondition, gpointer user_data) {
  static_cast<Server *>(user_data)->read_datagram(fd, Kind::udp_header);
  return G_SOURCE_CONTINUE;
}

}  // namespace visca_sim
