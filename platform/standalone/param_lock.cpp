#include "param_lock.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstddef>

namespace ptz::platform {
namespace {

// A checkpoint of a tree takes milliseconds; a stalled disk may take longer. A file that is put in the database's place
// later than this is then distinguishable from the result of an interrupted flush.
constexpr std::int64_t flush_window_ns = 60'000'000'000;

bool is_soon_after(std::int64_t begun_ns, std::int64_t time_ns) {
  // A file's time is that of the last clock tick, which may be before the exact one.
  constexpr std::int64_t tick_ns = 20'000'000;
  return time_ns >= begun_ns - tick_ns && time_ns <= begun_ns + flush_window_ns;
}

// A number that differs after the system has started anew, with one chance of 2^32 to be wrong; 0 if it is not known.
std::uint32_t this_boot() {
  static const std::uint32_t number = [] {
    char text[64] = {};
    const UniqueFd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    const ssize_t size = file ? read(file.get(), text, sizeof(text)) : 0;
    std::uint32_t hash = size > 0 ? 2166136261U : 0;
    for (ssize_t i = 0; i < size; ++i) hash = (hash ^ static_cast<unsigned char>(text[i])) * 16777619U;
    return hash;
  }();
  return number;
}

bool lock_with(int fd, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  int result = -1;
  do {
    result = fcntl(fd, F_SETLK, &lock);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

}  // namespace

Match match(const Record &record, std::uint64_t lock_inode, const FileStamp &database) {
  if (record.magic != Record::magic_number || record.own_inode != lock_inode) return Match::unrecorded;
  const bool recent = record.boot != 0 && record.boot == this_boot();
  const std::uint32_t change = Record::copying | Record::moving | (recent ? 0U : Record::flushing);
  const bool changing = (record.flags & change) != 0;
  if (record.database == database) return changing ? Match::unfinished : Match::same;
  const bool has_previous_time = !recent && record.previous_ns != 0 && record.previous_ns == database.modified_ns;
  const bool only_time_differs = record.database.inode == database.inode && record.database.size == database.size;
  if (!changing && has_previous_time && only_time_differs) return Match::same;
  if (!changing || record.database.inode != database.inode) return Match::replaced;
  if ((record.flags & Record::moving) != 0 && record.database.size != database.size) return Match::replaced;
  // A move sets a later time than the recorded one, also if the clock was set back meanwhile.
  const bool follows =
      (record.flags & Record::moving) != 0 && is_soon_after(record.database.modified_ns, database.modified_ns);
  // After a power cut, the pages that a flush wrote may be there without their time.
  const bool has_same_time = !recent && record.database.modified_ns == database.modified_ns;
  const bool is_ours =
      follows || has_same_time || has_previous_time || is_soon_after(record.begun_ns, database.modified_ns);
  return is_ours ? Match::unfinished : Match::replaced;
}

std::unique_ptr<ParamLock> ParamLock::open(const std::string &file, const struct stat &folder) {
  const std::string path = file + "-lock";
  if (access(path.c_str(), F_OK) != 0 && !create_shared_file(path, folder)) return nullptr;
  repair_access(path, folder);
  bool writable = true;
  UniqueFd fd = open_regular(path, O_RDWR);
  if (!fd && is_lack_of_permission(errno)) {
    writable = false;
    fd = open_regular(path, O_RDONLY);
  }
  struct stat status = {};
  if (!fd || fstat(fd.get(), &status) != 0) return nullptr;
  std::unique_ptr<ParamLock> lock(new ParamLock(path, std::move(fd), writable));
  lock->inode_ = status.st_ino;
  return lock;
}

bool ParamLock::try_lock() { return lock_with(fd_.get(), F_WRLCK); }
void ParamLock::unlock() { lock_with(fd_.get(), F_UNLCK); }

bool ParamLock::is_in_place() const {
  struct stat status = {};
  return stat(path_.c_str(), &status) == 0 && status.st_ino == inode_;
}

Record ParamLock::load() const {
  constexpr auto shortest = static_cast<ssize_t>(offsetof(Record, previous_ns));  // as it was at first
  Record record;
  ssize_t size = 0, count = 0;
  do {
    count = pread(fd_.get(), reinterpret_cast<char *>(&record) + size, sizeof(record) - static_cast<std::size_t>(size),
                  size);
    if (count > 0) size += count;
  } while ((count > 0 && size < static_cast<ssize_t>(sizeof(record))) || (count < 0 && errno == EINTR));
  readable_ = count >= 0;
  if (size < shortest || record.magic != Record::magic_number) record = {};
  if (record.version != Record::current_version) {
    const auto version = record.version;
    record = {};
    record.version = version;
  }
  return record;
}

bool ParamLock::save(Record record) const {
  if (!readable_) return false;  // it would replace what could not be read
  record.own_inode = inode_;
  record.saved_ns = wall_clock_ns();
  record.boot = this_boot();
  return pwrite(fd_.get(), &record, sizeof(record), 0) == static_cast<ssize_t>(sizeof(record));
}

Match ParamLock::compare(const Record &record, const FileStamp &database) const {
  if (!readable_) return Match::same;  // nothing shows that it was replaced
  const auto found = match(record, inode_, database);
  if (found != Match::replaced) return found;
  // The inode of the lock file is no proof: numbers are used again, and `cp` writes to the file that exists.
  constexpr std::int64_t tick_ns = 50'000'000;
  struct stat status = {};
  if (fstat(fd_.get(), &status) != 0) return found;
  const std::int64_t since_save_ns = stamp_of(status).modified_ns - record.saved_ns;
  return since_save_ns >= -tick_ns && since_save_ns <= tick_ns ? found : Match::unrecorded;
}

bool ParamLock::flush() const { return fdatasync(fd_.get()) == 0; }

}  // namespace ptz::platform
