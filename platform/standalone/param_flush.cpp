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

constexpr int attempts_at_readers = 50;
constexpr gulong reader_pause_us = 1000;

bool is_empty(const std::string &path) {
  struct stat status = {};
  return stat(path.c_str(), &status) != 0 || status.st_size == 0;
}

// No lock of SQLite's is on the log, so it may be opened and closed.
bool flush_log(const std::string &path) {
  const UniqueFd log(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!log) return errno == ENOENT;
  return fdatasync(log.get()) == 0;
}

// The names of the files, which may be new.
bool flush_folder(const std::string &path) {
  const UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return !folder || fsync(folder.get()) == 0 || errno == EINVAL;
}

}  // namespace

StoreResult ParamTree::sync() {
  const auto result = flush(Flush::sync);
  const MutexLock lock(&lock_);
  if (result == StoreResult::ok) {
    complaint_.clear();
  } else {
    complain(cause_);
  }
  return result;
}

// lock_ not held
StoreResult ParamTree::flush(Flush kind) {
  Patience patience;
  std::shared_ptr<OpenFile> file;
  std::string log;
  bool new_names = false;
  while (file == nullptr) {
    {
      const MutexLock lock(&lock_);
      bool nothing_to_do = false;
      const auto result = begin_flush(kind, nothing_to_do);
      if (result == StoreResult::ok && nothing_to_do) return StoreResult::ok;
      if (result == StoreResult::ok) {
        file = file_;
        log = file_name_ + "-wal";
        new_names = !std::exchange(folder_flushed_, true);
        break;
      }
      if (result != StoreResult::busy || kind != Flush::sync || patience.is_over()) return result;
    }
    patience.pause();
  }
  const auto result = carry_out_flush(file, log, new_names, kind);
  const MutexLock lock(&lock_);
  release_lock();
  flushing_ = false;
  return result;
}

// With lock_. After ok, unless there is nothing to do, this thread holds the tree's lock and `flushing_` is set.
StoreResult ParamTree::begin_flush(Flush kind, bool &nothing_to_do) {
  if (kind == Flush::idle && store_ == nullptr) {
    nothing_to_do = true;  // only a requested flush makes a file or logs a failure
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
  if (!unfinished && (is_empty(file_name_ + "-wal") || (record.flags & Record::copied_whole) != 0)) {
    nothing_to_do = true;
    release_lock();
    return StoreResult::ok;
  }
  struct stat status = {};
  if (fstat(file_->fd.get(), &status) == 0) record.database = stamp_of(status);
  record.flags = Record::flushing;
  record.begun_ns = wall_clock_ns();
  side_->save(record);
  flushing_ = true;
  return StoreResult::ok;
}

// lock_ not held; the tree's lock is. On disk, the record says that a flush is under way before the database changes.
StoreResult ParamTree::carry_out_flush(const std::shared_ptr<OpenFile> &file, const std::string &log, bool new_names,
                                       Flush kind) {
  if (!side_->flush() || !flush_log(log) || (new_names && !flush_folder(folder_of(log)))) {
    const int error = errno;
    const MutexLock lock(&lock_);
    folder_flushed_ = false;
    return fail(StoreResult::failed, system_reason("cannot be flushed", error));
  }
  bool whole = false;
  FileStamp copied;
  for (int attempt = 0; attempt < (kind == Flush::sync ? attempts_at_readers : 1) && !whole; ++attempt) {
    if (attempt > 0) g_usleep(reader_pause_us);
    const MutexLock lock(&lock_);
    if (const auto result = copy_log(whole, copied); result != StoreResult::ok) return result;
  }
  if (fdatasync(file->fd.get()) != 0) {
    const int error = errno;
    const MutexLock lock(&lock_);
    return fail(StoreResult::failed, system_reason("cannot be flushed", error));
  }
  StoreResult result = StoreResult::busy;
  for (int attempt = 0; attempt < (kind == Flush::sync ? attempts_at_readers : 1); ++attempt) {
    if (attempt > 0) g_usleep(reader_pause_us);
    const MutexLock lock(&lock_);
    result = finish_flush(whole, copied);
    if (result != StoreResult::busy) break;
  }
  return result == StoreResult::busy ? StoreResult::ok : result;  // a reader keeps the log, whose content is durable
}

// With both locks. The connection may have been closed for a fork.
StoreResult ParamTree::copy_log(bool &whole, FileStamp &copied) {
  const auto generation = generation_;
  if (const auto result = connect(true); result != StoreResult::ok) return result;
  if (generation != generation_) return fail(StoreResult::failed, "was replaced during a flush");
  const auto result = store_->checkpoint(whole);
  if (result != StoreResult::ok) {
    cause_ = store_->reason();
    disconnect();
    return result;
  }
  struct stat status = {};
  fstat(file_->fd.get(), &status);
  copied = stamp_of(status);
  // From now on, any change of the database is a replacement.
  Record record = side_->load();
  record.database = copied;
  side_->save(record);
  return StoreResult::ok;
}

// With both locks, after the database was flushed.
StoreResult ParamTree::finish_flush(bool whole, const FileStamp &copied) {
  Record record = side_->load();
  struct stat status = {};
  if (stat(file_name_.c_str(), &status) != 0 || stamp_of(status) != copied) {
    record.flags = 0;  // the file was replaced meanwhile: the record differs from it, which the next look finds
    side_->save(record);
    return StoreResult::ok;
  }
  if (const auto result = connect(true); result != StoreResult::ok) return result;
  record.flags = 0;
  StoreResult result = StoreResult::ok;
  if (whole) {
    result = store_->cut_log();
    record.flags = result == StoreResult::ok ? Record::flushed : Record::flushed | Record::copied_whole;
  }
  if (fstat(file_->fd.get(), &status) == 0) record.database = stamp_of(status);
  record.log = store_->log_state();
  side_->save(record);
  // If a reader keeps the log, the next flush is due when it has grown as much again.
  next_flush_pages_ = flush_pages + (whole && result == StoreResult::ok ? 0 : store_->log_pages());
  return whole && result != StoreResult::ok && result != StoreResult::busy ? fail(result, store_->reason()) : result;
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

gpointer ParamTree::flush_when_idle(gpointer tree) {
  auto *self = static_cast<ParamTree *>(tree);
  while (true) {
    gint64 remaining_us = 0;
    {
      const MutexLock lock(&self->lock_);
      remaining_us = self->last_write_us_ + tree_times.idle_us - g_get_monotonic_time();
      if (remaining_us <= 0) self->watching_ = false;  // a write from now on starts another thread
    }
    if (remaining_us <= 0) break;
    g_usleep(static_cast<gulong>(std::min<gint64>(remaining_us, G_USEC_PER_SEC)));
  }
  static_cast<void>(self->flush(Flush::idle));
  return nullptr;
}

}  // namespace ptz::platform
