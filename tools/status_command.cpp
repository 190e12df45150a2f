#include <ptz_enum_types.h>
#include <ptz_status_cache.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string_view>

#include "commands.h"
#include "status_screen.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr gint64 default_instance = 1;

// What is published in a group of this kind.
struct Kind {
  PTZSCGroup group;
  gint first_param, last_param;
};
constexpr Kind position = {PTZ_SC_GROUP_POSITION, PTZ_SC_PARAM_POSITION_PAN,
                           PTZ_SC_PARAM_POSITION_GM_BRIGHT_STATUS_MOVING_TIME};
constexpr gint overview_mode = 58;  // has no enumerator
constexpr Kind kinds[] = {position,
                          {PTZ_SC_GROUP_VARIOUS, PTZ_SC_PARAM_VARIOUS_PAN_FLIPPED, overview_mode},
                          {PTZ_SC_GROUP_LIMIT, PTZ_SC_PARAM_LIMIT_MIN_PAN, PTZ_SC_PARAM_LIMIT_MAX_BRIGHTNESS}};

struct StatusGroup {
  std::string name;
  std::vector<StoredValue> values;

  // The library knows how the values are called and what they are.
  StatusGroup(const Kind &kind, guint instance) {
    const gint count = kind.last_param - kind.first_param + 1;
    const ptz::Handle<PTZStatusCacheGroup, ptz_status_cache_free_group> handle(
        ptz_status_cache_setup_group(kind.group, instance, count));
    gint64 unused = 0;
    name = handle->name;
    for (gint i = 0; i < count; ++i) {
      ptz_status_cache_add_param(handle.get(), static_cast<PTZSCParam>(kind.first_param + i), &unused);
      const auto &added = *handle->params[i];
      values.push_back({added.key, added.size, added.type});
    }
  }
  [[nodiscard]] const StoredValue *find(std::string_view key) const {
    for (const auto &value : values) {
      if (value.found && value.key == key) return &value;
    }
    return nullptr;
  }
};

std::string nick_of(GType type, gint value) {
  auto *const values = static_cast<GEnumClass *>(g_type_class_ref(type));
  const auto *const row = g_enum_get_value(values, value);
  std::string nick = row != nullptr ? row->value_nick : "unknown";
  g_type_class_unref(values);
  return nick;
}

void add_values(const JsonLine &json, const StatusGroup &group) {
  json.begin_object("values");
  for (const auto &value : group.values) {
    if (value.found) value.add_to(json);
  }
  json_builder_end_object(json.get());
}

void print_group(const StatusGroup &group, bool as_json) {
  if (as_json) {
    const JsonLine json;
    json_builder_begin_object(json.get());
    json.member("group", group.name.c_str());
    add_values(json, group);
    json_builder_end_object(json.get());
    json.print();
    return;
  }
  std::printf("%s\n", group.name.c_str());
  for (const auto &value : group.values) {
    if (value.found) std::printf("  %-28s %s\n", value.key, value.text().c_str());
  }
}

int run_show(const std::string &words, int argc, char **argv) {
  gboolean as_json = FALSE;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json, "One object a line", nullptr}, {}};
  Options options(words, "[GROUP] [INSTANCE]",
                  "Shows a group of the live state, position, various or limit, or all that there are, of the instance "
                  "with this number, or of 1.",
                  entries);
  const auto given = options.parse(argc, argv, 2);
  if (!given) return exit_usage;
  std::span<const Kind> wanted = kinds;
  const bool is_asked_for = !given->empty();
  if (is_asked_for) {
    const auto is_it = [&](const Kind &kind) { return given->front() == nick_of(PTZ_TYPE_SC_GROUP, kind.group); };
    const auto *const found = std::find_if(std::begin(kinds), std::end(kinds), is_it);
    if (found == std::end(kinds)) {
      complain("there is no group '%s': it is position, various or limit", given->front().c_str());
      return exit_usage;
    }
    wanted = {found, 1};
  }
  const auto instance =
      given->size() > 1 ? parse_number(given->at(1), "instance", 0, G_MAXUINT32) : std::optional(default_instance);
  if (!instance) return exit_usage;

  int shown = 0;
  for (const auto &kind : wanted) {
    StatusGroup group(kind, static_cast<guint>(*instance));
    const auto reading = read_group(group.name, group.values);
    if (reading == Reading::failed) return complain_of_reading(group.name);
    if (reading != Reading::done) continue;
    print_group(group, as_json != FALSE);
    ++shown;
  }
  if (shown > 0) return EXIT_SUCCESS;
  complain("instance %u has published no%s%s", static_cast<guint>(*instance), is_asked_for ? " " : "thing",
           is_asked_for ? given->front().c_str() : "");
  return EXIT_FAILURE;
}

// --- watch ------------------------------------------------------------------------------------------------------

struct Axis {
  const char *name;
  const char *value_key;
  const char *status_key;
};
constexpr Axis axes[] = {
    {"pan", "PAN_DEG", "PAN_STATUS"}, {"tilt", "TILT_DEG", "TILT_STATUS"}, {"zoom", "ZOOM_MAG", "ZOOM_STATUS"}};

