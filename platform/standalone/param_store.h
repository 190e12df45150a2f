// platform/standalone/param_store.h - the parameter tree in one SQLite database, shared by all processes.
//
// Two tables: parameters by (group, name) and groups by (parent, name). A group is kept with a dot at its end, so that
// a path is its group and its name written one after the other, and all that is below a group is one range of keys.
#pragma once
#include <glib.h>
#include <sqlite3.h>
#include <array>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/handles.h"

namespace ptz::platform {

// A path in two parts, "root.PTZ." and "Name"; the first is empty for the root of all.
struct PathParts {
  std::string_view group;
  std::string_view name;
};
[[nodiscard]] inline PathParts split(std::string_view path) {
  const auto name = path.rfind('.') + 1;  // 0 where there is no dot
  return {path.substr(0, name), path.substr(name)};
}

using Names = std::vector<std::string>;
using Settings = std::vector<std::pair<std::string, std::string>>;  // of full paths

// One connection of this process. Results of calls are SQLite's codes; SQLITE_NOTFOUND is an answer, not a failure.
// SQLITE_BUSY means that another process is in the way, and that nothing was done: the call may be made again.
class [[gnu::visibility("hidden")]] ParamStore {
 public:
  // Null where the database cannot be opened or is not one of parameters: the reason tells why.
  static ParamStore *open(const std::string &file, std::string &reason);
  ~ParamStore();
  ParamStore(ParamStore &&) = delete;

  [[nodiscard]] int get(std::string_view path, Text & value);
  [[nodiscard]] int set(std::string_view path, std::string_view value);
  [[nodiscard]] int has_group(std::string_view path);
  // With the lowest free number where it is negative. The result is SQLITE_CONSTRAINT where the group exists, and
  // SQLITE_TOOBIG where its path or one of a parameter in it would be too long.
  [[nodiscard]] int create_group(std::string_view parent, char letter, gint32 number, const Settings &defaults,
                                 std::string &path);
  [[nodiscard]] int delete_group(std::string_view path);
  [[nodiscard]] int list_parameters(std::string_view group, Names & names);
  [[nodiscard]] int list_groups(std::string_view group, Names & names);
  [[nodiscard]] int sync();

  // Whether the file that was opened is no longer the one at its path.
  [[nodiscard]] bool has_moved() const;

 private:
  enum Query : std::size_t {
    get_value,
    update_value,
    insert_value,
    find_group,
    insert_group,
    parameters_of,
    groups_of,
    delete_values_below,
    delete_groups_below,
    delete_one_group,
    begin,
    commit,
    rollback,
    query_count
  };
  class Run;
  using Statement = Handle<sqlite3_stmt, sqlite3_finalize>;

  explicit ParamStore(sqlite3 * database) : database_(database) {}
  [[nodiscard]] int prepare();
  [[nodiscard]] int insert(std::string_view path, std::string_view value);
  [[nodiscard]] int insert_groups_down_to(std::string_view group);
  [[nodiscard]] int list(Query query, std::string_view group, Names & names);
  template <typename Steps>
  [[nodiscard]] int in_transaction(Steps steps);

  Handle<sqlite3, sqlite3_close_v2> database_;
  std::array<Statement, query_count> statements_;
};

}  // namespace ptz::platform
