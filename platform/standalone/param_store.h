// platform/standalone/param_store.h - the parameter tree in one SQLite database, shared by all processes.
//
// Two tables: parameters by (group, name) and groups by (parent, name). A group is kept with a dot at its end, so that
// a path is its group and its name written one after the other, and all that is below a group is one range of keys.
#pragma once
#include <glib.h>
#include <array>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "param_database.h"
#include "param_template.h"

namespace ptz::platform {

// A path in two parts, "root.PTZ." and "Name"; the first is empty for the root of all.
struct PathParts {
  std::string_view group;
  std::string_view name;
};
[[nodiscard]] inline PathParts split(std::string_view path) {
  const auto name = path.rfind('.') + 1;  // 0 if there is no dot
  return {path.substr(0, name), path.substr(name)};
}

using Names = std::vector<std::string>;

// A step of a copy of all pages.
struct PageCopy {
  StoreResult result = StoreResult::failed;
  int remaining = 0;  // pages; 0 when the copy is complete
};

// The statements on one open database. Not thread-safe.
class [[gnu::visibility("hidden")]] ParamStore {
 public:
  // Null with result and reason set if the statements cannot be prepared.
  static std::unique_ptr<ParamStore> on(Database database, StoreResult & result, std::string & reason);
  ~ParamStore();
  ParamStore(ParamStore &&) = delete;

  [[nodiscard]] StoreResult get(std::string_view path, Text & value);
  [[nodiscard]] StoreResult set(std::string_view path, std::string_view value);
  [[nodiscard]] StoreResult has_group(std::string_view path);
  // A negative number stands for the lowest free one.
  [[nodiscard]] StoreResult create_group(std::string_view parent, char letter, gint32 number, const Settings &defaults,
                                         std::string &path);
  [[nodiscard]] StoreResult delete_group(std::string_view path);
  [[nodiscard]] StoreResult list_parameters(std::string_view group, Names & names);
  [[nodiscard]] StoreResult list_groups(std::string_view group, Names & names);
  // Copies so many more pages to another database. Called until nothing remains. The connection is in use for the copy
  // until then, or until it is closed; the next call on another connection begins the copy again.
  [[nodiscard]] PageCopy copy_pages_to(sqlite3 * database, int pages);

  // Copies as much of the log into the database as readers permit; `whole` says whether that is all of it.
  [[nodiscard]] StoreResult checkpoint(bool &whole);
  // Empties the log after a whole checkpoint. busy if a reader of another process is in the way.
  [[nodiscard]] StoreResult cut_log();
  // A write that may begin the log anew without a cut has to flush the log's header.
  void flush_writes(bool on);
  [[nodiscard]] int log_pages() const { return log_pages_; }  // after the last write of this connection
  [[nodiscard]] LogState log_state() const { return log_state_of(database_.get()); }

  // Why the last operation failed.
  [[nodiscard]] const char *reason() const { return sqlite3_errstr(last_code_); }
  [[nodiscard]] sqlite3 *database() const { return database_.get(); }

 private:
  enum Query : std::size_t {
    get_value,
    update_value,
    insert_value,
    find_group,
    insert_group,
    parameters_of,
    groups_of,
    numbered_groups_of,
    delete_values_below,
    delete_groups_below,
    delete_one_group,
    data_version,
    begin,
    commit,
    rollback,
    query_count
  };
  class Run;
  using Statement = Handle<sqlite3_stmt, sqlite3_finalize>;

  explicit ParamStore(Database database) : database_(std::move(database)) {}
  [[nodiscard]] int prepare();
  [[nodiscard]] StoreResult answer(int code);  // keeps the code as the reason
  [[nodiscard]] int insert(std::string_view path, std::string_view value);
  [[nodiscard]] int insert_groups_down_to(std::string_view group);
  [[nodiscard]] StoreResult list(Query query, std::string_view group, Names & names);
  [[nodiscard]] StoreResult lowest_free_number(std::string_view stem, gint32 & number);
  [[nodiscard]] StoreResult probe_number(std::string_view stem, gint32 & number);
  [[nodiscard]] StoreResult scan_numbers(std::string_view stem, gint32 & number);
  [[nodiscard]] StoreResult insert_all(const std::string &group, const Settings &settings);
  [[nodiscard]] StoreResult begin_transaction();
  [[nodiscard]] StoreResult end_transaction(StoreResult result);  // commits after ok, else rolls back
  template <typename Steps>
  [[nodiscard]] StoreResult in_transaction(Steps steps) {
    const auto begun = begin_transaction();
    return begun == StoreResult::ok ? end_transaction(steps()) : begun;
  }

  Database database_;
  // By the database that is copied to. They are finished before the connection is closed.
  std::map<sqlite3 *, Handle<sqlite3_backup, sqlite3_backup_finish>> copies_;
  std::array<Statement, query_count> statements_;
  int last_code_ = SQLITE_OK;
  int log_pages_ = 0;
  // By the path without its number, the number below which none is free. It holds as long as no other connection has
  // written (`seen_version_`) and this one has deleted nothing.
  std::map<std::string, gint32, std::less<>> next_numbers_;
  int seen_version_ = 0;
};

}  // namespace ptz::platform
