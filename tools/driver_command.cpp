#include <ptz_enum_types.h>
#include <ptz_flag_types.h>
#include <ptz_serialize.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "driver_connection.h"

namespace ptzctl {

namespace {

using namespace example;

constexpr guint watch_interval_us = 50'000;
constexpr std::array<const char *, axis_count> axis_names = {"pan", "tilt", "zoom"};
constexpr std::array<const char *, axis_count> axis_units = {"degrees", "degrees", "times"};

// The messages have hundredths; people have degrees, and magnifications.
double shown(gint32 value) { return value / 100.0; }

int run_info(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows the driver's name and the devices that it is for.", ""}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto name = driver.query<Name>(PTZ_COMMAND_GET_DRIVER_NAME);
  const auto types = name ? driver.query<DeviceTypes>(PTZ_COMMAND_GET_DEVICE_TYPES) : std::nullopt;
  if (!types) return driver.status();
  if (options.as_json()) {
    const JsonLine json;
    json.member("name", name->text);
    json.begin_array("device_types");
    for (const auto &type : types->elements) json.element(type.text);
    json.end_array();
    json.print();
    return EXIT_SUCCESS;
  }
  std::printf("%s\n", painted(Look::heading, name->text).c_str());
  for (const auto &type : types->elements) std::printf("  for %s\n", type.text.c_str());
  return EXIT_SUCCESS;
}

std::vector<const char *> names_of_bits(GType type, guint32 bits) {
  std::vector<const char *> names;
  auto *const flags = static_cast<GFlagsClass *>(g_type_class_ref(type));
  for (guint i = 0; i < flags->n_values; ++i) {
    const auto &each = flags->values[i];
    if (each.value != 0 && (bits & each.value) == each.value) names.push_back(each.value_name);
  }
  return names;  // which live as long as the type does
}

int run_caps(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows what the driver says that it can do.", " --json"}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto caps = driver.query<Capabilities>(PTZ_COMMAND_GET_CAPABILITIES);
  if (!caps) return driver.status();
  const struct {
    const char *title;
    guint32 bits;
    GType type;
  } rows[] = {{"move", caps->words.move, PTZ_TYPE_DRIVER_MOVE_CAPABILITIES},
              {"extra", caps->words.extra, PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES}};
  if (options.as_json()) {
    const JsonLine json;
    for (const auto &row : rows) {
      json.begin_array(row.title);
      for (const auto *name : names_of_bits(row.type, row.bits)) json.element(name);
      json.end_array();
    }
    json.print();
    return EXIT_SUCCESS;
  }
  for (const auto &row : rows) {
    std::printf("%-6s 0x%08x", row.title, row.bits);
    for (const auto *name : names_of_bits(row.type, row.bits)) std::printf(" %s", name);
    std::printf("\n");
  }
  return EXIT_SUCCESS;
}

int run_limits(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows how far and how fast each axis goes, in degrees and magnifications.", " --json"},
                  Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto limits = driver.query<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES);
  const auto speeds = limits ? driver.query<Speeds>(PTZ_COMMAND_QUERY_SPEED) : std::nullopt;
  if (!speeds) return driver.status();
  for (std::size_t i = 0; i < axis_count; ++i) {
    const double least = shown(limits->minimum[i]), most = shown(limits->maximum[i]);
    const double fastest = shown(speeds->maximum[i]);
    if (options.as_json()) {
      const JsonLine json;
      json.member("axis", axis_names[i]);
      json.member("minimum", least);
      json.member("maximum", most);
      json.member("maximum_speed", fastest);
      json.print();
    } else {
      std::printf("%-5s %10.2f to %10.2f %s, at most %.2f a second\n", axis_names[i], least, most, axis_units[i],
                  fastest);
    }
  }
  return EXIT_SUCCESS;
}

// Where a head is that goes no further; nothing where it is not there, or does not tell its limits.
const char *limit_reached(const std::optional<Limits> &limits, std::size_t axis, gint32 position) {
  if (!limits || limits->minimum[axis] >= limits->maximum[axis]) return nullptr;
  if (position <= limits->minimum[axis]) return "minimum";
  return position >= limits->maximum[axis] ? "maximum" : nullptr;
}

void print_positions(DriverConnection &driver, const Positions &positions, bool as_json) {
  const auto limits = driver.query_if_served<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES);
  for (std::size_t i = 0; i < axis_count; ++i) {
    const bool is_moving = positions.status[i] == PTZ_MOVE_STATUS_MOVING;
    const char *const status = is_moving ? "moving" : "idle";
    const char *const limit = limit_reached(limits, i, positions.position[i]);
    if (as_json) {
      const JsonLine json;
      json.member("axis", axis_names[i]);
      json.member("position", shown(positions.position[i]));
      json.member("status", status);
      if (limit != nullptr) json.member("limit", limit);
      json.print();
    } else {
      const std::string at_limit = limit != nullptr ? ", " + painted(Look::bad, std::string("at its ") + limit) : "";
      std::printf("%-5s %10.2f %s, %s%s\n", axis_names[i], shown(positions.position[i]), axis_units[i],
                  painted(is_moving ? Look::notice : Look::good, status).c_str(), at_limit.c_str());
    }
  }
}

