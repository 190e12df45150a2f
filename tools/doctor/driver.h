// tools/doctor/driver.h - a driver that is examined, and the folders of the platform.
#pragma once
#include <ptz_kit_registry.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "handles.h"

namespace ptzctl {

struct Driver {
  std::string name = {};
  std::string socket = {};
  std::string program = {};
  pid_t pid = 0;  // 0 if it is not known
  uid_t uid = 0;
  guint32 instance = 0;  // 0 if it publishes none
  guint32 protocol_version = 0;
  gint64 since_us = 0;
  bool is_registered = false;
  PTZKitDriverLiveness liveness = PTZ_KIT_DRIVER_LIVE;

  [[nodiscard]] bool runs() const { return liveness != PTZ_KIT_DRIVER_DEAD; }
  // "sim-driver:1", as --driver takes it.
  [[nodiscard]] std::string label() const {
    return is_registered && instance != 0 ? name + ":" + std::to_string(instance) : name;
  }
};

// What all examinations know.
struct Surroundings {
  std::string runtime = {}, state = {};  // folders
  std::string wanted = {}, socket = {};  // of --driver and --socket; empty for all drivers
  guint timeout_ms = 0;
  std::vector<Driver> drivers = {};  // known after the examination of the registry

  [[nodiscard]] bool are_all_drivers_meant() const { return wanted.empty() && socket.empty(); }
};

}  // namespace ptzctl
