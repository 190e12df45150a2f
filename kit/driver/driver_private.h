// kit/driver/driver_private.h - the way from a PTZKitDriver to its state.
#pragma once
#include <string>
#include <vector>

#include "driver/driver_core.h"

namespace ptz_kit {

[[nodiscard]] DriverCore &core_of(PTZKitDriver *self);

// One line for each.
[[nodiscard]] inline std::string joined(const std::vector<std::string> &lines) {
  std::string text;
  for (const std::string &line : lines) text += (text.empty() ? "" : "\n") + line;
  return text;
}

}  // namespace ptz_kit
