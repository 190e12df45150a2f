#include <ptz_enum_types.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>

#include "axis_members.h"
#include "driver_axes.h"
#include "driver_commands.h"
#include "driver_connection.h"
#include "field_values.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

using Presets = tools::Handle<PTZKitGetDevicePresetsReply, ptz_kit_get_device_presets_reply_free>;
using StoredPreset = tools::Handle<PTZKitSetDevicePresetReply, ptz_kit_set_device_preset_reply_free>;

constexpr guint watch_interval_us = 50'000;
constexpr gint full_speed = 100;  // per cent
constexpr gint64 most_presets = 32;

// The limit that the axis is at; null if it is at none, or if the driver does not tell its limits.
const char *limit_reached(const Limits &limits, std::size_t axis, gint32 position) {
  if (limits == nullptr || limits->minimum[axis] >= limits->maximum[axis]) return nullptr;
  if (position <= limits->minimum[axis]) return "minimum";
  return position >= limits->maximum[axis] ? "maximum" : nullptr;
}

void print_positions(DriverConnection &driver, const Positions &positions, bool as_json) {
  const auto limits = driver.ask_if_served<Limits, ptz_kit_link_query_limit_ranges>();
  if (as_json) {
    const JsonLine json;
    add_axes(json, [&](std::size_t i) {
      json.member("position", shown(positions->position[i]));
      json.member("status", word_of(PTZ_TYPE_MOVE_STATUS, positions->status[i]));
      if (const char *const limit = limit_reached(limits, i, positions->position[i])) json.member("limit", limit);
    });
    json.print();
    return;
  }
  for (std::size_t i = 0; i < axis_count; ++i) {
    const char *const limit = limit_reached(limits, i, positions->position[i]);
    const std::string at_limit = limit != nullptr ? ", " + painted(Look::bad, std::string("at its ") + limit) : "";
    const Look look = positions->status[i] == PTZ_MOVE_STATUS_MOVING ? Look::notice : Look::good;
    const std::string status = painted(look, word_of(PTZ_TYPE_MOVE_STATUS, positions->status[i]));
    std::printf("%-5s %10.2f %s, %s%s\n", axis_names[i], shown(positions->position[i]), axis_units[i], status.c_str(),
                at_limit.c_str());
  }
}

bool is_idle(const Positions &positions) {
  return std::ranges::all_of(positions->status, [](gint32 status) { return status == PTZ_MOVE_STATUS_IDLE; });
}

// Sends a request whose reply has no fields. With `wait` shows where the head is once it is idle.
template <auto function, typename... Request>
int obey(DriverConnection &driver, const Options &options, bool wait, const Request *...request) {
  const bool is_obeyed = driver.is_obeyed<function>(request...);
  if (is_obeyed && !wait && options.as_json()) JsonLine().print();
  while (is_obeyed && wait) {
    const auto positions = driver.ask<Positions, ptz_kit_link_query_position>();
    if (positions == nullptr) break;
    if (is_idle(positions)) {
      print_positions(driver, positions, options.as_json());
      break;
    }
    g_usleep(watch_interval_us);
  }
  return driver.status();
}

template <auto function, typename... Request>
int obey(const Options &options, bool wait, const Request *...request) {
  DriverConnection driver(options);
  return obey<function>(driver, options, wait, request...);
}

// "up-left" is one word of a command line.
std::string with(char joint, char instead_of, std::string text) {
  std::replace(text.begin(), text.end(), instead_of, joint);
  return text;
}

Words kinds_of_move() {
  Words kinds;
  for (const GType type : {PTZ_TYPE_MOVE, PTZ_TYPE_MOVE_CMD}) {
    const auto *const values = static_cast<GEnumClass *>(g_type_class_ref(type));
    for (guint i = 0; i < values->n_values; ++i) kinds.push_back(with('-', ' ', values->values[i].value_nick));
  }
  return kinds;
}

