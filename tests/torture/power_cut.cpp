// Calls and their forms of 64 bits are interposed separately.
#undef _FILE_OFFSET_BITS
#include "power_cut.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <map>
#include <random>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t part = 512;

struct Change {
  bool is_size = false;
  std::size_t offset = 0;  // or the size
  std::string bytes = {};
};

struct File {
  std::string durable = {};
  timespec durable_time = {};
  std::vector<Change> pending = {};
};

using Names = std::map<std::string, ino_t>;

struct Disk {
  std::string folder, spare;
  std::map<ino_t, File> files = {};
  Names durable_names = {};
  std::vector<Names> names = {};  // after each change since the folder's last flush
  long calls = 0, last_call = -1, full_at = -1;
  std::size_t free_bytes = 0;  // given back since the disk is full
  std::mt19937_64 random = {};
  bool is_busy = false;  // our own calls are not recorded
};
Disk *disk = nullptr;

template <typename Function>
Function *real(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) real<decltype(name)>(#name)

bool is_on() { return disk != nullptr && !disk->is_busy; }

struct Quiet {
  Quiet() { disk->is_busy = true; }
  ~Quiet() { disk->is_busy = false; }
};

std::string spare_name(ino_t inode) { return disk->spare + "/" + std::to_string(inode); }

std::string bytes_of(int fd) {
  struct stat status = {};
  fstat(fd, &status);
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  if (pread(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
  return bytes;
}

void make_durable(int fd, bool with_time) {
  struct stat status = {};
  fstat(fd, &status);
  const auto found = disk->files.find(status.st_ino);
  if (found == disk->files.end()) return;
  // The descriptor may be open for writing only.
  const int reader = REAL(open)(spare_name(status.st_ino).c_str(), O_RDONLY | O_CLOEXEC);
  found->second.durable = bytes_of(reader);
  REAL(close)(reader);
  if (with_time || disk->random() % 2 == 0) found->second.durable_time = status.st_mtim;
  found->second.pending.clear();
}

File *file_of(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) return nullptr;
  const auto found = disk->files.find(status.st_ino);
  return found != disk->files.end() ? &found->second : nullptr;
}

Names names_now() {
  Names names;
  DIR *folder = opendir(disk->folder.c_str());
  while (const dirent *entry = readdir(folder)) {
    if (entry->d_type == DT_REG) names[entry->d_name] = entry->d_ino;
  }
  closedir(folder);
  return names;
}

bool is_inside(const char *path) { return std::string_view(path).starts_with(disk->folder + "/"); }

// Keeps every file, so that no inode is used again.
void keep_new_files(const Names &names) {
  for (const auto &[name, inode] : names) {
    if (disk->files.count(inode) != 0) continue;
    if (REAL(link)((disk->folder + "/" + name).c_str(), spare_name(inode).c_str()) != 0) std::abort();
    disk->files[inode] = {};
  }
}

void note_names() {
  disk->names.push_back(names_now());
  keep_new_files(disk->names.back());
}

void apply(std::string &bytes, const Change &change) {
  if (change.is_size) {
    bytes.resize(change.offset);
    return;
  }
  bytes.resize(std::max(bytes.size(), change.offset + change.bytes.size()));
  bytes.replace(change.offset, change.bytes.size(), change.bytes);
}

void apply_some_parts(std::string &bytes, const Change &change) {
  std::size_t at = 0;
  while (at < change.bytes.size()) {
    const std::size_t end = std::min(change.bytes.size(), (change.offset + at) / part * part + part - change.offset);
    if (disk->random() % 2 == 0) apply(bytes, {false, change.offset + at, change.bytes.substr(at, end - at)});
    at = end;
  }
}

std::string content_after_cut(const File &file) {
  std::string bytes = file.durable;
  const auto count = file.pending.size();
  const auto mode = disk->random() % 5;
  const auto kept = count == 0 ? 0 : disk->random() % (count + 1);
  for (std::size_t i = 0; i < count; ++i) {
    const auto &change = file.pending[i];
    if (mode == 0 || (mode == 1 && i < kept) || (mode == 2 && i >= kept)) apply(bytes, change);
    if (mode == 3 && change.is_size && disk->random() % 2 == 0) apply(bytes, change);
    if (mode == 3 && !change.is_size) apply_some_parts(bytes, change);
  }
  return bytes;
}

void restore_file(ino_t inode, const File &file) {
  const int fd = REAL(open)(spare_name(inode).c_str(), O_RDWR | O_CLOEXEC);
  struct stat status = {};
  fstat(fd, &status);
  const auto bytes = content_after_cut(file);
  if (REAL(ftruncate)(fd, 0) != 0) std::abort();
  if (REAL(pwrite)(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) std::abort();
  // A file system writes the size and the time together.
  const bool keeps_time = bytes.size() == file.durable.size() && disk->random() % 2 == 0;
  const timespec time = keeps_time ? file.durable_time : status.st_mtim;
  const timespec times[] = {{0, UTIME_OMIT}, time};
  REAL(futimens)(fd, times);
  REAL(close)(fd);
}

[[noreturn]] void cut_power() {
  const Quiet quiet;
  // The index of the log is made anew by the first process after a restart, whatever it holds.
  const auto kept = disk->random() % (disk->names.size() + 1);
  const Names names = kept == 0 ? disk->durable_names : disk->names[kept - 1];
  for (const auto &[name, inode] : names_now()) REAL(unlink)((disk->folder + "/" + name).c_str());
  for (const auto &[inode, file] : disk->files) restore_file(inode, file);
  for (const auto &[name, inode] : names) {
    if (REAL(link)(spare_name(inode).c_str(), (disk->folder + "/" + name).c_str()) != 0) std::abort();
  }
  for (const auto &[inode, file] : disk->files) REAL(unlink)(spare_name(inode).c_str());
  _exit(torture::status_after_cut);
}

// Returns false if the disk is full and the call needs room.
bool count_call(std::size_t needed_bytes) {
  if (disk->calls == disk->last_call) cut_power();
  const long call = disk->calls++;
  if (needed_bytes == 0 || disk->full_at < 0 || call < disk->full_at) return true;
  if (needed_bytes <= disk->free_bytes) {
    disk->free_bytes -= needed_bytes;
    return true;
  }
  errno = ENOSPC;
  return false;
}

template <typename Write>
ssize_t write_recorded(int fd, const void *bytes, std::size_t size, off_t offset, Write write) {
  if (!is_on() || file_of(fd) == nullptr) return write();
  const Quiet quiet;
  if (!count_call(size)) return -1;
  const ssize_t count = write();
  if (count > 0) {
    file_of(fd)->pending.push_back({false, static_cast<std::size_t>(offset),
                                    std::string(static_cast<const char *>(bytes), static_cast<std::size_t>(count))});
  }
  return count;
}

template <typename Truncate>
int truncate_recorded(int fd, off_t size, Truncate truncate) {
  if (!is_on() || file_of(fd) == nullptr) return truncate();
  const Quiet quiet;
  struct stat status = {};
  fstat(fd, &status);
  const auto former = static_cast<std::size_t>(status.st_size), wanted = static_cast<std::size_t>(size);
  if (!count_call(wanted > former ? wanted - former : 0)) return -1;
  const int result = truncate();
  if (former > wanted) disk->free_bytes += former - wanted;
  if (result == 0) file_of(fd)->pending.push_back({true, static_cast<std::size_t>(size), {}});
  return result;
}

template <typename Sync>
int sync_recorded(int fd, bool with_time, Sync sync) {
  if (!is_on()) return sync();
  const Quiet quiet;
  struct stat status = {}, folder = {};
  fstat(fd, &status);
  stat(disk->folder.c_str(), &folder);
  const bool is_folder = S_ISDIR(status.st_mode) && status.st_ino == folder.st_ino;
  if (!is_folder && file_of(fd) == nullptr) return sync();
  static_cast<void>(count_call(0));
  if (is_folder) {
    disk->durable_names = names_now();
    disk->names.clear();
  } else {
    make_durable(fd, with_time);
  }
  return 0;  // the real disk is not asked
}

template <typename Open>
int open_recorded(const char *path, bool creates, Open open) {
  if (!is_on() || !creates || !is_inside(path)) return open();
  const Quiet quiet;
  struct stat status = {};
  const bool is_new = stat(path, &status) != 0;
  if (is_new && !count_call(1)) return -1;
  const int fd = open();
  if (fd >= 0 && is_new) note_names();
  return fd;
}

template <typename Call>
int names_recorded(const char *path, bool removes, Call call) {
  if (!is_on() || !is_inside(path)) return call();
  const Quiet quiet;
  struct stat former = {};
  const bool had_file = stat(path, &former) == 0;
  if (!count_call(removes || had_file ? 0 : 1)) return -1;
  const int result = call();
  const int error = errno;
  if (result == 0) note_names();
  if (result == 0 && had_file) disk->free_bytes += static_cast<std::size_t>(former.st_size);
  errno = error;
  return result;
}

mode_t mode_from(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(arguments, unsigned)) : 0;
}

}  // namespace

namespace torture {

void begin_recording(const std::string &folder, const std::string &spare, long last_call, std::uint64_t seed) {
  auto *begun = new Disk{.folder = folder, .spare = spare};
  begun->last_call = last_call;
  begun->random.seed(seed);
  begun->is_busy = true;
  disk = begun;
  disk->durable_names = names_now();
  keep_new_files(disk->durable_names);
  for (auto &[inode, file] : disk->files) {
    const int fd = REAL(open)(spare_name(inode).c_str(), O_RDONLY | O_CLOEXEC);
    make_durable(fd, true);
    REAL(close)(fd);
  }
  disk->is_busy = false;
}

long recorded_calls() { return disk->calls; }
void fill_disk_at(long call) {
  disk->full_at = call;
  disk->free_bytes = 0;
}

}  // namespace torture

#define EXPORTED extern "C" __attribute__((visibility("default")))
#define OPEN(name)                                                                      \
  EXPORTED int name(const char *path, int flags, ...) {                                 \
    va_list arguments;                                                                  \
    va_start(arguments, flags);                                                         \
    const mode_t mode = mode_from(flags, arguments);                                    \
    va_end(arguments);                                                                  \
    const bool creates = (flags & O_CREAT) != 0;                                        \
    return open_recorded(path, creates, [&] { return REAL(name)(path, flags, mode); }); \
  }
OPEN(open)
OPEN(open64)
#define MKOSTEMP(name)                                                         \
  EXPORTED int name(char *path, int flags) {                                   \
    return open_recorded(path, true, [&] { return REAL(name)(path, flags); }); \
  }
MKOSTEMP(mkostemp)
MKOSTEMP(mkostemp64)
#define PWRITE(name)                                                                                     \
  EXPORTED ssize_t name(int fd, const void *bytes, size_t size, off_t offset) {                          \
    return write_recorded(fd, bytes, size, offset, [&] { return REAL(name)(fd, bytes, size, offset); }); \
  }
PWRITE(pwrite)
PWRITE(pwrite64)
EXPORTED ssize_t write(int fd, const void *bytes, size_t size) {
  const off_t offset = is_on() ? lseek(fd, 0, SEEK_CUR) : 0;
  return write_recorded(fd, bytes, size, offset, [&] { return REAL(write)(fd, bytes, size); });
}
#define FTRUNCATE(name)                                                       \
  EXPORTED int name(int fd, off_t size) {                                     \
    return truncate_recorded(fd, size, [&] { return REAL(name)(fd, size); }); \
  }
FTRUNCATE(ftruncate)
FTRUNCATE(ftruncate64)
EXPORTED int fsync(int fd) {
  return sync_recorded(fd, true, [&] { return REAL(fsync)(fd); });
}
EXPORTED int fdatasync(int fd) {
  return sync_recorded(fd, false, [&] { return REAL(fdatasync)(fd); });
}
EXPORTED int rename(const char *from, const char *to) {
  return names_recorded(to, false, [&] { return REAL(rename)(from, to); });
}
EXPORTED int link(const char *from, const char *to) {
  return names_recorded(to, false, [&] { return REAL(link)(from, to); });
}
EXPORTED int unlink(const char *path) {
  return names_recorded(path, true, [&] { return REAL(unlink)(path); });
}
