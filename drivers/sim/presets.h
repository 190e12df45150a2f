// presets.h - device presets by number, wherever they come from.
#pragma once
#include <map>
#include <string>

#include "driver_messages.h"

namespace example {

struct StoredPreset {
  std::string name;
  PerAxis position;
};
using Presets = std::map<guint32, StoredPreset>;

// Where settings and state files name the axes.
constexpr std::array<const char *, axis_count> axis_titles = {"Pan", "Tilt", "Zoom"};

inline bool valid_preset_number(guint32 number) { return number >= 1 && number <= most_presets; }
inline bool valid_preset_name(const std::string &name) {
  return !name.empty() && name.size() <= longest_preset_name &&
         g_utf8_validate_len(name.data(), name.size(), nullptr) != FALSE;
}

}  // namespace example
