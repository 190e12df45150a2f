#include "commands.h"
#include "doctor/doctor.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr int exit_bad_usage = 64;  // EX_USAGE: 2 is for faults
constexpr gint default_timeout_ms = 2000;

Look look_of(Severity severity) {
  if (severity == Severity::fault) return Look::bad;
  return severity == Severity::warning ? Look::notice : Look::plain;
}

void print_line(const char *label, const std::string &text) {
  if (!text.empty()) std::printf("  %-6s %s\n", label, tools::plain_text(text).c_str());
}

void print(const Finding &finding) {
  std::string severity = name_of(finding.severity);
  severity.resize(8, ' ');
  std::printf("%s %s: %s\n", painted(look_of(finding.severity), severity).c_str(), finding.id.c_str(),
              tools::plain_text(finding.subject).c_str());
  print_line("What:", finding.what);
  print_line("Why:", finding.why);
  print_line("Mend:", finding.command);
}

std::string counted(guint number, const char *what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

void print_summary(const Diagnosis &diagnosis, bool are_notes_shown) {
  const guint faults = diagnosis.count(Severity::fault), warnings = diagnosis.count(Severity::warning);
  const guint notes = diagnosis.count(Severity::note);
  std::string text = counted(static_cast<guint>(diagnosis.drivers.size()), "driver") + ", " +
                     counted(diagnosis.examinations, "examination") + ", ";
  text += faults + warnings == 0 ? "nothing wrong" : counted(faults, "fault") + ", " + counted(warnings, "warning");
  if (notes > 0 && !are_notes_shown) text += " (" + counted(notes, "note") + ": --all)";
  std::printf("%s\n", text.c_str());
}

void print_as_text(const Diagnosis &diagnosis, bool are_notes_shown, bool is_quiet) {
  for (const auto &finding : diagnosis.findings) {
    if (finding.severity == Severity::note && !are_notes_shown) continue;
    print(finding);
  }
  if (is_quiet) return;
  for (const auto &driver : diagnosis.drivers) {
    if (are_notes_shown)
      std::printf("driver   %s: process %d, %s\n", tools::plain_text(driver.label()).c_str(), driver.pid,
                  tools::plain_text(driver.socket).c_str());
  }
  print_summary(diagnosis, are_notes_shown);
}

}  // namespace

int run_doctor(const std::string &words, int argc, char **argv) {
  gboolean all = FALSE, quiet = FALSE;
  Options options(
      words,
      {"",
       "Examines the drivers, their processes, sockets, status, settings, files, units and the system bus. Each\n"
       "finding has what is wrong, why it matters, and the command that mends it, if there is one, worst first.\n"
       "Changes nothing. Without --driver and --socket, all drivers are examined.\n"
       "\n"
       "Exit status:\n"
       "  0   nothing is wrong\n"
       "  1   warnings\n"
       "  2   faults\n"
       "  64  wrong usage",
       " --timeout 500"},
      Asks::driver,
      {{"all", 'a', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &all, "Show notes, too: what is unusual or was not examined",
        nullptr},
       {"quiet", 'q', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &quiet, "Print findings only, without the summary",
        nullptr}},
      default_timeout_ms);
  if (!options.parse(argc, argv)) return exit_bad_usage;
  const Diagnosis diagnosis = diagnose(options.driver_name(), options.socket_path(), options.timeout_ms());
  if (options.as_json()) {
    const JsonLine json;
    add_to(json, diagnosis);
    json.print();
  } else {
    print_as_text(diagnosis, all != FALSE, quiet != FALSE);
  }
  return diagnosis.exit_status();
}

}  // namespace ptzctl
