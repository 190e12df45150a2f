// Replacing a file as a whole.
//
// The new content goes into a temporary file beside the old one, is flushed, and is then renamed over it. Every name is
// used relative to a descriptor of the folder, so that a folder or a link that is exchanged meanwhile changes nothing.
//
// Invariants:
// - The temporary file has the mode 0600 until it has its last owner and group. Then it gets the permissions of the old
//   file, or less. The content is therefore never readable by more users than the old file allowed. This includes the
//   access control list: the old file's is kept, and that of the folder's default is removed.
// - A symbolic link is followed if it belongs to root, to the caller, or to the owner of the file that it leads to. A
//   member of the folder's group could otherwise lead a daemon of root to any file of the system.
// - After a failure the old file is unchanged and the temporary file is removed. The next write of the file removes the
//   temporary file of a killed process if it is ten minutes old: then no process still writes it.
// - The folders of the path are not checked: a user who may rename a folder of the path decides which file is written.
#include "platform/file_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <climits>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "base/check.h"
#include "base/handles.h"

namespace {

constexpr mode_t mode_of_new_files = 0644;  // less the umask
constexpr mode_t owner_only = 0600;
constexpr mode_t permissions = 0777;
constexpr char acl_name[] = "system.posix_acl_access";
constexpr time_t oldest_temporary_s = 600;
constexpr int most_links = 40;  // as the kernel allows
constexpr int most_attempts = 100;
constexpr std::size_t longest_part_of_name = 200;  // leaves room in NAME_MAX for what is put around it

// The end of a path: a folder, a name in it, and the regular file of that name, if there is one.
struct Place {
  ptz::UniqueFd folder;
  std::string name;
  std::optional<struct stat> old = {};
  std::string old_acl = {};  // empty if the file has only the permissions of its mode
};

// A file that is removed unless it is renamed.
struct TemporaryFile {
  const Place &place;
  std::string name = {};
  ptz::UniqueFd fd = ptz::UniqueFd();

