// platform/standalone/param_tree.h - this process's connection to the parameter tree: waiting, following, flushing.
//
// Locks, in the order in which they are taken:
//  0. The gate of forks (ForkGate). Reads do not wait for it.
//  1. `lock_`, of the threads of this process. Reads and forks wait for it, so it is not held over a sleep, and over a
//     flush only if a program that does not know these locks uses the database too (ParamStore::cut_log).
//  2. The lock of params.db-lock, of the processes (param_lock.h). A writer holds it for one transaction, under
//     `lock_`. A flush holds it from beginning to end; `flushing_` keeps the other threads away from it meanwhile.
// If either is busy, an operation waits without `lock_` and tries again, ten seconds at most.
//
// A flush (param_flush.cpp) makes the log durable, copies it into the database, makes the database durable, empties the
// log and makes that durable. The connection is at synchronous = OFF, and at NORMAL only for the cut, which has nothing
// to flush then.
//
// The connection is closed before a fork, because SQLite's state must not be used on the other side. A flush that is
// under way in another thread is inside fsync() then, at descriptors of our own, and goes on in the parent.
#pragma once
#include <glib.h>
#include <memory>
#include <string>
#include <type_traits>

#include "param_lock.h"
#include "param_store.h"

namespace ptz::platform {

// Tests make these small.
struct TreeTimes {
  gint64 busy_limit_us = 10 * G_USEC_PER_SEC;     // of waiting for other processes
  gint64 look_us = G_USEC_PER_SEC;                // between looks of a reader at the file
  gint64 log_line_us = G_USEC_PER_SEC;            // between lines about lost writes
  gint64 idle_us = 2 * G_USEC_PER_SEC;            // without a write, after which the log is emptied
  gint64 settled_us = 300 * 1000;                 // a file put in place is complete if it has not changed for so long
  gint64 damage_settled_us = 2 * G_USEC_PER_SEC;  // the same of a damaged one, which may be a slow copy
};
extern TreeTimes tree_times;

// A database has one page at least, of 512 bytes at least.
constexpr off_t smallest_database = 512;

// The log is flushed when it has so many pages. One transaction may make it longer.
constexpr int flush_pages = 100;

// Keeps forks out while a thread uses SQLite without the tree's lock, of databases other than the tree.
class ForkGate {
 public:
  ForkGate();
  ForkGate(ForkGate &&) = delete;
  ~ForkGate();
};

class [[gnu::visibility("hidden")]] ParamTree {
 public:
  // An operation on the store; borrowed.
  class Operation {
    void *context_;
    StoreResult (*call_)(void *, ParamStore &);

   public:
    template <typename Function>
    requires(!std::is_same_v<std::remove_cvref_t<Function>, Operation>)
        Operation(Function &&function)  // NOLINT: converts like std::function_ref
        : context_(&function), call_([](void *context, ParamStore &store) {
            return (*static_cast<std::remove_reference_t<Function> *>(context))(store);
          }) {}
    StoreResult operator()(ParamStore &store) const { return call_(context_, store); }
  };

  static ParamTree &instance();

  // `reason` is set to the cause of a failure.
  [[nodiscard]] StoreResult read(Operation operation, std::string *reason = nullptr);
  // The path is for the log line if the write is lost.
  [[nodiscard]] StoreResult write(const char *path, Operation operation, std::string *reason = nullptr);
  // Afterwards params.db alone is the tree, and durable. Waits for readers of other processes, ten seconds at most.
  [[nodiscard]] StoreResult sync(std::string *reason = nullptr);
  // Logs a write that is lost because its path is malformed.
  void report_bad_path(const char *path);
  // Puts a database file with this content in the place of the tree's. Reads go on with the former tree meanwhile.
  [[nodiscard]] StoreResult replace_by(const std::string &image, std::string &reason);

 private:
  enum class Flush {
    sync,       // waits until the whole log is in the database
    finish,     // waits for other flushes only
    threshold,  // does not wait
    idle,       // does not wait, and is not done before the log is empty
  };
  enum class FlushState { failed, partial, whole };  // how much of the log is in the database, and durable
  struct OpenFile;
  class Patience;

  ParamTree();
  // All of the following with lock_ held, unless they say otherwise.
  [[nodiscard]] StoreResult look();
  [[nodiscard]] bool is_current(Record & record) const;
  [[nodiscard]] bool may_repair() const;
  void disconnect();
  void leave_outdated();
  [[nodiscard]] StoreResult connect(bool locked);
  [[nodiscard]] StoreResult select_file(struct stat & folder, bool locked);
  [[nodiscard]] StoreResult open_store(const struct stat &folder, bool locked);
  [[nodiscard]] StoreResult needs_upgrade(std::string & reason) const;
  [[nodiscard]] bool open_file();
  void record_unknown_log() const;
  [[nodiscard]] StoreResult take_lock();
  void release_lock();

