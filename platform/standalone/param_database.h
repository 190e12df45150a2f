// platform/standalone/param_database.h - SQLite databases of parameters: made, opened, checked and brought up to date.
#pragma once
#include <sqlite3.h>
#include <sys/stat.h>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/handles.h"
#include "param_lock.h"

namespace ptz::platform {

// What the store answers. `busy` means that another process is in the way and that nothing was done.
enum class StoreResult {
  ok,
  not_found,
  exists,
  path_too_long,
  value_too_long,
  busy,
  read_only,
  full,
  damaged,
  newer,    // made by a newer release: left alone
  foreign,  // not a parameter tree: left alone
  failed,
};
[[nodiscard]] StoreResult result_of(int sqlite_code);

using Database = Handle<sqlite3, sqlite3_close_v2>;

// The file is opened for writing, or for reading only if it is not writable. No statement waits for another process.
[[nodiscard]] StoreResult open_database(const std::string &file, Database &database, std::string &reason);
// Reads the file alone, as it is. No other connection of the process may have it open: closing this one drops its
// locks.
[[nodiscard]] StoreResult open_without_log(const std::string &file, Database &database, std::string &reason);
// Whether it is a tree that this release can use: ok, newer, foreign, busy, damaged or failed. `version` is its own.
[[nodiscard]] StoreResult check_tree(sqlite3 *database, int &version, std::string &reason);
// Whether the first 72 bytes of a file say that it is a parameter tree of this release or an older one.
[[nodiscard]] bool is_tree_header(const std::uint8_t *header);
// Reads every page. ok or damaged, or what kept the check from being done.
[[nodiscard]] StoreResult check_pages(sqlite3 *database, std::string &reason);
// SQLite opens a database in the journal mode that its header names, and a file that was put back may name another.
[[nodiscard]] StoreResult use_write_ahead_log(sqlite3 *database, bool &changed);

// What SQLite's index of the log says of it; zeros if nothing was read yet.
[[nodiscard]] LogState log_state_of(sqlite3 *database);

// One step brings a tree of the version to the next one.
struct UpgradeStep {
  int version;
  const char *statements;
};
// The version that this release uses, and the steps that lead to it. Tests replace them.
struct Schema {
  int version;
  std::span<const UpgradeStep> steps;
};
extern Schema schema;
[[nodiscard]] StoreResult upgrade(sqlite3 *database, int version, std::span<const UpgradeStep> steps, int target,
                                  std::string &reason);

// Makes an empty tree under a temporary name and gives it the name of the file, which must not exist.
[[nodiscard]] StoreResult make_database(const std::string &file, const struct stat &folder, std::string &reason);

[[nodiscard]] int execute(sqlite3 *database, const std::string &statements);
[[nodiscard]] std::optional<int> number_of(sqlite3 *database, const char *query);
[[nodiscard]] std::string reason_of(sqlite3 *database);

}  // namespace ptz::platform