  explicit TemporaryFile(const Place &of) : place(of) {}
  TemporaryFile(TemporaryFile &&) = delete;
  ~TemporaryFile() {
    const int saved_errno = errno;
    if (!name.empty()) unlinkat(place.folder.get(), name.c_str(), 0);
    errno = saved_errno;
  }
};

bool fail_with(int error) {
  errno = error;
  return false;
}

// Opens the folder of a path, which is relative to the folder in place, and keeps the rest as the name.
bool enter_folder(std::string_view path, Place &place) {
  const auto slash = path.rfind('/');
  const auto folder = slash == std::string_view::npos ? std::string(".") : std::string(path.substr(0, slash + 1));
  place.name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (path.empty()) return fail_with(ENOENT);
  const int from = place.folder ? place.folder.get() : AT_FDCWD;
  place.folder.reset(openat(from, folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!place.folder) return false;
  return !place.name.empty() || fail_with(EISDIR);
}

// Owners of links on the way, except for root and the caller.
class ForeignLinks {
  std::optional<uid_t> owner_;
  bool several_ = false;

 public:
  void add(uid_t owner) {
    if (owner == 0 || owner == geteuid()) return;
    several_ |= owner_ && *owner_ != owner;
    owner_ = owner;
  }
  [[nodiscard]] bool may_lead_to(const std::optional<struct stat> &file) const {
    return !owner_ || (!several_ && file && file->st_uid == *owner_);
  }
};

bool check_file(const ForeignLinks &links, Place &place, const struct stat *file) {
  if (file != nullptr) {
    if (S_ISDIR(file->st_mode)) return fail_with(EISDIR);
    if (!S_ISREG(file->st_mode)) return fail_with(EINVAL);  // a device or a pipe is not to be replaced by a file
    place.old = *file;
  }
  return links.may_lead_to(place.old) || fail_with(EACCES);
}

// Returns false if the file has a list that cannot be read.
bool read_acl(const ptz::UniqueFd &entry, std::string &acl) {
  const auto path = "/proc/self/fd/" + std::to_string(entry.get());  // there is no call for a descriptor of O_PATH
  const ssize_t length = getxattr(path.c_str(), acl_name, nullptr, 0);
  if (length < 0) return errno == ENODATA || errno == EOPNOTSUPP || errno == ENOENT;
  acl.resize(static_cast<std::size_t>(length));
  return getxattr(path.c_str(), acl_name, acl.data(), acl.size()) == length;
}

bool find_place(const char *path, Place &place) {
  std::string rest = path;
  ForeignLinks links;
  for (int count = 0; count <= most_links; ++count) {
    if (!enter_folder(rest, place)) return false;
    const ptz::UniqueFd entry(openat(place.folder.get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!entry) return errno == ENOENT && check_file(links, place, nullptr);
    struct stat status = {};
    if (fstat(entry.get(), &status) != 0) return false;
    if (!S_ISLNK(status.st_mode)) return check_file(links, place, &status) && read_acl(entry, place.old_acl);
    links.add(status.st_uid);
    char target[PATH_MAX];
    const ssize_t length = readlinkat(entry.get(), "", target, sizeof target);
    if (length < 0) return false;
    if (length == sizeof target) return fail_with(ENAMETOOLONG);
    rest.assign(target, static_cast<std::size_t>(length));
  }
  return fail_with(ELOOP);
}

// What the names of a file's temporary files begin with; eight hexadecimal digits follow.
std::string temporary_prefix(const Place &place) { return "." + place.name.substr(0, longest_part_of_name) + "."; }

bool create(TemporaryFile &file) {
  const mode_t mode = file.place.old ? owner_only : mode_of_new_files;
  for (int attempt = 0; attempt < most_attempts; ++attempt) {
    char number[16];
    std::snprintf(number, sizeof number, "%08x", g_random_int());
    const auto name = temporary_prefix(file.place) + number;
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    file.fd.reset(openat(file.place.folder.get(), name.c_str(), flags, mode));
    if (file.fd) {
      file.name = name;
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

// The permissions of the old file. If the group is another one, members of the old group count as others, and others
// may be members: both classes then get only the permissions that both had.
mode_t mode_after(const struct stat &old, bool group_is_kept) {
  const mode_t mode = old.st_mode & permissions;
  if (group_is_kept) return mode;
  const mode_t common = (mode >> 3) & mode & 07;
  return (mode & 0700) | common << 3 | common;
}

// A list whose group is another one, or that cannot be set, leaves the permissions of the owner only. Without a list
// the file loses the one that the folder's default gave it.
bool take_permissions(int fd, const Place &place, bool group_is_kept) {
  const auto &acl = place.old_acl;
  mode_t mode = mode_after(*place.old, group_is_kept);
  const bool acl_is_kept = group_is_kept && !acl.empty() && fsetxattr(fd, acl_name, acl.data(), acl.size(), 0) == 0;
  if (!acl_is_kept) {
    if (fremovexattr(fd, acl_name) != 0 && errno != ENODATA && errno != EOPNOTSUPP) return false;
    if (!acl.empty()) mode &= 0700;
  }
  return fchmod(fd, mode) == 0;
}

// Gives the file the owner, the group and the permissions of the old one. An unprivileged caller cannot give a file
// away: it remains the owner, and keeps the group only if it is a member.
bool take_access(const TemporaryFile &file) {
  const auto &old = file.place.old;
  if (!old) return true;
  const int fd = file.fd.get();
  struct stat status = {};
  if (fstat(fd, &status) != 0) return false;
  bool group_is_kept = status.st_gid == old->st_gid;
  if (status.st_uid != old->st_uid || !group_is_kept) {
    group_is_kept |= fchown(fd, old->st_uid, old->st_gid) == 0 || fchown(fd, static_cast<uid_t>(-1), old->st_gid) == 0;
  }
  return take_permissions(fd, file.place, group_is_kept);
}

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t count = write(fd, data.data(), data.size());
    if (count >= 0) {
      data.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

bool close_all(ptz::UniqueFd &fd) { return close(fd.release()) == 0 || errno == EINTR; }

bool is_temporary_of(const std::string &prefix, std::string_view name) {
  constexpr std::string_view digits = "0123456789abcdef";
  return name.size() == prefix.size() + 8 && name.starts_with(prefix) &&
         name.find_first_not_of(digits, prefix.size()) == name.npos;
}

// Removes what killed processes left. The content may be secret.
void sweep(const Place &place, int folder) {
  const time_t now = time(nullptr);
  const auto prefix = temporary_prefix(place);
  ptz::UniqueFd fd(openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const ptz::Handle<DIR, closedir> entries(fd ? fdopendir(fd.get()) : nullptr);
  if (entries == nullptr) return;
  static_cast<void>(fd.release());  // closedir() closes it
  while (const dirent *entry = readdir(entries.get())) {
    struct stat status = {};
    if (!is_temporary_of(prefix, entry->d_name)) continue;
    if (fstatat(folder, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(status.st_mode)) continue;
    if (now - status.st_mtime > oldest_temporary_s) unlinkat(folder, entry->d_name, 0);
  }
}

// The file has its name already, so a failure is only logged. Not every file system can flush a folder (EINVAL), and
// not every folder that may be written may be read.
void flush_folder(const char *path, const Place &place) {
  const ptz::UniqueFd folder(openat(place.folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return;
  if (fsync(folder.get()) != 0 && errno != EINVAL) {
    syslog(LOG_WARNING, "%s: is replaced, but its folder cannot be flushed: %m", path);
  }
}

bool replace(const char *path, std::string_view data) {
  Place place;
  if (!find_place(path, place)) return false;
  TemporaryFile file(place);
  if (!create(file) || !take_access(file) || !write_all(file.fd.get(), data)) return false;
  if (fsync(file.fd.get()) != 0 || !close_all(file.fd)) return false;
  const int folder = place.folder.get();
  if (renameat(folder, file.name.c_str(), folder, place.name.c_str()) != 0) return false;
  file.name.clear();
  sweep(place, folder);
  flush_folder(path, place);
  return true;
}

}  // namespace

gboolean file_util_set_contents_synced(const gchar *path, const gchar *data, gsize length, GError **error) {
  g_return_val_if_fail(path != NULL, FALSE);
  g_return_val_if_fail(data != NULL || length == 0, FALSE);
  g_return_val_if_fail(error == NULL || *error == NULL, FALSE);
  if (replace(path, {data, length})) return TRUE;
  const int reason = errno;
  const ptz::Text name(g_filename_display_name(path));
  g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(reason), "Failed to write file \"%s\": %s", name.get(),
              g_strerror(reason));
  return FALSE;
}
