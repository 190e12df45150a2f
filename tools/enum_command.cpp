#include <ptz_enum_types.h>
#include <ptz_flag_types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "commands.h"

namespace ptzctl {

namespace {

struct Row {
  std::string value;
  gint64 number;
  const char *name;
  const char *nick;
};

std::vector<GType> all_types() {
  return {PTZ_TYPE_COMMAND,
          PTZ_TYPE_SOCKET_COMMAND,
          PTZ_TYPE_PROTOCOL_VERSION,
          PTZ_TYPE_MOVE,
          PTZ_TYPE_MOVE_STATUS,
          PTZ_TYPE_MOVE_CMD,
          PTZ_TYPE_ENABLE,
          PTZ_TYPE_AUTO_ENABLE,
          PTZ_TYPE_CONTROL,
          PTZ_TYPE_QUERY,
          PTZ_TYPE_ANGLE,
          PTZ_TYPE_OSD_MENU,
          PTZ_TYPE_DRIVER_STATUS,
          PTZ_TYPE_SPACE,
          PTZ_TYPE_PARAMETER,
          PTZ_TYPE_PARAMETER_GROUP,
          PTZ_TYPE_PORT_MODE,
          PTZ_TYPE_BAUD_RATE,
          PTZ_TYPE_DATA_BITS,
          PTZ_TYPE_STOP_BITS,
          PTZ_TYPE_PARITY,
          PTZ_TYPE_PORT_TYPE,
          PTZ_TYPE_SC_GROUP,
          PTZ_TYPE_SC_PARAM,
          PTZ_TYPE_DRIVER_STATE,
          PTZ_TYPE_DRIVER_MOVE_CAPABILITIES,
          PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES};
}

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
                  Asks::nobody);
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
