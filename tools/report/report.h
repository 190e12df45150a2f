// report.h - the parts of ptzctl report. Each part has a deadline, and says what it could not get: a driver that hangs
// does not keep the report from being written.
#pragma once
#include <string>
#include <vector>

#include "doctor/doctor.h"
#include "driver_socket.h"
#include "page.h"
#include "report/watch.h"

namespace ptzctl {

struct ReportSettings {
  const char *driver = nullptr, *socket = nullptr;  // null for all
  guint seconds = 5;                                // for which the motions are watched
  guint timeout_ms = 2000;
  bool full = false;  // with the values of secrets
};

// The drivers of the registry that are meant.
struct ReportedDrivers {
  tools::RegistryList list;       // owns the entries; null if it cannot be read
  tools::RegistryEntry unlisted;  // of a socket that no entry names
  std::vector<const PTZKitRegistryEntry *> entries;
  std::string problem;
};
[[nodiscard]] ReportedDrivers reported_drivers(const ReportSettings &settings);

[[nodiscard]] tools::Section versions_section();
[[nodiscard]] tools::Section drivers_section(const ReportedDrivers &drivers);
[[nodiscard]] tools::Section doctor_section(const Diagnosis &diagnosis, std::vector<tools::Tile> &tiles);
[[nodiscard]] tools::Section figures_section(const Watch &watch, std::vector<tools::Tile> &tiles);
[[nodiscard]] tools::Section motion_section(const Watch &watch, guint seconds);
[[nodiscard]] tools::Section wire_section(const Watch &watch, bool full);
[[nodiscard]] tools::Section status_section(const ReportedDrivers &drivers);
[[nodiscard]] tools::Section timings_section();
[[nodiscard]] tools::Section parameters_section(const ReportSettings &settings, const Diagnosis &diagnosis);
[[nodiscard]] tools::Section log_section(const ReportedDrivers &drivers, guint timeout_ms);

[[nodiscard]] std::string user_text(guint32 uid);
// "sim-driver:1"
[[nodiscard]] std::string label_of(const PTZKitRegistryEntry &entry);

}  // namespace ptzctl
