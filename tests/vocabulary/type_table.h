// tests/vocabulary/type_table.h - what a registered type has to list, and the checks that every such type must pass.
#pragma once
#include <fixtures.h>
#include <glib-object.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

namespace ptz_test {

// Value is gint for an enumeration and guint for flags.
template <typename Value>
struct TypeTable {
  struct Row {
    Value enumerator;  // what the header's constant is
    Value value;       // what it has to be
    const char *name;
    const char *nick;
  };
  std::string type_name;
  GType (*get_type)();
  std::vector<Row> rows;
};
using EnumTable = TypeTable<gint>;
using FlagsTable = TypeTable<guint>;

inline GEnumClass *enum_class(GType type) { return static_cast<GEnumClass *>(g_type_class_ref(type)); }
inline GFlagsClass *flags_class(GType type) { return static_cast<GFlagsClass *>(g_type_class_ref(type)); }

inline auto *class_of(const EnumTable &table) { return enum_class(table.get_type()); }
inline auto *class_of(const FlagsTable &table) { return flags_class(table.get_type()); }
inline auto *by_value(GEnumClass *type, gint value) { return g_enum_get_value(type, value); }
inline auto *by_value(GFlagsClass *type, guint value) { return g_flags_get_first_value(type, value); }
inline auto *by_name(GEnumClass *type, const char *name) { return g_enum_get_value_by_name(type, name); }
inline auto *by_name(GFlagsClass *type, const char *name) { return g_flags_get_value_by_name(type, name); }
inline auto *by_nick(GEnumClass *type, const char *nick) { return g_enum_get_value_by_nick(type, nick); }
inline auto *by_nick(GFlagsClass *type, const char *nick) { return g_flags_get_value_by_nick(type, nick); }

template <typename Value>
void expect_registered_as(const TypeTable<Value> &table, GType fundamental) {
  const GType type = table.get_type();
  EXPECT_EQ(G_TYPE_FUNDAMENTAL(type), fundamental);
  EXPECT_EQ(g_type_name(type), table.type_name);
  EXPECT_EQ(g_type_from_name(table.type_name.c_str()), type);
}

template <typename Value>
void expect_rows_in_order(const TypeTable<Value> &table) {
  const auto *const listed = class_of(table);
  ASSERT_EQ(listed->n_values, table.rows.size());
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i));
    EXPECT_EQ(listed->values[i].value, table.rows[i].value);
    EXPECT_STREQ(listed->values[i].value_name, table.rows[i].name);
    EXPECT_STREQ(listed->values[i].value_nick, table.rows[i].nick);
  }
  EXPECT_EQ(listed->values[table.rows.size()].value_name, nullptr);
}

template <typename Value>
void expect_enumerators(const TypeTable<Value> &table) {
  for (const auto &row : table.rows) EXPECT_EQ(row.enumerator, row.value) << row.name;
}

template <typename Value>
void expect_lookups_find_their_rows(const TypeTable<Value> &table) {
  auto *const type = class_of(table);
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    const auto &row = table.rows[i];
    const auto *const listed = &type->values[i];
    EXPECT_EQ(by_value(type, row.value), listed) << row.name;
    EXPECT_EQ(by_name(type, row.name), listed) << row.name;
    EXPECT_EQ(by_nick(type, row.nick), listed) << row.nick;
  }
}

template <typename Value>
void expect_same_type_again(const TypeTable<Value> &table) {
  const GType type = table.get_type();
  const GlibLogCapture log;  // GLib warns when a name is registered twice
  EXPECT_EQ(table.get_type(), type);
  EXPECT_TRUE(log.messages().empty());
}

// Calls each function in several threads at once and ends the process: with success if all saw the same types. For a
// death test in the "threadsafe" style, which gives it a process where nothing is registered yet.
[[noreturn]] inline void race_for_first_calls(const std::vector<GType (*)()> &functions) {
  struct Racer {
    const std::vector<GType (*)()> *functions;
    std::atomic<std::size_t> *arrivals;
    std::vector<GType> types;
  };
  constexpr std::size_t racer_count = 3;
  const GlibLogCapture log;
  std::array<Racer, racer_count> racers;
  std::array<GThread *, racer_count> threads;
  std::atomic<std::size_t> arrivals = 0;
  for (std::size_t i = 0; i < racer_count; ++i) {
    racers[i] = {&functions, &arrivals, {}};
    const auto run = [](gpointer data) -> gpointer {
      auto &racer = *static_cast<Racer *>(data);
      std::size_t awaited = 0;
      for (const auto function : *racer.functions) {
        awaited += racer_count;
        ++*racer.arrivals;
        while (*racer.arrivals < awaited) {  // spinning: a thread that has to be woken comes too late to race
        }
        racer.types.push_back(function());
      }
      return nullptr;
    };
    threads[i] = g_thread_new("racer", run, &racers[i]);
  }
  for (GThread *const thread : threads) g_thread_join(thread);
  bool same = log.messages().empty();
  for (const Racer &racer : racers) same = same && racer.types == racers[0].types;
  for (const GType type : racers[0].types) same = same && g_type_name(type) != nullptr;
  std::_Exit(same ? EXIT_SUCCESS : EXIT_FAILURE);
}

}  // namespace ptz_test