  // Of a file that is not as recorded (param_repair.cpp); the tree's lock is held as well.
  [[nodiscard]] StoreResult repair(const struct stat &folder);
  [[nodiscard]] StoreResult put_log_aside(const char *event);
  [[nodiscard]] StoreResult create(const struct stat &folder);
  [[nodiscard]] StoreResult accept_replacement(const struct stat &status, Record record);
  [[nodiscard]] StoreResult examine(const struct stat &folder, const struct stat &status);
  [[nodiscard]] bool is_whole_without_log() const;
  [[nodiscard]] StoreResult drop_damaged_log(const std::string &damage);
  [[nodiscard]] StoreResult start_anew(const struct stat &folder, const std::string &damage);
  [[nodiscard]] bool has_foreign_checkpoint(const Record &record, LogState &log) const;
  [[nodiscard]] bool is_settled(const struct stat &status, gint64 settled_us) const;
  [[nodiscard]] bool has_stayed_short(const struct stat &status);
  void record_database(std::uint32_t flags, std::uint32_t generation) const;

  void flush_and_yield();
  [[nodiscard]] StoreResult attempt_write(Operation operation, bool flushed, bool &flush_first);
  [[nodiscard]] StoreResult prepare_write(Record & record, bool flushed, bool &flush_first);
  [[nodiscard]] StoreResult move_time(Record & record);
  [[nodiscard]] bool cut_copied_log(Record & record);
  void complain(const std::string &cause);
  [[nodiscard]] bool may_log();  // one line a second
  void lose_write(const char *path, StoreResult result);
  [[nodiscard]] StoreResult fail(StoreResult result, std::string cause);
  [[nodiscard]] StoreResult fail_to_record(int error);
  [[nodiscard]] std::string access_of(const std::string &path) const;

  // Without lock_.
  [[nodiscard]] StoreResult flush(Flush kind, Patience & patience, std::string & cause);
  [[nodiscard]] StoreResult attempt_flush(Flush kind, std::string & cause);
  [[nodiscard]] bool flush_before_copy(int database, const std::string &log, bool new_names) const;
  [[nodiscard]] StoreResult carry_out_flush(const std::shared_ptr<OpenFile> &file, const std::string &log,
                                            bool new_names, std::string &cause);
  void report_failed_flush(const std::string &cause);
  [[nodiscard]] gint64 wait_for_idleness();
  static gpointer flush_when_idle(gpointer tree);
  [[nodiscard]] StoreResult remove_former_log() const;
  [[nodiscard]] StoreResult put_in_place(const std::string &image, const struct stat &folder, bool &replaced) const;
  // With lock_.
  [[nodiscard]] StoreResult begin_replacement(struct stat & folder);
  [[nodiscard]] StoreResult finish_replacement();
  [[nodiscard]] StoreResult begin_flush(Flush kind, bool &nothing_to_do);
  [[nodiscard]] StoreResult copy_log(bool &whole, FileStamp &copied);
  [[nodiscard]] StoreResult cut_flushed_log(bool whole, const FileStamp &copied, Record &record, bool &cut);
  void watch_for_idleness();

  GMutex lock_ = {};
  std::string file_name_;
  std::unique_ptr<ParamLock> side_;
  std::unique_ptr<ParamStore> store_;
  // Of the database, for its times and flushes. Kept over reconnections, because closing it drops SQLite's locks.
  std::shared_ptr<OpenFile> file_;
  std::uint32_t generation_ = 0;
  LogState last_log_;  // when an outdated connection was closed, until the next one is open
  gint64 next_look_us_ = 0;
  bool suspect_ = false;  // SQLite found damage: the file is to be examined
  bool swept_ = false;
  FileStamp short_file_;  // the first sight of a file that is too short for a database
  gint64 short_since_us_ = 0;
  bool fork_safe_ = false;
  bool time_reported_ = false;
  bool folder_flushed_ = false;                  // the names of this connection's files are durable
  bool flushing_ = false;                        // a thread of this process holds the tree's lock for a flush
  FlushState flush_state_ = FlushState::failed;  // of the flush that is under way
  bool watching_ = false;                        // the thread that waits for idleness runs
  gint64 last_write_us_ = 0;
  int next_flush_pages_ = flush_pages;
  std::string cause_;
  std::string complaint_;  // the last one: the same failure of many reads is one line of the log
  gint64 next_line_us_ = 0;
};

struct ParamTree::OpenFile {
  UniqueFd fd;
  std::uint64_t inode = 0;
};

// Waiting for another process, with growing pauses.
class ParamTree::Patience {
  gint64 end_us_ = 0;
  gulong pause_us_ = 500;
  int suspicions_ = 0;

 public:
  [[nodiscard]] bool is_over();
  void pause();
  // A file that was found whole and fails again is not examined without end.
  [[nodiscard]] bool may_suspect() { return ++suspicions_ <= 2; }
};

}  // namespace ptz::platform
