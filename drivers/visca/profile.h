// profile.h - how a model counts: steps of its axes, magnifications by zoom position, highest speeds, memories.
#pragma once
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace visca {

// Magnifications in hundredths by zoom position; between two entries, linear.
class ZoomTable {
 public:
  struct Entry {
    std::int32_t magnification = 100;
    std::int32_t position = 0;
  };

 private:
  std::vector<Entry> entries_;  // ascending in both

 public:
  ZoomTable() = default;
  explicit ZoomTable(std::vector<Entry> entries) : entries_(std::move(entries)) {}
  // Of a text such as "1=0, 2=0x1606, 2.5=7000"; on failure empty, and the reason is in `problem`.
  [[nodiscard]] static std::optional<ZoomTable> parse(const std::string &text, std::string &problem);
  [[nodiscard]] std::int32_t position_of(std::int32_t magnification) const;
  [[nodiscard]] std::int32_t magnification_of(std::int32_t position) const;
  [[nodiscard]] std::int32_t least() const { return entries_.front().magnification; }
  [[nodiscard]] std::int32_t most() const { return entries_.back().magnification; }
};

// Pan and tilt are in hundredths of a degree outside, and in steps at the camera.
struct AxisScale {
  double steps_per_degree = 40.0 / 3;
  std::int32_t minimum = 0, maximum = 0;  // steps
  std::int32_t speed_steps = 1;           // the highest
  bool speed_steps_are_set = false;       // by the settings, against what the camera says
  double max_speed = 100;                 // degrees a second at the highest

  [[nodiscard]] std::int32_t steps_of(double hundredths) const;
  [[nodiscard]] std::int32_t hundredths_of(std::int32_t steps) const;
  // The step for a share of the highest speed; at least 1.
  [[nodiscard]] std::uint8_t speed_step(double share) const;
};

struct Profile {
  AxisScale pan, tilt;
  unsigned pan_nibbles = 4;
  bool pan_nibbles_are_set = false;  // by the settings, against what the camera says
  ZoomTable zoom;
  double zoom_seconds = 2.5;  // from one end to the other at the highest speed
  unsigned memories = 16;
  std::int32_t focus_near = 0xf000, focus_far = 0x1000;
  std::int32_t iris_most = 0x11;

  [[nodiscard]] std::int32_t zoom_speed() const;  // hundredths of a magnification a second
};

// The built-in profiles, "generic" being the first; empty if there is none of this name.
[[nodiscard]] std::optional<Profile> find_profile(const std::string &name);
[[nodiscard]] std::string profile_names();

}  // namespace visca
