// The parameter tree and the log.
#include <ptz_kit_registry.h>

#include <algorithm>

#include "doctor/supervision.h"
#include "field_values.h"
#include "parameter_group.h"
#include "report/report.h"

namespace ptzctl {

namespace {

using tools::Mood;

constexpr std::size_t longest_value = 200;  // bytes
constexpr std::size_t most_parameters = 5000;
constexpr char of_parameter[] = "parameter", of_problem[] = "problem";

// In the process of an examination: what it finds are parameters.
bool add_group(const std::string &path, bool full, int level, Findings &found) {
  ParameterGroup group;
  gint32 error = 0;
  if (level > most_levels || !read_parameter_group(path, group, error)) {
    if (level == 1 && error == PARAM_SERVICE_NO_GROUP) return true;  // nothing was ever written
    found.note({of_problem, path + ":", level > most_levels ? "too many levels" : reason_of(error), "", ""});
    return false;
  }
  for (const auto &each : group.parameters) {
    if (found.list().size() >= most_parameters) {
      found.note({of_problem, path + ":", "more than " + std::to_string(most_parameters) + " parameters", "", ""});
      return false;
    }
    std::string value = each.value.get();
    if (value.size() > longest_value) value = value.substr(0, longest_value) + "...";
    const bool is_hidden = is_name_of_secret(each.path) && !full;
    found.note({of_parameter, each.path, is_hidden ? hidden_value : value, "", ""});
  }
  for (const auto &each : group.groups) {
    if (!add_group(each, full, level + 1, found)) return false;
  }
  return true;
}

// The entries of the journal that these processes wrote, also before they were killed.
std::vector<std::string> journal_command(const ReportedDrivers &drivers) {
  std::vector<std::string> command = {"journalctl", "--no-pager", "--quiet", "--lines=200", "--output=short-iso"};
  for (const auto *entry : drivers.entries) {
    if (command.back().starts_with("_PID=")) command.emplace_back("+");
    command.push_back("_PID=" + std::to_string(entry->pid));
  }
  return command;
}

}  // namespace

tools::Section parameters_section(const ReportSettings &settings, const Diagnosis &diagnosis) {
  tools::Section section = {"parameters", "Parameters", {}};
  // A process that opens a damaged tree sets it aside. It is left as it was found.
  const auto is_damage = [](const Finding &finding) { return finding.id == "params.damaged"; };
  if (std::ranges::any_of(diagnosis.findings, is_damage)) {
    section.mood = Mood::warning;
    section.blocks.emplace_back(tools::Paragraph{"The tree is damaged and was not opened.", Mood::warning});
    return section;
  }
  tools::Table table = {settings.full ? "The parameter tree" : "The parameter tree; what may be a secret is hidden",
                        {{"path"}, {"value"}},
                        {}};
  // A lock on the tree that is not released costs this part only.
  Findings found;
  const bool full = settings.full;
  run_jobs({{"parameters", "", [full](Findings &findings) { add_group("root", full, 1, findings); }}},
           settings.timeout_ms, found);
  for (const auto &each : found.list()) {
    if (each.id == of_parameter) {
      table.rows.push_back({{each.subject}, {each.what}});
      continue;
    }
    section.mood = Mood::warning;
    section.blocks.emplace_back(tools::Paragraph{each.subject + " " + each.what, Mood::warning});
  }
  if (!table.rows.empty()) section.blocks.emplace_back(std::move(table));
  if (section.blocks.empty()) section.blocks.emplace_back(tools::Paragraph{"The parameter tree is empty."});
  return section;
}

tools::Section log_section(const ReportedDrivers &drivers, guint timeout_ms) {
  tools::Section section = {"log", "Log", {}};
  const auto say = [&section](const std::string &text) {
    section.blocks.emplace_back(tools::Paragraph{text});
    return section;
  };
  if (drivers.entries.empty()) return say("There is no driver whose log could be read.");
  if (tools::Text(g_find_program_in_path("journalctl")) == nullptr) {
    return say("There is no journal on this machine: journalctl is not installed.");
  }
  const ProgramResult result = run_program(journal_command(drivers), timeout_ms);
  if (result.is_late) return say("The journal did not answer within " + std::to_string(timeout_ms) + " ms.");
  tools::Listing listing = {"The last lines of the drivers in the journal", {}};
  const tools::TextList lines(g_strsplit(result.output.c_str(), "\n", -1));
  for (char **line = lines.get(); *line != nullptr; ++line) {
    if (**line != '\0') listing.lines.push_back({*line});
  }
  if (listing.lines.empty()) return say("The journal has no lines of these drivers.");
  if (result.status != 0) say("The journal could not be read:");
  section.blocks.emplace_back(std::move(listing));
  return section;
}

}  // namespace ptzctl
