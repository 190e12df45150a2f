// tools/doctor/supervision.h - runs examinations in processes of their own, and programs, with deadlines.
#pragma once
#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "doctor/finding.h"

namespace ptzctl {

struct Job {
  std::string name = {}, subject = {};
  std::function<void(Findings &)> examine;
};

// Runs all at once, and adds the findings in the order of the jobs. An examination that has not ended at the deadline
// is killed, and a finding says so.
void run_jobs(const std::vector<Job> &jobs, guint deadline_ms, Findings &findings);

// The user and the folder of a program that is run.
struct RunAs {
  std::optional<uid_t> uid = {};  // null: as this process
  gid_t gid = 0;
  std::vector<gid_t> groups = {};
  std::string folder = {};
  std::vector<std::string> environment = {};  // in addition to PATH and LC_ALL
};

struct ProgramResult {
  int status = -1;  // exit status; -1 if a signal ended it, it cannot be run, or it did not end
  bool is_late = false;
  std::string output = {};  // errors included, at most 64 KiB
};

// Runs a program without input. It is killed at the deadline.
[[nodiscard]] ProgramResult run_program(const std::vector<std::string> &arguments, guint deadline_ms,
                                        const RunAs &as = {});

}  // namespace ptzctl
