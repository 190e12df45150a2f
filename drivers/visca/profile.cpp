#include "profile.h"

#include <glib.h>

#include <algorithm>
#include <cmath>

namespace visca {

namespace {

struct NamedProfile {
  const char *name;
  double steps_per_degree;
  std::int32_t pan_minimum, pan_maximum, tilt_minimum, tilt_maximum;
};
constexpr double dome_steps = 40.0 / 3;  // 0.075 degrees a step
constexpr NamedProfile profiles[] = {
    {"generic", dome_steps, -2267, 2267, -400, 1200},
    {"dome-13.3", dome_steps, -2267, 2267, -400, 1200},
    {"steps-14.4", 14.4, -2448, 2448, -432, 1296},
};
constexpr std::int32_t pan_speed_steps = 0x18, tilt_speed_steps = 0x14;
constexpr double pan_max_speed = 100, tilt_max_speed = 90;

const std::vector<ZoomTable::Entry> zoom_18x = {
    {100, 0x0000}, {200, 0x1606}, {300, 0x2151},  {400, 0x2860},  {500, 0x2cb5},  {600, 0x3060},  {700, 0x32d3},
    {800, 0x3545}, {900, 0x3727}, {1000, 0x38a9}, {1200, 0x3b4b}, {1400, 0x3d75}, {1600, 0x3ef7}, {1800, 0x4000}};

std::int32_t rounded(double number) { return static_cast<std::int32_t>(std::lround(number)); }

// The value at `x` of the line through two entries.
double between(double x, double x0, double x1, double y0, double y1) { return y0 + (x - x0) * (y1 - y0) / (x1 - x0); }

std::optional<double> parse_number(const std::string &text) {
  char *end = nullptr;
  const double number = g_ascii_strtod(text.c_str(), &end);
  while (g_ascii_isspace(*end)) ++end;
  if (end == text.c_str() || *end != '\0' || !std::isfinite(number)) return std::nullopt;
  return number;
}

}  // namespace

std::optional<ZoomTable> ZoomTable::parse(const std::string &text, std::string &problem) {
  std::vector<Entry> entries;
  gchar **parts = g_strsplit(text.c_str(), ",", -1);
  for (gchar **part = parts; *part != nullptr && problem.empty(); ++part) {
    const std::string entry = g_strstrip(*part);
    const std::size_t equals = entry.find('=');
    const auto magnification = parse_number(entry.substr(0, equals));
    const auto position = equals == std::string::npos ? std::nullopt : parse_number(entry.substr(equals + 1));
    if (!magnification || !position || *magnification <= 0 || *magnification > 1000 || *position < 0 ||
        *position > 0xffff) {
      problem = "\"" + entry + "\" is not MAGNIFICATION=POSITION";
    } else {
      entries.push_back({rounded(*magnification * 100), rounded(*position)});
    }
  }
  g_strfreev(parts);
  const auto descends = [](const Entry &a, const Entry &b) {
    return a.magnification >= b.magnification || a.position >= b.position;
  };
  if (problem.empty() && entries.size() < 2) problem = "a zoom table has two entries or more";
  if (problem.empty() && std::ranges::adjacent_find(entries, descends) != entries.end()) {
    problem = "magnifications and positions must ascend";
  }
  if (!problem.empty()) return std::nullopt;
  return ZoomTable(std::move(entries));
}

std::int32_t ZoomTable::position_of(std::int32_t magnification) const {
  magnification = std::clamp(magnification, least(), most());
  const auto above = std::ranges::find_if(entries_.begin() + 1, entries_.end() - 1,
                                          [&](const Entry &entry) { return entry.magnification >= magnification; });
  const Entry &upper = *above, &lower = *(above - 1);
  return rounded(between(magnification, lower.magnification, upper.magnification, lower.position, upper.position));
}

std::int32_t ZoomTable::magnification_of(std::int32_t position) const {
  position = std::clamp(position, entries_.front().position, entries_.back().position);
  const auto above = std::ranges::find_if(entries_.begin() + 1, entries_.end() - 1,
                                          [&](const Entry &entry) { return entry.position >= position; });
  const Entry &upper = *above, &lower = *(above - 1);
  return rounded(between(position, lower.position, upper.position, lower.magnification, upper.magnification));
}

std::int32_t AxisScale::steps_of(double hundredths) const {
  return std::clamp(rounded(hundredths / 100 * steps_per_degree), minimum, maximum);
}

std::int32_t AxisScale::hundredths_of(std::int32_t steps) const { return rounded(steps / steps_per_degree * 100); }

std::uint8_t AxisScale::speed_step(double share) const {
  return static_cast<std::uint8_t>(std::clamp(rounded(share * speed_steps), 1, std::max(speed_steps, 1)));
}

std::int32_t Profile::zoom_speed() const { return std::max(1, rounded((zoom.most() - zoom.least()) / zoom_seconds)); }

std::optional<Profile> find_profile(const std::string &name) {
  for (const NamedProfile &each : profiles) {
    if (name != each.name) continue;
    Profile profile;
    profile.pan = {each.steps_per_degree, each.pan_minimum, each.pan_maximum, pan_speed_steps, false, pan_max_speed};
    profile.tilt = {each.steps_per_degree, each.tilt_minimum, each.tilt_maximum, tilt_speed_steps, false,
                    tilt_max_speed};
    profile.zoom = ZoomTable(zoom_18x);
    return profile;
  }
  return std::nullopt;
}

std::string profile_names() {
  std::string names;
  for (const NamedProfile &each : profiles) names += (names.empty() ? "" : ", ") + std::string(each.name);
  return names;
}

}  // namespace visca
