#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

struct Row {
  std::string value;
  gint64 number;
  const char *name;
  const char *nick;
};

// The rows in the order of the type's own table.
std::vector<Row> rows_of(GType type) {
  std::vector<Row> rows;
  gpointer const type_class = g_type_class_ref(type);
  if (G_TYPE_IS_ENUM(type)) {
    const auto *const values = static_cast<GEnumClass *>(type_class);
    for (guint i = 0; i < values->n_values; ++i) {
      const auto &each = values->values[i];
      rows.push_back({std::to_string(each.value), each.value, each.value_name, each.value_nick});
    }
  } else {
    const auto *const flags = static_cast<GFlagsClass *>(type_class);
    for (guint i = 0; i < flags->n_values; ++i) {
      const auto &each = flags->values[i];
      char bits[16];
      std::snprintf(bits, sizeof bits, "0x%08x", each.value);
      rows.push_back({bits, each.value, each.value_name, each.value_nick});
    }
  }
  g_type_class_unref(type_class);
  return rows;
}

void print_type(GType type, bool as_json) {
  for (const auto &row : rows_of(type)) {
    if (as_json) {
      const JsonLine json;
      json.member("type", g_type_name(type));
      json.member("value", row.number);
      json.member("name", row.name);
      json.member("nick", row.nick);
      json.print();
    } else {
      std::printf("%11s  %-40s %s\n", row.value.c_str(), row.name, row.nick);
    }
  }
}

}  // namespace

int run_enum(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"[TYPE]",
                   "Shows the values, names and nicks of a type; without one, the types' names, or with --json all "
                   "values of all.",
                   " PTZMoveStatus"},
                  Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  if (given->empty() && !options.as_json()) {
    for (const GType type : all_types()) std::printf("%s\n", g_type_name(type));
    return EXIT_SUCCESS;
  }
  bool is_known = given->empty();
  Words names;
  for (const GType type : all_types()) {
    names.emplace_back(g_type_name(type));
    if (!given->empty() && g_ascii_strcasecmp(names.back().c_str(), given->front().c_str()) != 0) continue;
    print_type(type, options.as_json());
    is_known = true;
  }
  if (is_known) return EXIT_SUCCESS;
  const auto &name = given->front();
  return options.misused("there is no type '%s'%s", name.c_str(), did_you_mean(name, names).c_str());
}

}  // namespace ptzctl
