// visca_driver.h - the driver of one camera, and of the further cameras of its serial line.
#pragma once
#include <ptz_kit.h>

namespace visca {

// A new driver; its run() is the program.
[[nodiscard]] PTZKitDriver *new_driver();

}  // namespace visca
