#include "driver_settings.h"

#include <ptz_settings.h>

#include <cstdarg>

namespace example {

namespace {

constexpr int no_index = -1;

struct Place {
  const char *group;
  int index;
  const char *key;
};

// Reads one value after the other, and goes on after a bad one: an installer wants to know of all of them.
class SettingsReader {
  std::vector<std::string> &complaints_;

  bool has(const Place &place) {
    const Owned<char *, g_strfreev> keys(ptz_settings_get_group(place.group, place.index));
    return keys && g_strv_contains(keys.get(), place.key) != FALSE;
  }

 public:
  explicit SettingsReader(std::vector<std::string> &complaints) : complaints_(complaints) {}

  // False, which the readers of values pass on.
  bool complain(const Place &place, const char *format, ...) G_GNUC_PRINTF(3, 4);
  // Where the key is missing, the value stays, and that is good.
  bool number(const Place &place, gint32 lowest, gint32 highest, gint32 &value);
  bool preset_name(const Place &place, std::string &name);
  [[nodiscard]] bool content() const { return complaints_.empty(); }
};

bool SettingsReader::complain(const Place &place, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  const std::string index = place.index == no_index ? "" : std::to_string(place.index);
  complaints_.push_back("[" + (place.group + index) + "] " + place.key + ": " + text.get());
  return false;
}

bool SettingsReader::number(const Place &place, gint32 lowest, gint32 highest, gint32 &value) {
  if (!has(place)) return true;
  const Text text(ptz_settings_get_string(place.group, place.index, place.key));
  if (!text) return complain(place, "the value is no text");
  // The accessors of numbers ignore the text after one: 90.5 would be taken for 90.
  char *end = nullptr;
  g_ascii_strtoll(text.get(), &end, 0);
  if (end == text.get() || *g_strchug(end) != '\0') return complain(place, "this is no whole number");
  gint32 number = 0;
  if (!ptz_settings_get_int(place.group, place.index, place.key, &number)) {
    return complain(place, "the number does not fit 32 bits");
  }
  if (number < lowest || number > highest) {
    return complain(place, "%d is not within %d to %d", number, lowest, highest);
  }
  value = number;
  return true;
}

bool SettingsReader::preset_name(const Place &place, std::string &name) {
  if (!has(place)) return true;
  const Text text(ptz_settings_get_string(place.group, place.index, place.key));
  if (!text || !valid_preset_name(text.get())) {
    return complain(place, "a name has 1 to %zu bytes of UTF-8", longest_preset_name);
  }
  name = text.get();
  return true;
}

void read_ranges(SettingsReader &reader, HeadRanges &ranges) {
  for (std::size_t index = 0; index < axis_count; ++index) {
    const char *const group = axis_titles[index];
    AxisRange &range = ranges[index];
    const gint32 lowest = index == zoom ? 1 : G_MININT32;
    const bool good_minimum = reader.number({group, no_index, "Min"}, lowest, G_MAXINT32, range.minimum);
    const bool good_maximum = reader.number({group, no_index, "Max"}, lowest, G_MAXINT32, range.maximum);
    reader.number({group, no_index, "MaxSpeed"}, 1, most_speed, range.max_speed);
    reader.number({group, no_index, "Acceleration"}, 1, most_speed, range.acceleration);
    if (good_minimum && good_maximum && range.minimum >= range.maximum) {
      reader.complain({group, no_index, "Min"}, "%d is not below Max, %d", range.minimum, range.maximum);
    }
  }
}

void read_factory_presets(SettingsReader &reader, const HeadRanges &ranges, Presets &presets) {
  for (gint32 index = 0; index < gint32{most_presets}; ++index) {
    constexpr const char *group = "Preset";
    if (!ptz_settings_has_group(group, index)) continue;
    const guint32 number = static_cast<guint32>(index) + 1;
    StoredPreset preset{group + (" " + std::to_string(number)), home_within(ranges)};
    reader.preset_name({group, index, "Name"}, preset.name);
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      reader.number({group, index, axis_titles[axis]}, ranges[axis].minimum, ranges[axis].maximum,
                    preset.position[axis]);
    }
    presets[number] = preset;
  }
}

}  // namespace

std::optional<DriverSettings> load_driver_settings(const std::vector<std::string> &files,
                                                   std::vector<std::string> &complaints) {
  std::vector<PTZSettingsFile> records;
  for (const std::string &file : files) records.push_back({file.c_str(), TRUE});
  records.push_back({nullptr, FALSE});
  if (!ptz_settings_load_config_gkf(records.data(), nullptr)) {
    complaints.emplace_back("the settings cannot be loaded; the log tells why");
    return std::nullopt;
  }
  SettingsReader reader(complaints);
  DriverSettings settings;
  read_ranges(reader, settings.ranges);
  // With limits that make no sense, neither would what is said about positions.
  if (reader.content()) read_factory_presets(reader, settings.ranges, settings.factory_presets);
  if (!reader.content()) return std::nullopt;
  return settings;
}

}  // namespace example
