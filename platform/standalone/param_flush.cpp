// Flushes of the log: what SQLite does in a checkpoint, with fsync() outside of the lock.
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/check.h"
#include "param_tree.h"

namespace ptz::platform {
namespace {

constexpr gint64 longest_idle_pause_us = 60 * G_USEC_PER_SEC;

bool is_empty(const std::string &path) {
  struct stat status = {};
  return stat(path.c_str(), &status) != 0 || status.st_size == 0;
}

// No lock of SQLite's is on the log, so it may be opened and closed.
bool flush_log(const std::string &path) {
  const UniqueFd log = open_regular(path, O_RDONLY);
  if (!log) return errno == ENOENT;
  return fdatasync(log.get()) == 0;
}

}  // namespace

StoreResult ParamTree::sync(std::string *reason) {
  Patience patience;
  std::string cause;
  const auto result = flush(Flush::sync, patience, cause);
  const MutexLock lock(&lock_);
  if (result == StoreResult::ok) {
    complaint_.clear();
  } else {
    complain(cause);
  }
  if (reason != nullptr) *reason = std::move(cause);
  return result;
}

// lock_ not held
StoreResult ParamTree::flush(Flush kind, Patience &patience, std::string &cause) {
  const bool waits = kind == Flush::sync || kind == Flush::finish;
  while (true) {
    const auto result = attempt_flush(kind, cause);
    if (result == StoreResult::ok) return result;
    if (result != StoreResult::busy || !waits || patience.is_over()) {
      if (!waits && result != StoreResult::busy) report_failed_flush(cause);
      return result;
    }
    patience.pause();
  }
}

// lock_ not held. busy if another process is in the way, also of a complete copy of the log.
StoreResult ParamTree::attempt_flush(Flush kind, std::string &cause) {
  std::shared_ptr<OpenFile> file;
  std::string log;
  bool new_names = false;
  {
    const MutexLock lock(&lock_);
    bool nothing_to_do = false;
    const auto result = begin_flush(kind, nothing_to_do);
    if (result != StoreResult::ok || nothing_to_do) {
      cause = cause_;
      return result;
    }
    file = file_;
    log = file_name_ + "-wal";
    new_names = !std::exchange(folder_flushed_, true);
  }
  auto result = carry_out_flush(file, log, new_names, cause);
  const MutexLock lock(&lock_);
  release_lock();
  flushing_ = false;
  // What was copied is durable. Only a sync promises that nothing else is in the log, and only an idle flush cuts it.
  const bool partial = result == StoreResult::busy && flush_state_ != FlushState::failed;
  if (partial && (kind == Flush::finish || kind == Flush::threshold)) result = StoreResult::ok;
  if (partial && kind == Flush::sync && flush_state_ == FlushState::whole) result = StoreResult::ok;
  return result;
}

// A flush that nothing waits for. The next one is attempted when the log has grown as much again.
void ParamTree::report_failed_flush(const std::string &cause) {
  const MutexLock lock(&lock_);
  if (store_ != nullptr) next_flush_pages_ = store_->log_pages() + flush_pages;
  if (may_log()) syslog(LOG_ERR, "Parameter tree %s: %s", file_name_.c_str(), cause.c_str());
}

// With lock_. After ok, unless there is nothing to do, this thread holds the tree's lock and `flushing_` is set.
StoreResult ParamTree::begin_flush(Flush kind, bool &nothing_to_do) {
  if (kind == Flush::idle && store_ == nullptr) {
    nothing_to_do = true;  // an idle flush creates no file and logs nothing
    return StoreResult::ok;
  }
  if (const auto connected = connect(false); connected != StoreResult::ok) return connected;
  if (const auto taken = take_lock(); taken != StoreResult::ok) return taken;
  Record record;
  if (!is_current(record)) {
    leave_outdated();
    const auto followed = kind == Flush::idle ? StoreResult::busy : connect(true);
    if (followed != StoreResult::ok) {
      release_lock();
      return followed;
    }
    record = side_->load();
  }
  const bool unfinished = (record.flags & Record::flushing) != 0;
  const bool copied = (record.flags & Record::copied_whole) != 0;
  if (!unfinished && (copied || is_empty(file_name_ + "-wal"))) {
    nothing_to_do = true;
    const bool kept = copied && kind == Flush::idle && !cut_copied_log(record);
    release_lock();
    return kept ? fail(StoreResult::busy, "a reader of another process keeps the log") : StoreResult::ok;
  }
  struct stat status = {};
  if (fstat(file_->fd.get(), &status) == 0) record.database = stamp_of(status);
  record.flags = Record::flushing;
  record.begun_ns = wall_clock_ns();
  if (!side_->save(record)) {
    const auto failed = fail_to_record(errno);
    release_lock();
    return failed;
  }
  flushing_ = true;
  return StoreResult::ok;
}

// Before the database changes. On disk, the record then says that a flush is under way, and it has the time of the
// database: the present one, or the one before the last move.
bool ParamTree::flush_before_copy(int database, const std::string &log, bool new_names) const {
  const bool knows_time = side_->load().previous_ns != 0;
  return (knows_time || fsync(database) == 0) && side_->flush() && flush_log(log) &&
         (!new_names || flush_folder(folder_of(log)));
}

// lock_ not held; the tree's lock is.
StoreResult ParamTree::carry_out_flush(const std::shared_ptr<OpenFile> &file, const std::string &log, bool new_names,
                                       std::string &cause) {
  flush_state_ = FlushState::failed;
  if (!flush_before_copy(file->fd.get(), log, new_names)) {
    cause = system_reason("cannot be flushed", errno);
    const MutexLock lock(&lock_);
    folder_flushed_ = false;
    return fail(StoreResult::failed, cause);
  }
  bool whole = false;
  FileStamp copied;
  {
    const MutexLock lock(&lock_);
    if (const auto result = copy_log(whole, copied); result != StoreResult::ok) {
      cause = cause_;
      return result;
    }
  }
  if (fsync(file->fd.get()) != 0) {
    cause = system_reason("cannot be flushed", errno);
    const MutexLock lock(&lock_);
    return fail(StoreResult::failed, cause);
  }
  Record record;
  StoreResult result = StoreResult::failed;
  bool cut = false;
  {
    const MutexLock lock(&lock_);
    result = cut_flushed_log(whole, copied, record, cut);
    cause = cause_;
  }
  // The next write begins the log anew. Without this flush, a power cut could leave a part of the old log with it.
  if (cut && !flush_log(log)) {
    cause = system_reason("cannot be flushed", errno);
    flush_state_ = FlushState::failed;
    return StoreResult::failed;  // the record says that the flush is unfinished
  }
  if (flush_state_ == FlushState::failed) return result;
  const MutexLock lock(&lock_);
  side_->save(record);
  return result;
}

// With both locks. The connection may have been closed for a fork.
StoreResult ParamTree::copy_log(bool &whole, FileStamp &copied) {
  const auto generation = generation_;
  if (const auto result = connect(true); result != StoreResult::ok) return result;
  struct stat status = {};
  Record record = side_->load();
  if (fstat(file_->fd.get(), &status) != 0 || stamp_of(status) != record.database || generation != generation_) {
    record.flags = 0;  // the record differs from the file, which the next look finds
    side_->save(record);
    return fail(StoreResult::busy, "was replaced during a flush");
  }
  record.flags |= Record::copying;
  record.begun_ns = wall_clock_ns();
  side_->save(record);
  const auto result = store_->checkpoint(whole);
  if (result != StoreResult::ok) {
    cause_ = store_->reason();
    if (result != StoreResult::full) disconnect();
    return result;
  }
  // If its time is not known, the record goes on to say that a flush is under way.
  if (fstat(file_->fd.get(), &status) != 0) return fail(StoreResult::failed, system_reason("cannot be flushed", errno));
  copied = stamp_of(status);
  // From now on, any change of the database is a replacement.
  record.database = copied;
  record.flags &= ~static_cast<std::uint32_t>(Record::copying);
  side_->save(record);
  return StoreResult::ok;
}

// With both locks, after the database was flushed. `record` is what is to be saved, unless the flush has failed.
StoreResult ParamTree::cut_flushed_log(bool whole, const FileStamp &copied, Record &record, bool &cut) {
  record = side_->load();
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0 || stamp_of(status) != copied) {
    record.flags = 0;  // the record differs from the file, which the next look finds
    side_->save(record);
    return fail(StoreResult::busy, "was replaced during a flush");
  }
  if (const auto result = connect(true); result != StoreResult::ok) return result;
  record.flags = 0;
  StoreResult result = StoreResult::busy;
  if (whole) {
    result = store_->cut_log();
    cut = result == StoreResult::ok;
    record.flags = cut ? Record::flushed : Record::flushed | Record::copied_whole;
  }
  flush_state_ = whole ? FlushState::whole : FlushState::partial;
  record.database = copied;
  record.previous_ns = 0;
  record.log = store_->log_state();
  // If a reader keeps the log, the next flush is due when it has grown as much again.
  next_flush_pages_ = flush_pages + (cut ? 0 : store_->log_pages());
  if (result == StoreResult::ok) return result;
  return fail(result, result == StoreResult::busy ? "a reader of another process keeps the log" : store_->reason());
}

