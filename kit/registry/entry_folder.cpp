#include "registry/entry_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace ptz_kit {
namespace {

constexpr char default_runtime_directory[] = "/run/ptz";
constexpr mode_t runtime_directory_mode = 02770;  // as the status store makes it
constexpr gulong lock_retry_us = 5000;
constexpr mode_t access_bits = 07777;
constexpr auto keep_group = static_cast<gid_t>(-1);

// A unit with RestrictSUIDSGID= may not set the setgid bit. Nothing depends on it here.
bool set_mode(int folder, mode_t mode) {
  struct stat status;
  if (fstat(folder, &status) != 0) return false;
  return (status.st_mode & access_bits) == mode || fchmod(folder, mode) == 0 ||
         (errno == EPERM && fchmod(folder, mode & ~S_ISGID) == 0);
}

// The new folder is complete when it gets its name, and never replaces one that has come meanwhile. Returns 0 or errno.
int make_with_access(const char *path, mode_t mode, gid_t group) {
  const Text made(g_strconcat(path, "-XXXXXX", nullptr));
  if (g_mkdtemp_full(made.get(), static_cast<int>(mode & ~S_ISGID)) == nullptr) return errno;
  const UniqueFd folder = open_folder(made.get());
  if (folder) give_group(folder.get(), group);
  if (folder && set_mode(folder.get(), mode) &&
      renameat2(AT_FDCWD, made.get(), AT_FDCWD, path, RENAME_NOREPLACE) == 0) {
    return 0;
  }
  const int error = errno;
  rmdir(made.get());
  return error;
}

// The runtime directory is made, too, if its parent is there.
int make_like_parent(const std::string &path) {
  const Text parent(g_path_get_dirname(path.c_str()));
  struct stat status;
  if (stat(parent.get(), &status) != 0) {
    if (errno != ENOENT) return errno;
    const int error = make_with_access(parent.get(), runtime_directory_mode, keep_group);
    if (error != 0 && error != EEXIST) return error;
    if (stat(parent.get(), &status) != 0) return errno;
  }
  return make_with_access(path.c_str(), status.st_mode & access_bits, status.st_gid);
}

}  // namespace

std::string registry_directory() {
  const char *runtime = g_getenv("PTZ_PLATFORM_RUNTIME_DIR");
  return std::string(runtime != nullptr && *runtime != '\0' ? runtime : default_runtime_directory) + "/drivers";
}

UniqueFd open_folder(const char *path) { return UniqueFd(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)); }

UniqueFd make_folder(const std::string &path) {
  UniqueFd folder = open_folder(path.c_str());
  if (folder || errno != ENOENT) return folder;
  const int error = make_like_parent(path);
  if (error == 0 || error == EEXIST) return open_folder(path.c_str());
  errno = error;
  return UniqueFd();
}

void give_group(int fd, gid_t group) {
  struct stat status;
  if (fstat(fd, &status) != 0 || status.st_gid == group) return;
  const int ignored = fchown(fd, static_cast<uid_t>(-1), group);  // fails if the user is not in the group
  static_cast<void>(ignored);
}

bool lock_folder(int folder, gint64 wait_us) {
  const gint64 deadline_us = g_get_monotonic_time() + wait_us;
  while (flock(folder, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK || g_get_monotonic_time() >= deadline_us) return false;
    g_usleep(lock_retry_us);
    errno = EWOULDBLOCK;
  }
  return true;
}

void unlock_folder(int folder) { flock(folder, LOCK_UN); }

FolderReader::FolderReader(int folder)
    : stream_([folder]() -> DIR * {
        // A descriptor of its own: duplicates share the position.
        const int fd = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR *stream = fd >= 0 ? fdopendir(fd) : nullptr;
        if (stream == nullptr && fd >= 0) close(fd);
        return stream;
      }()) {}

const char *FolderReader::next() {
  errno = 0;
  const dirent *found = readdir(stream_.get());
  return found != nullptr ? found->d_name : nullptr;
}

}  // namespace ptz_kit
