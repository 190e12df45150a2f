// The connection of the tree: opened, followed, closed.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <utility>

#include "param_tree.h"

namespace ptz::platform {
namespace {

std::string database_file() { return folder_from("PTZ_PLATFORM_STATE_DIR", "/var/lib/ptz") + "/params.db"; }

}  // namespace

void ParamTree::disconnect() {
  store_.reset();
  last_log_ = {};
}

// Before the file that was put in place is opened.
void ParamTree::leave_outdated() {
  const LogState log = store_ != nullptr ? store_->log_state() : LogState{};
  disconnect();
  last_log_ = log;
}

StoreResult ParamTree::take_lock() {
  if (flushing_) return fail(StoreResult::busy, "another thread is flushing it");
  if (side_ == nullptr) return fail(StoreResult::read_only, file_name_ + "-lock cannot be opened");
  if (side_->is_writable() && side_->try_lock()) {
    if (side_->is_in_place()) return StoreResult::ok;
    // Other processes use another lock file now. The connection is opened again with that one.
    disconnect();
    side_.reset();
    return fail(StoreResult::busy, "the lock file was replaced");
  }
  if (!side_->is_writable()) {
    return fail(StoreResult::read_only, "no permission to write " + side_->path() + access_of(side_->path()));
  }
  const int error = errno;
  if (error == EAGAIN || error == EACCES) return fail(StoreResult::busy, "database is locked");
  return fail(StoreResult::failed, system_reason(side_->path(), error));
}

void ParamTree::release_lock() {
  if (side_ != nullptr) side_->unlock();
}

// Whether the file is the one that is open, and as the record says.
bool ParamTree::is_current(Record &record) const {
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0 || file_ == nullptr || status.st_ino != file_->inode) return false;
  if (side_ == nullptr) return true;
  record = side_->load();
  const auto found = side_->compare(record, stamp_of(status));
  return (found == Match::same || found == Match::unfinished) && record.generation == generation_;
}

// Whether a connection that is not current can be replaced by a better one.
bool ParamTree::may_repair() const {
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0 || file_ == nullptr || status.st_ino != file_->inode) return true;
  return side_ != nullptr && side_->is_writable();
}

// Connects if necessary, and follows a file that was put in place; reads do so once a second.
StoreResult ParamTree::look() {
  if (store_ == nullptr) return connect(false);
  const gint64 now_us = g_get_monotonic_time();
  if (now_us < next_look_us_) return StoreResult::ok;
  next_look_us_ = now_us + tree_times.look_us;
  Record record;
  if (is_current(record) && (side_ == nullptr || side_->is_in_place())) return StoreResult::ok;
  if (!may_repair()) return StoreResult::ok;
  if (side_ != nullptr && side_->is_writable()) {
    // While another process flushes or writes, reads go on with what they have.
    if (take_lock() == StoreResult::ok) {
      release_lock();
    } else if (store_ != nullptr) {
      next_look_us_ = now_us + tree_times.look_us / 10;
      return StoreResult::ok;
    }
  }
  leave_outdated();
  return connect(false);
}