// NaN stands for an axis that was not named.
bool set_axis(PTZKitMoveRequest &move, std::size_t axis, double value) {
  if (std::isnan(value)) return true;
  const double hundredths = std::round(value * 100);
  if (std::abs(hundredths) > std::numeric_limits<gint32>::max()) return false;
  move.value[axis] = static_cast<gint32>(hundredths);
  move.axes |= static_cast<guint8>(1U << axis);
  return true;
}

// Drivers tell what is wrong in hundredths. The user gave degrees and magnifications.
std::string beyond_limit(DriverConnection &driver, const PTZKitMoveRequest &move,
                         const std::array<double, axis_count> &values) {
  const bool is_speed = move.kind == PTZ_MOVE_CONTINUOUS;
  const auto limits = driver.ask_if_served<Limits, ptz_kit_link_query_limit_ranges>();
  const auto speeds = driver.ask_if_served<Speeds, ptz_kit_link_query_speed>();
  if (limits == nullptr || speeds == nullptr) return "";
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    const gint32 least = is_speed ? -speeds->maximum[axis] : limits->minimum[axis];
    const gint32 most = is_speed ? speeds->maximum[axis] : limits->maximum[axis];
    const bool is_beyond = least < most && (move.value[axis] < least || move.value[axis] > most);
    if ((move.axes >> axis & 1) == 0 || !is_beyond) continue;
    const double limit = shown(move.value[axis] < least ? least : most);
    const char *const unit = axis_units[axis], *const after = is_speed ? " a second" : "";
    const tools::Text text(g_strdup_printf("%s: %.10g %s%s is beyond the limit %.10g %s%s", axis_names[axis],
                                           values[axis], unit, after, limit, unit, after));
    return text.get();
  }
  return "";
}

constexpr gint speed_not_given = G_MININT;

// Names the option that a direction does not use; null if there is none.
const char *unused_option(guint32 direction, const std::array<double, axis_count> &values, gint speed) {
  static constexpr const char *names[] = {"--pan", "--tilt", "--zoom"};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    if (!std::isnan(values[axis])) return names[axis];
  }
  return direction == PTZ_MOVE_CMD_STOP && speed != speed_not_given ? "--speed" : nullptr;
}

void print_preset(guint32 number, const std::string &name, bool as_json) {
  if (!as_json) {
    std::printf("%4u  %s\n", number, name.c_str());
    return;
  }
  const JsonLine json;
  json.member("number", gint64{number});
  json.member("name", name);
  json.print();
}

int run_preset_list(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows the presets that the driver keeps.", " --json"}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto reply = driver.ask<Presets, ptz_kit_link_get_device_presets>();
  if (reply == nullptr) return driver.status();
  for (guint i = 0; i < reply->presets->len; ++i) {
    const auto &preset = *static_cast<const PTZKitPreset *>(g_ptr_array_index(reply->presets, i));
    print_preset(preset.number, preset.name, options.as_json());
  }
  return EXIT_SUCCESS;
}

int run_preset_store(const std::string &words, int argc, char **argv) {
  Options options(words, {"NUMBER NAME", "Keeps where the head is as a preset.", " 3 'the gate'"}, Asks::driver);
  const auto given = options.parse(argc, argv);
  const auto number = given ? options.number(given->front(), "preset", 1, most_presets) : std::nullopt;
  if (!number) return exit_usage;
  DriverConnection driver(options);
  const PTZKitSetDevicePresetRequest preset = {static_cast<guint32>(*number),
                                               const_cast<char *>(given->back().c_str())};
  const auto stored = driver.ask<StoredPreset, ptz_kit_link_set_device_preset>(&preset);
  if (stored != nullptr && options.as_json()) print_preset(preset.number, preset.name, true);
  return driver.status();
}

