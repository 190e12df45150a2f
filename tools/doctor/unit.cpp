// The units of drivers: whether they run, and how they have ended.
#include <unistd.h>

#include <pwd.h>
#include <algorithm>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/settings_check.h"
#include "doctor/shell_text.h"
#include "doctor/units.h"

namespace ptzctl {

namespace {

constexpr guint many_restarts = 3;
constexpr guint bad_usage = 2;

// Of a unit that has ended with the status for bad settings.
void check_settings_of(const Unit &unit, guint timeout_ms, Findings &findings) {
  SettingsOf of = {.subject = unit.name, .arguments = words_of_command(unit), .is_running = false};
  if (of.arguments.empty()) return;
  of.program = of.arguments.front();
  if (geteuid() == 0 && !unit.user.empty()) {
    const passwd *const user = getpwnam(unit.user.c_str());
    if (user == nullptr) return;  // systemd has told so
    of.as = {.uid = user->pw_uid, .gid = user->pw_gid, .groups = {user->pw_gid}};
  }
  check_settings(of, timeout_ms, findings);
}

void report_failed(const Unit &unit, Findings &findings) {
  const bool is_limited = unit.result == "start-limit-hit";
  std::string why = "The driver does not run, and systemd does not start it again.";
  if (unit.status == bad_usage) why += " Status 2 means wrong options or bad settings.";
  if (is_limited) why += " It has failed too often in a short time.";
  findings.fault(
      {.id = is_limited ? "unit.start-limit-hit" : "unit.failed",
       .subject = unit.name,
       .what = format("%s has failed: %s, last exit status %u.", unit.name.c_str(), unit.result.c_str(), unit.status),
       .why = why + " Its last lines: journalctl --unit " + quoted(unit.name) + " --lines 20",
       .command = "systemctl reset-failed " + quoted(unit.name) + " && systemctl start " + quoted(unit.name)});
}

void examine_unit(const Surroundings &system, const Unit &unit, Findings &findings) {
  if (unit.load_state == "masked" || unit.load_state == "not-found") return;
  if (unit.state == "failed") {
    report_failed(unit, findings);
    return check_settings_of(unit, system.timeout_ms, findings);
  }
  if (unit.sub_state == "auto-restart") {
    findings.fault({.id = "unit.restarting",
                    .subject = unit.name,
                    .what = format("%s ends again and again: it was restarted %u times, the last exit status is %u.",
                                   unit.name.c_str(), unit.restarts, unit.status),
                    .why = "The driver does not stay. The system log tells why.",
                    .command = "journalctl --unit " + quoted(unit.name) + " --lines 20"});
    return check_settings_of(unit, system.timeout_ms, findings);
  }
  if (unit.state == "inactive" && unit.file_state == "enabled") {
    findings.warning({.id = "unit.inactive",
                      .subject = unit.name,
                      .what = unit.name + " is enabled and does not run.",
                      .why = "It was stopped, or a condition of the unit is not met.",
                      .command = "systemctl start " + quoted(unit.name)});
  } else if (unit.state == "active" && unit.restarts >= many_restarts) {
    findings.warning(
        {.id = "unit.restarts",
         .subject = unit.name,
         .what = format("%s was restarted %u times.", unit.name.c_str(), unit.restarts),
         .why = "The driver crashes, or its watchdog ends it. Each time the head stands still for a while. "
                "When the cause is found, this command clears the count.",
         .command = "systemctl reset-failed " + quoted(unit.name) + " && systemctl restart " + quoted(unit.name)});
  }
}

void note(const char *id, const char *what, Findings &findings) {
  findings.note({.id = id, .subject = "systemd", .what = what, .why = "Units were not examined.", .command = ""});
}

}  // namespace

void examine_units(const Surroundings &system, Findings &findings) {
  std::vector<Unit> units;
  switch (units_of_drivers(system.runtime, system.timeout_ms, units)) {
    case UnitsKnown::no_systemd:
      return note("unit.no-systemd", "This system was not started with systemd, or systemctl cannot reach it.",
                  findings);
    case UnitsKnown::no_answer:
      findings.fault({.id = "unit.no-answer",
                      .subject = "systemd",
                      .what = format("systemctl did not answer within %u ms.", system.timeout_ms),
                      .why = "systemd restarts no driver while it hangs.",
                      .command = "dmesg --level=err,warn | tail --lines=20"});
      return;
    case UnitsKnown::yes:
      break;
  }
  for (const auto &unit : units) {
    const auto runs_in = [&unit](const Driver &driver) {
      return unit.pid == driver.pid || unit.command.find(driver.socket) != std::string::npos;
    };
    if (system.are_all_drivers_meant() || std::ranges::any_of(system.drivers, runs_in))
      examine_unit(system, unit, findings);
  }
}

}  // namespace ptzctl
