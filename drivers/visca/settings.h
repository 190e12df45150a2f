// settings.h - the settings of the driver: the line, and each camera on it.
#pragma once
#include <ptz_kit_driver.h>

#include "head.h"

namespace visca {

// An auxiliary that is switched by packets of the settings, without header and terminator.
struct RawAuxiliary {
  std::string name;
  Packet on, off;  // off may be empty
};

struct CameraSettings {
  HeadOptions head;
  bool has_iris = true, has_ir_cut_filter = true;
  std::string focus = "auto";  // whether it has a focus motor: yes, no, auto
  std::vector<RawAuxiliary> auxiliaries;
  // Of the second and further cameras of a serial line.
  std::string socket, state;
  unsigned instance = 0;  // of the first camera, unless --instance is given
};

struct DriverSettings {
  LineOptions line;
  std::vector<CameraSettings> cameras;  // by address, from 1
};

void declare_settings(PTZKitDriver *driver);
// `device` replaces the address of the settings if it is not empty. On failure empty; each line of the error's message
// is a problem.
[[nodiscard]] std::optional<DriverSettings> read_settings(PTZKitDriver *driver, const char *device, GError **error);

}  // namespace visca
