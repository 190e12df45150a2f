// process_state.h - what the kernel tells of a process.
#pragma once
#include <glib.h>

namespace ptzctl {

enum class ProcessState { running, sleeping, waiting, stopped, zombie, dead, unknown };  // waiting: for a disk, say

// From /proc; dead if there is no such process.
[[nodiscard]] ProcessState state_of_process(gint32 pid);
[[nodiscard]] const char *name_of(ProcessState state);
// Whether it will not do anything by itself.
[[nodiscard]] inline bool is_out_of_action(ProcessState state) {
  return state == ProcessState::stopped || state == ProcessState::zombie || state == ProcessState::dead;
}

}  // namespace ptzctl
