#include <pwd.h>

#include "process_state.h"
#include "report/report.h"

namespace ptzctl {

namespace {

using tools::Mood;

struct State {
  const char *name;
  Mood mood;
};
State state_of(const PTZKitRegistryEntry &entry) {
  switch (entry.liveness) {
    case PTZ_KIT_DRIVER_LIVE:
      return {"live", Mood::good};
    case PTZ_KIT_DRIVER_DEAD:
      return {"dead", Mood::bad};
    case PTZ_KIT_DRIVER_STOLEN:
      return {"stolen", Mood::warning};
  }
  return {"unknown", Mood::plain};
}

std::vector<tools::Cell> row_of(const PTZKitRegistryEntry &entry) {
  const State state = state_of(entry);
  const ProcessState process = state_of_process(entry.pid);
  return {{entry.name},
          {std::to_string(entry.instance)},
          {state.name, state.mood},
          {name_of(process), is_out_of_action(process) ? Mood::bad : Mood::plain},
          {std::to_string(entry.pid)},
          {user_text(entry.uid)},
          {tools::local_time_text(entry.since)},
          {std::to_string(entry.protocol_version)},
          {entry.socket_path},
          {entry.program != nullptr ? entry.program : ""}};
}

bool is_meant(const PTZKitRegistryEntry &entry, const ReportSettings &settings) {
  if (settings.socket != nullptr) return g_str_equal(settings.socket, entry.socket_path) != FALSE;
  const std::string name = settings.driver != nullptr ? settings.driver : entry.name;
  return name == entry.name || name == label_of(entry) || name == std::to_string(entry.instance);
}

tools::RegistryEntry unlisted_entry(const char *socket) {
  char name[] = "unlisted", program[] = "";
  const tools::Text path(g_strdup(socket));
  const PTZKitRegistryEntry entry = {name, path.get(), program, 0, 0, 0, 0, 0, PTZ_KIT_DRIVER_LIVE};
  return tools::RegistryEntry(ptz_kit_registry_entry_copy(&entry));
}

tools::Finding shown(const Finding &finding) {
  const Mood mood = finding.severity == Severity::fault     ? Mood::bad
                    : finding.severity == Severity::warning ? Mood::warning
                                                            : Mood::plain;
  const std::string title = finding.subject.empty() || finding.what.starts_with(finding.subject)
                                ? finding.what
                                : finding.subject + ": " + finding.what;
  tools::Finding result = {mood, name_of(finding.severity), title, {finding.why}, {}};
  if (!finding.command.empty()) result.lines.push_back(finding.command);
  return result;
}

}  // namespace

std::string user_text(guint32 uid) {
  const passwd *const user = getpwuid(uid);
  return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string label_of(const PTZKitRegistryEntry &entry) {
  return std::string(entry.name) + ":" + std::to_string(entry.instance);
}

ReportedDrivers reported_drivers(const ReportSettings &settings) {
  ReportedDrivers drivers;
  tools::Error error;
  drivers.list = tools::registered_drivers(error);
  if (drivers.list == nullptr) {
    drivers.problem = tools::message_of(error, "the registry cannot be read");
    return drivers;
  }
  for (guint i = 0; i < drivers.list->len; ++i) {
    const auto *const entry = static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(drivers.list.get(), i));
    if (is_meant(*entry, settings)) drivers.entries.push_back(entry);
  }
  if (settings.socket != nullptr && drivers.entries.empty()) {
    drivers.unlisted = unlisted_entry(settings.socket);
    drivers.entries.push_back(drivers.unlisted.get());
  }
  return drivers;
}

tools::Section drivers_section(const ReportedDrivers &drivers) {
  tools::Section section = {"drivers", "Drivers", {}};
  if (!drivers.problem.empty()) {
    section.mood = Mood::bad;
    section.blocks.emplace_back(tools::Paragraph{"The drivers cannot be listed: " + drivers.problem, Mood::bad});
    return section;
  }
  if (drivers.entries.empty()) {
    section.blocks.emplace_back(
        tools::Paragraph{"No driver is in the registry. Drivers without the kit are not listed."});
    return section;
  }
  tools::Table table = {"Drivers in the registry",
                        {{"name"},
                         {"instance", true},
                         {"state"},
                         {"process"},
                         {"pid", true},
                         {"user"},
                         {"since"},
                         {"protocol", true},
                         {"socket"},
                         {"program"}},
                        {}};
  for (const auto *entry : drivers.entries) {
    table.rows.push_back(row_of(*entry));
    if (state_of(*entry).mood != Mood::good) section.mood = Mood::bad;
  }
  section.blocks.emplace_back(std::move(table));
  return section;
}

tools::Section doctor_section(const Diagnosis &diagnosis, std::vector<tools::Tile> &tiles) {
  tools::Section section = {"findings", "Findings", {}};
  const guint faults = diagnosis.count(Severity::fault), warnings = diagnosis.count(Severity::warning);
  tiles.push_back({std::to_string(faults), faults == 1 ? "fault" : "faults", faults > 0 ? Mood::bad : Mood::good});
  tiles.push_back(
      {std::to_string(warnings), warnings == 1 ? "warning" : "warnings", warnings > 0 ? Mood::warning : Mood::good});
  section.mood = faults > 0 ? Mood::bad : warnings > 0 ? Mood::warning : Mood::good;
  section.blocks.emplace_back(
      tools::Paragraph{std::to_string(diagnosis.examinations) + " examinations, as ptzctl doctor makes them" +
                           (diagnosis.findings.empty() ? "; nothing is wrong." : ", worst findings first."),
                       diagnosis.findings.empty() ? Mood::good : Mood::plain});
  for (const auto &finding : diagnosis.findings) section.blocks.emplace_back(shown(finding));
  return section;
}

}  // namespace ptzctl
