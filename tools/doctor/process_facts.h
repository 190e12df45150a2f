// tools/doctor/process_facts.h - what /proc tells of a process.
#pragma once
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "doctor/driver.h"

namespace ptzctl {

struct ProcessFacts {
  char state = '?';
  bool is_ending = false;  // has ended, or was killed and is being taken down
  pid_t parent = 0, tracer = 0;
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;
  std::string command;  // at most 15 bytes
  double cpu_s = 0;
  double runnable_s = 0;  // of the first thread: on a processor, or waiting for one
  double start_s = 0;     // since the machine was started
};

// The file's beginning; empty if it cannot be read. Does not wait for the writer of a FIFO.
[[nodiscard]] std::string beginning_of(const std::string &path, std::size_t most = 64 * 1024);
[[nodiscard]] std::string target_of(const std::string &link);  // empty if it cannot be read
[[nodiscard]] std::vector<std::string> names_in(const std::string &folder);

[[nodiscard]] std::optional<ProcessFacts> facts_of(pid_t pid);
// Whether the process is stopped or has ended. It accepts no connection, and those of the doctor would fill its
// backlog.
[[nodiscard]] bool is_halted(pid_t pid);
// Whether the process has ended or is about to. Its locks and sockets outlive it for a moment.
[[nodiscard]] bool is_gone(pid_t pid);
[[nodiscard]] std::vector<std::string> arguments_of(pid_t pid);
[[nodiscard]] std::string name_of_process(pid_t pid);  // "123 (sim-driver)"
[[nodiscard]] std::string unit_of(pid_t pid);          // "x.service", or empty
[[nodiscard]] std::vector<pid_t> all_processes();

[[nodiscard]] std::string name_of_user(uid_t uid);
[[nodiscard]] std::string name_of_group(gid_t gid);

// The command that ends a driver, however it hangs, and starts it again with its arguments, folder and platform; empty
// if there is no process to end.
[[nodiscard]] std::string restart_command(const Driver &driver);
// The command that starts the unit of a driver that has ended; empty if it has none: its options are not known.
[[nodiscard]] std::string start_command(const Driver &driver, guint timeout_ms);

}  // namespace ptzctl
