// driver_settings.h - what an installer may set: the head's limits and speeds, and the presets of the factory.
#pragma once
#include <map>
#include <optional>
#include <string>

#include "head.h"

namespace sim {

// Leaves room for what --speed-factor makes of them.
constexpr gint32 most_speed = 1'000'000;
constexpr guint32 most_presets = 32;

struct FactoryPreset {
  std::string name;
  PerAxis position;
};

struct DriverSettings {
  HeadRanges ranges = head_ranges;
  std::map<guint32, FactoryPreset> factory_presets = {};
};

// sim-driver.conf describes the settings.
void declare_settings(PTZKitDriver *driver);

// What the files say that the driver has loaded. Nothing if values do not fit each other: each line of the error's
// message names one of them by group and key.
std::optional<DriverSettings> read_settings(PTZKitDriver *driver, GError **error);

}  // namespace sim
