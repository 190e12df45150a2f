#include <ptz_enum_types.h>
#include <ptz_flag_types.h>
#include <ptz_serialize.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
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

constexpr char usual_socket[] = "/run/ptz/driver.socket";
constexpr gint usual_timeout_ms = 10'000;
constexpr guint watch_interval_us = 50'000;
constexpr std::array<const char *, axis_count> axis_names = {"pan", "tilt", "zoom"};
constexpr std::array<const char *, axis_count> axis_units = {"degrees", "degrees", "times"};

// The messages have hundredths; people have degrees, and magnifications.
double shown(gint32 value) { return value / 100.0; }

// The options that all have, and those of one.
class DriverOptions {
  char *socket_ = nullptr;
  gint timeout_ms_ = usual_timeout_ms;
  gboolean as_json_ = FALSE;
  std::vector<GOptionEntry> entries_;

 public:
  explicit DriverOptions(std::vector<GOptionEntry> further = {}) : entries_(std::move(further)) {
    entries_.push_back({"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &socket_,
                        "The driver's socket, by default /run/ptz/driver.socket", "PATH"});
    entries_.push_back({"timeout", 't', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &timeout_ms_,
                        "How long to wait for an answer, by default 10000", "MS"});
    entries_.push_back({"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json_, "One object a line", nullptr});
    entries_.push_back({});
  }
  DriverOptions(DriverOptions &&) = delete;
  ~DriverOptions() { g_free(socket_); }
  [[nodiscard]] const GOptionEntry *entries() const { return entries_.data(); }
  [[nodiscard]] bool as_json() const { return as_json_ != FALSE; }
  [[nodiscard]] std::optional<DriverConnection> connect() const {
    if (timeout_ms_ > 0) return DriverConnection::open(socket_ != nullptr ? socket_ : usual_socket, timeout_ms_);
    complain("the time to wait is at least 1 ms");
    return std::nullopt;
  }
};

// Prints one object, or lets the caller print lines.
template <typename Members>
void print_object(const Members &members) {
  const JsonLine json;
  json_builder_begin_object(json.get());
  members(json);
  json_builder_end_object(json.get());
  json.print();
}

int run_info(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, nullptr, "Shows the driver's name and the devices that it is for.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  if (!driver) return EXIT_FAILURE;
  const auto name = driver->query<Name>(PTZ_COMMAND_GET_DRIVER_NAME);
  if (!name) return EXIT_FAILURE;
  const auto types = driver->query<DeviceTypes>(PTZ_COMMAND_GET_DEVICE_TYPES);
  if (!types) return EXIT_FAILURE;
  if (!chosen.as_json()) {
    std::printf("%s\n", name->text.c_str());
    for (const auto &type : types->elements) std::printf("  for %s\n", type.text.c_str());
    return EXIT_SUCCESS;
  }
  print_object([&](const JsonLine &json) {
    json.member("name", name->text.c_str());
    json_builder_set_member_name(json.get(), "device_types");
    json_builder_begin_array(json.get());
    for (const auto &type : types->elements) json_builder_add_string_value(json.get(), type.text.c_str());
    json_builder_end_array(json.get());
  });
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
  DriverOptions chosen;
  Options options(words, nullptr, "Shows what the driver says that it can do.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  const auto caps = driver ? driver->query<Capabilities>(PTZ_COMMAND_GET_CAPABILITIES) : std::nullopt;
  if (!caps) return EXIT_FAILURE;
  const struct {
    const char *title;
    guint32 bits;
    GType type;
  } rows[] = {{"move", caps->words.move, PTZ_TYPE_DRIVER_MOVE_CAPABILITIES},
              {"extra", caps->words.extra, PTZ_TYPE_DRIVER_EXTRA_CAPABILITIES}};
  if (chosen.as_json()) {
    print_object([&](const JsonLine &json) {
      for (const auto &row : rows) {
        json_builder_set_member_name(json.get(), row.title);
        json_builder_begin_array(json.get());
        for (const auto *name : names_of_bits(row.type, row.bits)) json_builder_add_string_value(json.get(), name);
        json_builder_end_array(json.get());
      }
    });
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
  DriverOptions chosen;
  Options options(words, nullptr, "Shows how far and how fast each axis goes, in degrees and magnifications.",
                  chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  const auto limits = driver ? driver->query<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES) : std::nullopt;
  if (!limits) return EXIT_FAILURE;
  const auto speeds = driver->query<Speeds>(PTZ_COMMAND_QUERY_SPEED);
  if (!speeds) return EXIT_FAILURE;
  for (std::size_t i = 0; i < axis_count; ++i) {
    const double least = shown(limits->minimum[i]), most = shown(limits->maximum[i]);
    const double fastest = shown(speeds->maximum[i]);
    if (chosen.as_json()) {
      print_object([&](const JsonLine &json) {
        json.member("axis", axis_names[i]);
        json.member("minimum", least);
        json.member("maximum", most);
        json.member("maximum_speed", fastest);
      });
    } else {
      std::printf("%-5s %10.2f to %10.2f %s, at most %.2f a second\n", axis_names[i], least, most, axis_units[i],
                  fastest);
    }
  }
  return EXIT_SUCCESS;
}

void print_positions(const Positions &positions, bool as_json) {
  for (std::size_t i = 0; i < axis_count; ++i) {
    const char *status = positions.status[i] == PTZ_MOVE_STATUS_MOVING ? "moving" : "idle";
    if (as_json) {
      print_object([&](const JsonLine &json) {
        json.member("axis", axis_names[i]);
        json.member("position", shown(positions.position[i]));
        json.member("status", status);
      });
    } else {
      std::printf("%-5s %10.2f %s, %s\n", axis_names[i], shown(positions.position[i]), axis_units[i], status);
    }
  }
}

int run_position(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, nullptr, "Shows where each axis is, and whether it moves.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  const auto positions = driver ? driver->query<Positions>(PTZ_COMMAND_QUERY_POSITION) : std::nullopt;
  if (!positions) return EXIT_FAILURE;
  print_positions(*positions, chosen.as_json());
  return EXIT_SUCCESS;
}

// Sends a request that is answered by its command alone. With `wait` shows where the head is once it is idle.
int obey(const DriverOptions &chosen, PTZCommand command, const Body &request, bool wait) {
  struct Nothing {
    static Nothing read(BodyReader &) { return {}; }
  };
  const auto driver = chosen.connect();
  if (!driver || !driver->query<Nothing>(command, request)) return EXIT_FAILURE;
  while (wait) {
    const auto positions = driver->query<Positions>(PTZ_COMMAND_QUERY_POSITION);
    if (!positions) return EXIT_FAILURE;
    if (positions->idle()) {
      print_positions(*positions, chosen.as_json());
      break;
    }
    g_usleep(watch_interval_us);
  }
  return EXIT_SUCCESS;
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
  DriverOptions chosen({
      {"pan", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[pan], "To the right positive", "DEGREES"},
      {"tilt", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[tilt], "Upwards positive", "DEGREES"},
      {"zoom", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &values[zoom], "Magnification", "TIMES"},
      {"speed", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed, "Of the axis's maximum, by default 100", "PER CENT"},
      {"wait", 'w', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &wait, "Show where the head is once it is there", nullptr},
  });
  Options options(words, "KIND",
                  "Moves the head: absolute, to a position; relative, by a distance; continuous, at a speed in degrees "
                  "or\nmagnifications a second. Or runs it in a direction: up, down, left, right, up-left and so on, "
                  "home, stop.\n\nExample: ptzctl driver move absolute --pan 90 --tilt=-10 --wait",
                  chosen.entries());
  const auto given = options.parse(argc, argv, 1);
  if (!given) return exit_usage;
  if (given->empty()) {
    complain("a kind of move is needed; see %s --help", words.c_str());
    return exit_usage;
  }
  if (speed < 1 || speed > full_speed) {
    complain("the speed is 1 to %u per cent", full_speed);
    return exit_usage;
  }
  const std::string &kind = given->front();
  std::string spaced = kind;
  for (char &c : spaced) c = c == '-' ? ' ' : c;
  auto direction = value_of(PTZ_TYPE_MOVE_CMD, kind);
  if (!direction) direction = value_of(PTZ_TYPE_MOVE_CMD, spaced);
  if (direction) {
    const MoveCommandRequest run = {static_cast<guint32>(*direction), static_cast<guint16>(speed)};
    return obey(chosen, PTZ_COMMAND_MOVE_COMMAND, make_body(PTZ_COMMAND_MOVE_COMMAND, run), wait != FALSE);
  }
  const auto move_kind = value_of(PTZ_TYPE_MOVE, kind);
  if (!move_kind) {
    complain("'%s' is no kind of move; see %s --help", kind.c_str(), words.c_str());
    return exit_usage;
  }
  MoveRequest move = {static_cast<guint32>(*move_kind), 0, static_cast<guint16>(speed), {}};
  for (std::size_t i = 0; i < axis_count; ++i) {
    if (set_axis(move, AxisIndex(i), values[i])) continue;
    complain("no head goes as far as %g", values[i]);
    return exit_usage;
  }
  if (move.axes == 0) {
    complain("--pan, --tilt or --zoom is needed");
    return exit_usage;
  }
  return obey(chosen, PTZ_COMMAND_MOVE, make_body(PTZ_COMMAND_MOVE, move), wait != FALSE);
}

int run_stop(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, nullptr, "Stops every axis.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  return obey(chosen, PTZ_COMMAND_STOP, make_body(PTZ_COMMAND_STOP), false);
}

int run_preset_list(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, nullptr, "Shows the presets that the driver keeps.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  const auto presets = driver ? driver->query<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS) : std::nullopt;
  if (!presets) return EXIT_FAILURE;
  for (const auto &preset : presets->elements) {
    if (chosen.as_json()) {
      print_object([&](const JsonLine &json) {
        json.member("number", gint64{preset.number});
        json.member("name", preset.name.c_str());
      });
    } else {
      std::printf("%4u  %s\n", preset.number, preset.name.c_str());
    }
  }
  return EXIT_SUCCESS;
}

int run_preset_store(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, "NUMBER NAME", "Keeps where the head is as a preset.", chosen.entries());
  const auto given = options.parse(argc, argv, 2);
  if (!given) return exit_usage;
  if (given->size() < 2) {
    complain("a number and a name are needed; see %s --help", words.c_str());
    return exit_usage;
  }
  const auto number = parse_number(given->front(), "preset", 1, most_presets);
  if (!number) return exit_usage;
  const auto driver = chosen.connect();
  const Preset preset = {static_cast<guint32>(*number), given->back()};
  const auto request = make_body(PTZ_COMMAND_SET_DEVICE_PRESET, preset);
  return driver && driver->query<PresetNumber>(PTZ_COMMAND_SET_DEVICE_PRESET, request) ? EXIT_SUCCESS : EXIT_FAILURE;
}

int run_preset_goto(const std::string &words, int argc, char **argv) {
  gint speed = full_speed;
  gboolean wait = FALSE;
  DriverOptions chosen({
      {"speed", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &speed, "Of each axis's maximum, by default 100", "PER CENT"},
      {"wait", 'w', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &wait, "Show where the head is once it is there", nullptr},
  });
  Options options(words, "NUMBER", "Moves the head to a preset.", chosen.entries());
  const auto given = options.parse(argc, argv, 1);
  if (!given) return exit_usage;
  const auto number = given->empty() ? std::nullopt : parse_number(given->front(), "preset", 1, most_presets);
  if (!number || speed < 1 || speed > full_speed) {
    complain("a preset and a speed of 1 to %u per cent are needed; see %s --help", full_speed, words.c_str());
    return exit_usage;
  }
  const GotoPresetRequest wanted = {static_cast<guint32>(*number), static_cast<guint16>(speed)};
  return obey(chosen, PTZ_COMMAND_GOTO_DEVICE_PRESET, make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, wanted), wait != FALSE);
}

int run_presets(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {
      {"goto", "move the head to one", run_preset_goto},
      {"list", "what the driver keeps", run_preset_list},
      {"store", "keep where the head is", run_preset_store},
  };
  return run_one_of(subcommands, words, argc, argv);
}

// ---- send: any body, for whoever looks for what a driver makes of it

constexpr char field_help[] =
    "Sends a body of the given fields and shows the reply's bytes.\n\n"
    "A field is u8:N, u16:N, u32:N, i32:N, text:TEXT (with its length before it), hex:BYTES, or command:NAME. With "
    "--reply\nthe reply is shown field by field, for example as u32,i32,text.\n\n"
    "Example: ptzctl driver send \"command:Get driver name\" --reply u32,text";

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

// The field as text; nothing for a type that there is not.
std::optional<std::string> read_field(BodyReader &reader, std::string_view type) {
  if (type == "u8") return std::to_string(reader.u8());
  if (type == "u16") return std::to_string(reader.u16());
  if (type == "u32") return std::to_string(reader.u32());
  if (type == "i32") return std::to_string(reader.i32());
  if (type == "text") return reader.text();
  return std::nullopt;
}

int print_fields(const Body &reply, const std::string &types) {
  BodyReader reader(reply.get());
  const ptz::TextList list(g_strsplit(types.c_str(), ",", -1));
  for (gchar **type = list.get(); *type != nullptr; ++type) {
    const auto text = read_field(reader, *type);
    if (!text) {
      complain("'%s' is no type of a field", *type);
      return exit_usage;
    }
    if (reader.failed()) {
      complain("the reply has no further %s: %s", *type, in_hex(reply).c_str());
      return EXIT_FAILURE;
    }
    std::printf("%-5s %s\n", *type, text->c_str());
  }
  if (reader.finished()) return EXIT_SUCCESS;
  complain("the reply has more than that: %s", in_hex(reply).c_str());
  return EXIT_FAILURE;
}

int run_send(const std::string &words, int argc, char **argv) {
  char *types = nullptr;
  DriverOptions chosen(
      {{"reply", 'r', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &types, "How to read the reply", "TYPE,TYPE..."}});
  Options options(words, "FIELD...", field_help, chosen.entries());
  const auto given = options.parse(argc, argv, G_MAXINT);
  const ptz::Text owned(types);
  if (!given) return exit_usage;
  const Body request(ptz_serialize_create_array());
  for (const auto &field : *given) {
    if (add_field(request.get(), field)) continue;
    complain("'%s' is no field; see %s --help", field.c_str(), words.c_str());
    return exit_usage;
  }
  if (request->len == 0 || request->len > PTZ_SOCKET_BODY_MAX) {
    complain("a body has 1 to %d bytes", PTZ_SOCKET_BODY_MAX);
    return exit_usage;
  }
  const auto driver = chosen.connect();
  const Body reply = driver ? driver->ask(request) : nullptr;
  if (reply == nullptr) return EXIT_FAILURE;
  if (types != nullptr) return print_fields(reply, types);
  if (chosen.as_json()) {
    print_object([&](const JsonLine &json) { json.member("reply", in_hex(reply).c_str()); });
  } else {
    std::printf("%s\n", in_hex(reply).c_str());
  }
  return EXIT_SUCCESS;
}

int run_params(const std::string &words, int argc, char **argv) {
  DriverOptions chosen;
  Options options(words, nullptr, "Shows the driver's parameters.", chosen.entries());
  if (!options.parse(argc, argv, 0)) return exit_usage;
  const auto driver = chosen.connect();
  const auto parameters = driver ? driver->query<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS) : std::nullopt;
  if (!parameters) return EXIT_FAILURE;
  for (const auto &each : parameters->elements) {
    if (chosen.as_json()) {
      print_object([&](const JsonLine &json) {
        json.member("name", each.name.c_str());
        json.member("label", each.label.c_str());
        json.member("value", each.value.c_str());
        json.member("range", each.range.c_str());
      });
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
  return run_one_of(subcommands, words, argc, argv);
}

}  // namespace ptzctl
