// tools/doctor/units.h - the units of systemd that run drivers.
#pragma once
#include <string>
#include <vector>

#include "doctor/driver.h"

namespace ptzctl {

struct Unit {
  std::string name = {}, state = {}, sub_state = {}, result = {}, load_state = {}, file_state = {};
  std::string command = {};  // of ExecStart, as systemctl shows it
  std::string file = {};
  std::string user = {};  // empty for root
  pid_t pid = 0;
  guint restarts = 0;
  guint status = 0;  // of the main process, if it has ended
};

enum class UnitsKnown { yes, no_systemd, no_answer };

// Services that listen below the runtime folder, or are programs of this framework.
[[nodiscard]] UnitsKnown units_of_drivers(const std::string &runtime, guint timeout_ms, std::vector<Unit> &units);

// The unit that starts the driver; empty if there is none.
[[nodiscard]] std::string unit_of_socket(const std::vector<Unit> &units, const std::string &socket);

// The words of ExecStart.
[[nodiscard]] std::vector<std::string> words_of_command(const Unit &unit);

}  // namespace ptzctl