int run_preset_goto(const std::string &words, int argc, char **argv) {
  gint speed = full_speed;
  gboolean wait = FALSE;
  Options options(
      words, {"NUMBER", "Moves the head to a preset.", " 3 --speed 50 --wait"}, Asks::driver,
      {{"speed", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed, "Of each axis's maximum, by default 100", "PERCENT"},
       {"wait", 'w', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &wait, "Show where the head is once it is there",
        nullptr}});
  const auto given = options.parse(argc, argv);
  if (!given || !options.is_within("--speed", speed, 1, full_speed)) return exit_usage;
  const auto number = options.number(given->front(), "preset", 1, most_presets);
  if (!number) return exit_usage;
  const PTZKitGotoDevicePresetRequest wanted = {static_cast<guint32>(*number), static_cast<guint16>(speed)};
  return obey<ptz_kit_link_goto_device_preset>(options, wait != FALSE, &wanted);
}

}  // namespace

int run_driver_position(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows where each axis is, whether it moves, and whether it is at a limit.", ""},
                  Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto positions = driver.ask<Positions, ptz_kit_link_query_position>();
  if (positions != nullptr) print_positions(driver, positions, options.as_json());
  return driver.status();
}

int run_driver_move(const std::string &words, int argc, char **argv) {
  constexpr double not_named = std::numeric_limits<double>::quiet_NaN();
  std::array<double, axis_count> values = {not_named, not_named, not_named};
  gint given_speed = speed_not_given;
  gboolean wait = FALSE;
  Options options(
      words,
      {"KIND",
       "Moves the head: absolute, to a position; relative, by a distance; continuous, at a speed in degrees or\n"
       "magnifications a second. Or runs it in a direction: up, down, left, right, up-left and so on, home, stop.",
       " absolute --pan 90 --tilt -10 --wait"},
      Asks::driver,
      {{"pan", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[PTZ_KIT_AXIS_PAN], "To the right positive",
        "DEGREES"},
       {"tilt", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[PTZ_KIT_AXIS_TILT], "Upwards positive", "DEGREES"},
       {"zoom", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[PTZ_KIT_AXIS_ZOOM], "Magnification", "TIMES"},
       {"speed", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &given_speed, "Of the axis's maximum, by default 100",
        "PERCENT"},
       {"wait", 'w', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &wait, "Show where the head is once it is there",
        nullptr}});
  const auto given = options.parse(argc, argv);
  const gint speed = given_speed == speed_not_given ? full_speed : given_speed;
  if (!given || !options.is_within("--speed", speed, 1, full_speed)) return exit_usage;
  const std::string &kind = given->front();
  if (const auto direction = value_of(PTZ_TYPE_MOVE_CMD, with(' ', '-', kind))) {
    const char *const unused = unused_option(static_cast<guint32>(*direction), values, given_speed);
    if (unused != nullptr) return options.misused("%s takes no %s", kind.c_str(), unused);
    const PTZKitMoveCommandRequest run = {static_cast<guint32>(*direction), static_cast<guint16>(speed)};
    return obey<ptz_kit_link_move_command>(options, wait != FALSE, &run);
  }
  const auto move_kind = value_of(PTZ_TYPE_MOVE, kind);
  if (!move_kind) {
    return options.misused("'%s' is no kind of move%s", kind.c_str(), did_you_mean(kind, kinds_of_move()).c_str());
  }
  PTZKitMoveRequest move = {static_cast<guint32>(*move_kind), 0, static_cast<guint16>(speed), {}};
  for (std::size_t i = 0; i < axis_count; ++i) {
    if (!set_axis(move, i, values[i])) return options.misused("no head goes as far as %.10g", values[i]);
  }
  if (move.axes == 0) return options.misused("%s takes --pan, --tilt or --zoom", kind.c_str());
  DriverConnection driver(options);
  if (*move_kind != PTZ_MOVE_RELATIVE) driver.explain_range([&] { return beyond_limit(driver, move, values); });
  return obey<ptz_kit_link_move>(driver, options, wait != FALSE, &move);
}

int run_driver_stop(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Stops every axis.", ""}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  return obey<ptz_kit_link_stop>(options, false);
}

int run_driver_presets(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"goto", "move the head to one", run_preset_goto},
      {"list", "what the driver keeps", run_preset_list},
      {"store", "keep where the head is", run_preset_store},
  };
  return run_one_of(subcommands, "Example: ptzctl driver presets list", words, argc, argv);
}

}  // namespace ptzctl
