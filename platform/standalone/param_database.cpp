#include "param_database.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "param_files.h"

namespace ptz::platform {
namespace {

constexpr int application_id = 0x50545A50;
constexpr int first_version = 1;

// SQLite sleeps up to ten seconds in a read if another process was stopped between two steps on the log's index. The
// caller would hold the service's lock meanwhile. Without the sleep SQLite answers SQLITE_PROTOCOL, and callers wait.
const char *file_system() {
  static sqlite3_vfs copy = {};
  static const bool registered = [] {
    const sqlite3_vfs *usual = sqlite3_vfs_find(nullptr);
    if (usual == nullptr) return false;
    copy = *usual;
    copy.pNext = nullptr;
    copy.zName = "ptz-parameters";
    copy.xSleep = [](sqlite3_vfs *, int microseconds) { return microseconds; };
    return sqlite3_vfs_register(&copy, 0) == SQLITE_OK;
  }();
  return registered ? copy.zName : nullptr;
}

int open_for(const std::string &file, int flags, Database &database) {
  sqlite3 *raw = nullptr;
  const int opened = sqlite3_open_v2(file.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, file_system());
  database.reset(raw);
  return opened;
}

// SQLite has closed the file: no lock of it is dropped here.
bool flush_file(const std::string &path) {
  const UniqueFd file = open_regular(path, O_RDWR);
  return file && fsync(file.get()) == 0;
}

StoreResult failure(sqlite3 *database, std::string &reason) {
  reason = reason_of(database);
  const auto result = result_of(sqlite3_extended_errcode(database));
  return result == StoreResult::ok ? StoreResult::failed : result;
}

std::string tables() {
  return "PRAGMA synchronous = OFF;"
         "PRAGMA journal_mode = WAL;"
         "BEGIN;"
         "CREATE TABLE parameters (grp TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL,"
         " PRIMARY KEY (grp, name)) WITHOUT ROWID;"
         "CREATE TABLE groups (parent TEXT NOT NULL, name TEXT NOT NULL,"
         " PRIMARY KEY (parent, name)) WITHOUT ROWID;"
         "PRAGMA application_id = " +
         std::to_string(application_id) + ";PRAGMA user_version = " + std::to_string(first_version) + ";COMMIT;";
}

}  // namespace

Schema schema = {first_version, {}};

StoreResult result_of(int sqlite_code) {
  switch (sqlite_code & 0xFF) {
    case SQLITE_OK:
    case SQLITE_DONE:
    case SQLITE_ROW:
      return StoreResult::ok;
    case SQLITE_BUSY:
    case SQLITE_PROTOCOL:
      return StoreResult::busy;
    case SQLITE_READONLY:
    case SQLITE_PERM:
      return StoreResult::read_only;
    case SQLITE_FULL:
      return StoreResult::full;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return StoreResult::damaged;
    case SQLITE_TOOBIG:
      return StoreResult::value_too_long;
    default:
      return StoreResult::failed;
  }
}

std::string reason_of(sqlite3 *database) {
  const int error = sqlite3_system_errno(database);
  std::string reason = sqlite3_errmsg(database);
  return error != 0 ? system_reason(reason, error) : reason;
}

int execute(sqlite3 *database, const std::string &statements) {
  return sqlite3_exec(database, statements.c_str(), nullptr, nullptr, nullptr);
}

std::optional<int> number_of(sqlite3 *database, const char *query) {
  sqlite3_stmt *raw = nullptr;
  sqlite3_prepare_v2(database, query, -1, &raw, nullptr);
  const Handle<sqlite3_stmt, sqlite3_finalize> statement(raw);
  if (statement == nullptr || sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return sqlite3_column_int(statement.get(), 0);
}

StoreResult open_database(const std::string &file, Database &database, std::string &reason) {
  if (open_for(file, SQLITE_OPEN_READWRITE, database) != SQLITE_OK) return failure(database.get(), reason);
  sqlite3 *raw = database.get();
  sqlite3_extended_result_codes(raw, 1);
  // The last to leave would otherwise copy the log without a flush, also into a file that was put in place meanwhile.
  sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  sqlite3_wal_autocheckpoint(raw, 0);
  // All flushes are our own (ParamTree::flush), so that no flush is made while the service is locked. A page that was
  // read is kept, in trees of 100,000 parameters too.
  if (execute(raw, "PRAGMA synchronous = OFF; PRAGMA cache_size = -16384") == SQLITE_OK) return StoreResult::ok;
  return failure(raw, reason);
}

bool is_tree_header(const std::uint8_t *header) {
  constexpr std::size_t version_at = 60, id_at = 68;
  const auto number_at = [header](std::size_t at) {
    return header[at] * 0x1000000L + header[at + 1] * 0x10000L + header[at + 2] * 0x100L + header[at + 3];
  };
  return number_at(id_at) == application_id && number_at(version_at) >= first_version &&
         number_at(version_at) <= schema.version;
}

StoreResult open_without_log(const std::string &file, Database &database, std::string &reason) {
  const Text uri(g_filename_to_uri(file.c_str(), nullptr, nullptr));
  if (uri == nullptr) return StoreResult::failed;
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_URI;
  if (open_for(uri.get() + std::string("?immutable=1"), flags, database) == SQLITE_OK) return StoreResult::ok;
  return failure(database.get(), reason);
}

StoreResult check_tree(sqlite3 *database, int &version, std::string &reason) {
  const auto id = number_of(database, "PRAGMA application_id");
  if (!id) return failure(database, reason);
  const auto found = number_of(database, "PRAGMA user_version");
  if (!found) return failure(database, reason);
  version = *found;
  if (*id != application_id || version < 1) {
    reason = "is not a parameter tree";
    return StoreResult::foreign;
  }
  if (version <= schema.version) return StoreResult::ok;
  reason = "made by a newer release (version " + std::to_string(version) + ", this one knows " +
           std::to_string(schema.version) + ")";
  return StoreResult::newer;
}

StoreResult check_pages(sqlite3 *database, std::string &reason) {
  sqlite3_stmt *raw = nullptr;
  if (sqlite3_prepare_v2(database, "PRAGMA quick_check(1)", -1, &raw, nullptr) != SQLITE_OK) {
    return failure(database, reason);
  }
  const Handle<sqlite3_stmt, sqlite3_finalize> statement(raw);
  if (sqlite3_step(raw) != SQLITE_ROW) return failure(database, reason);
  const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(raw, 0));
  if (text != nullptr && std::strcmp(text, "ok") == 0) return StoreResult::ok;
  reason = "database disk image is malformed";
  return StoreResult::damaged;
}

StoreResult use_write_ahead_log(sqlite3 *database, bool &changed) {
  const auto mode_is_wal = [&](const char *query) {
    sqlite3_stmt *raw = nullptr;
    sqlite3_prepare_v2(database, query, -1, &raw, nullptr);
    const Handle<sqlite3_stmt, sqlite3_finalize> statement(raw);
    if (statement == nullptr || sqlite3_step(raw) != SQLITE_ROW) return false;
    const auto *mode = reinterpret_cast<const char *>(sqlite3_column_text(raw, 0));
    return mode != nullptr && std::strcmp(mode, "wal") == 0;
  };
  changed = false;
  if (mode_is_wal("PRAGMA journal_mode")) return StoreResult::ok;
  changed = true;
  if (mode_is_wal("PRAGMA journal_mode = WAL")) return StoreResult::ok;
  const auto result = result_of(sqlite3_extended_errcode(database));
  return result == StoreResult::ok ? StoreResult::read_only : result;
}

StoreResult upgrade(sqlite3 *database, int version, std::span<const UpgradeStep> steps, int target,
                    std::string &reason) {
  for (const auto &step : steps) {
    if (step.version != version || version >= target) continue;
    ++version;
    if (execute(database, "BEGIN IMMEDIATE; " + std::string(step.statements) +
                              "; PRAGMA user_version = " + std::to_string(version) + "; COMMIT") != SQLITE_OK) {
      const auto result = failure(database, reason);
      static_cast<void>(execute(database, "ROLLBACK"));
      return result;
    }
  }
  if (version == target) return StoreResult::ok;
  reason = "of version " + std::to_string(version) + ", which cannot be brought up to date";
  return StoreResult::failed;
}

// The content is durable before the file has its name: after a power cut an empty file would be taken for damaged. The
// first ParamTree::flush() makes the name durable.
StoreResult make_database(const std::string &file, const struct stat &folder, std::string &reason) {
  std::string temporary;
  UniqueFd fd(open_temporary(file, folder, temporary));
  if (!fd) {
    reason = system_reason("cannot be created", errno);
    return errno == ENOSPC ? StoreResult::full : StoreResult::failed;
  }
  fd.reset();
  StoreResult result = StoreResult::ok;
  {
    Database database;
    if (open_for(temporary, SQLITE_OPEN_READWRITE, database) != SQLITE_OK ||
        execute(database.get(), tables()) != SQLITE_OK) {
      result = failure(database.get(), reason);
    }
    if (result == StoreResult::ok) {
      result = upgrade(database.get(), first_version, schema.steps, schema.version, reason);
    }
    // Closing would copy the log as well, and would not report that the disk is full.
    if (result == StoreResult::ok &&
        sqlite3_wal_checkpoint_v2(database.get(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr) != SQLITE_OK) {
      result = failure(database.get(), reason);
    }
  }
  if (result == StoreResult::ok && !flush_file(temporary)) {
    reason = system_reason("cannot be flushed", errno);
    result = StoreResult::failed;
  }
  if (result == StoreResult::ok && link(temporary.c_str(), file.c_str()) != 0 && errno != EEXIST) {
    reason = system_reason("cannot be created", errno);
    result = StoreResult::failed;
  }
  for (const char *suffix : {"", "-wal", "-shm", "-journal"}) unlink((temporary + suffix).c_str());
  return result;
}

}  // namespace ptz::platform
