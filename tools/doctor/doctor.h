// tools/doctor/doctor.h - examines a system: the drivers, their processes, sockets, files and units.
//
// Each examination runs in a process of its own, all at once, and is given up at a deadline. So a driver that hangs, a
// file system that does not answer and a crash of one examination cost one line, and not the rest of the findings. The
// examinations change nothing: no file is made, removed or repaired.
#pragma once
#include "doctor/finding.h"
#include "subcommand.h"

namespace ptzctl {

struct Diagnosis {
  std::vector<Finding> findings;  // worst first
  std::vector<Driver> drivers;
  guint examinations = 0;

  [[nodiscard]] guint count(Severity severity) const;
  // 0 if nothing is wrong, 1 for warnings, 2 for faults.
  [[nodiscard]] int exit_status() const;
};

// All drivers if name and socket are null. Blocks for at most about three times the deadline, or
// six times if drivers end meanwhile.
[[nodiscard]] Diagnosis diagnose(const char *name, const char *socket, guint timeout_ms);

// Members "faults", "warnings", "notes", "examinations", "drivers" and "findings", into an object that is open.
void add_to(const JsonLine &json, const Diagnosis &diagnosis);

}  // namespace ptzctl
