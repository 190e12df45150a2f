#include <ptz_enum_types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <span>

#include "commands.h"
#include "driver_axes.h"
#include "field_values.h"
#include "status_group.h"
#include "status_screen.h"

namespace ptzctl {

namespace {

constexpr gint64 default_instance = 1;
const StatusKind *const kinds[] = {&position_kind, &various_kind, &limit_kind};

std::string age_text(const StatusGroup &group) {
  const auto age = group.age_ms();
  const std::string text = age ? std::to_string(*age) + " ms" : "unknown";
  return group.is_stale() ? text + "  " + painted(Look::bad, "stale") : text;
}

void print_group(const StatusGroup &group, guint instance, bool has_time, bool as_json) {
  const auto publishers = publishers_of(instance);
  if (as_json) {
    const JsonLine json;
    json.member("group", group.name);
    json.member("instance", gint64{instance});
    json.begin_object("values");
    for (const auto &value : group.values) {
      if (value.found) value.add_to(json);
    }
    json.end_object();
    if (has_time) {
      group.add_axes_to(json);
      add_age(json, group);
    }
    add_publishers(json, publishers);
    json.print();
    return;
  }
  std::printf("%s\n", painted(Look::heading, group.name).c_str());
  const auto print_row = [](const char *name, const std::string &text) {
    std::printf("  %-28s %s\n", name, text.c_str());
  };
  for (const auto &value : group.values) {
    if (value.found) print_row(value.key, value.text());
  }
  if (has_time) print_row("age", age_text(group));
  const bool is_trouble = !trouble_with(publishers).empty();
  if (!publishers.empty()) print_row("publisher", painted(is_trouble ? Look::bad : Look::plain, text_of(publishers)));
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
  std::span<const StatusKind *const> wanted = kinds;
  const bool only_instance = given->size() == 1 && g_ascii_isdigit(*given->front().c_str());
  const bool is_asked_for = !given->empty() && !only_instance;
  if (is_asked_for) {
    const auto is_it = [&](const StatusKind *kind) {
      return given->front() == word_of(PTZ_TYPE_SC_GROUP, kind->group);
    };
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
  for (const auto *kind : wanted) {
    StatusGroup group(*kind, static_cast<guint>(*instance));
    const auto reading = read_group(group.name, group.values);
    if (reading == Reading::failed) return complain_of_reading(group.name, reading);
    if (reading != Reading::done) continue;
    print_group(group, static_cast<guint>(*instance), kind == &position_kind, options.as_json());
    ++shown;
  }
  if (shown > 0) return EXIT_SUCCESS;
  complain("instance %u has published no%s%s", static_cast<guint>(*instance), is_asked_for ? " " : "thing",
           is_asked_for ? given->front().c_str() : "");
  return exit_nobody;
}

// --- watch ------------------------------------------------------------------------------------------------------

Look look_of(const std::string &status) {
  if (status == "moving") return Look::notice;
  return status == "idle" ? Look::good : Look::plain;
}

// What one look at a position has found.
struct Sight {
  const StatusGroup &group;
  guint instance;
  std::vector<Publisher> publishers;
};

void print_as_json(const Sight &sight) {
  const JsonLine json;
  json.member("instance", gint64{sight.instance});
  sight.group.add_axes_to(json);
  json.member("update_rate", gint64{sight.group.update_rate()});
  add_age(json, sight.group);
  add_publishers(json, sight.publishers);
  json.print();
}

void print_as_line(const Sight &sight) {
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    const auto status = sight.group.status(axis);
    const std::string padding(status.size() < 7 ? 7 - status.size() : 0, ' ');
    std::printf("%s %9.2f %s%s  ", axis_names[axis], static_cast<double>(sight.group.position(axis)),
                painted(look_of(status), status).c_str(), padding.c_str());
  }
  std::printf("rate %d/s  age %s", sight.group.update_rate(), age_text(sight.group).c_str());
  const std::string trouble = trouble_with(sight.publishers);
  std::printf("%s\n", trouble.empty() ? "" : ("  " + painted(Look::bad, trouble)).c_str());
  std::fflush(stdout);
}

std::vector<StatusScreen::Line> screen_lines(const Sight &sight, bool is_published) {
  const StatusGroup &group = sight.group;
  std::vector<StatusScreen::Line> lines = {{group.name + "                    q to leave", Look::heading}, {}};
  if (!is_published) {
    lines.push_back({"nothing is published"});
    return lines;
  }
  const bool is_stale = group.is_stale();
  for (std::size_t i = 0; i < axis_count; ++i) {
    const auto status = group.status(i);
    const tools::Text line(g_strdup_printf("  %-6s %9.2f %-9s %s", axis_names[i],
                                           static_cast<double>(group.position(i)), axis_units[i], status.c_str()));
    lines.push_back({line.get(), is_stale ? Look::bad : look_of(status)});
  }
  const auto age = group.age_ms();
  const std::string last = "  " + std::to_string(group.update_rate()) + " updates a second, the last " +
                           (age ? std::to_string(*age) + " ms ago" : "at an unknown time") +
                           (is_stale ? ", stale" : "");
  lines.insert(lines.end(), {{}, {last, is_stale ? Look::bad : Look::plain}});
  const Look look = trouble_with(sight.publishers).empty() ? Look::plain : Look::bad;
  if (!sight.publishers.empty()) lines.push_back({"  published by " + text_of(sight.publishers), look});
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

  StatusGroup group(position_kind, static_cast<guint>(*instance));
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
    const auto number = static_cast<guint>(*instance);
    const Sight sight = {group, number, publishers_of(number)};
    if (!options.as_json() && isatty(STDOUT_FILENO) != 0) {
      if (!screen) screen.emplace();
      screen->draw(screen_lines(sight, is_published));
      if (!screen->wait(interval_ms)) break;
      continue;
    }
    if (is_published) options.as_json() ? print_as_json(sight) : print_as_line(sight);
    // A driver may start to publish later, or again.
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