int run_position(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows where each axis is, whether it moves, and whether it is at a limit.", ""},
                  Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto positions = driver.query<Positions>(PTZ_COMMAND_QUERY_POSITION);
  if (positions) print_positions(driver, *positions, options.as_json());
  return driver.status();
}

// Sends a request that is answered by its command alone. With `wait` shows where the head is once it is idle.
int obey(const Options &options, PTZCommand command, const Body &request, bool wait) {
  struct Nothing {
    static Nothing read(BodyReader &) { return {}; }
  };
  DriverConnection driver(options);
  const bool is_obeyed = driver.query<Nothing>(command, request).has_value();
  if (is_obeyed && !wait && options.as_json()) JsonLine().print();
  while (is_obeyed && wait) {
    const auto positions = driver.query<Positions>(PTZ_COMMAND_QUERY_POSITION);
    if (!positions) break;
    if (positions->idle()) {
      print_positions(driver, *positions, options.as_json());
      break;
    }
    g_usleep(watch_interval_us);
  }
  return driver.status();
}

// The value of an enumeration by its nick or its name, in any case.
std::optional<gint> value_of(GType type, const std::string &text) {
  auto *const values = static_cast<GEnumClass *>(g_type_class_ref(type));
  for (guint i = 0; i < values->n_values; ++i) {
    const auto &each = values->values[i];
    for (const char *word : {each.value_nick, each.value_name}) {
      if (g_ascii_strcasecmp(word, text.c_str()) == 0) return each.value;
    }
  }
  return std::nullopt;
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

// NaN is where an axis was not named.
bool set_axis(MoveRequest &move, AxisIndex axis, double value) {
  if (std::isnan(value)) return true;
  const double hundredths = std::round(value * 100);
  if (std::abs(hundredths) > std::numeric_limits<gint32>::max()) return false;
  move.values[axis] = static_cast<gint32>(hundredths);
  move.axes |= axis_bit(axis);
  return true;
}

int run_move(const std::string &words, int argc, char **argv) {
  constexpr double not_named = std::numeric_limits<double>::quiet_NaN();
  std::array<double, axis_count> values = {not_named, not_named, not_named};
  gint speed = full_speed;
  gboolean wait = FALSE;
  Options options(
      words,
      {"KIND",
       "Moves the head: absolute, to a position; relative, by a distance; continuous, at a speed in degrees or\n"
       "magnifications a second. Or runs it in a direction: up, down, left, right, up-left and so on, home, stop.",
       " absolute --pan 90 --tilt -10 --wait"},
      Asks::driver,
      {{"pan", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[pan], "To the right positive", "DEGREES"},
       {"tilt", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[tilt], "Upwards positive", "DEGREES"},
       {"zoom", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[zoom], "Magnification", "TIMES"},
       {"speed", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed, "Of the axis's maximum, by default 100", "PERCENT"},
       {"wait", 'w', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &wait, "Show where the head is once it is there",
        nullptr}});
  const auto given = options.parse(argc, argv);
  if (!given || !options.is_within("--speed", speed, 1, full_speed)) return exit_usage;
  const std::string &kind = given->front();
  if (const auto direction = value_of(PTZ_TYPE_MOVE_CMD, with(' ', '-', kind))) {
    const MoveCommandRequest run = {static_cast<guint32>(*direction), static_cast<guint16>(speed)};
    return obey(options, PTZ_COMMAND_MOVE_COMMAND, make_body(PTZ_COMMAND_MOVE_COMMAND, run), wait != FALSE);
  }
  const auto move_kind = value_of(PTZ_TYPE_MOVE, kind);
  if (!move_kind) {
    return options.misused("'%s' is no kind of move%s", kind.c_str(), did_you_mean(kind, kinds_of_move()).c_str());
  }
  MoveRequest move = {static_cast<guint32>(*move_kind), 0, static_cast<guint16>(speed), {}};
  for (std::size_t i = 0; i < axis_count; ++i) {
    if (!set_axis(move, AxisIndex(i), values[i])) return options.misused("no head goes as far as %g", values[i]);
  }
  if (move.axes == 0) return options.misused("%s takes --pan, --tilt or --zoom", kind.c_str());
  return obey(options, PTZ_COMMAND_MOVE, make_body(PTZ_COMMAND_MOVE, move), wait != FALSE);
}

int run_stop(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Stops every axis.", ""}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  return obey(options, PTZ_COMMAND_STOP, make_body(PTZ_COMMAND_STOP), false);
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
  const auto presets = driver.query<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS);
  if (!presets) return driver.status();
  for (const auto &preset : presets->elements) print_preset(preset.number, preset.name, options.as_json());
  return EXIT_SUCCESS;
}

