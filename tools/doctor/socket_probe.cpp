#include "doctor/socket_probe.h"

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "handles.h"

namespace ptzctl {

namespace {

struct Request {
  nlmsghdr header;
  unix_diag_req body;
};

bool ask_for_listening_sockets(int fd) {
  Request request = {};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.body.sdiag_family = AF_UNIX;
  request.body.udiag_states = 1U << TCP_LISTEN;
  request.body.udiag_show = UDIAG_SHOW_VFS | UDIAG_SHOW_RQLEN;
  return send(fd, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

// The backlog, if the message is that of this socket.
std::optional<Backlog> backlog_in(const nlmsghdr *message, const struct stat &wanted) {
  const auto *body = static_cast<const char *>(NLMSG_DATA(message));
  std::size_t left = message->nlmsg_len - NLMSG_LENGTH(sizeof(unix_diag_msg));
  const char *at = body + NLMSG_ALIGN(sizeof(unix_diag_msg));
  Backlog found;
  bool is_wanted = false;
  while (left >= sizeof(nlattr)) {
    nlattr attribute;
    std::memcpy(&attribute, at, sizeof attribute);
    if (attribute.nla_len < NLA_HDRLEN || attribute.nla_len > left) break;
    const char *value = at + NLA_HDRLEN;
    if (attribute.nla_type == UNIX_DIAG_VFS) {
      unix_diag_vfs file;
      std::memcpy(&file, value, sizeof file);
      // The kernel's own form of a device number. The inode is cut off to 32 bits.
      const auto device = static_cast<__u32>(major(wanted.st_dev) << 20 | minor(wanted.st_dev));
      is_wanted = file.udiag_vfs_ino == static_cast<__u32>(wanted.st_ino) && file.udiag_vfs_dev == device;
    } else if (attribute.nla_type == UNIX_DIAG_RQLEN) {
      unix_diag_rqlen lengths;
      std::memcpy(&lengths, value, sizeof lengths);
      found = {lengths.udiag_rqueue, lengths.udiag_wqueue};
    }
    const std::size_t step = NLA_ALIGN(attribute.nla_len);
    if (step >= left) break;
    left -= step;
    at += step;
  }
  return is_wanted ? std::optional(found) : std::nullopt;
}

}  // namespace

Probe probe(const std::string &path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) return {ENAMETOOLONG, 0};
  path.copy(address.sun_path, path.size());
  const tools::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd || connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) return {errno, 0};
  ucred peer = {};
  socklen_t size = sizeof peer;
  getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
  return {0, peer.pid};
}

bool is_listened_on(const std::string &path) { return backlog_of(path) || probe(path).error == 0; }

std::optional<Backlog> backlog_of(const std::string &path) {
  struct stat status;
  const tools::UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (stat(path.c_str(), &status) != 0 || !fd || !ask_for_listening_sockets(fd.get())) return std::nullopt;
  alignas(nlmsghdr) char buffer[16 * 1024];
  for (;;) {
    const ssize_t count = recv(fd.get(), buffer, sizeof buffer, 0);
    if (count <= 0) return std::nullopt;
    auto left = static_cast<unsigned>(count);
    for (auto *each = reinterpret_cast<nlmsghdr *>(buffer); NLMSG_OK(each, left); each = NLMSG_NEXT(each, left)) {
      if (each->nlmsg_type == NLMSG_DONE || each->nlmsg_type == NLMSG_ERROR) return std::nullopt;
      if (const auto found = backlog_in(each, status)) return found;
    }
  }
}

}  // namespace ptzctl
