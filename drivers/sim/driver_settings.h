// driver_settings.h - what an installer may set: the head's limits and speeds, and the presets of the factory.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "head.h"
#include "presets.h"

namespace example {

// Leaves room for what --speed-factor makes of them.
constexpr gint32 most_speed = 1'000'000;

struct DriverSettings {
  HeadRanges ranges = head_ranges;
  Presets factory_presets = {};
};

// Loads the files, all of which must be there, into the library's settings, and reads those. Nothing where that fails
// or a value makes no sense; the complaints then tell why, naming group and key. sim-driver.conf describes the files.
std::optional<DriverSettings> load_driver_settings(const std::vector<std::string> &files,
                                                   std::vector<std::string> &complaints);

}  // namespace example
