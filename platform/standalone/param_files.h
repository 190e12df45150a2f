// platform/standalone/param_files.h - the files of the parameter tree, by path.
//
// POSIX drops all locks of a process on a file when the process closes any descriptor of it. So nothing here opens
// params.db, its -shm or its -lock for reading or writing. A descriptor with O_PATH has no effect on locks.
#pragma once
#include <sys/stat.h>
#include <time.h>
#include <cstdint>
#include <string>
#include <string_view>

#include "base/handles.h"

namespace ptz::platform {

// What identifies the content of a file without reading it.
struct FileStamp {
  std::uint64_t inode = 0;
  std::int64_t size = 0;
  std::int64_t modified_ns = 0;
  bool operator==(const FileStamp &) const = default;
};
[[nodiscard]] timespec timespec_of(std::int64_t nanoseconds);
[[nodiscard]] FileStamp stamp_of(const struct stat &status);

[[nodiscard]] std::string folder_of(const std::string &file);
[[nodiscard]] std::string system_reason(const std::string &what, int error);

// Nanoseconds of the wall clock, which times of files are compared with.
[[nodiscard]] std::int64_t wall_clock_ns();

// Opens a regular file. Returns none with errno set otherwise; a FIFO of another user would block for ever, and a
// symbolic link could lead out of the folder.
[[nodiscard]] UniqueFd open_regular(const std::string &path, int flags);

// Renames a companion file of the database to "*.old" if it is not a regular file. SQLite opens companion files by
// itself and would block on a FIFO; a member
// of the folder's group may do so. Returns false with errno set if it stays.
[[nodiscard]] bool set_special_files_aside(const std::string &file);

// Gives a file that exists the mode, the group and, as root, the owner that its folder asks for. A symbolic link and a
// file with several names are left alone: a member of the group could name any file of the system.
void repair_access(const std::string &path, const struct stat &folder);

// Creates an empty file with the folder's mode, group and owner. An existing file is left as it is. Returns false with
// errno set.
bool create_shared_file(const std::string &path, const struct stat &folder);

// A new temporary file "<file>.new-XXXXXX" with the folder's access, or -1 with errno set.
[[nodiscard]] int open_temporary(const std::string &file, const struct stat &folder, std::string &name);

// Both return false with errno set.
[[nodiscard]] bool write_whole(int fd, std::string_view bytes);
[[nodiscard]] bool flush_folder(const std::string &path);

// Removes "<file>.new-*" that a killed process left. The caller holds the tree's lock; the lock's own temporary files
// are made without it, so these are removed only if they are a minute old.
void sweep_temporaries(const std::string &file);

enum class LogAside { failed, none, kept };
// Moves the write-ahead log to "-wal.old" if it holds anything, and a rollback journal to "-journal.old", and removes
// the log's index. A power cut does not bring the log back. After `failed`, with errno set, the database must not be
// opened: SQLite would replay what is left.
[[nodiscard]] LogAside set_log_aside(const std::string &file);
// Removes the log and its index. Returns false with errno set.
[[nodiscard]] bool remove_log(const std::string &file);

// Renames a damaged database, with its log, to a free name "<file>.damaged-1" to "-3"; the last one is overwritten.
// Returns the new name, or an empty text with errno set.
[[nodiscard]] std::string set_database_aside(const std::string &file);

}  // namespace ptz::platform
