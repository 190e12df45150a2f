#include "folder_access.h"

#include <unistd.h>
#include <cerrno>

namespace ptz::platform {

bool take_access_of(const struct stat &folder, int fd) {
  struct stat file = {};
  if (fstat(fd, &file) != 0) return false;
  const uid_t owner = geteuid() == 0 ? folder.st_uid : file.st_uid;
  if (owner != file.st_uid || folder.st_gid != file.st_gid) {
    const int error = fchown(fd, owner != file.st_uid ? owner : static_cast<uid_t>(-1), folder.st_gid);
    static_cast<void>(error);  // an unprivileged creator may not be a member of the folder's group
  }
  // After the owner: a change of the owner clears bits of the mode.
  const mode_t mode = file_mode_in(folder.st_mode);
  return (file.st_mode & 07777) == mode || fchmod(fd, mode) == 0;
}

}  // namespace ptz::platform
