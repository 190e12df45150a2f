#include "process_state.h"

#include <cerrno>
#include <csignal>
#include <string>

#include "handles.h"

namespace ptzctl {

ProcessState state_of_process(gint32 pid) {
  if (pid <= 0) return ProcessState::unknown;
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  char *raw = nullptr;
  if (g_file_get_contents(path.c_str(), &raw, nullptr, nullptr) == FALSE) {
    // /proc may hide the processes of other users.
    return kill(pid, 0) != 0 && errno == ESRCH ? ProcessState::dead : ProcessState::unknown;
  }
  const tools::Text owned(raw);
  const std::string text = raw;
  const auto name_end = text.rfind(')');  // the name may hold anything
  switch (name_end != std::string::npos && name_end + 2 < text.size() ? text[name_end + 2] : '?') {
    case 'R':
      return ProcessState::running;
    case 'S':
    case 'I':
      return ProcessState::sleeping;
    case 'D':
      return ProcessState::waiting;
    case 'T':
    case 't':
      return ProcessState::stopped;
    case 'Z':
      return ProcessState::zombie;
    case 'X':
      return ProcessState::dead;
    default:
      return ProcessState::unknown;
  }
}

const char *name_of(ProcessState state) {
  switch (state) {
    case ProcessState::running:
      return "running";
    case ProcessState::sleeping:
      return "sleeping";
    case ProcessState::waiting:
      return "waiting";
    case ProcessState::stopped:
      return "stopped";
    case ProcessState::zombie:
      return "zombie";
    case ProcessState::dead:
      return "dead";
    case ProcessState::unknown:
      break;
  }
  return "unknown";
}

}  // namespace ptzctl
