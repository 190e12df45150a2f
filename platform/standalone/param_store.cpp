#include "param_store.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "platform/param_service.h"

namespace ptz::platform {
namespace {

constexpr std::size_t most_stems = 1000;

// In the order of ParamStore::Query. "/" is the character after ".", so the keys of
// a group are the range from "group." to "group/".
constexpr const char *queries[] = {
    "SELECT value FROM parameters WHERE grp = ? AND name = ?",
    "UPDATE parameters SET value = ?3 WHERE grp = ?1 AND name = ?2",
    "INSERT INTO parameters (grp, name, value) VALUES (?, ?, ?) ON CONFLICT DO UPDATE SET value = excluded.value",
    "SELECT 1 FROM groups WHERE parent = ? AND name = ?",
    "INSERT OR IGNORE INTO groups (parent, name) VALUES (?, ?)",
    "SELECT name FROM parameters WHERE grp = ? ORDER BY name",
    "SELECT name FROM groups WHERE parent = ? ORDER BY name",
    "SELECT name FROM groups WHERE parent = ? AND name >= ? AND name < ?",
    "DELETE FROM parameters WHERE grp >= ? AND grp < ?",
    "DELETE FROM groups WHERE parent >= ? AND parent < ?",
    "DELETE FROM groups WHERE parent = ? AND name = ?",
    "PRAGMA data_version",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

std::string as_group(std::string_view path) { return std::string(path) + '.'; }

// The number, if the text is one as create_group() writes it.
bool read_number(std::string_view text, gint32 &number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && number >= 0 &&
         (text.size() == 1 || text.front() != '0');
}

}  // namespace

// One run of a kept statement, which is ready for another afterwards. The texts are borrowed until then.
class ParamStore::Run {
  sqlite3_stmt *statement_;
  int bound_ = SQLITE_OK;

