#include "status_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "base/handles.h"

namespace ptz::platform {

namespace {

constexpr std::string_view file_suffix = ".status";
constexpr std::size_t max_name_length = 200;
constexpr mode_t directory_mode = 0775, file_mode = 0664;  // the umask takes from them

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

}  // namespace

bool is_group_name(std::string_view name) {
  return !name.empty() && name.size() <= max_name_length && name.front() != '.' && name.find('/') == name.npos;
}

std::string path_of_group(std::string_view directory, std::string_view name) {
  return std::string(directory).append("/").append(name).append(file_suffix);
}

int create_file(const char *directory, const std::string &path, std::uint32_t group_size) {
  constexpr int flags = O_TMPFILE | O_RDWR | O_CLOEXEC;
  UniqueFd fd(open(directory, flags, file_mode));
  if (!fd && errno == ENOENT && (mkdir(directory, directory_mode) == 0 || errno == EEXIST)) {
    fd.reset(open(directory, flags, file_mode));
  }
  if (!fd) return -1;
  const std::size_t length = file_size(group_size);
  if (const int error = allocate(fd.get(), length); error != 0) {
    errno = error;
    return -1;
  }
  auto *header = map(fd.get(), length, PROT_READ | PROT_WRITE);
  if (header == nullptr) return -1;
  header->identity = identity_of(group_size);
  set_up_lock(header->writers);
  ring_of(header, group_size).set_up();
  munmap(header, length);
  const auto unnamed = "/proc/self/fd/" + std::to_string(fd.get());
  return linkat(AT_FDCWD, unnamed.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
}

std::optional<MappedFile> map_file(const std::string &path, Access access) {
  const int flags = access == writing ? O_RDWR : O_RDONLY;
  const UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (!fd) {
    if (errno == ELOOP || errno == EISDIR || errno == ENXIO) errno = EBADMSG;  // not a regular file
    return std::nullopt;
  }
  struct stat status = {};
  if (fstat(fd.get(), &status) < 0) return std::nullopt;
  Identity identity;
  errno = EBADMSG;
  // Strangers that could write into the mutex could make this process write anywhere.
  if (!S_ISREG(status.st_mode) || (status.st_mode & S_IWOTH) != 0) return std::nullopt;
  const ssize_t count = pread(fd.get(), &identity, sizeof identity, 0);
  if (count < 0) return std::nullopt;
  errno = EBADMSG;
  if (static_cast<std::size_t>(count) != sizeof identity) return std::nullopt;
  if (identity != identity_of(identity.group_size) || identity.group_size > max_group_size) return std::nullopt;
  const std::size_t size = file_size(identity.group_size);
  if (static_cast<std::uint64_t>(status.st_size) != size) return std::nullopt;
  auto *header = map(fd.get(), size, access == writing ? PROT_READ | PROT_WRITE : PROT_READ);
  if (header == nullptr) return std::nullopt;
  if (access == writing && !is_our_lock(header->writers)) {
    munmap(header, size);
    errno = EBADMSG;
    return std::nullopt;
  }
  return MappedFile{header, ring_of(header, identity.group_size), status.st_dev, status.st_ino};
}

void unmap_file(const MappedFile &file) { munmap(file.header, file_size(file.ring.group_size())); }

Currency currency_of(const MappedFile &file, const std::string &path) {
  struct stat status = {};
  if (stat(path.c_str(), &status) < 0) return Currency::replaced;
  if (status.st_dev != file.device || status.st_ino != file.inode) return Currency::replaced;
  const bool has_size = static_cast<std::uint64_t>(status.st_size) == file_size(file.ring.group_size());
  return has_size ? Currency::current : Currency::damaged;
}

}  // namespace ptz::platform
