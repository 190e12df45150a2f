#include "settings.h"

#include <algorithm>
#include <cmath>

namespace visca {

namespace {

constexpr char line_group[] = "Line";
constexpr unsigned most_auxiliaries = 8;
constexpr gint64 longest_text = 400;

std::string group_of(unsigned camera) { return "Camera" + std::to_string(camera); }

struct Declared {
  const char *key;
  PTZKitSettingKind kind;
  const char *value;
  gint64 minimum, maximum;
  const char *doc;
};

constexpr PTZKitSettingKind text = PTZ_KIT_SETTING_STRING, number = PTZ_KIT_SETTING_INTEGER,
                            flag = PTZ_KIT_SETTING_BOOLEAN;

constexpr Declared line_settings[] = {
    {"Address", text, "", 0, longest_text,
     "Where the camera is: serial:DEVICE?baud=N, udp:HOST:PORT, udp-raw:HOST:PORT, tcp:HOST:PORT"},
    {"Cameras", number, "1", 1, 7, "Number of cameras on a serial line"},
    {"AnyHost", flag, "no", 0, 0, "Take datagrams from any host, for a camera that answers from another address"},
    {"LocalPort", number, "0", 0, 65535, "Send datagrams from this port; 0 for any"},
    {"MaxBackoffMs", number, "1000", 100, 60000, "Longest pause between attempts to open the line"},
    {"AckLimitMs", number, "0", 0, 10000, "How long an ACK is waited for; 0 for what suits the line"},
    {"CompletionLimitMs", number, "30000", 1000, 600000, "How long a completion is waited for"},
};

constexpr Declared camera_settings[] = {
    {"Profile", text, "generic", 1, 63, "Model that the other settings start from: generic, dome-13.3, steps-14.4"},
    {"PanStepsPerDegree", text, "", 0, 31, "Steps of pan per degree; empty for the profile's"},
    {"TiltStepsPerDegree", text, "", 0, 31, "Steps of tilt per degree; empty for the profile's"},
    {"PanMinimum", text, "", 0, 31, "Leftmost pan in degrees; empty for the profile's"},
    {"PanMaximum", text, "", 0, 31, "Rightmost pan in degrees; empty for the profile's"},
    {"TiltMinimum", text, "", 0, 31, "Lowest tilt in degrees; empty for the profile's"},
    {"TiltMaximum", text, "", 0, 31, "Highest tilt in degrees; empty for the profile's"},
    {"PanMaxSpeed", text, "", 0, 31, "Highest pan speed in degrees a second; empty for the profile's"},
    {"TiltMaxSpeed", text, "", 0, 31, "Highest tilt speed in degrees a second; empty for the profile's"},
    {"PanSpeedSteps", number, "0", 0, 127, "Number of the highest pan speed; 0 asks the camera"},
    {"TiltSpeedSteps", number, "0", 0, 127, "Number of the highest tilt speed; 0 asks the camera"},
    {"PanNibbles", number, "0", 0, 5, "Nibbles of a pan position, 4 or 5; 0 for as many as the camera's answer has"},
    {"ZoomTable", text, "", 0, longest_text,
     "Zoom positions by magnification, such as 1=0, 2=0x1606; empty for the profile's"},
    {"ZoomSeconds", text, "", 0, 31, "Seconds from wide to tele; empty for the profile's"},
    {"Zoom", flag, "yes", 0, 0, "The camera has a zoom lens"},
    {"Focus", text, "auto", 0, 7, "The camera has a focus motor: yes, no, or auto, which asks the camera"},
    {"Iris", flag, "yes", 0, 0, "The camera has an iris"},
    {"IrCutFilter", flag, "yes", 0, 0, "The camera has an infrared cut filter"},
    {"FocusNear", number, "0xF000", 0, 65535, "Focus position of the nearest distance"},
    {"FocusFar", number, "0x1000", 0, 65535, "Focus position of infinity"},
    {"IrisMaximum", number, "17", 1, 255, "Iris position that is fully open"},
    {"Memories", number, "16", 0, 32, "Device presets that the camera itself keeps; the driver keeps the others"},
    {"PollMs", number, "0", 0, 10000, "Time between polls of a moving camera; 0 for what suits the line"},
    {"RestPollMs", number, "1000", 100, 60000, "Time between polls of a camera at rest"},
    {"StopAtStart", flag, "yes", 0, 0, "Stop the camera when the driver starts"},
    {"HomeCommand", flag, "yes", 0, 0, "Go home by the camera's own command, not by a position"},
    {"Socket", text, "", 0, 107, "Socket of the second and further cameras"},
    {"State", text, "", 0, longest_text, "Preset file of the second and further cameras"},
    {"Instance", number, "0", 0, G_MAXINT32,
     "PTZ instance that the status is published as, unless --instance says it; 0 publishes nothing"},
};

void declare(PTZKitDriver *driver, const char *group, const Declared &each) {
  ptz_kit_driver_add_setting(driver, group, each.key, each.kind, each.value, each.minimum, each.maximum, each.doc);
}

// Reads the settings of one group; keeps the first problem of each value.
class Reader {
  PTZKitDriver *driver_;
  const std::string group_;
  std::string &problems_;

