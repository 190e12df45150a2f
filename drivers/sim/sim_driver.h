// sim_driver.h - the driver of a simulated head, derived from PTZKitDriver. The kit serves the socket, checks requests,
// keeps presets and publishes the status; here is what only this head has.
#pragma once
#include "head.h"
#include "live_settings.h"

namespace sim {

// A new reference. Its options and settings are declared.
[[nodiscard]] PTZKitDriver *new_driver();

// Instead of the option --speed-factor, before the driver starts.
void set_speed_factor(PTZKitDriver *driver, gint factor);

// Of a driver that is started. Advance the head to the present before you look where it is.
[[nodiscard]] Head &head_of(PTZKitDriver *driver);
[[nodiscard]] LiveSettings &live_settings_of(PTZKitDriver *driver);

}  // namespace sim