int run_preset_store(const std::string &words, int argc, char **argv) {
  Options options(words, {"NUMBER NAME", "Keeps where the head is as a preset.", " 3 'the gate'"}, Asks::driver);
  const auto given = options.parse(argc, argv);
  const auto number = given ? options.number(given->front(), "preset", 1, most_presets) : std::nullopt;
  if (!number) return exit_usage;
  DriverConnection driver(options);
  const Preset preset = {static_cast<guint32>(*number), given->back()};
  const auto stored =
      driver.query<PresetNumber>(PTZ_COMMAND_SET_DEVICE_PRESET, make_body(PTZ_COMMAND_SET_DEVICE_PRESET, preset));
  if (stored && options.as_json()) print_preset(preset.number, preset.name, true);
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
  const GotoPresetRequest wanted = {static_cast<guint32>(*number), static_cast<guint16>(speed)};
  return obey(options, PTZ_COMMAND_GOTO_DEVICE_PRESET, make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, wanted),
              wait != FALSE);
}

int run_presets(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"goto", "move the head to one", run_preset_goto},
      {"list", "what the driver keeps", run_preset_list},
      {"store", "keep where the head is", run_preset_store},
  };
  return run_one_of(subcommands, "Example: ptzctl driver presets list", words, argc, argv);
}

// ---- send: any body, for whoever looks for what a driver makes of it

constexpr char field_help[] =
    "Sends a body of the given fields and shows the reply's bytes.\n\n"
    "A field is u8:N, u16:N, u32:N, i32:N, text:TEXT (with its length before it), hex:BYTES, or command:NAME. With "
    "--reply\nthe reply is shown field by field, for example as u32,i32,text.";

// False for what is no field.
bool add_field(GArray *body, const std::string &field) {
  const auto colon = field.find(':');
  if (colon == std::string::npos) return false;
  const std::string type = field.substr(0, colon), value = field.substr(colon + 1);
  const auto number_within = [&value](gint64 least, gint64 most) -> std::optional<gint64> {
    gchar *end = nullptr;
    errno = 0;
    const gint64 number = g_ascii_strtoll(value.c_str(), &end, 0);
    if (value.empty() || *end != '\0' || errno != 0 || number < least || number > most) return std::nullopt;
    return number;
  };
  if (type == "text") {
    ptz_serialize_string(body, value.c_str());
    return value.size() <= G_MAXUINT16;
  }
  if (type == "hex") {
    std::string digits;
    for (const char c : value) {
      if (c != ' ') digits += c;
    }
    if (digits.size() % 2 != 0) return false;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
      const int high = g_ascii_xdigit_value(digits[i]), low = g_ascii_xdigit_value(digits[i + 1]);
      if (high < 0 || low < 0) return false;
      ptz_serialize_8bit(body, static_cast<guint8>(high << 4 | low));
    }
    return true;
  }
  if (type == "command") {
    const auto command = value_of(PTZ_TYPE_COMMAND, value);
    if (command) ptz_serialize_32bit(body, static_cast<guint32>(*command));
    return command.has_value();
  }
  if (type == "u8") {
    const auto number = number_within(0, G_MAXUINT8);
    if (number) ptz_serialize_8bit(body, static_cast<guint8>(*number));
    return number.has_value();
  }
  if (type == "u16") {
    const auto number = number_within(0, G_MAXUINT16);
    if (number) ptz_serialize_16bit(body, static_cast<guint16>(*number));
    return number.has_value();
  }
  if (type != "u32" && type != "i32") return false;
  const auto number = type == "u32" ? number_within(0, G_MAXUINT32) : number_within(G_MININT32, G_MAXINT32);
  if (number) ptz_serialize_32bit(body, static_cast<guint32>(*number));
  return number.has_value();
}

constexpr std::array<std::string_view, 5> field_types = {"u8", "u16", "u32", "i32", "text"};