// `locked`: the caller holds the lock of `side_`, which then stays the same.
StoreResult ParamTree::select_file(struct stat &folder, bool locked) {
  if (std::string file = database_file(); file != file_name_) {
    // The lock that is held is that of the former file.
    if (flushing_ || locked) return fail(StoreResult::busy, "the state folder was changed during an operation");
    file_name_ = std::move(file);
    side_.reset();
    suspect_ = swept_ = false;
    next_flush_pages_ = flush_pages;
    last_log_ = {};
  }
  if (stat(folder_of(file_name_).c_str(), &folder) != 0) {
    return fail(StoreResult::failed, system_reason("cannot be created", errno));
  }
  struct stat status = {};
  // SQLite would put the log beside the target.
  if (lstat(file_name_.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    return fail(StoreResult::failed, "is a symbolic link");
  }
  if (!set_special_files_aside(file_name_)) {
    return fail(StoreResult::failed, system_reason("a file beside it is not a regular file", errno));
  }
  if (!flushing_ && !locked && (side_ == nullptr || !side_->is_in_place())) {
    side_ = ParamLock::open(file_name_, folder);
    const int error = errno;
    // Without its lock the tree can be read. That is for a process that may not write it, not for a lack of resources.
    const bool may_do_without = is_lack_of_permission(error) || error == ENOENT;
    if (side_ == nullptr && (!may_do_without || access(file_name_.c_str(), F_OK) != 0)) {
      return fail(StoreResult::failed, system_reason("cannot be created", error));
    }
  }
  return StoreResult::ok;
}

// `locked`: the caller holds the tree's lock.
StoreResult ParamTree::connect(bool locked) {
  if (store_ != nullptr) return StoreResult::ok;
  if (!fork_safe_) return fail(StoreResult::failed, "no handlers of fork() could be set up");
  struct stat folder = {};
  if (const auto result = select_file(folder, locked); result != StoreResult::ok) return result;
  const bool had_lock_file = side_ != nullptr, taken = !locked && take_lock() == StoreResult::ok;
  if (had_lock_file && side_ == nullptr) return StoreResult::busy;
  struct stat status = {};
  const bool missing = stat(file_name_.c_str(), &status) != 0 && errno == ENOENT;
  StoreResult result = StoreResult::ok;
  if (locked || taken) {
    result = repair(folder);
  } else if (missing || suspect_ || status.st_size < smallest_database) {
    result = take_lock();  // for its cause
    if (result == StoreResult::ok) {
      release_lock();  // it has become free just now
      result = StoreResult::busy;
    }
  } else if (side_ != nullptr && side_->is_writable()) {
    const auto found = side_->compare(side_->load(), stamp_of(status));
    if (found == Match::replaced) result = fail(StoreResult::busy, "database is locked");
  }
  if (result == StoreResult::ok) result = open_store(folder, locked || taken);
  if (taken) release_lock();
  last_log_ = {};
  return result;
}

// The descriptor of the file at the path; the one that is there is kept if it is that file's.
bool ParamTree::open_file() {
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0) return false;
  if (file_ != nullptr && file_->inode == status.st_ino) return true;
  auto file = std::make_shared<OpenFile>();
  file->fd = open_regular(file_name_, O_RDWR);
  if (!file->fd) file->fd = open_regular(file_name_, O_RDONLY);
  if (!file->fd || fstat(file->fd.get(), &status) != 0) return false;
  file->inode = status.st_ino;
  file_ = std::move(file);
  return true;
}

// The statements of this release cannot be prepared in a tree of an older one, so it is not opened without the lock.
StoreResult ParamTree::needs_upgrade(std::string &reason) const {
  reason = "has to be upgraded by a process that can write it";
  return side_ != nullptr && side_->is_writable() ? StoreResult::busy : StoreResult::read_only;
}

StoreResult ParamTree::open_store(const struct stat &folder, bool locked) {
  if (!open_file()) return fail(StoreResult::failed, system_reason("cannot be opened", errno));
  folder_flushed_ = false;
  for (const char *suffix : {"", "-wal", "-shm"}) repair_access(file_name_ + suffix, folder);
  Database database;
  int version = 0;
  bool changed = false;
  std::string reason;
  StoreResult result = open_database(file_name_, database, reason);
  if (result == StoreResult::ok) result = check_tree(database.get(), version, reason);
  if (result == StoreResult::ok && locked) result = use_write_ahead_log(database.get(), changed);
  if (result == StoreResult::ok && version < schema.version) {
    result = locked ? upgrade(database.get(), version, schema.steps, schema.version, reason) : needs_upgrade(reason);
  }
  if (result == StoreResult::ok) store_ = ParamStore::on(std::move(database), result, reason);
  if (result != StoreResult::ok) {
    if (result == StoreResult::damaged) suspect_ = true;
    return fail(result, reason.empty() ? "cannot be opened" : reason);
  }
  for (const char *suffix : {"-wal", "-shm"}) repair_access(file_name_ + suffix, folder);
  if (side_ != nullptr) generation_ = side_->load().generation;
  if (changed) record_database(Record::flushed, generation_);
  if (locked) record_unknown_log();
  next_look_us_ = g_get_monotonic_time() + tree_times.look_us;
  return StoreResult::ok;
}

// With the tree's lock. Beside a log of the first release, its checkpoints are to be told from a replacement.
void ParamTree::record_unknown_log() const {
  Record record = side_->load();
  if (record.log != LogState{} || (record.flags & Record::flushed) != 0) return;
  record.log = store_->log_state();
  side_->save(record);
}

}  // namespace ptz::platform
