#include "param_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <syslog.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "base/handles.h"
#include "folder_access.h"

namespace ptz::platform {
namespace {

constexpr std::int64_t ns_per_s = 1'000'000'000;
constexpr std::int64_t old_temporary_ns = 60 * ns_per_s;
constexpr int damaged_copies = 3;
constexpr const char *temporary_infix = ".new-";

std::int64_t nanoseconds(const timespec &time) {
  return static_cast<std::int64_t>(time.tv_sec) * ns_per_s + time.tv_nsec;
}

bool remove_if_present(const std::string &path) { return unlink(path.c_str()) == 0 || errno == ENOENT; }

bool is_old(const std::string &path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && wall_clock_ns() - nanoseconds(status.st_mtim) > old_temporary_ns;
}

}  // namespace

timespec timespec_of(std::int64_t nanoseconds) {
  return {static_cast<time_t>(nanoseconds / ns_per_s),
          static_cast<decltype(timespec::tv_nsec)>(nanoseconds % ns_per_s)};
}

FileStamp stamp_of(const struct stat &status) { return {status.st_ino, status.st_size, nanoseconds(status.st_mtim)}; }

std::string folder_of(const std::string &file) { return file.substr(0, file.rfind('/')); }

std::string system_reason(const std::string &what, int error) { return what + ": " + g_strerror(error); }

std::int64_t wall_clock_ns() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return nanoseconds(now);
}

UniqueFd open_regular(const std::string &path, int flags) {
  UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) return UniqueFd();
  if (S_ISREG(status.st_mode)) return fd;
  errno = EINVAL;
  return UniqueFd();
}

bool set_special_files_aside(const std::string &file) {
  for (const char *suffix : {"-lock", "-wal", "-shm", "-journal"}) {
    const std::string path = file + suffix;
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) continue;
    if (rename(path.c_str(), (path + ".old").c_str()) != 0) return false;
    syslog(LOG_WARNING, "Parameter tree %s: %s is not a regular file; renamed to %s.old", file.c_str(), path.c_str(),
           path.c_str());
  }
  return true;
}

void repair_access(const std::string &path, const struct stat &folder) {
  const UniqueFd file(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1) return;
  if ((status.st_mode & S_IWUSR) == 0) return;  // SQLite and umasks do not clear this bit: it was done on purpose
  const uid_t owner = geteuid() == 0 ? folder.st_uid : status.st_uid;
  int result = 0;
  if (owner != status.st_uid || folder.st_gid != status.st_gid) {
    const uid_t new_owner = owner != status.st_uid ? owner : static_cast<uid_t>(-1);
    result = fchownat(file.get(), "", new_owner, folder.st_gid, AT_EMPTY_PATH);
  }
  const mode_t mode = file_mode_in(folder.st_mode);
  const std::string same_file = "/proc/self/fd/" + std::to_string(file.get());  // fchmod() refuses O_PATH
  if ((status.st_mode & 07777) != mode) result = chmod(same_file.c_str(), mode);
  static_cast<void>(result);  // only the owner and root can; an operation that needs the access reports what is missing
}

int open_temporary(const std::string &file, const struct stat &folder, std::string &name) {
  name = file + temporary_infix + "XXXXXX";
  UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
  if (!fd) return -1;
  if (take_access_of(folder, fd.get())) return fd.release();
  const int error = errno;
  unlink(name.c_str());
  errno = error;
  return -1;
}

// The access is right from the first moment that the name exists: another user may open the file at once.
bool create_shared_file(const std::string &path, const struct stat &folder) {
  std::string temporary;
  const UniqueFd fd(open_temporary(path, folder, temporary));
  if (!fd) return false;
  const bool made = link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST;
  const int error = errno;
  unlink(temporary.c_str());
  errno = error;
  return made;
}

bool write_whole(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool flush_folder(const std::string &path) {
  const UniqueFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Not every folder that may be written may be read, and not every file system can flush one.
  return !folder || fsync(folder.get()) == 0 || errno == EINVAL;
}

void sweep_temporaries(const std::string &file) {
  const std::string folder = folder_of(file), name = file.substr(folder.size() + 1);
  const std::string ours = name + temporary_infix, of_lock = name + "-lock" + temporary_infix;
  const Handle<DIR, closedir> directory(opendir(folder.c_str()));
  if (directory == nullptr) return;
  while (const dirent *entry = readdir(directory.get())) {
    const std::string_view found = entry->d_name;
    const std::string path = folder + '/' + entry->d_name;
    if (found.starts_with(ours) || (found.starts_with(of_lock) && is_old(path))) unlink(path.c_str());
  }
}

bool remove_log(const std::string &file) {
  return remove_if_present(file + "-wal") && remove_if_present(file + "-shm");
}

LogAside set_log_aside(const std::string &file) {
  const std::string log = file + "-wal", journal = file + "-journal";
  struct stat status = {};
  const bool had_log = stat(log.c_str(), &status) == 0 && status.st_size > 0;
  if (had_log && rename(log.c_str(), (log + ".old").c_str()) != 0) return LogAside::failed;
  // SQLite would roll the journal back into the new file.
  if (rename(journal.c_str(), (journal + ".old").c_str()) != 0 && errno != ENOENT) return LogAside::failed;
  if (!remove_log(file)) return LogAside::failed;
  // SQLite would replay it over the database that the record is about to accept.
  if (had_log) static_cast<void>(flush_folder(folder_of(file)));
  return had_log ? LogAside::kept : LogAside::none;
}

std::string set_database_aside(const std::string &file) {
  std::string name;
  for (int copy = 1; copy <= damaged_copies; ++copy) {
    name = file + ".damaged-" + std::to_string(copy);
    if (access(name.c_str(), F_OK) != 0) break;
  }
  if (rename(file.c_str(), name.c_str()) != 0) return "";
  unlink((name + "-wal").c_str());
  rename((file + "-wal").c_str(), (name + "-wal").c_str());
  unlink((file + "-shm").c_str());
  return name;
}

}  // namespace ptz::platform
