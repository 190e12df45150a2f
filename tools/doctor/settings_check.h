// tools/doctor/settings_check.h - runs PROGRAM --config FILE --check-settings.
#pragma once
#include "doctor/supervision.h"

namespace ptzctl {

struct SettingsOf {
  std::string subject = {};
  std::string program = {};
  std::vector<std::string> arguments = {};  // with which the driver is started
  RunAs as = {};
  bool is_running = true;
};

// Nothing if the arguments name no file. As root, only a program that no other user can change is run.
void check_settings(const SettingsOf &of, guint timeout_ms, Findings &findings);

}  // namespace ptzctl
