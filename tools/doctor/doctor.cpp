#include "doctor/doctor.h"

#include <algorithm>
#include <set>
#include <utility>

#include "doctor/examinations.h"
#include "doctor/supervision.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr guint grace_ms = 2000;  // for samples, and for programs that are run

struct OfDriver {
  const char *name;
  void (*examine)(const Surroundings &, const Driver &, Findings &);
};
constexpr OfDriver of_driver[] = {{"process", examine_process}, {"socket path", examine_socket_path},
                                  {"backlog", examine_backlog}, {"handshake", examine_handshake},
                                  {"clients", examine_clients}, {"settings", examine_settings}};
struct OfSystem {
  const char *name;
  void (*examine)(const Surroundings &, Findings &);
};
constexpr OfSystem of_system[] = {{"status", examine_status},         {"timings", examine_timings},
                                  {"parameters", examine_parameters}, {"free space", examine_free_space},
                                  {"units", examine_units},           {"system bus", examine_bus}};

// A fault, and what follows from it for the same driver. What follows is a note: it goes with its cause.
struct Consequence {
  const char *id, *cause;
};
constexpr Consequence consequences[] = {{"handshake.failed", "process.descriptors-used-up"},
                                        {"handshake.no-answer", "process.stopped"},
                                        {"handshake.no-answer", "process.traced"},
                                        {"handshake.no-answer", "process.uninterruptible"},
                                        {"status.stale", "process.stopped"},
                                        {"status.stale", "process.traced"},
                                        {"status.stale", "process.uninterruptible"},
                                        {"status.stale", "handshake.no-answer"},
                                        {"status.stale", "handshake.no-device"},
                                        {"status.not-published", "handshake.no-device"},
                                        {"clients.timeouts", "handshake.no-device"},
                                        {"status.publisher-dead", "process.dead"},
                                        {"timing.dead-owner", "process.dead"},
                                        {"timing.long-request", "handshake.no-answer"},
                                        {"timing.long-request", "process.stopped"},
                                        {"process.busy", "clients.flood"},
                                        {"handshake.slow", "clients.flood"},
                                        {"handshake.slower-than-others", "clients.flood"},
                                        {"socket.path-closed", "registry.folder-mode"}};

std::string folder_from(const char *variable, const char *fallback) {
  const char *const value = g_getenv(variable);
  const tools::Text path(g_canonicalize_filename(value != nullptr && *value != '\0' ? value : fallback, nullptr));
  return path.get();
}

std::vector<Finding> ordered(std::vector<Finding> findings) {
  std::set<std::pair<std::string, std::string>> present;
  for (const auto &each : findings) present.emplace(each.id, each.subject);
  for (auto &each : findings) {
    for (const auto &[id, cause] : consequences) {
      if (each.id == id && present.contains({cause, each.subject})) each.severity = Severity::note;
    }
  }
  // Causes are examined before what follows from them.
  std::ranges::stable_sort(findings, std::greater(), &Finding::severity);
  return findings;
}

// Findings of a first look are only good if the drivers are still those that were looked at.
bool are_drivers_unchanged(const Surroundings &system, guint deadline_ms) {
  Findings changed;
  run_jobs({{"registry", "", [&system](Findings &result) { find_changed_drivers(system, result); }}}, deadline_ms,
           changed);
  return changed.drivers().empty();
}

Diagnosis examine_all(Surroundings system, guint deadline_ms, bool &is_settled) {
  Findings findings;
  run_jobs({{"registry", "", [&system](Findings &result) { examine_registry(system, result); }}}, deadline_ms,
           findings);
  system.drivers = findings.drivers();

  std::vector<Job> jobs;
  for (const auto &[what, examine] : of_driver) {
    for (const auto &driver : system.drivers) {
      jobs.push_back({what, driver.label(),
                      [&system, &driver, examine = examine](Findings &result) { examine(system, driver, result); }});
    }
  }
  for (const auto &[what, examine] : of_system) {
    jobs.push_back({what, "", [&system, examine = examine](Findings &result) { examine(system, result); }});
  }
  run_jobs(jobs, deadline_ms, findings);
  compare_latencies(findings);
  is_settled = are_drivers_unchanged(system, deadline_ms);
  return {ordered(findings.list()), system.drivers, static_cast<guint>(jobs.size()) + 1};
}

}  // namespace

guint Diagnosis::count(Severity severity) const {
  return static_cast<guint>(std::ranges::count(findings, severity, &Finding::severity));
}

int Diagnosis::exit_status() const {
  if (count(Severity::fault) > 0) return 2;
  return count(Severity::warning) > 0 ? 1 : 0;
}

Diagnosis diagnose(const char *name, const char *socket, guint timeout_ms) {
  const Surroundings system = {.runtime = folder_from("PTZ_PLATFORM_RUNTIME_DIR", "/run/ptz"),
                               .state = folder_from("PTZ_PLATFORM_STATE_DIR", "/var/lib/ptz"),
                               .wanted = name != nullptr ? name : "",
                               .socket = socket != nullptr ? socket : "",
                               .timeout_ms = timeout_ms};
  const guint deadline_ms = std::min(timeout_ms, guint{G_MAXINT} / 4) * 2 + grace_ms;
  // A driver that ends meanwhile is partly seen running: one more look.
  bool is_settled = false;
  Diagnosis first = examine_all(system, deadline_ms, is_settled);
  return is_settled ? first : examine_all(system, deadline_ms, is_settled);
}

void add_to(const JsonLine &json, const Diagnosis &diagnosis) {
  json.member("faults", gint64{diagnosis.count(Severity::fault)});
  json.member("warnings", gint64{diagnosis.count(Severity::warning)});
  json.member("notes", gint64{diagnosis.count(Severity::note)});
  json.member("examinations", gint64{diagnosis.examinations});
  json.begin_array("drivers");
  for (const auto &driver : diagnosis.drivers) json.element(driver.label());
  json.end_array();
  json.begin_array("findings");
  for (const auto &finding : diagnosis.findings) {
    json.begin_object();
    json.member("id", finding.id);
    json.member("severity", std::string(name_of(finding.severity)));
    json.member("subject", finding.subject);
    json.member("what", finding.what);
    json.member("why", finding.why);
    json.member("command", finding.command);
    json.end_object();
  }
  json.end_array();
}

}  // namespace ptzctl