std::string status_name(const StatusGroup &group, const char *key) {
  const auto *value = group.find(key);
  return value != nullptr ? nick_of(PTZ_TYPE_MOVE_STATUS, value->value.number) : "unknown";
}

double measure(const StatusGroup &group, const char *key) {
  const auto *value = group.find(key);
  return value != nullptr ? static_cast<double>(value->value.measure) : 0;
}

gint32 update_rate(const StatusGroup &group) {
  const auto *rate = group.find("UPDATE_RATE");
  return rate != nullptr ? rate->value.number : 0;
}

// Publishers stamp the position by the clock that all processes share.
gint64 age_ms(const StatusGroup &group) {
  const auto *stamp = group.find("TIME_VAL");
  if (stamp == nullptr) return -1;
  const auto &time = stamp->value.time;
  return (g_get_monotonic_time() - (time.seconds * gint64{G_USEC_PER_SEC} + time.fraction)) / 1000;
}

std::string axis_text(const StatusGroup &group, const Axis &axis) {
  const ptz::Text text(g_strdup_printf("%s %9.2f %-7s", axis.name, measure(group, axis.value_key),
                                       status_name(group, axis.status_key).c_str()));
  return text.get();
}

void print_position(const StatusGroup &group, bool as_json) {
  if (!as_json) {
    for (const auto &axis : axes) std::printf("%s  ", axis_text(group, axis).c_str());
    std::printf("rate %d/s  age %" G_GINT64_FORMAT " ms\n", update_rate(group), age_ms(group));
    std::fflush(stdout);
    return;
  }
  const JsonLine json;
  json_builder_begin_object(json.get());
  for (const auto &axis : axes) {
    json.begin_object(axis.name);
    json.member("position", measure(group, axis.value_key));
    json.member("status", status_name(group, axis.status_key).c_str());
    json_builder_end_object(json.get());
  }
  json.member("update_rate", gint64{update_rate(group)});
  json.member("age_ms", age_ms(group));
  json_builder_end_object(json.get());
  json.print();
}

std::vector<std::string> screen_lines(const StatusGroup &group, bool is_published) {
  std::vector<std::string> lines = {group.name + "                    q to leave", ""};
  if (!is_published) {
    lines.emplace_back("nothing is published");
    return lines;
  }
  constexpr const char *units[] = {"degrees", "degrees", "times"};
  for (std::size_t i = 0; i < std::size(axes); ++i) {
    const ptz::Text line(g_strdup_printf("  %-6s %9.2f %-9s %s", axes[i].name, measure(group, axes[i].value_key),
                                         units[i], status_name(group, axes[i].status_key).c_str()));
    lines.emplace_back(line.get());
  }
  const ptz::Text last(g_strdup_printf("  %d updates a second, the last %" G_GINT64_FORMAT " ms ago",
                                       update_rate(group), age_ms(group)));
  lines.insert(lines.end(), {"", last.get()});
  return lines;
}

int run_watch(const std::string &words, int argc, char **argv) {
  gboolean as_json = FALSE;
  gint interval_ms = 200, count = 0;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json, "One object a line", nullptr},
      {"interval", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &interval_ms, "Look this often, 10 to 60000; 200", "MS"},
      {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &count, "Look this many times; without it, for ever", "N"},
      {}};
  Options options(words, "[INSTANCE]",
                  "Shows where the head of an instance is, or of 1, and whether it moves; in a terminal, on the whole "
                  "screen.",
                  entries);
  const auto given = options.parse(argc, argv, 1);
  if (!given) return exit_usage;
  const auto instance =
      given->empty() ? std::optional(default_instance) : parse_number(given->front(), "instance", 0, G_MAXUINT32);
  if (!instance) return exit_usage;
  if (interval_ms < 10 || interval_ms > 60'000 || count < 0) {
    complain("it takes an --interval from 10 to 60000 and a --count above 0");
    return exit_usage;
  }

  StatusGroup group(position, static_cast<guint>(*instance));
  std::optional<StatusScreen> screen;
  bool was_published = true;
  for (gint look = 0; count == 0 || look < count; ++look) {
    const auto reading = read_group(group.name, group.values);
    if (reading == Reading::failed) {
      const int error = errno;
      screen.reset();
      errno = error;
      return complain_of_reading(group.name);
    }
    const bool is_published = reading == Reading::done;
    if (as_json == FALSE && isatty(STDOUT_FILENO) != 0) {
      if (!screen) screen.emplace();
      screen->draw(screen_lines(group, is_published));
      if (!screen->wait(interval_ms)) break;
      continue;
    }
    if (is_published) print_position(group, as_json != FALSE);
    // Whoever publishes may start later, or again.
    if (!is_published && was_published) complain("%s is not published", group.name.c_str());
    was_published = is_published;
    if (std::ferror(stdout) != 0) break;
    if (count == 0 || look + 1 < count) g_usleep(static_cast<gulong>(interval_ms) * 1000);
  }
  return was_published ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int run_status(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {{"show", "the values of its groups", run_show},
                                               {"watch", "its position, again and again", run_watch}};
  return run_one_of(subcommands, words, argc, argv);
}

}  // namespace ptzctl
