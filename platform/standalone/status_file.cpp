#include "status_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "folder_access.h"

namespace ptz::platform {

namespace {

constexpr std::string_view file_suffix = ".status";
constexpr std::size_t max_name_length = 200;
constexpr mode_t directory_mode = 02770;  // for its group: strangers must not lock or read the files
constexpr std::string_view outdated_magic = "PTZSTAT1";

constexpr Identity identity_of(std::uint32_t group_size) {
  return {.group_size = group_size, .complement = ~group_size};
}

// Allocates the blocks, so that a full file system is an error here and no signal when the memory is written. Returns
// 0, or the error.
int allocate(int fd, std::size_t size) {
  int error = 0;
  do {
    error = posix_fallocate(fd, 0, static_cast<off_t>(size));
  } while (error == EINTR);
  return error;
}

FileHeader *map(int fd, std::size_t size, int protection) {
  void *memory = mmap(nullptr, size, protection, MAP_SHARED | MAP_POPULATE, fd, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<FileHeader *>(memory);
}

Ring ring_of(FileHeader *header, std::uint32_t group_size) {
  return {&header->published, reinterpret_cast<Word *>(header + 1), group_size};
}

bool is_same_file(const struct stat &one, const struct stat &other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Removes the file of an older release. The lock lets one process remove it: the next one to get the lock finds that
// the path leads to another file.
bool remove_outdated(const std::string &path) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  struct stat status = {}, named = {};
  char magic[outdated_magic.size()];
  if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (pread(fd.get(), magic, sizeof magic, 0) != static_cast<ssize_t>(sizeof magic)) return false;
  if (std::string_view(magic, sizeof magic) != outdated_magic || flock(fd.get(), LOCK_EX | LOCK_NB) != 0) return false;
  if (lstat(path.c_str(), &named) != 0 || !is_same_file(named, status) || unlink(path.c_str()) != 0) return false;
  syslog(LOG_NOTICE, "Status group %s of an older release is replaced", path.c_str());
  return true;
}

// Returns 0 if the folder exists now, or -1 with errno set. mkdir() obeys the umask and ignores the setgid bit, so the
// folder gets its name after its mode: a process that is killed in between must not lock the others out for ever.
int make_folder(std::string_view directory) {
  while (directory.size() > 1 && directory.back() == '/') directory.remove_suffix(1);
  const std::string path(directory);
  std::string temporary = path + ".new-XXXXXX";
  if (mkdtemp(temporary.data()) == nullptr) return -1;
  const UniqueFd folder(open(temporary.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  const bool is_made = folder && fchmod(folder.get(), directory_mode) == 0 &&
                       renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0;
  if (is_made) return 0;
  // Some file systems cannot refuse to replace. A folder that holds anything is not replaced.
  const bool is_unknown = errno == EINVAL || errno == ENOSYS;
  if (is_unknown && rename(temporary.c_str(), path.c_str()) == 0) return 0;
  const int error = errno;
  rmdir(temporary.c_str());
  errno = error;
  return error == EEXIST || error == ENOTEMPTY ? 0 : -1;
}

// A complete group without a name. Returns no descriptor with errno set on failure.
UniqueFd make_unnamed(const char *directory, std::uint32_t group_size) {
  constexpr int flags = O_TMPFILE | O_RDWR | O_CLOEXEC;
  struct stat folder = {};
  UniqueFd fd(open(directory, flags, S_IRUSR | S_IWUSR));
  if (!fd && errno == ENOENT && make_folder(directory) == 0) {
    fd.reset(open(directory, flags, S_IRUSR | S_IWUSR));
  }
  if (!fd || stat(directory, &folder) != 0 || !take_access_of(folder, fd.get())) return UniqueFd();
  const std::size_t length = file_size(group_size);
  if (const int error = allocate(fd.get(), length); error != 0) {
    errno = error;
    return UniqueFd();
  }
  auto *header = map(fd.get(), length, PROT_READ | PROT_WRITE);
  if (header == nullptr) return UniqueFd();
  header->identity = identity_of(group_size);
  ring_of(header, group_size).set_up();
  munmap(header, length);
  return fd;
}

bool may_write(const struct stat &file, const std::string &directory) {
  struct stat folder = {};
  if (file.st_uid == 0 || file.st_uid == geteuid()) return true;
  return stat(directory.c_str(), &folder) == 0 && file.st_gid == folder.st_gid;
}

}  // namespace

bool is_group_name(std::string_view name) {
  return !name.empty() && name.size() <= max_name_length && name.front() != '.' && name.find('/') == name.npos;
}

std::string path_of_group(std::string_view directory, std::string_view name) {
  return std::string(directory).append("/").append(name).append(file_suffix);
}

int create_file(const std::string &directory, const std::string &path, std::uint32_t group_size) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0 && !remove_outdated(path)) {
    errno = EEXIST;
    return -1;
  }
  const UniqueFd fd = make_unnamed(directory.c_str(), group_size);
  if (!fd) return -1;
  const auto unnamed = "/proc/self/fd/" + std::to_string(fd.get());
  return linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
}

OpenGroupFile open_file(const std::string &directory, const std::string &path, Access access) {
  const int flags = access == writing ? O_RDWR : O_RDONLY;
  OpenGroupFile file = {UniqueFd(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY))};
  if (!file.fd) {
    if (errno == ELOOP || errno == EISDIR || errno == ENXIO) errno = EBADMSG;  // not a regular file
    return file;
  }
  if (fstat(file.fd.get(), &file.status) < 0) return {};
  const bool is_acceptable = S_ISREG(file.status.st_mode) && (file.status.st_mode & S_IWOTH) == 0;
  if (!is_acceptable || (access == writing && !may_write(file.status, directory))) {
    errno = EBADMSG;
    return {};
  }
  return file;
}

std::optional<MappedFile> map_file(const OpenGroupFile &file, Access access) {
  Identity identity;
  const ssize_t count = pread(file.fd.get(), &identity, sizeof identity, 0);
  if (count < 0) return std::nullopt;
  errno = EBADMSG;
  if (static_cast<std::size_t>(count) != sizeof identity) return std::nullopt;
  if (identity != identity_of(identity.group_size) || identity.group_size > max_group_size) return std::nullopt;
  const std::size_t size = file_size(identity.group_size);
  if (static_cast<std::uint64_t>(file.status.st_size) != size) return std::nullopt;
  auto *header = map(file.fd.get(), size, access == writing ? PROT_READ | PROT_WRITE : PROT_READ);
  if (header == nullptr) return std::nullopt;
  return MappedFile{header, ring_of(header, identity.group_size), file.status};
}

void unmap_file(const MappedFile &file) { munmap(file.header, file_size(file.ring.group_size())); }

Currency currency_of(const MappedFile &file, const std::string &path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) < 0 || !is_same_file(status, file.status)) return Currency::replaced;
  const bool has_access = status.st_uid == file.status.st_uid && status.st_gid == file.status.st_gid &&
                          status.st_mode == file.status.st_mode;
  if (!has_access) return Currency::replaced;
  return status.st_size == file.status.st_size ? Currency::current : Currency::damaged;
}

}  // namespace ptz::platform