 public:
  Reader(PTZKitDriver *driver, std::string group, std::string &problems)
      : driver_(driver), group_(std::move(group)), problems_(problems) {}
  void complain(const std::string &key, const std::string &problem) {
    problems_ += (problems_.empty() ? "[" : "\n[") + group_ + "] " + key + ": " + problem;
  }
  [[nodiscard]] std::string string(const std::string &key) const {
    return ptz_kit_driver_get_string(driver_, group_.c_str(), key.c_str());
  }
  [[nodiscard]] gint64 integer(const std::string &key) const {
    return ptz_kit_driver_get_integer(driver_, group_.c_str(), key.c_str());
  }
  [[nodiscard]] bool boolean(const std::string &key) const {
    return ptz_kit_driver_get_boolean(driver_, group_.c_str(), key.c_str()) != FALSE;
  }
  // The given value if the setting is empty.
  double real(const std::string &key, double value, double least, double most) {
    const std::string given = string(key);
    if (given.empty()) return value;
    char *end = nullptr;
    const double parsed = g_ascii_strtod(given.c_str(), &end);
    if (*end == '\0' && parsed >= least && parsed <= most) return parsed;
    complain(key, "\"" + given + "\" is not a number from " + std::to_string(static_cast<int>(least)) + " to " +
                      std::to_string(static_cast<int>(most)));
    return value;
  }
};

void read_axis(Reader &reader, const std::string &name, AxisScale &scale) {
  const double minimum = reader.real(name + "Minimum", scale.minimum / scale.steps_per_degree, -360, 360);
  const double maximum = reader.real(name + "Maximum", scale.maximum / scale.steps_per_degree, -360, 360);
  scale.steps_per_degree = reader.real(name + "StepsPerDegree", scale.steps_per_degree, 0.1, 10000);
  scale.max_speed = reader.real(name + "MaxSpeed", scale.max_speed, 0.1, 1000);
  scale.minimum = static_cast<std::int32_t>(std::lround(minimum * scale.steps_per_degree));
  scale.maximum = static_cast<std::int32_t>(std::lround(maximum * scale.steps_per_degree));
  if (scale.minimum >= scale.maximum || scale.minimum > 0 || scale.maximum < 0) {
    reader.complain(name + "Minimum", "home is at 0, so it must be below, and " + name + "Maximum above");
  }
  const gint64 steps = reader.integer(name + "SpeedSteps");
  if (steps != 0) {
    scale.speed_steps = static_cast<std::int32_t>(steps);
    scale.speed_steps_are_set = true;
  }
}

// "NAME = BYTES; BYTES": what switches it on, and off.
std::optional<Packet> parse_packet(std::string bytes, Byte camera) {
  Packet packet(camera, {});
  gchar **parts = g_strsplit_set(g_strstrip(bytes.data()), " ,", -1);
  bool is_good = true;
  for (gchar **part = parts; *part != nullptr; ++part) {
    if (**part == '\0') continue;
    guint64 byte = 0;
    is_good &= g_ascii_string_to_unsigned(*part, 16, 0, 0xfe, &byte, nullptr) != FALSE;
    packet.add(static_cast<Byte>(byte));
  }
  g_strfreev(parts);
  if (!is_good || packet.size() < 2 || packet.size() >= longest_packet) return std::nullopt;
  return packet.ended();
}

void read_auxiliary(Reader &reader, const std::string &key, Byte camera, CameraSettings &settings) {
  const std::string given = reader.string(key);
  if (given.empty()) return;
  const std::size_t equals = given.find('='), semicolon = given.find(';');
  RawAuxiliary auxiliary;
  Text name(g_strdup(given.substr(0, equals).c_str()));
  auxiliary.name = g_strstrip(name.get());
  const auto on =
      equals == std::string::npos
          ? std::nullopt
          : parse_packet(given.substr(equals + 1, semicolon == std::string::npos ? semicolon : semicolon - equals - 1),
                         camera);
  const auto off =
      semicolon == std::string::npos ? std::optional(Packet()) : parse_packet(given.substr(semicolon + 1), camera);
  if (!on || !off || auxiliary.name.empty() || auxiliary.name.size() > 63) {
    return reader.complain(
        key,
        "\"" + given + "\" is not NAME = BYTES; BYTES in hexadecimal, such as \"wiper = 01 04 7d 02; 01 04 7d 03\"");
  }
  auxiliary.on = *on;
  auxiliary.off = *off;
  settings.auxiliaries.push_back(std::move(auxiliary));
}

CameraSettings read_camera(Reader reader, Byte camera, TransportKind kind) {
  CameraSettings settings;
  Profile &profile = settings.head.profile;
  const auto found = find_profile(reader.string("Profile"));
  if (!found) reader.complain("Profile", "there are " + profile_names());
  profile = found ? *found : *find_profile("generic");
  read_axis(reader, "Pan", profile.pan);
  read_axis(reader, "Tilt", profile.tilt);
  if (const auto nibbles = static_cast<unsigned>(reader.integer("PanNibbles")); nibbles >= 4) {
    profile.pan_nibbles = nibbles;
    profile.pan_nibbles_are_set = true;
  } else if (nibbles != 0) {
    reader.complain("PanNibbles", "it is 4, 5, or 0");
  }
  settings.head.has_zoom = reader.boolean("Zoom");
  settings.has_iris = reader.boolean("Iris");
  settings.has_ir_cut_filter = reader.boolean("IrCutFilter");
  settings.focus = reader.string("Focus");
  if (settings.focus != "auto" && settings.focus != "yes" && settings.focus != "no") {
    reader.complain("Focus", "\"" + settings.focus + "\" is not yes, no or auto");
  }
  profile.zoom_seconds = reader.real("ZoomSeconds", profile.zoom_seconds, 0.1, 60);
  profile.focus_near = static_cast<std::int32_t>(reader.integer("FocusNear"));
  profile.focus_far = static_cast<std::int32_t>(reader.integer("FocusFar"));
  profile.iris_most = static_cast<std::int32_t>(reader.integer("IrisMaximum"));
  profile.memories = static_cast<unsigned>(reader.integer("Memories"));
  if (const std::string table = reader.string("ZoomTable"); !table.empty()) {
    std::string problem;
    const auto parsed = ZoomTable::parse(table, problem);
    if (parsed) profile.zoom = *parsed;
    if (!parsed) reader.complain("ZoomTable", problem);
  }
  // A serial line is polled as fast as it answers.
  const gint64 poll_ms = reader.integer("PollMs");
  settings.head.poll_us = poll_ms != 0 ? poll_ms * 1000 : kind == TransportKind::serial ? 10'000 : 50'000;
  settings.head.rest_poll_us = reader.integer("RestPollMs") * 1000;
  settings.head.stop_at_start = reader.boolean("StopAtStart");
  settings.head.home_command = reader.boolean("HomeCommand");
  for (unsigned index = 1; index <= most_auxiliaries; ++index) {
    read_auxiliary(reader, "Auxiliary" + std::to_string(index), camera, settings);
  }
  settings.socket = reader.string("Socket");
  settings.state = reader.string("State");
  settings.instance = static_cast<unsigned>(reader.integer("Instance"));
  if (camera != first_camera && settings.socket.empty()) reader.complain("Socket", "it is missing");
  return settings;
}

}  // namespace

void declare_settings(PTZKitDriver *driver) {
  for (const Declared &each : line_settings) declare(driver, line_group, each);
  for (unsigned camera = first_camera; camera <= last_camera; ++camera) {
    const std::string group = group_of(camera);
    for (const Declared &each : camera_settings) declare(driver, group.c_str(), each);
    for (unsigned index = 1; index <= most_auxiliaries; ++index) {
      const std::string key = "Auxiliary" + std::to_string(index);
      ptz_kit_driver_add_setting(driver, group.c_str(), key.c_str(), text, "", 0, 200,
                                 "An auxiliary and its commands, such as wiper = 01 04 7d 02; 01 04 7d 03");
    }
  }
}

std::optional<DriverSettings> read_settings(PTZKitDriver *driver, const char *device, GError **error) {
  std::string problems, problem;
  Reader reader(driver, line_group, problems);
  DriverSettings settings;
  const std::string where = device != nullptr && *device != '\0' ? device : reader.string("Address");
  const auto address = parse_address(where, problem);
  if (!address) reader.complain("Address", "\"" + where + "\": " + problem);
  settings.line.address = address.value_or(Address());
  settings.line.link = link_options_for(settings.line.address.kind);
  settings.line.ip = {reader.boolean("AnyHost"), static_cast<std::uint16_t>(reader.integer("LocalPort"))};
  settings.line.most_backoff_us = reader.integer("MaxBackoffMs") * 1000;
  settings.line.link.completion_limit_us = reader.integer("CompletionLimitMs") * 1000;
  if (const gint64 limit = reader.integer("AckLimitMs"); limit != 0) settings.line.link.ack_limit_us = limit * 1000;
  const auto cameras = static_cast<unsigned>(reader.integer("Cameras"));
  if (cameras > 1 && settings.line.address.kind != TransportKind::serial) {
    reader.complain("Cameras", "over a network there is one camera");
  }
  for (unsigned camera = first_camera; camera <= cameras; ++camera) {
    const auto number = static_cast<Byte>(camera);
    settings.cameras.push_back(
        read_camera(Reader(driver, group_of(camera), problems), number, settings.line.address.kind));
  }
  if (problems.empty()) return settings;
  g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, problems.c_str());
  return std::nullopt;
}

}  // namespace visca