 public:
  Run(const ParamStore &store, Query query, std::initializer_list<std::string_view> texts)
      : statement_(store.statements_[query].get()) {
    int index = 0;
    for (const auto text : texts) {
      const int result = sqlite3_bind_text64(statement_, ++index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8);
      if (bound_ == SQLITE_OK) bound_ = result;
    }
  }
  Run(Run &&) = delete;
  ~Run() { sqlite3_reset(statement_); }
  [[nodiscard]] int step() {
    if (bound_ != SQLITE_OK) return bound_;
    const int code = sqlite3_step(statement_);
    return code == SQLITE_TOOBIG ? SQLITE_CORRUPT : code;  // texts are not too long: it is the length in a damaged page
  }
  // Of a statement without rows.
  [[nodiscard]] int finish() {
    const int result = step();
    return result == SQLITE_DONE ? SQLITE_OK : result;
  }
  [[nodiscard]] std::string_view text(int column = 0) const {
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
    return bytes != nullptr
               ? std::string_view(bytes, static_cast<std::size_t>(sqlite3_column_bytes(statement_, column)))
               : std::string_view("");
  }
  [[nodiscard]] int number() const { return sqlite3_column_int(statement_, 0); }
};

std::unique_ptr<ParamStore> ParamStore::on(Database database, StoreResult &result, std::string &reason) {
  std::unique_ptr<ParamStore> store(new ParamStore(std::move(database)));
  const int code = store->prepare();
  result = store->answer(code);
  if (result == StoreResult::ok) return store;
  reason = reason_of(store->database_.get());
  // The header is right and the tables are not there, or are others.
  if ((code & 0xFF) == SQLITE_ERROR) result = StoreResult::damaged;
  return nullptr;
}

ParamStore::~ParamStore() = default;

int ParamStore::prepare() {
  sqlite3 *database = database_.get();
  for (std::size_t i = 0; i < query_count; ++i) {
    sqlite3_stmt *statement = nullptr;
    const int result = sqlite3_prepare_v3(database, queries[i], -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr);
    if (result != SQLITE_OK) return result;
    statements_[i].reset(statement);
  }
  sqlite3_wal_hook(
      database,
      [](void *store, sqlite3 *, const char *, int pages) {
        static_cast<ParamStore *>(store)->log_pages_ = pages;
        return SQLITE_OK;
      },
      this);
  return SQLITE_OK;
}

StoreResult ParamStore::answer(int code) {
  last_code_ = code;
  return result_of(code);
}

// BEGIN IMMEDIATE takes the write lock up front, so that no later statement fails with SQLITE_BUSY.
StoreResult ParamStore::begin_transaction() { return answer(Run(*this, begin, {}).finish()); }

StoreResult ParamStore::end_transaction(StoreResult result) {
  if (result == StoreResult::ok) result = answer(Run(*this, commit, {}).finish());
  if (result == StoreResult::ok) return result;
  next_numbers_.clear();
  static_cast<void>(Run(*this, rollback, {}).finish());
  return result;
}

StoreResult ParamStore::get(std::string_view path, Text &value) {
  const auto [group, name] = split(path);
  Run run(*this, get_value, {group, name});
  const int code = run.step();
  if (code == SQLITE_DONE) return StoreResult::not_found;
  if (code != SQLITE_ROW) return answer(code);
  const auto text = run.text();
  value.reset(g_strndup(text.data(), text.size()));
  return StoreResult::ok;
}

StoreResult ParamStore::set(std::string_view path, std::string_view value) {
  if (value.size() > PARAM_SERVICE_VALUE_MAX) return StoreResult::value_too_long;
  const auto [group, name] = split(path);
  {
    Run run(*this, update_value, {group, name, value});
    const auto result = answer(run.finish());
    if (result != StoreResult::ok || sqlite3_changes(database_.get()) > 0) return result;
  }
  return in_transaction([&] { return answer(insert(path, value)); });
}

int ParamStore::insert(std::string_view path, std::string_view value) {
  const auto [group, name] = split(path);
  const int result = Run(*this, insert_value, {group, name, value}).finish();
  return result == SQLITE_OK ? insert_groups_down_to(group) : result;
}

// The group, which ends in a dot, and those above it. If one exists, those above it do.
int ParamStore::insert_groups_down_to(std::string_view group) {
  while (!group.empty()) {
    const auto [parent, name] = split(group.substr(0, group.size() - 1));
    const int result = Run(*this, insert_group, {parent, name}).finish();
    if (result != SQLITE_OK || sqlite3_changes(database_.get()) == 0) return result;
    group = parent;
  }
  return SQLITE_OK;
}

StoreResult ParamStore::has_group(std::string_view path) {
  const auto [parent, name] = split(path);
  const int code = Run(*this, find_group, {parent, name}).step();
  return code == SQLITE_DONE ? StoreResult::not_found : answer(code);
}

// In a transaction. The result of a scan is kept for the next call, which only probes from there. A write of another
// connection makes it void, so two processes that create groups in turn scan each time.
StoreResult ParamStore::lowest_free_number(std::string_view stem, gint32 &number) {
  {
    Run run(*this, data_version, {});
    if (const int code = run.step(); code != SQLITE_ROW) return answer(code);
    if (run.number() != std::exchange(seen_version_, run.number())) next_numbers_.clear();
  }
  const auto known = next_numbers_.find(stem);
  if (known == next_numbers_.end()) return scan_numbers(stem, number);
  number = known->second;
  return probe_number(stem, number);
}

// Moves on to a number that is free: an explicit one may have been created since.
StoreResult ParamStore::probe_number(std::string_view stem, gint32 &number) {
  while (true) {
    const auto result = has_group(std::string(stem) + std::to_string(number));
    if (result == StoreResult::not_found) return StoreResult::ok;
    if (result != StoreResult::ok) return result;
    ++number;
  }
}

StoreResult ParamStore::scan_numbers(std::string_view stem, gint32 &number) {
  const auto [parent, letter] = split(stem);
  // ":" is the character after "9".
  const std::string first = std::string(letter) + '0', beyond = std::string(letter) + ':';
  Run run(*this, numbered_groups_of, {parent, first, beyond});
  std::vector<gint32> numbers;
  int code = run.step();
  for (; code == SQLITE_ROW; code = run.step()) {
    if (gint32 found = 0; read_number(run.text().substr(letter.size()), found)) numbers.push_back(found);
  }
  if (code != SQLITE_DONE) return answer(code);
  std::vector<bool> taken(numbers.size() + 1);
  for (const gint32 found : numbers) {
    if (static_cast<std::size_t>(found) < taken.size()) taken[static_cast<std::size_t>(found)] = true;
  }
  number = static_cast<gint32>(std::find(taken.begin(), taken.end(), false) - taken.begin());
  return StoreResult::ok;
}

StoreResult ParamStore::insert_all(const std::string &group, const Settings &settings) {
  int code = insert_groups_down_to(group);
  for (const auto &[name, value] : settings) {
    if (group.size() + name.size() > PARAM_SERVICE_PATH_MAX) return StoreResult::path_too_long;
    if (value.size() > PARAM_SERVICE_VALUE_MAX) return StoreResult::value_too_long;
    if (code == SQLITE_OK) code = insert(group + name, value);
  }
  return answer(code);
}

StoreResult ParamStore::create_group(std::string_view parent, char letter, gint32 number, const Settings &defaults,
                                     std::string &path) {
  const std::string stem = as_group(parent) + letter;
  return in_transaction([&] {
    gint32 chosen = number;
    if (number < 0) {
      if (const auto result = lowest_free_number(stem, chosen); result != StoreResult::ok) return result;
    }
    path = stem + std::to_string(chosen);
    if (number >= 0) {
      const auto result = has_group(path);
      if (result != StoreResult::not_found) return result == StoreResult::ok ? StoreResult::exists : result;
    }
    if (path.size() > PARAM_SERVICE_PATH_MAX) return StoreResult::path_too_long;
    const auto result = insert_all(as_group(path), defaults);
    if (result == StoreResult::ok && number < 0) {
      if (next_numbers_.size() >= most_stems) next_numbers_.clear();
      next_numbers_.insert_or_assign(stem, chosen < G_MAXINT32 ? chosen + 1 : 0);
    }
    return result;
  });
}

StoreResult ParamStore::delete_group(std::string_view path) {
  const auto [parent, name] = split(path);
  const std::string first = as_group(path), beyond = std::string(path) + '/';
  next_numbers_.clear();
  return in_transaction([&, parent = parent, name = name] {
    int code = Run(*this, delete_values_below, {first, beyond}).finish();
    if (code == SQLITE_OK) code = Run(*this, delete_groups_below, {first, beyond}).finish();
    if (code == SQLITE_OK) code = Run(*this, delete_one_group, {parent, name}).finish();
    if (code == SQLITE_OK && sqlite3_changes(database_.get()) == 0) return StoreResult::not_found;
    return answer(code);
  });
}

StoreResult ParamStore::list(Query query, std::string_view group, Names &names) {
  {
    const std::string key = as_group(group);
    names.clear();
    Run run(*this, query, {key});
    int code = run.step();
    for (; code == SQLITE_ROW; code = run.step()) names.emplace_back(run.text());
    if (code != SQLITE_DONE) return answer(code);
  }
  return names.empty() ? has_group(group) : StoreResult::ok;
}

StoreResult ParamStore::list_parameters(std::string_view group, Names &names) {
  return list(parameters_of, group, names);
}
StoreResult ParamStore::list_groups(std::string_view group, Names &names) { return list(groups_of, group, names); }

}  // namespace ptz::platform
