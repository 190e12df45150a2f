// platform/standalone/param_lock.h - the file params.db-lock: the lock of all writers, and which file the log belongs
// to.
//
// SQLite replays a write-ahead log over whatever database has the name. So this file records the inode, size and time
// of the database that the log belongs to. The record changes only while its lock is held, and so does the database:
//
//  - A writer holds the lock for one transaction, which goes to the log. The first one after a flush moves the
//    database's time of modification and records it, so that a copy made before has another time, even with `cp -p`.
//  - A flush holds the lock from its first step to its last. It sets `flushing`, which it makes durable, and `copying`
//    before it changes the database.
//
// If the database differs from the record, another file was put in its place (see Match). The record is not flushed
// each time that it changes. So after the system has started anew, `flushing` stands for `copying` too, and the
// database may have the time from before the last move.
//
// The lock is a POSIX one: it is free when its owner dies, children do not inherit it, and only a process that may
// write the file can take it. The process must not open and close the file anywhere else, and threads exclude each
// other by themselves (ParamTree does).
#pragma once
#include <sys/stat.h>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>

#include "base/handles.h"
#include "param_files.h"

namespace ptz::platform {

// The log, as SQLite sees it. It moves on if a program makes a checkpoint, or begins the log anew.
struct LogState {
  std::uint32_t salts[2] = {0, 0};
  std::uint32_t backfilled = 0;  // pages that are in the database
  bool operator==(const LogState &) const = default;
};

struct Record {
  static constexpr std::uint32_t magic_number = 0x4C5A5450, current_version = 1;
  enum Flag : std::uint32_t {
    flushing = 1,      // a flush is under way. What it wrote may be on disk without `copying`
    flushed = 2,       // params.db alone is the tree: the next write moves its time
    copied_whole = 4,  // the log is in the database, and was not cut by the flush: a write may begin it anew
    moving = 8,        // the first write after a flush is about to move the database's time
    copying = 16,      // a flush may have changed the database since `database` was recorded
  };
  std::uint32_t magic = magic_number, version = current_version;
  std::uint64_t own_inode = 0;  // of the lock file: a copy of the whole folder has another one
  FileStamp database;
  std::int64_t begun_ns = 0;     // when `flushing` or `moving` was set
  std::uint32_t generation = 0;  // counts files put in the database's place: connections made before are stale
  std::uint32_t flags = 0;
  LogState log;               // zeros if it is not known
  std::uint32_t boot = 0;     // of the system, when the record was saved
  std::int64_t saved_ns = 0;  // a copy of the lock file has another time of modification
  // The database's time before the last move, which is durable; 0 if it is not known. A power cut may bring it back.
  std::int64_t previous_ns = 0;
};
static_assert(sizeof(Record) == 88);

enum class Match {
  same,
  unfinished,  // the database is as it was at some moment of the flush or the move that is under way, or was cut off
  replaced,
  unrecorded,  // no record, as beside a tree of the first release, or in a copy of the whole folder
};
[[nodiscard]] Match match(const Record &record, std::uint64_t lock_inode, const FileStamp &database);

class ParamLock {
 public:
  // Creates the file if it is missing. Null with errno set if it can neither be created nor opened for reading.
  static std::unique_ptr<ParamLock> open(const std::string &file, const struct stat &folder);

  [[nodiscard]] bool is_writable() const { return writable_; }
  // False with EAGAIN or EACCES in errno if another process holds it, or EBADF if the file is open for reading only.
  [[nodiscard]] bool try_lock();
  void unlock();
  [[nodiscard]] bool is_in_place() const;  // whether the path still names this file
  [[nodiscard]] std::uint64_t inode() const { return inode_; }
  // match() for this lock file. A record that came with a copy of the whole folder is none: the log came with it.
  [[nodiscard]] Match compare(const Record &record, const FileStamp &database) const;
  // A cleared one if there is none, or if it is of another version. Its version is kept.
  [[nodiscard]] Record load() const;
  // Whether the last load() could read the file, empty or not. If not, save() does nothing, and errno of load() says
  // why: a record that cannot be read is not a missing one.
  [[nodiscard]] bool is_readable() const { return readable_; }
  bool save(Record record) const;
  bool flush() const;
  [[nodiscard]] const std::string &path() const { return path_; }

 private:
  ParamLock(std::string path, UniqueFd fd, bool writable)
      : path_(std::move(path)), fd_(std::move(fd)), writable_(writable) {}
  std::string path_;
  UniqueFd fd_;
  bool writable_;
  std::uint64_t inode_ = 0;
  mutable bool readable_ = true;  // of the file, not of this object: threads exclude each other
};

[[nodiscard]] inline bool is_lack_of_permission(int error) {
  return error == EACCES || error == EPERM || error == EROFS;
}

}  // namespace ptz::platform
