#include "driver/monitor_server.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "driver/format.h"
#include "driver/socket_path.h"

namespace ptz_kit {
namespace {

constexpr mode_t mode = 0660;
constexpr int backlog = 8;
constexpr int send_buffer_bytes = 512 * 1024;  // the kernel grants less, usually 208 KiB
constexpr int connections_per_dispatch = 4;
constexpr guint pause_ms = 1000;
constexpr gint64 longest_wait_ns = 100'000'000;
constexpr rlim_t descriptors_left_free = 16;  // for the driver and its clients

// Not the file that a link leads to: others may write to the folder.
bool grant(const char *path) {
  const Text folder(g_path_get_dirname(path));
  struct stat status, folder_status;
  if (lstat(path, &status) == 0 && stat(folder.get(), &folder_status) == 0 && status.st_gid != folder_status.st_gid) {
    // A driver that may not do that leaves its own group.
    const int ignored = fchownat(AT_FDCWD, path, static_cast<uid_t>(-1), folder_status.st_gid, AT_SYMLINK_NOFOLLOW);
    static_cast<void>(ignored);
  }
  return fchmodat(AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW) == 0;
}

std::string describe(const PathHolder &holder) {
  switch (holder.kind) {
    case PathHolder::Kind::process:
      return holder.pid > 0 ? format("process %d serves it", holder.pid) : "another process serves it";
    case PathHolder::Kind::no_socket:
      return "the file there is no socket";
    default:
      return g_strerror(holder.error);
  }
}

bool are_descriptors_scarce(int fd) {
  rlimit limit;
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 && static_cast<rlim_t>(fd) + descriptors_left_free >= limit.rlim_cur;
}

void refuse(int fd) {
  const PacketWriter packet({PacketKind::busy, 0, 0});
  send(fd, packet.bytes().data(), packet.bytes().size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace

void MonitorServer::listen(const std::string &driver_path) {
  const std::string path = driver_path + monitor_suffix;
  if (path == path_ && fd_ && !is_lost()) return;
  close_socket();
  path_ = path;
  owner_ = getpid();
  std::string problem;
  if (make_socket(problem)) {
    warned_ = false;
    watch(true);
    return;
  }
  close_socket();
  if (!warned_) syslog(LOG_WARNING, "no monitor can connect to '%s': %s", path_.c_str(), problem.c_str());
  warned_ = true;
}

bool MonitorServer::make_socket(std::string &problem) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) {
    problem = "the path is too long";
    return false;
  }
  std::memcpy(address.sun_path, path_.c_str(), path_.size());
  const PathHolder holder = holder_of(path_.c_str(), SOCK_SEQPACKET);
  if (holder.kind != PathHolder::Kind::none) {
    problem = describe(holder);
    return false;
  }
  unlink(path_.c_str());  // of a driver that has ended
  fd_ = UniqueFd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path_.size() + 1);
  const bool bound = fd_ && bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), length) == 0;
  if (bound) file_ = socket_at(path_.c_str());
  if (bound && grant(path_.c_str()) && ::listen(fd_.get(), backlog) == 0) return true;
  problem = g_strerror(errno);
  return false;
}

bool MonitorServer::is_lost() const { return file_.inode != 0 && socket_at(path_.c_str()) != file_; }

void MonitorServer::close_socket() {
  watch(false);
  pause_.stop();
  if (owner_ == getpid() && file_.inode != 0 && !is_lost()) unlink(path_.c_str());
  file_ = {};
  fd_ = UniqueFd();
}

void MonitorServer::stop() {
  close_socket();
  peers_.clear();
  warned_ = false;
}

void MonitorServer::watch(bool on) {
  if (on == (source_ != 0)) return;
  if (!on) g_source_remove(source_);
  source_ = on ? g_unix_fd_add_full(MonitorPeer::priority, fd_.get(), G_IO_IN, on_connection, this, nullptr) : 0;
}

void MonitorServer::remove_ended() {
  std::erase_if(peers_, [](const auto &peer) { return peer->has_ended(); });
}

// Whether one more monitor can be served.
bool MonitorServer::make_place() {
  remove_ended();
  if (peers_.size() < max_peers) return true;
  const gint64 now_ns = monotonic_ns();
  const auto idle = std::ranges::find_if(peers_, [=](const auto &peer) { return peer->is_idle(now_ns); });
  if (idle == peers_.end()) return false;
  peers_.erase(idle);
  return true;
}

// False if nothing waits, or accepting has failed.
bool MonitorServer::accept_one() {
  UniqueFd fd(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return false;
    // Such as EMFILE, for which the socket stays readable.
    watch(false);
    pause_.start(pause_ms, on_pause_over, this);
    return false;
  }
  if (are_descriptors_scarce(fd.get()) || !make_place()) {
    refuse(fd.get());
    return true;
  }
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
  peers_.push_back(std::make_unique<MonitorPeer>(driver_, history_, std::move(fd)));
  return true;
}

gboolean MonitorServer::on_connection(gint, GIOCondition, gpointer server) {
  auto &self = *static_cast<MonitorServer *>(server);
  for (int count = 0; count < connections_per_dispatch && self.accept_one(); ++count) {
  }
  return G_SOURCE_CONTINUE;
}

gboolean MonitorServer::on_pause_over(gpointer server) {
  auto &self = *static_cast<MonitorServer *>(server);
  self.pause_.ended();
  self.watch(true);
  return G_SOURCE_REMOVE;
}

void MonitorServer::serve_all(gint64 now_ns) {
  next_turn_ns_ = now_ns + longest_wait_ns;
  if (source_ != 0) static_cast<void>(accept_one());
  for (const auto &peer : peers_) peer->serve();
  remove_ended();
}

void MonitorServer::send_to_peers(const Frame &frame, std::span<const guint8> body) {
  for (const auto &peer : peers_) peer->frame_came(frame, body);
  remove_ended();
}

}  // namespace ptz_kit
