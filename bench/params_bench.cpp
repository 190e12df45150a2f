// The parameter tree beside raw prepared statements on the same database: one parameter read and written, groups
// walked, in a small tree and in a large one; and what a push to the background writer takes while the database is
// locked.
#include <benchmark/benchmark.h>
#include <ptz.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "handles.h"
#include "ratios.h"
#include "temp_dir.h"

namespace {

using ptz_bench::best;
using ptz_test::Text;
using Database = std::unique_ptr<sqlite3, ptz_test::FreeWith<sqlite3_close>>;
using Statement = std::unique_ptr<sqlite3_stmt, ptz_test::FreeWith<sqlite3_finalize>>;

constexpr int small = 1'000, large = 100'000, parameters_each = 100, pushes = 10'000;
// In either tree, beside its parameters.
constexpr int long_group = 1'000;

void require(bool condition) {
  if (!condition) std::abort();
}

void execute(sqlite3 *database, const char *statements) {
  require(sqlite3_exec(database, statements, nullptr, nullptr, nullptr) == SQLITE_OK);
}

Statement prepare(sqlite3 *database, const char *query) {
  sqlite3_stmt *statement = nullptr;
  require(sqlite3_prepare_v3(database, query, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK);
  return Statement(statement);
}

void bind(const Statement &statement, int index, const std::string &text) {
  sqlite3_bind_text(statement.get(), index, text.c_str(), static_cast<int>(text.size()), SQLITE_STATIC);
}

// A parameter, as the wrappers and as the tables name it.
struct Place {
  guint group;
  std::string path, table_group, name;
};

class Tree {
  ptz_test::TempDir dir_;
  Database database_;

 public:
  std::vector<Place> places;  // each once, in an order of its own

  explicit Tree(int size) {
    select();
    require(ptz_tessel_set("root.PTZ.Long.Other", "", FALSE, FALSE, FALSE, 0) == 0);
    sqlite3 *raw = nullptr;
    require(sqlite3_open_v2(dir_.file("params.db").c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX,
                            nullptr) == SQLITE_OK);
    database_.reset(raw);
    // The log is kept as short as the service keeps it.
    execute(raw, "PRAGMA synchronous = NORMAL; PRAGMA wal_autocheckpoint = 100; BEGIN");
    fill(size);
    execute(raw, "COMMIT; PRAGMA wal_checkpoint(TRUNCATE)");
    std::ranges::shuffle(places, std::mt19937(1));
  }
  [[nodiscard]] sqlite3 *database() const { return database_.get(); }
  // The service leaves its file at a fork, and opens the one that it then finds.
  void select() const {
    setenv("PTZ_PLATFORM_STATE_DIR", dir_.path().c_str(), 1);
    const pid_t child = fork();
    require(child >= 0);
    if (child == 0) _exit(0);
    require(waitpid(child, nullptr, 0) == child);
  }

 private:
  void fill(int size) {
    const auto insert = prepare(database(), "INSERT INTO parameters VALUES (?, ?, ?)");
    const auto insert_group = prepare(database(), "INSERT OR IGNORE INTO groups VALUES (?, ?)");
    const auto add = [&](const std::string &group, const std::string &name, int value) {
      const auto text = std::to_string(value);
      bind(insert, 1, group);
      bind(insert, 2, name);
      bind(insert, 3, text);
      require(sqlite3_step(insert.get()) == SQLITE_DONE);
      sqlite3_reset(insert.get());
    };
    for (int i = 0; i < size; ++i) {
      const auto group = static_cast<guint>(i / parameters_each);
      const auto short_group = "P" + std::to_string(group), name = "Position" + std::to_string(i % parameters_each);
      const std::string parent = "root.PTZ.Preset.", table_group = parent + short_group + ".";
      bind(insert_group, 1, parent);
      bind(insert_group, 2, short_group);
      require(sqlite3_step(insert_group.get()) == SQLITE_DONE);
      sqlite3_reset(insert_group.get());
      add(table_group, name, i);
      places.push_back({group, table_group + name, table_group, name});
    }
    for (int i = 1; i < long_group; ++i) add("root.PTZ.Long.", "Position" + std::to_string(i), i);
  }
};

Tree &tree(int size) {
  static Tree small_tree(small), large_tree(large);
  Tree &tree = size == small ? small_tree : large_tree;
  tree.select();
  return tree;
}

template <typename Action>
void at_each_place(benchmark::State &state, const Tree &tree, const Action &action) {
  std::size_t next = 0;
  for (auto _ : state) {
    action(tree.places[next]);
    if (++next == tree.places.size()) next = 0;
  }
}

template <int size>
void read_raw(benchmark::State &state) {
  Tree &in = tree(size);
  const auto query = prepare(in.database(), "SELECT value FROM parameters WHERE grp = ? AND name = ?");
  at_each_place(state, in, [&](const Place &place) {
    bind(query, 1, place.table_group);
    bind(query, 2, place.name);
    require(sqlite3_step(query.get()) == SQLITE_ROW);
    const Text value(g_strdup(reinterpret_cast<const char *>(sqlite3_column_text(query.get(), 0))));
    benchmark::DoNotOptimize(value.get());
    sqlite3_reset(query.get());
  });
}

template <int size>
void read_path(benchmark::State &state) {
  at_each_place(state, tree(size), [](const Place &place) {
    const Text value(ptz_tessel_get(place.path.c_str()));
    require(value != nullptr);
  });
}

void read_indexed(benchmark::State &state) {
  at_each_place(state, tree(small), [](const Place &place) {
    const Text value(ptz_tessel_dyn_index_get("Preset", place.group, place.name.c_str()));
    require(value != nullptr);
  });
}

void read_integer(benchmark::State &state) {
  at_each_place(state, tree(small), [](const Place &place) {
    gint32 value = 0;
    require(ptz_tessel_get_int_val(place.group, "Preset", place.name.c_str(), &value, nullptr) != FALSE);
  });
}

void write_raw(benchmark::State &state) {
  Tree &in = tree(small);
  const auto query = prepare(in.database(), "UPDATE parameters SET value = ?3 WHERE grp = ?1 AND name = ?2");
  int next = 0;
  at_each_place(state, in, [&](const Place &place) {
    const auto value = std::to_string(++next);
    bind(query, 1, place.table_group);
    bind(query, 2, place.name);
    bind(query, 3, value);
    require(sqlite3_step(query.get()) == SQLITE_DONE);
    sqlite3_reset(query.get());
  });
}

void write_path(benchmark::State &state) {
  int next = 0;
  at_each_place(state, tree(small), [&](const Place &place) {
    require(ptz_tessel_set(place.path.c_str(), std::to_string(++next).c_str(), FALSE, FALSE, FALSE, 0) == 0);
  });
}

gboolean count(const gchar *, const gchar *, gpointer number, guint) {
  ++*static_cast<int *>(number);
  return TRUE;
}

template <int size, int parameters>
void walk(benchmark::State &state) {
  tree(size);
  for (auto _ : state) {
    int visited = 0;
    const char *group = parameters == long_group ? "root.PTZ.Long" : "root.PTZ.Preset.P5";
    require(ptz_tessel_iterate_group(group, nullptr, &visited, count) != FALSE);
    require(visited == parameters);
  }
}

// The writer can do nothing meanwhile. It is done before the next benchmark begins.
void push(benchmark::State &state) {
  Tree &in = tree(small);
  execute(in.database(), "BEGIN IMMEDIATE");
  int next = 0;
  for (auto _ : state) {
    ++next;
    ptz_tessel_async_push_set_int(next, "root.PTZ.Pushed.P%d", next % 100);
  }
  execute(in.database(), "ROLLBACK");
  static int marker = 0;
  const auto last = std::to_string(++marker);
  ptz_tessel_async_push_set_param(last.c_str(), "root.PTZ.Pushed.Last");
  while (g_strcmp0(Text(ptz_tessel_get("root.PTZ.Pushed.Last")).get(), last.c_str()) != 0) g_usleep(1000);
}

#define MEASURE(...) BENCHMARK(__VA_ARGS__)->ComputeStatistics("best", best)

MEASURE(read_raw<small>);
MEASURE(read_path<small>);
MEASURE(read_indexed);
MEASURE(read_integer);
MEASURE(read_raw<large>);
MEASURE(read_path<large>);
MEASURE(write_raw);
MEASURE(write_path);
MEASURE(walk<small, parameters_each>);
MEASURE(walk<large, parameters_each>);
MEASURE(walk<small, long_group>);
MEASURE(walk<large, long_group>);
MEASURE(push)->Iterations(pushes);

constexpr ptz_bench::Comparison comparisons[] = {
    {"Reading a parameter beside raw SQLite", "read_path<small>", "read_raw<small>", {.at_most = 1.5}},
    {"Reading one of a dynamic group beside raw SQLite", "read_indexed", "read_raw<small>", {.at_most = 1.5}},
    {"Reading an integer beside raw SQLite", "read_integer", "read_raw<small>", {.at_most = 1.5}},
    {"Reading one of 100,000 beside raw SQLite", "read_path<large>", "read_raw<large>", {.at_most = 1.5}},
    {"Writing a parameter beside raw SQLite", "write_path", "write_raw", {.at_most = 1.5}},
    {"Reading one of 100,000 beside one of 1,000", "read_path<large>", "read_path<small>", {.at_most = 1.5}},
    {"Walking 100 of 100,000 beside 100 of 1,000",
     "walk<large, parameters_each>",
     "walk<small, parameters_each>",
     {.at_most = 1.5}},
    {"Walking 1,000 beside 100 of 100,000", "walk<large, long_group>", "walk<large, parameters_each>", {.at_most = 15}},
};

}  // namespace

int main(int argc, char **argv) { return ptz_bench::run_and_compare(argc, argv, comparisons); }
