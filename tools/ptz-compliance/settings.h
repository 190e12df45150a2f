// settings.h - what the command line asks for.
#pragma once
#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace compliance {

struct Settings {
  std::string socket;  // empty for a new path, with a command
  std::vector<std::string> command;
  std::string log;
  std::string html;  // file; empty for none
  int timeout_ms;
  int motion_timeout_ms;
  int start_timeout_ms;
  guint instance;
  Format format;
  bool list;
  std::vector<const Check *> checks;
};

// Each of these in a command stands for the path of the socket.
inline constexpr char placeholder[] = "{socket}";

// Nothing after a wrong command line; the user was told. Help ends the program.
std::optional<Settings> settings_from(int argc, char **argv);
// Prints "ptz-compliance: PROBLEM; see --help".
void complain_of_usage(const char *problem);

}  // namespace compliance