// --- idleness ----------------------------------------------------------------------------------------------------

// With lock_. A thread of its own empties the log when this process has not written for a while.
void ParamTree::watch_for_idleness() {
  last_write_us_ = g_get_monotonic_time();
  if (watching_) return;
  GThread *thread = g_thread_try_new("ptz-param-flush", flush_when_idle, this, nullptr);
  watching_ = thread != nullptr;
  if (thread != nullptr) g_thread_unref(thread);
}

// Returns when the process has not written for a while.
gint64 ParamTree::wait_for_idleness() {
  while (true) {
    gint64 last_write_us = 0;
    {
      const MutexLock lock(&lock_);
      last_write_us = last_write_us_;
    }
    const gint64 remaining_us = last_write_us + tree_times.idle_us - g_get_monotonic_time();
    if (remaining_us <= 0) return last_write_us;
    g_usleep(static_cast<gulong>(std::min<gint64>(remaining_us, G_USEC_PER_SEC)));
  }
}

gpointer ParamTree::flush_when_idle(gpointer tree) {
  auto *self = static_cast<ParamTree *>(tree);
  gint64 pause_us = tree_times.idle_us;
  while (true) {
    const gint64 last_write_us = self->wait_for_idleness();
    Patience patience;
    std::string cause;
    const auto result = self->flush(Flush::idle, patience, cause);
    {
      const MutexLock lock(&self->lock_);
      if (result != StoreResult::busy && self->last_write_us_ == last_write_us) {
        self->watching_ = false;  // a write from now on starts another thread
        return nullptr;
      }
    }
    if (result != StoreResult::busy) continue;
    g_usleep(static_cast<gulong>(pause_us));
    pause_us = std::min(2 * pause_us, longest_idle_pause_us);
  }
}

}  // namespace ptz::platform
