// kit/driver/socket_path.h - what is at the path that a driver wants to listen at.
#pragma once
#include <glib.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <string>

namespace ptz_kit {

// Absolute, and without symbolic links in the folder, so that two spellings of a path are one. If that is too long for
// an address, the path as given, but absolute.
[[nodiscard]] std::string resolve_socket_path(const std::string &path);

struct PathHolder {
  enum class Kind {
    none,       // nothing there, or the socket of a process that has ended
    process,    // which accepts connections; pid 0 if it is not known
    no_socket,  // a file of another type
    unknown     // a socket that this process may not connect to
  };
  Kind kind = Kind::none;
  pid_t pid = 0;
  int error = 0;
};

// Connects to the socket, which is expected to be of this type, without waiting, and closes the connection.
[[nodiscard]] PathHolder holder_of(const char *path, int type = SOCK_STREAM);

// False with an error if a server that binds the path would take it from its holder.
[[nodiscard]] bool is_path_free(const std::string &path, GError **error);

}  // namespace ptz_kit
