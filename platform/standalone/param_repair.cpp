// Files of the parameter tree that are not as the record says: missing, put back, damaged.
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/check.h"
#include "param_tree.h"

namespace ptz::platform {
namespace {

constexpr std::int64_t ns_per_us = 1000;

// What the header says of the size of the file, or 0 if it says nothing.
std::int64_t size_in_header(int fd) {
  std::uint8_t header[32] = {};
  if (pread(fd, header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) return 0;
  if (std::memcmp(header, "SQLite format 3", 16) != 0) return 0;
  const std::int64_t page = (header[16] << 8) | header[17];
  const std::int64_t pages =
      (static_cast<std::int64_t>(header[28]) << 24) | (header[29] << 16) | (header[30] << 8) | header[31];
  return (page == 1 ? 65536 : page) * pages;
}

// A backup is in rollback mode. SQLite can change the mode only if no other process has the file open, and one that is
// connected and idle has it open for ever if the backup was copied over the tree. No journal belongs to the file.
void put_in_log_mode(int fd) {
  std::uint8_t header[72] = {};
  if (pread(fd, header, sizeof(header), 0) != static_cast<ssize_t>(sizeof(header))) return;
  const bool rollback_mode = header[18] == 1 && header[19] == 1;
  if (!rollback_mode || std::memcmp(header, "SQLite format 3", 16) != 0 || !is_tree_header(header)) return;
  const std::uint8_t log_mode[] = {2, 2};
  const auto written = pwrite(fd, log_mode, sizeof(log_mode), 18);
  static_cast<void>(written);  // SQLite tries as well, and reports it
}

bool is_in_log_mode(int fd) {
  std::uint8_t modes[2] = {};
  return pread(fd, modes, sizeof(modes), 18) == static_cast<ssize_t>(sizeof(modes)) && modes[0] == 2 && modes[1] == 2;
}

}  // namespace

void ParamTree::record_database(std::uint32_t flags, std::uint32_t generation) const {
  struct stat status = {};
  if (side_ == nullptr || stat(file_name_.c_str(), &status) != 0) return;
  Record record;
  record.database = stamp_of(status);
  record.flags = flags;
  record.generation = generation;
  side_->save(record);
}

// A copy is complete if nothing has written to it for a moment, and it is as long as its header says.
bool ParamTree::is_settled(const struct stat &status, gint64 settled_us) const {
  const std::int64_t age_ns = wall_clock_ns() - stamp_of(status).modified_ns;
  const bool fresh = age_ns > -settled_us * ns_per_us && age_ns < settled_us * ns_per_us;
  if (fresh) return false;
  const bool rather_fresh = age_ns > 0 && age_ns < tree_times.damage_settled_us * ns_per_us;
  return !rather_fresh || file_ == nullptr || status.st_size >= size_in_header(file_->fd.get());
}

// While a program overwrites the file, it is empty for some milliseconds and may still have its old time. So the time
// of the file proves nothing: this process has to have seen the same file for a while.
bool ParamTree::has_stayed_short(const struct stat &status) {
  const gint64 now_us = g_get_monotonic_time();
  if (short_since_us_ == 0 || short_file_ != stamp_of(status)) {
    short_file_ = stamp_of(status);
    short_since_us_ = now_us;
  }
  return now_us - short_since_us_ >= tree_times.damage_settled_us;
}

StoreResult ParamTree::repair(const struct stat &folder) {
  if (!swept_) sweep_temporaries(file_name_);
  swept_ = true;
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0) {
    if (errno == ENOENT) return create(folder);
    return fail(StoreResult::failed, system_reason("cannot be opened", errno));
  }
  if (!S_ISREG(status.st_mode) || !open_file()) return StoreResult::ok;  // opening the store reports it
  const Record record = side_->load();
  if (!side_->is_readable()) return fail(StoreResult::failed, system_reason(side_->path(), errno));
  if (record.version > Record::current_version) {
    return fail(StoreResult::newer,
                "made by a newer release (version " + std::to_string(record.version) + " of its lock file)");
  }
  // SQLite treats a file of less than 512 bytes as a new database.
  if (status.st_size < smallest_database) {
    const char *damage = status.st_size == 0 ? "is empty" : "is cut short";
    return has_stayed_short(status) ? start_anew(folder, damage) : fail(StoreResult::busy, damage);
  }
  short_since_us_ = 0;
  const auto found = side_->compare(record, stamp_of(status));
  if (found == Match::replaced) {
    if (const auto result = accept_replacement(status, record); result != StoreResult::ok) return result;
  } else if (found == Match::unrecorded) {
    if (access((file_name_ + "-journal").c_str(), F_OK) != 0) put_in_log_mode(file_->fd.get());
    record_database(0, record.generation + 1);
  } else if (found == Match::same && record.database != stamp_of(status)) {
    Record same = record;  // a power cut has brought the former time back
    same.database = stamp_of(status);
    same.previous_ns = 0;
    side_->save(same);
  }
  return suspect_ ? examine(folder, status) : StoreResult::ok;
}

// The log of a database that is not there any more. `event` is what happened to it.
StoreResult ParamTree::put_log_aside(const char *event) {
  const auto aside = set_log_aside(file_name_);
  if (aside == LogAside::failed) {
    return fail(StoreResult::failed, system_reason("the log of the former file cannot be set aside", errno));
  }
  const bool kept = aside == LogAside::kept, is_new = std::string_view(event) == "is missing";
  if (kept || !is_new) {
    syslog(LOG_WARNING, "Parameter tree %s: %s%s%s%s", file_name_.c_str(), event,
           kept ? "; the log of the former one is kept in " : "", kept ? file_name_.c_str() : "",
           kept ? "-wal.old" : "");
  }
  return StoreResult::ok;
}

StoreResult ParamTree::create(const struct stat &folder) {
  const auto generation = side_->load().generation;
  if (const auto result = put_log_aside("is missing"); result != StoreResult::ok) return result;
  std::string reason;
  const auto result = make_database(file_name_, folder, reason);
  if (result != StoreResult::ok) return fail(result, reason);
  record_database(Record::flushed, generation + 1);
  suspect_ = false;
  return StoreResult::ok;
}

// Whether another program that uses SQLite, or a process of the first release, has copied the log into the database.
// `log` is set to what SQLite's index of the log says now.
bool ParamTree::has_foreign_checkpoint(const Record &record, LogState &log) const {
  // A checkpoint leaves the database in the mode of the log; a backup of this service has the other mode.
  if (file_ == nullptr || !is_in_log_mode(file_->fd.get())) return false;
  log = last_log_;
  if (log == LogState{}) {
    // A read of the header makes SQLite open the log. The values read here may be stale and are not used.
    Database database;
    std::string ignored;
    int version = 0;
    if (open_database(file_name_, database, ignored) != StoreResult::ok) return false;
    static_cast<void>(check_tree(database.get(), version, ignored));
    log = log_state_of(database.get());
  }
  constexpr LogState unknown;
  if (std::ranges::equal(record.log.salts, unknown.salts) || std::ranges::equal(log.salts, unknown.salts)) return false;
  return !std::ranges::equal(log.salts, record.log.salts) || log.backfilled > record.log.backfilled;
}

StoreResult ParamTree::accept_replacement(const struct stat &status, Record record) {
  LogState log;
  if (status.st_ino == record.database.inode && has_foreign_checkpoint(record, log)) {
    record.database = stamp_of(status);
    record.previous_ns = 0;
    record.flags = 0;
    record.log = log;
    side_->save(record);
    return StoreResult::ok;
  }
  if (!is_settled(status, tree_times.settled_us)) return fail(StoreResult::busy, "is being replaced");
  if (const auto result = put_log_aside("was replaced by another file"); result != StoreResult::ok) return result;
  if (file_ != nullptr) put_in_log_mode(file_->fd.get());
  record_database(Record::flushed, record.generation + 1);
  return StoreResult::ok;
}

// SQLite found damage. I/O errors and a full disk are not damage.
StoreResult ParamTree::examine(const struct stat &folder, const struct stat &status) {
  std::string reason;
  StoreResult result = StoreResult::ok;
  {
    Database database;
    int version = 0;
    result = open_database(file_name_, database, reason);
    if (result == StoreResult::ok) result = check_tree(database.get(), version, reason);
    if (result == StoreResult::ok) result = check_pages(database.get(), reason);
    // The tables of an older release are not yet those of the statements.
    if (result == StoreResult::ok && version == schema.version) {
      static_cast<void>(ParamStore::on(std::move(database), result, reason));
    }
  }
  if (result == StoreResult::ok) suspect_ = false;
  if (result != StoreResult::damaged) return fail(result, reason);
  // The file is not being replaced. Waiting would let another process copy the damaged log into the database.
  const Record record = side_->load();
  const bool is_same = side_->compare(record, stamp_of(status)) == Match::same;
  if (is_same && is_whole_without_log()) return drop_damaged_log(reason);
  if (!is_settled(status, tree_times.damage_settled_us)) return fail(StoreResult::busy, reason);
  return is_whole_without_log() ? drop_damaged_log(reason) : start_anew(folder, reason);
}

// Whether only the log is damaged. A flush that was cut off may have left half of it in the database.
bool ParamTree::is_whole_without_log() const {
  struct stat log = {};
  if (stat((file_name_ + "-wal").c_str(), &log) != 0 || log.st_size == 0) return false;
  Database database;
  std::string ignored;
  int version = 0;
  return open_without_log(file_name_, database, ignored) == StoreResult::ok &&
         check_tree(database.get(), version, ignored) == StoreResult::ok &&
         check_pages(database.get(), ignored) == StoreResult::ok;
}

StoreResult ParamTree::drop_damaged_log(const std::string &damage) {
  if (set_log_aside(file_name_) == LogAside::failed) {
    return fail(StoreResult::failed, system_reason("the damaged log cannot be set aside", errno));
  }
  syslog(LOG_ERR,
         "Parameter tree %s: %s; the log of the last changes is damaged and kept as %s-wal.old, and the tree is as it "
         "was before them",
         file_name_.c_str(), damage.c_str(), file_name_.c_str());
  record_database(Record::flushed, side_->load().generation + 1);
  suspect_ = false;
  return StoreResult::ok;
}

StoreResult ParamTree::start_anew(const struct stat &folder, const std::string &damage) {
  const std::string kept = set_database_aside(file_name_);
  if (kept.empty()) return fail(StoreResult::damaged, damage);
  syslog(LOG_ERR, "Parameter tree %s: %s; it is kept as %s and a new tree is started", file_name_.c_str(),
         damage.c_str(), kept.c_str());
  return create(folder);
}

}  // namespace ptz::platform
