#include "param_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "platform/param_service.h"

namespace ptz::platform {
namespace {

using Database = Handle<sqlite3, sqlite3_close_v2>;

constexpr int opening_limit_ms = 10'000;
constexpr int application_id = 0x50545A50;
constexpr int schema_version = 1;

// In the order of ParamStore::Query. "/" is the character after ".": what lies between the two begins with the group.
constexpr const char *queries[] = {
    "SELECT value FROM parameters WHERE grp = ? AND name = ?",
    "UPDATE parameters SET value = ?3 WHERE grp = ?1 AND name = ?2",
    "INSERT INTO parameters VALUES (?, ?, ?) ON CONFLICT DO UPDATE SET value = excluded.value",
    "SELECT 1 FROM groups WHERE parent = ? AND name = ?",
    "INSERT OR IGNORE INTO groups VALUES (?, ?)",
    "SELECT name FROM parameters WHERE grp = ? ORDER BY name",
    "SELECT name FROM groups WHERE parent = ? ORDER BY name",
    "DELETE FROM parameters WHERE grp >= ? AND grp < ?",
    "DELETE FROM groups WHERE parent >= ? AND parent < ?",
    "DELETE FROM groups WHERE parent = ? AND name = ?",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

std::string as_group(std::string_view path) { return std::string(path) + '.'; }

std::string system_reason(const std::string &what, int error) { return what + ": " + g_strerror(error); }

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

bool make_tables(const std::string &file, std::string &reason) {
  sqlite3 *raw = nullptr;
  const int opened = sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  const Database database(raw);
  if (opened == SQLITE_OK &&
      execute(raw,
              "PRAGMA journal_mode = WAL;"
              "BEGIN;"
              "CREATE TABLE parameters (grp TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL,"
              " PRIMARY KEY (grp, name)) WITHOUT ROWID;"
              "CREATE TABLE groups (parent TEXT NOT NULL, name TEXT NOT NULL,"
              " PRIMARY KEY (parent, name)) WITHOUT ROWID;"
              "PRAGMA application_id = " +
                  std::to_string(application_id) +
                  ";"
                  "PRAGMA user_version = " +
                  std::to_string(schema_version) +
                  ";"
                  "COMMIT;") == SQLITE_OK) {
    return true;
  }
  reason = reason_of(raw);
  return false;
}

// Made whole under another name: a file that has the name and no tables is a damaged one, and not to be filled.
bool make_under(const std::string &file, std::string &reason) {
  std::string unfinished = file + ".XXXXXX";
  const UniqueFd fd(mkostemp(unfinished.data(), O_CLOEXEC));
  if (!fd) {
    reason = system_reason("cannot be created", errno);
    return false;
  }
  fchmod(fd.get(), 0644);
  bool made = make_tables(unfinished, reason);
  if (made && link(unfinished.c_str(), file.c_str()) != 0) {
    reason = system_reason("cannot be created", errno);
    made = false;
  }
  unlink(unfinished.c_str());
  return made;
}

bool lock_for_us_alone(int fd) {
  int result = -1;
  do {
    result = flock(fd, LOCK_EX);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

// Makes the file where it is missing. One process at a time, so that nobody else's new file loses its log.
bool make_where_missing(const std::string &file, std::string &reason) {
  const UniqueFd folder(::open(file.substr(0, file.rfind('/')).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder || !lock_for_us_alone(folder.get())) {
    reason = system_reason("cannot be created", errno);
    return false;
  }
  if (access(file.c_str(), F_OK) == 0) return true;
  // Of a database that was taken away: SQLite would put the changes into the new one.
  rename((file + "-wal").c_str(), (file + "-wal.old").c_str());
  unlink((file + "-shm").c_str());
  if (!make_under(file, reason)) return false;
  fsync(folder.get());
  return true;
}

}  // namespace

// One run of a kept statement, which is ready for another afterwards. The texts are borrowed until then.
class ParamStore::Run {
  sqlite3_stmt *statement_;

 public:
  Run(const ParamStore &store, Query query, std::initializer_list<std::string_view> texts)
      : statement_(store.statements_[query].get()) {
    int index = 0;
    for (const auto text : texts) {
      sqlite3_bind_text64(statement_, ++index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
    }
  }
  Run(Run &&) = delete;
  ~Run() { sqlite3_reset(statement_); }
  [[nodiscard]] int step() { return sqlite3_step(statement_); }
  // Of a statement without rows.
  [[nodiscard]] int finish() {
    const int result = step();
    return result == SQLITE_DONE ? SQLITE_OK : result;
  }
  [[nodiscard]] std::string_view text() const {
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, 0));
    return bytes != nullptr ? std::string_view(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, 0)))
                            : std::string_view("");
  }
};

ParamStore *ParamStore::open(const std::string &file, std::string &reason) {
  struct stat status = {};
  if (stat(file.c_str(), &status) != 0) {
    if (errno != ENOENT) {
      reason = system_reason("cannot be opened", errno);
      return nullptr;
    }
    if (!make_where_missing(file, reason)) return nullptr;
  } else if (status.st_size == 0) {
    reason = "is empty";  // SQLite would take it for a new database, and throw a log of changes beside it away
    return nullptr;
  }
  sqlite3 *raw = nullptr;
  const int opened = sqlite3_open_v2(file.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  std::unique_ptr<ParamStore> store(new ParamStore(raw));
  if (opened == SQLITE_OK && store->prepare() == SQLITE_OK) return store.release();
  reason = reason_of(raw);
  if (opened == SQLITE_OK && sqlite3_errcode(raw) == SQLITE_OK) reason = "is not a parameter tree";
  return nullptr;
}

ParamStore::~ParamStore() = default;

int ParamStore::prepare() {
  sqlite3 *database = database_.get();
  sqlite3_busy_timeout(database, opening_limit_ms);
  // The last to leave would otherwise work on the file, also where it is damaged.
  sqlite3_db_config(database, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  // No flush at each write; sync() is there for that. A page that was read is kept, in trees of 100,000 parameters too.
  const int result = execute(database, "PRAGMA synchronous = NORMAL; PRAGMA cache_size = -16384");
  if (result != SQLITE_OK) return result;
  const auto id = number_of(database, "PRAGMA application_id");
  const auto version = number_of(database, "PRAGMA user_version");
  if (id != application_id || version != schema_version) return SQLITE_NOTADB;
  for (std::size_t i = 0; i < query_count; ++i) {
    sqlite3_stmt *statement = nullptr;
    const int result = sqlite3_prepare_v3(database, queries[i], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (result != SQLITE_OK) return result;
    statements_[i].reset(statement);
  }
  sqlite3_busy_timeout(database, 0);  // from now on, callers wait as they like
  return SQLITE_OK;
}

// Finds other writers at its beginning, so that no step can fail for them.
template <typename Steps>
int ParamStore::in_transaction(Steps steps) {
  int result = Run(*this, begin, {}).finish();
  if (result != SQLITE_OK) return result;
  result = steps();
  if (result == SQLITE_OK) result = Run(*this, commit, {}).finish();
  if (result != SQLITE_OK) static_cast<void>(Run(*this, rollback, {}).finish());
  return result;
}

int ParamStore::get(std::string_view path, Text &value) {
  const auto [group, name] = split(path);
  Run run(*this, get_value, {group, name});
  const int result = run.step();
  if (result == SQLITE_DONE) return SQLITE_NOTFOUND;
  if (result != SQLITE_ROW) return result;
  const auto text = run.text();
  value.reset(g_strndup(text.data(), text.size()));
  return SQLITE_OK;
}

int ParamStore::set(std::string_view path, std::string_view value) {
  const auto [group, name] = split(path);
  {
    Run run(*this, update_value, {group, name, value});
    const int result = run.finish();
    if (result != SQLITE_OK || sqlite3_changes(database_.get()) > 0) return result;
  }
  return in_transaction([&] { return insert(path, value); });
}

int ParamStore::insert(std::string_view path, std::string_view value) {
  const auto [group, name] = split(path);
  const int result = Run(*this, insert_value, {group, name, value}).finish();
  return result == SQLITE_OK ? insert_groups_down_to(group) : result;
}

// The group, which ends in a dot, and those above it. Where one is, those above it are.
int ParamStore::insert_groups_down_to(std::string_view group) {
  while (!group.empty()) {
    const auto [parent, name] = split(group.substr(0, group.size() - 1));
    const int result = Run(*this, insert_group, {parent, name}).finish();
    if (result != SQLITE_OK || sqlite3_changes(database_.get()) == 0) return result;
    group = parent;
  }
  return SQLITE_OK;
}

int ParamStore::has_group(std::string_view path) {
  const auto [parent, name] = split(path);
  const int result = Run(*this, find_group, {parent, name}).step();
  if (result == SQLITE_ROW) return SQLITE_OK;
  return result == SQLITE_DONE ? SQLITE_NOTFOUND : result;
}

int ParamStore::create_group(std::string_view parent, char letter, gint32 number, const Settings &defaults,
                             std::string &path) {
  const std::string stem = as_group(parent) + letter;
  return in_transaction([&] {
    path = stem + std::to_string(number >= 0 ? number : 0);
    int result = has_group(path);
    if (number >= 0 && result == SQLITE_OK) return SQLITE_CONSTRAINT;
    for (gint32 next = 1; result == SQLITE_OK; ++next) {
      path = stem + std::to_string(next);
      result = has_group(path);
    }
    if (result != SQLITE_NOTFOUND) return result;
    if (path.size() > PARAM_SERVICE_PATH_MAX) return SQLITE_TOOBIG;
    const std::string group = as_group(path);
    result = insert_groups_down_to(group);
    for (const auto &[name, value] : defaults) {
      if (group.size() + name.size() > PARAM_SERVICE_PATH_MAX) return SQLITE_TOOBIG;
      if (result == SQLITE_OK) result = insert(group + name, value);
    }
    return result;
  });
}

int ParamStore::delete_group(std::string_view path) {
  const auto [parent, name] = split(path);
  const std::string first = as_group(path), beyond = std::string(path) + '/';
  return in_transaction([&, parent = parent, name = name] {
    int result = Run(*this, delete_values_below, {first, beyond}).finish();
    if (result == SQLITE_OK) result = Run(*this, delete_groups_below, {first, beyond}).finish();
    if (result == SQLITE_OK) result = Run(*this, delete_one_group, {parent, name}).finish();
    if (result == SQLITE_OK && sqlite3_changes(database_.get()) == 0) return SQLITE_NOTFOUND;
    return result;
  });
}

int ParamStore::list(Query query, std::string_view group, Names &names) {
  {
    const std::string key = as_group(group);
    names.clear();
    Run run(*this, query, {key});
    int result = run.step();
    for (; result == SQLITE_ROW; result = run.step()) names.emplace_back(run.text());
    if (result != SQLITE_DONE) return result;
  }
  return names.empty() ? has_group(group) : SQLITE_OK;
}

int ParamStore::list_parameters(std::string_view group, Names &names) { return list(parameters_of, group, names); }
int ParamStore::list_groups(std::string_view group, Names &names) { return list(groups_of, group, names); }

// Whatever was written before is in the log of changes, or in a database that was flushed before the log was begun
// anew.
int ParamStore::sync() {
  sqlite3_file *log = nullptr;
  const int result = sqlite3_file_control(database_.get(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &log);
  if (result != SQLITE_OK) return result;
  return log != nullptr && log->pMethods != nullptr ? log->pMethods->xSync(log, SQLITE_SYNC_FULL) : SQLITE_CANTOPEN;
}

bool ParamStore::has_moved() const {
  int moved = 0;
  sqlite3_file_control(database_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
  return moved != 0;
}

}  // namespace ptz::platform