struct Field {
  std::string type, text;
  gint64 number = 0;

  Field(const char *of, BodyReader &reader) : type(of) {
    if (type == "text") {
      text = reader.text();
      return;
    }
    if (type == "u8") number = reader.u8();
    if (type == "u16") number = reader.u16();
    if (type == "u32") number = reader.u32();
    if (type == "i32") number = reader.i32();
    text = std::to_string(number);
  }
};

void print_reply(const Body &reply, const std::vector<Field> &fields, bool as_json) {
  if (!as_json) {
    for (const auto &field : fields) std::printf("%-5s %s\n", field.type.c_str(), field.text.c_str());
    if (fields.empty()) std::printf("%s\n", in_hex(reply).c_str());
    return;
  }
  const JsonLine json;
  json.member("reply", in_hex(reply));
  if (!fields.empty()) json.begin_array("fields");
  for (const auto &field : fields) {
    json.begin_object();
    json.member("type", field.type);
    field.type == "text" ? json.member("value", field.text) : json.member("value", field.number);
    json.end_object();
  }
  if (!fields.empty()) json.end_array();
  json.print();
}

int run_send(const std::string &words, int argc, char **argv) {
  char *type_list = nullptr;
  Options options(
      words, {"FIELD...", field_help, " \"command:Get driver name\" --reply u32,text"}, Asks::driver,
      {{"reply", 'r', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &type_list, "How to read the reply", "TYPE,TYPE..."}});
  const auto given = options.parse(argc, argv);
  const ptz::Text owned(type_list);
  if (!given) return exit_usage;
  const ptz::TextList types(g_strsplit(type_list != nullptr ? type_list : "", ",", -1));
  for (gchar **type = types.get(); *type != nullptr; ++type) {
    if (std::find(field_types.begin(), field_types.end(), *type) != field_types.end()) continue;
    return options.misused("--reply: '%s' is no type of a field", *type);
  }
  const Body request(ptz_serialize_create_array());
  for (const auto &field : *given) {
    if (!add_field(request.get(), field)) return options.misused("'%s' is no field", field.c_str());
  }
  if (request->len == 0 || request->len > PTZ_SOCKET_BODY_MAX) {
    return options.misused("a body has 1 to %d bytes, and not %u", PTZ_SOCKET_BODY_MAX, request->len);
  }
  DriverConnection driver(options);
  const Body reply = driver.ask(request);
  if (reply == nullptr) return driver.status();
  BodyReader reader(reply.get());
  std::vector<Field> fields;
  int status = EXIT_SUCCESS;
  for (gchar **type = types.get(); *type != nullptr && status == EXIT_SUCCESS; ++type) {
    const Field field(*type, reader);
    if (!reader.failed()) {
      fields.push_back(field);
      continue;
    }
    complain("the reply has no further %s: %s", *type, in_hex(reply).c_str());
    status = EXIT_FAILURE;
  }
  if (!fields.empty() && status == EXIT_SUCCESS && !reader.finished()) {
    complain("the reply has more than that: %s", in_hex(reply).c_str());
    status = EXIT_FAILURE;
  }
  if (status == EXIT_SUCCESS || !fields.empty()) print_reply(reply, fields, options.as_json());
  return status;
}

int run_params(const std::string &words, int argc, char **argv) {
  Options options(words, {"", "Shows the driver's parameters.", " --json"}, Asks::driver);
  if (!options.parse(argc, argv)) return exit_usage;
  DriverConnection driver(options);
  const auto parameters = driver.query<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
  if (!parameters) return driver.status();
  for (const auto &each : parameters->elements) {
    if (options.as_json()) {
      const JsonLine json;
      json.member("name", each.name);
      json.member("label", each.label);
      json.member("value", each.value);
      json.member("range", each.range);
      json.print();
    } else {
      std::printf("%-20s %-12s %-12s %s\n", each.name.c_str(), each.value.c_str(), each.range.c_str(),
                  each.label.c_str());
    }
  }
  return EXIT_SUCCESS;
}

}  // namespace

int run_driver(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"caps", "what it can do", run_caps},
      {"info", "its name and the devices that it is for", run_info},
      {"limits", "how far and how fast each axis goes", run_limits},
      {"move", "move the head", run_move},
      {"params", "its parameters", run_params},
      {"position", "where each axis is", run_position},
      {"presets", "list, store and go to presets", run_presets},
      {"send", "any request, field by field", run_send},
      {"stop", "stop every axis", run_stop},
  };
  return run_one_of(subcommands, "Example: ptzctl driver info --socket /run/ptz/sim-driver.socket", words, argc, argv);
}

}  // namespace ptzctl
