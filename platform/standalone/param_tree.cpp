#include "param_tree.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/check.h"

namespace ptz::platform {
namespace {

constexpr gulong longest_pause_us = 2000;
constexpr gint64 slow_flush_us = 50'000;

// Returns false if the operation may be tried again.
bool is_answer(StoreResult result) {
  switch (result) {
    case StoreResult::ok:
    case StoreResult::not_found:
    case StoreResult::exists:
    case StoreResult::path_too_long:
    case StoreResult::value_too_long:
      return true;
    default:
      return false;
  }
}

GMutex fork_gate = {};

}  // namespace

TreeTimes tree_times;

ForkGate::ForkGate() {
  static_cast<void>(ParamTree::instance());  // its handlers of fork() take the gate
  g_mutex_lock(&fork_gate);
}
ForkGate::~ForkGate() { g_mutex_unlock(&fork_gate); }

bool ParamTree::Patience::is_over() {
  const gint64 now_us = g_get_monotonic_time();
  if (end_us_ == 0) end_us_ = now_us + tree_times.busy_limit_us;
  return now_us >= end_us_;
}

void ParamTree::Patience::pause() {
  g_usleep(pause_us_);
  pause_us_ = std::min(2 * pause_us_, longest_pause_us);
}

// Never destroyed: threads may use it while the process exits.
ParamTree &ParamTree::instance() {
  static auto *const tree = new ParamTree;
  return *tree;
}

ParamTree::ParamTree() {
  fork_safe_ = pthread_atfork(
                   [] {
                     g_mutex_lock(&fork_gate);
                     g_mutex_lock(&instance().lock_);
                     instance().disconnect();
                   },
                   [] {
                     g_mutex_unlock(&instance().lock_);
                     g_mutex_unlock(&fork_gate);
                   },
                   [] {
                     // The threads are the parent's, and so are the locks of files.
                     instance().flushing_ = instance().watching_ = false;
                     instance().next_line_us_ = 0;
                     g_mutex_unlock(&instance().lock_);
                     g_mutex_unlock(&fork_gate);
                   }) == 0;
}

StoreResult ParamTree::fail(StoreResult result, std::string cause) {
  cause_ = std::move(cause);
  return result;
}

// Some file systems need room to overwrite. What follows would not fit the record.
StoreResult ParamTree::fail_to_record(int error) {
  return fail(error == ENOSPC || error == EDQUOT ? StoreResult::full : StoreResult::failed,
              system_reason(side_->path(), error));
}

std::string ParamTree::access_of(const std::string &path) const {
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) return "";
  const Text text(g_strdup_printf(" (owner %u, group %u, mode %04o)", static_cast<unsigned>(status.st_uid),
                                  static_cast<unsigned>(status.st_gid), static_cast<unsigned>(status.st_mode & 07777)));
  return text.get();
}

void ParamTree::complain(const std::string &cause) {
  std::string complaint = "Parameter tree " + file_name_ + ": " + cause;
  if (complaint != complaint_) syslog(LOG_ERR, "%s", complaint.c_str());
  complaint_ = std::move(complaint);
}

bool ParamTree::may_log() {
  const gint64 now_us = g_get_monotonic_time();
  if (now_us < next_line_us_) return false;
  next_line_us_ = now_us + tree_times.log_line_us;
  return true;
}

void ParamTree::report_bad_path(const char *path) {
  const MutexLock lock(&lock_);
  if (may_log()) syslog(LOG_ERR, "Parameter %.200s: not written: not the path of a parameter", path);
}

// The layer above has to report success for a new parameter that was not written, so the log is the only report.
void ParamTree::lose_write(const char *path, StoreResult result) {
  if (result == StoreResult::value_too_long)
    cause_ = "the value is longer than " G_STRINGIFY(PARAM_SERVICE_VALUE_MAX) " bytes";
  if (may_log()) syslog(LOG_ERR, "Parameter %s: not written to %s: %s", path, file_name_.c_str(), cause_.c_str());
}

StoreResult ParamTree::read(Operation operation, std::string *reason) {
  Patience patience;
  while (true) {
    {
      const MutexLock lock(&lock_);
      StoreResult result = look();
      if (result == StoreResult::ok) {
        result = operation(*store_);
        if (is_answer(result)) {
          complaint_.clear();
          return result;
        }
        cause_ = store_->reason();
        if (result != StoreResult::busy) disconnect();
      }
      if (result == StoreResult::damaged && may_repair() && patience.may_suspect()) {
        suspect_ = true;
        result = StoreResult::busy;
      }
      if (result != StoreResult::busy || patience.is_over()) {
        complain(cause_);
        if (reason != nullptr) *reason = cause_;
        return result;
      }
    }
    patience.pause();
  }
}

StoreResult ParamTree::write(const char *path, Operation operation, std::string *reason) {
  Patience patience;
  bool flushed = false;
  while (true) {
    bool flush_first = false;
    int pages = 0;
    {
      const MutexLock lock(&lock_);
      StoreResult result = attempt_write(operation, flushed, flush_first);
      if (is_answer(result)) {
        if (result == StoreResult::value_too_long) lose_write(path, result);
        if (result != StoreResult::ok) return result;
        complaint_.clear();
        watch_for_idleness();
        pages = store_->log_pages();
        if (pages < next_flush_pages_) return result;
      } else if (!flush_first) {
        if (result == StoreResult::damaged && may_repair() && patience.may_suspect()) {
          suspect_ = true;
          result = StoreResult::busy;
        }
        flush_first = result == StoreResult::full && !flushed;  // the log may have room to give back
        if (!flush_first && (result != StoreResult::busy || patience.is_over())) {
          lose_write(path, result);
          if (reason != nullptr) *reason = cause_;
          return result;
        }
      }
    }
    std::string ignored;
    if (pages > 0) {
      flush_and_yield();
      return StoreResult::ok;
    }
    if (flush_first) {
      static_cast<void>(flush(Flush::finish, patience, ignored));
      flushed = true;  // also if it failed: the write may succeed
    } else {
      patience.pause();
    }
  }
}

