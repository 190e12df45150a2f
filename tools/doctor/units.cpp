#include "doctor/units.h"

#include <cstdlib>
#include <cstring>

#include "doctor/supervision.h"

namespace ptzctl {

namespace {

constexpr char properties[] =
    "--property=Id,LoadState,ActiveState,SubState,Result,UnitFileState,FragmentPath,MainPID,NRestarts,ExecMainStatus,"
    "ExecStart,User";

void set(Unit &unit, const std::string &name, const std::string &value) {
  const auto number = [&value] { return static_cast<guint>(g_ascii_strtoull(value.c_str(), nullptr, 10)); };
  if (name == "Id") unit.name = value;
  if (name == "LoadState") unit.load_state = value;
  if (name == "ActiveState") unit.state = value;
  if (name == "SubState") unit.sub_state = value;
  if (name == "Result") unit.result = value;
  if (name == "UnitFileState") unit.file_state = value;
  if (name == "FragmentPath") unit.file = value;
  if (name == "MainPID") unit.pid = static_cast<pid_t>(number());
  if (name == "NRestarts") unit.restarts = number();
  if (name == "ExecMainStatus") unit.status = number();
  if (name == "User") unit.user = value;
  if (name == "ExecStart") unit.command = value;
}

// Its command line names a socket of the runtime folder, or it is a program of this framework.
bool runs_driver(const Unit &unit, const std::string &runtime) {
  const bool is_ours = unit.command.find("/ptznimbo/") != std::string::npos;
  return unit.command.find("--socket") != std::string::npos &&
         (is_ours || unit.command.find(runtime + "/") != std::string::npos);
}

}  // namespace

UnitsKnown units_of_drivers(const std::string &runtime, guint timeout_ms, std::vector<Unit> &units) {
  const auto result =
      run_program({"systemctl", "show", "--no-pager", "--all", "--type=service", properties, "*.service"}, timeout_ms);
  if (result.is_late) return UnitsKnown::no_answer;
  if (result.status != 0) return UnitsKnown::no_systemd;
  const tools::TextList blocks(g_strsplit(result.output.c_str(), "\n\n", -1));
  for (char **block = blocks.get(); *block != nullptr; ++block) {
    Unit unit;
    const tools::TextList lines(g_strsplit(*block, "\n", -1));
    for (char **line = lines.get(); *line != nullptr; ++line) {
      const char *const equals = std::strchr(*line, '=');
      if (equals != nullptr) set(unit, std::string(*line, static_cast<std::size_t>(equals - *line)), equals + 1);
    }
    if (!unit.name.empty() && runs_driver(unit, runtime)) units.push_back(std::move(unit));
  }
  return UnitsKnown::yes;
}

std::vector<std::string> words_of_command(const Unit &unit) {
  // "{ path=/usr/bin/x ; argv[]=/usr/bin/x --socket /run/y ; ignore_errors=no ; ... }"
  constexpr char begin[] = "argv[]=", end[] = " ; ignore_errors=";
  const auto at = unit.command.find(begin);
  if (at == std::string::npos) return {};
  const auto from = at + std::strlen(begin);
  const std::string text = unit.command.substr(from, unit.command.find(end, from) - from);
  const tools::TextList words(g_strsplit(text.c_str(), " ", -1));
  return {words.get(), words.get() + g_strv_length(words.get())};
}

std::string unit_of_socket(const std::vector<Unit> &units, const std::string &socket) {
  for (const auto &unit : units) {
    for (const auto &word : words_of_command(unit)) {
      if (word == socket || word == "--socket=" + socket) return unit.name;
    }
  }
  return "";
}

}  // namespace ptzctl
