#include <ptz_enum_types.h>
#include <ptz_status_cache.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <span>
#include <string_view>

#include "commands.h"
#include "json_text.h"
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
    const tools::Handle<PTZStatusCacheGroup, ptz_status_cache_free_group> handle(
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
  json.end_object();
}

void print_group(const StatusGroup &group, bool as_json) {
  if (as_json) {
    const JsonLine json;
    json.member("group", group.name);
    add_values(json, group);
    json.print();
    return;
  }
  std::printf("%s\n", painted(Look::heading, group.name).c_str());
  for (const auto &value : group.values) {
    if (value.found) std::printf("  %-28s %s\n", value.key, value.text().c_str());
  }
}

int run_show(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"[GROUP] [INSTANCE]",
                   "Shows a group of the live state, position, various or limit, or all that there are, of the "
                   "instance with this number, or of 1.",
                   " limit 1"},
                  Asks::none);
  const auto given = options.parse(argc, argv);
  if (!given) return exit_usage;
  std::span<const Kind> wanted = kinds;
  const bool only_instance = given->size() == 1 && g_ascii_isdigit(*given->front().c_str());
  const bool is_asked_for = !given->empty() && !only_instance;
  if (is_asked_for) {
    const auto is_it = [&](const Kind &kind) { return given->front() == nick_of(PTZ_TYPE_SC_GROUP, kind.group); };
    const auto *const found = std::find_if(std::begin(kinds), std::end(kinds), is_it);
    if (found == std::end(kinds)) {
      const auto hint = did_you_mean(given->front(), {"position", "various", "limit"});
      return options.misused("there is no group '%s'%s", given->front().c_str(), hint.c_str());
    }
    wanted = {found, 1};
  }
  const bool is_default = given->empty() || (is_asked_for && given->size() == 1);
  const auto instance =
      is_default ? std::optional(default_instance) : options.number(given->back(), "instance", 0, G_MAXUINT32);
  if (!instance) return exit_usage;

  int shown = 0;
  for (const auto &kind : wanted) {
    StatusGroup group(kind, static_cast<guint>(*instance));
    const auto reading = read_group(group.name, group.values);
    if (reading == Reading::failed) return complain_of_reading(group.name, reading);
    if (reading != Reading::done) continue;
    print_group(group, options.as_json());
    ++shown;
  }
  if (shown > 0) return EXIT_SUCCESS;
  complain("instance %u has published no%s%s", static_cast<guint>(*instance), is_asked_for ? " " : "thing",
           is_asked_for ? given->front().c_str() : "");
  return exit_nobody;
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

Look look_of(const std::string &status) {
  if (status == "moving") return Look::notice;
  return status == "idle" ? Look::good : Look::plain;
}

float measure(const StatusGroup &group, const char *key) {
  const auto *value = group.find(key);
  return value != nullptr ? value->value.measure : 0;
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

void print_position(const StatusGroup &group, bool as_json) {
  if (!as_json) {
    for (const auto &axis : axes) {
      const auto status = status_name(group, axis.status_key);
      const std::string padding(status.size() < 7 ? 7 - status.size() : 0, ' ');
      std::printf("%s %9.2f %s%s  ", axis.name, static_cast<double>(measure(group, axis.value_key)),
                  painted(look_of(status), status).c_str(), padding.c_str());
    }
    std::printf("rate %d/s  age %" G_GINT64_FORMAT " ms\n", update_rate(group), age_ms(group));
    std::fflush(stdout);
    return;
  }
  const JsonLine json;
  for (const auto &axis : axes) {
    json.begin_object(axis.name);
    json.member("position", widened(measure(group, axis.value_key)));
    json.member("status", status_name(group, axis.status_key));
    json.end_object();
  }
  json.member("update_rate", gint64{update_rate(group)});
  json.member("age_ms", age_ms(group));
  json.print();
}

std::vector<StatusScreen::Line> screen_lines(const StatusGroup &group, bool is_published) {
  std::vector<StatusScreen::Line> lines = {{group.name + "                    q to leave", Look::heading}, {}};
  if (!is_published) {
    lines.push_back({"nothing is published"});
    return lines;
  }
  constexpr const char *units[] = {"degrees", "degrees", "times"};
  for (std::size_t i = 0; i < std::size(axes); ++i) {
    const auto status = status_name(group, axes[i].status_key);
    const tools::Text line(g_strdup_printf("  %-6s %9.2f %-9s %s", axes[i].name,
                                           static_cast<double>(measure(group, axes[i].value_key)), units[i],
                                           status.c_str()));
    lines.push_back({line.get(), look_of(status)});
  }
  const tools::Text last(g_strdup_printf("  %d updates a second, the last %" G_GINT64_FORMAT " ms ago",
                                         update_rate(group), age_ms(group)));
  lines.insert(lines.end(), {{}, {last.get()}});
  return lines;
}

int run_watch(const std::string &words, int argc, char **argv) {
  gint interval_ms = 200, count = 0;
  Options options(
      words,
      {"[INSTANCE]",
       "Shows where the head of an instance is, or of 1, and whether it moves; in a terminal, on the whole screen.",
       " 1 --count 3 --interval 500"},
      Asks::none,
      {{"interval", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &interval_ms, "Look this often, by default 200", "MS"},
       {"count", 'n', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &count, "Look this many times; 0 is for ever", "N"}});
  const auto given = options.parse(argc, argv);
  if (!given || !options.is_within("--interval", interval_ms, 10, 60'000) ||
      !options.is_within("--count", count, 0, G_MAXINT)) {
    return exit_usage;
  }
  const auto instance =
      given->empty() ? std::optional(default_instance) : options.number(given->front(), "instance", 0, G_MAXUINT32);
  if (!instance) return exit_usage;

  StatusGroup group(position, static_cast<guint>(*instance));
  std::optional<StatusScreen> screen;
  bool was_published = true;
  for (gint look = 0; count == 0 || look < count; ++look) {
    const auto reading = read_group(group.name, group.values);
    if (reading == Reading::failed) {
      const int error = errno;
      screen.reset();
      errno = error;
      return complain_of_reading(group.name, reading);
    }
    const bool is_published = reading == Reading::done;
    if (!options.as_json() && isatty(STDOUT_FILENO) != 0) {
      if (!screen) screen.emplace();
      screen->draw(screen_lines(group, is_published));
      if (!screen->wait(interval_ms)) break;
      continue;
    }
    if (is_published) print_position(group, options.as_json());
    // Whoever publishes may start later, or again.
    if (!is_published && was_published) complain("%s is not published", group.name.c_str());
    was_published = is_published;
    if (std::ferror(stdout) != 0) break;
    if (count == 0 || look + 1 < count) g_usleep(static_cast<gulong>(interval_ms) * 1000);
  }
  return was_published ? EXIT_SUCCESS : exit_nobody;
}

}  // namespace

int run_status(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {{"show", "the values of its groups", run_show},
                                               {"watch", "its position, again and again", run_watch}};
  return run_one_of(subcommands, "Example: ptzctl status show position --json", words, argc, argv);
}

}  // namespace ptzctl