// Other processes poll for the tree's lock. Without the pause, a process that writes in a loop to a slow disk takes it
// again at once.
void ParamTree::flush_and_yield() {
  const gint64 begun_us = g_get_monotonic_time();
  Patience patience;
  std::string ignored;
  static_cast<void>(flush(Flush::threshold, patience, ignored));
  if (g_get_monotonic_time() - begun_us > slow_flush_us) g_usleep(3 * longest_pause_us);
}

StoreResult ParamTree::attempt_write(Operation operation, bool flushed, bool &flush_first) {
  if (const auto connected = connect(false); connected != StoreResult::ok) return connected;
  if (const auto taken = take_lock(); taken != StoreResult::ok) return taken;
  Record record;
  StoreResult result = prepare_write(record, flushed, flush_first);
  if (result == StoreResult::ok) {
    const bool first = (record.flags & Record::flushed) != 0;
    if (first) result = move_time(record);
    if (result != StoreResult::ok) {
      release_lock();
      return result;
    }
    const bool begins_anew = (record.flags & Record::copied_whole) != 0;
    if (begins_anew) store_->flush_writes(true);
    result = operation(*store_);
    if (begins_anew) store_->flush_writes(false);
    if (result == StoreResult::ok && (first || begins_anew)) {
      record.log = store_->log_state();
      record.flags &= ~static_cast<std::uint32_t>(Record::copied_whole);
      side_->save(record);
    }
    if (!is_answer(result)) {
      cause_ = store_->reason();
      if (result == StoreResult::read_only) cause_ += access_of(file_name_);
      // The file may be a better one when it is opened again. On a full disk it could not be: the log's index needs
      // room.
      if (result != StoreResult::busy && result != StoreResult::full) disconnect();
    }
  }
  release_lock();
  return result;
}

// With the tree's lock. Makes sure that the log belongs to the database.
StoreResult ParamTree::prepare_write(Record &record, bool flushed, bool &flush_first) {
  if (!is_current(record)) {
    leave_outdated();
    if (const auto result = connect(true); result != StoreResult::ok) return result;
    record = side_->load();
  }
  if ((record.flags & Record::flushing) != 0 && !flushed) {
    flush_first = true;  // a flush was cut off
    return StoreResult::busy;
  }
  if ((record.flags & Record::copied_whole) != 0) static_cast<void>(cut_copied_log(record));
  return StoreResult::ok;
}

// With both locks. Returns false if a reader of another process is in the way. The cut is not durable, so the record
// keeps `copied_whole`: the next write flushes the header of the log that it begins.
bool ParamTree::cut_copied_log(Record &record) {
  if (store_->cut_log() != StoreResult::ok) return false;
  struct stat status = {};
  if (fstat(file_->fd.get(), &status) == 0) record.database = stamp_of(status);
  record.previous_ns = 0;
  side_->save(record);
  return true;
}

// The first write after a flush: copies made until now have another time than the database from now on. busy if the
// clock of the file system has to move on first.
StoreResult ParamTree::move_time(Record &record) {
  const int fd = file_->fd.get();
  struct stat status = {};
  // A file that was overwritten since the look must not be recorded as ours, neither now nor below.
  if (fstat(fd, &status) != 0) return fail(StoreResult::busy, "is being replaced");
  if (stamp_of(status) != record.database) {
    if (side_->compare(record, stamp_of(status)) != Match::unfinished) {
      return fail(StoreResult::busy, "is being replaced");
    }
    record.database = stamp_of(status);  // the process that moved the time ended before it could record it
  }
  if ((record.flags & Record::moving) == 0) record.previous_ns = record.database.modified_ns;
  const Record before = record;
  record.flags |= Record::moving;
  record.begun_ns = wall_clock_ns();
  if (!side_->save(record)) return fail_to_record(errno);
  const auto has_moved = [&] {
    return fstat(fd, &status) == 0 && stamp_of(status).modified_ns != record.database.modified_ns;
  };
  // Some file systems keep whole seconds only.
  for (const std::int64_t later_ns : {1LL, 1'000'000'000LL, 2'000'000'000LL}) {
    const timespec times[] = {{0, UTIME_OMIT},
                              timespec_of(std::max(wall_clock_ns(), record.database.modified_ns + later_ns))};
    if (futimens(fd, times) != 0 || has_moved()) break;
  }
  // Only the owner can choose the time; another user who can write the file can set the present one.
  bool settable = true;
  if (!has_moved()) settable = futimens(fd, nullptr) == 0;
  if (settable && !has_moved()) return fail(StoreResult::busy, "the time of the file has not moved on");
  if (!settable && !std::exchange(time_reported_, true)) {
    syslog(LOG_WARNING, "Parameter tree %s: its time cannot be set (%m); copies that are put back are not recognised",
           file_name_.c_str());
  }
  if (status.st_size != before.database.size) {
    side_->save(before);  // differs from the file now, which the next look finds
    return fail(StoreResult::busy, "is being replaced");
  }
  record.database = stamp_of(status);
  record.flags &= ~static_cast<std::uint32_t>(Record::flushed | Record::moving);
  record.log = {};
  side_->save(record);
  return StoreResult::ok;
}

}  // namespace ptz::platform
