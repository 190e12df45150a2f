#include "driver_settings.h"

#include <ptz_settings.h>

#include <cstdarg>

#include "owners.h"

namespace sim {

namespace {

constexpr char preset_group[] = "Preset";
constexpr char name_key[] = "Name";
constexpr gint64 longest_preset_name = 32;  // bytes

std::string numbered(const char *group, guint32 index) { return group + std::to_string(index); }

void declare_integer(PTZKitDriver *driver, const std::string &group, const char *key, gint32 value, gint32 lowest,
                     gint32 highest, const char *doc) {
  ptz_kit_driver_add_setting(driver, group.c_str(), key, PTZ_KIT_SETTING_INTEGER, std::to_string(value).c_str(), lowest,
                             highest, doc);
}

void declare_axis(PTZKitDriver *driver, std::size_t axis) {
  const char *const group = axis_titles[axis];
  const AxisRange &range = head_ranges[axis];
  const gint32 lowest = axis == zoom ? 1 : G_MININT32;
  declare_integer(driver, group, "Min", range.minimum, lowest, G_MAXINT32, "Lower limit");
  declare_integer(driver, group, "Max", range.maximum, lowest, G_MAXINT32, "Upper limit");
  declare_integer(driver, group, "MaxSpeed", range.max_speed, 1, most_speed, "Maximum speed, per second");
  declare_integer(driver, group, "Acceleration", range.acceleration, 1, most_speed, "Per second squared");
}

// The description of the settings takes those of neighbours that differ in the number of the group only as one.
void declare_presets(PTZKitDriver *driver) {
  for (guint32 index = 0; index < most_presets; ++index) {
    ptz_kit_driver_add_setting(driver, numbered(preset_group, index).c_str(), name_key, PTZ_KIT_SETTING_STRING, "", 1,
                               longest_preset_name, "Name of a preset of the factory");
  }
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    for (guint32 index = 0; index < most_presets; ++index) {
      declare_integer(driver, numbered(preset_group, index), axis_titles[axis], head_home[axis], G_MININT32, G_MAXINT32,
                      "Its position, within the limits");
    }
  }
}

gint32 integer(PTZKitDriver *driver, const std::string &group, const char *key) {
  return static_cast<gint32>(ptz_kit_driver_get_integer(driver, group.c_str(), key));
}

class Complaints {
  std::string text_;

 public:
  void add(const char *format, ...) G_GNUC_PRINTF(2, 3);
  [[nodiscard]] const std::string &text() const { return text_; }
};

void Complaints::add(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text line(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  text_ += (text_.empty() ? "" : "\n") + std::string(line.get());
}

AxisRange read_range(PTZKitDriver *driver, const char *group, Complaints &complaints) {
  const AxisRange range = {integer(driver, group, "Min"), integer(driver, group, "Max"),
                           integer(driver, group, "MaxSpeed"), integer(driver, group, "Acceleration")};
  if (range.minimum >= range.maximum) {
    complaints.add("[%s] Min: %d is not below Max, %d", group, range.minimum, range.maximum);
  }
  return range;
}

FactoryPreset read_preset(PTZKitDriver *driver, guint32 index, const HeadRanges &ranges, Complaints &complaints) {
  const std::string group = numbered(preset_group, index);
  const TextList keys(ptz_settings_get_group(preset_group, static_cast<gint>(index)));
  const auto has = [&](const char *key) { return keys && g_strv_contains(keys.get(), key) != FALSE; };
  FactoryPreset preset = {std::string(preset_group) + " " + std::to_string(index + 1), home_within(ranges)};
  if (has(name_key)) preset.name = ptz_kit_driver_get_string(driver, group.c_str(), name_key);
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    if (!has(axis_titles[axis])) continue;
    const gint32 position = integer(driver, group, axis_titles[axis]);
    const AxisRange &range = ranges[axis];
    if (position < range.minimum || position > range.maximum) {
      complaints.add("[%s] %s: %d is not within %d to %d", group.c_str(), axis_titles[axis], position, range.minimum,
                     range.maximum);
    }
    preset.position[axis] = position;
  }
  return preset;
}

}  // namespace

void declare_settings(PTZKitDriver *driver) {
  for (std::size_t axis = 0; axis < axis_count; ++axis) declare_axis(driver, axis);
  declare_presets(driver);
}

std::optional<DriverSettings> read_settings(PTZKitDriver *driver, GError **error) {
  Complaints complaints;
  DriverSettings settings;
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    settings.ranges[axis] = read_range(driver, axis_titles[axis], complaints);
  }
  // Positions are not compared with limits that are wrong themselves.
  const guint32 count = complaints.text().empty() ? most_presets : 0;
  for (guint32 index = 0; index < count; ++index) {
    if (ptz_settings_has_group(preset_group, static_cast<gint>(index)) == FALSE) continue;
    FactoryPreset preset = read_preset(driver, index, settings.ranges, complaints);
    settings.factory_presets[index + 1] = std::move(preset);
  }
  if (complaints.text().empty()) return settings;
  g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, complaints.text().c_str());
  return std::nullopt;
}

}  // namespace sim
