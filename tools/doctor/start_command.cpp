// The commands that start a driver, from its unit or from what it was started with.
#include <unistd.h>

#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "doctor/units.h"

namespace ptzctl {

namespace {

// The folders of the platform that the driver was given; others of its environment are not known to matter.
std::vector<std::string> platform_environment(pid_t pid) {
  std::vector<std::string> found;
  const std::string text = beginning_of("/proc/" + std::to_string(pid) + "/environ", 1024 * 1024);
  for (std::size_t at = 0; at < text.size();) {
    const std::string each = text.c_str() + at;
    if (each.starts_with("PTZ_PLATFORM_")) found.push_back(each);
    at += each.size() + 1;
  }
  return found;
}

// As its own user.
std::vector<std::string> with_user(uid_t uid, const std::vector<std::string> &environment) {
  std::vector<std::string> words;
  if (geteuid() == 0 && uid != 0) words = {"runuser", "-u", name_of_user(uid), "--"};
  if (!environment.empty()) words.push_back("env");
  words.insert(words.end(), environment.begin(), environment.end());
  return words;
}

}  // namespace

std::string restart_command(const Driver &driver) {
  if (driver.pid <= 0 || is_gone(driver.pid)) return "";
  const std::string unit = unit_of(driver.pid);
  const auto arguments = arguments_of(driver.pid);
  // A unit that is no driver's, such as that of a terminal, is not restarted.
  if (!unit.empty() && facts_of(driver.pid) && facts_of(driver.pid)->parent == 1) {
    return "systemctl restart " + quoted(unit);
  }
  const std::string kill = "kill -KILL " + std::to_string(driver.pid);
  if (arguments.empty()) return kill;
  auto words = with_user(driver.uid, platform_environment(driver.pid));
  words.insert(words.end(), arguments.begin(), arguments.end());
  const std::string folder = target_of("/proc/" + std::to_string(driver.pid) + "/cwd");
  const std::string go = folder.empty() || folder == "/" ? "" : "cd " + quoted(folder) + " && ";
  // The kernel takes a moment to end the process and to release the lock of its entry.
  return kill + " && sleep 1 && " + go + quoted(words);
}

std::string start_command(const Driver &driver, guint timeout_ms) {
  std::vector<Unit> units;
  const tools::Text runtime(g_path_get_dirname(driver.socket.c_str()));
  if (units_of_drivers(runtime.get(), timeout_ms, units) == UnitsKnown::yes) {
    const std::string unit = unit_of_socket(units, driver.socket);
    if (!unit.empty()) return "systemctl restart " + quoted(unit);
  }
  return "";  // a driver without its settings is no mend: its limits would be others
}

}  // namespace ptzctl
