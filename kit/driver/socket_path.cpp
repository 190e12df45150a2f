#include "driver/socket_path.h"

#include <gio/gio.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

#include "handles.h"
#include "link/connection.h"

namespace ptz_kit {
namespace {

using MallocText = Handle<char, std::free>;

// A child of a driver that has ended may still hold its listening socket; the kernel tells the process that has called
// listen(). Of a process that its parent has not waited for, the descriptor is readable.
bool has_ended(pid_t pid) {
  if (pid <= 0) return false;
  if (kill(pid, 0) != 0 && errno == ESRCH) return true;
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  pollfd ended = {process.get(), POLLIN, 0};
  return process && poll(&ended, 1, 0) > 0;
}

PathHolder listening_process(int fd) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size);
  if (has_ended(peer.pid)) return {};
  return {PathHolder::Kind::process, peer.pid, 0};
}

}  // namespace

std::string resolve_socket_path(const std::string &path) {
  const Text absolute(g_canonicalize_filename(path.c_str(), nullptr));
  const Text folder(g_path_get_dirname(absolute.get()));
  const Text file(g_path_get_basename(absolute.get()));
  const MallocText resolved_folder(realpath(folder.get(), nullptr));
  if (!resolved_folder) return absolute.get();
  const Text resolved(g_build_filename(resolved_folder.get(), file.get(), nullptr));
  const std::string result = resolved.get();
  return result.size() < sizeof sockaddr_un::sun_path ? result : absolute.get();
}

PathHolder holder_of(const char *path, int type) {
  using Kind = PathHolder::Kind;
  struct stat status;
  if (lstat(path, &status) != 0) return {};
  if (!S_ISSOCK(status.st_mode)) return {Kind::no_socket, 0, 0};
  const UniqueFd fd = connect_to(path, type);
  if (fd) return listening_process(fd.get());
  switch (errno) {
    case ECONNREFUSED:
    case ENOENT:
      return {};
    case EAGAIN:      // the backlog is full
    case EPROTOTYPE:  // another type of socket
      return {Kind::process, 0, 0};
    default:
      return {Kind::unknown, 0, errno};
  }
}

bool is_path_free(const std::string &path, GError **error) {
  using Kind = PathHolder::Kind;
  if (path.size() >= sizeof sockaddr_un::sun_path) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_FILENAME_TOO_LONG, "socket path '%s' is longer than %zu bytes",
                path.c_str(), sizeof sockaddr_un::sun_path - 1);
    return false;
  }
  const PathHolder holder = holder_of(path.c_str());
  switch (holder.kind) {
    case Kind::none:
      return true;
    case Kind::process:
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE,
                  holder.pid > 0 ? "socket '%s' is served by process %d" : "socket '%s' is served by another process",
                  path.c_str(), holder.pid);
      return false;
    case Kind::no_socket:
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_EXISTS, "'%s' is no socket; it is not replaced", path.c_str());
      return false;
    case Kind::unknown:
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_ADDRESS_IN_USE, "socket '%s' may be served by another process: %s",
                  path.c_str(), g_strerror(holder.error));
      return false;
  }
  return false;
}

}  // namespace ptz_kit
