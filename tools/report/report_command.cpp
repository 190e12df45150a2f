#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "commands.h"
#include "html_page.h"
#include "output_file.h"
#include "report/report.h"
#include "text_page.h"

namespace ptzctl {

namespace {

constexpr mode_t report_mode = 0600;  // it tells what users do
constexpr gint most_seconds = 600, default_timeout_ms = 2000;
constexpr char standard_output[] = "-";

tools::Page report_of(const ReportSettings &settings) {
  const ReportedDrivers drivers = reported_drivers(settings);
  tools::Page page = {"Pan-tilt-zoom report", "", {}, {}};
  page.lead = std::string(g_get_host_name()) + ", " + tools::local_time_text(g_get_real_time());
  // Before the doctor, whose requests would be on the wire, too.
  Watch watch(drivers.entries, settings.timeout_ms);
  watch.run(settings.seconds);
  const auto add = [&page](tools::Section section) { page.sections.push_back(std::move(section)); };
  const Diagnosis diagnosis = diagnose(settings.driver, settings.socket, settings.timeout_ms);
  add(doctor_section(diagnosis, page.tiles));
  add(drivers_section(drivers));
  page.tiles.push_back({std::to_string(drivers.entries.size()), drivers.entries.size() == 1 ? "driver" : "drivers"});
  add(figures_section(watch, page.tiles));
  add(motion_section(watch, settings.seconds));
  add(status_section(drivers));
  add(wire_section(watch, settings.full));
  add(timings_section());
  add(parameters_section(settings, diagnosis));
  add(log_section(drivers, settings.timeout_ms));
  add(versions_section());
  return page;
}

bool print(const std::string &text) {
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
}

int write_report(const std::string &file, const std::string &text, tools::Existing existing) {
  if (file == standard_output) return print(text) ? EXIT_SUCCESS : EXIT_FAILURE;
  const std::string problem = tools::write_output(file, text, existing, report_mode);
  if (problem.empty()) return EXIT_SUCCESS;
  complain("%s", problem.c_str());
  return EXIT_FAILURE;
}

}  // namespace

int run_report(const std::string &words, int argc, char **argv) {
  gboolean as_text = FALSE, is_full = FALSE, is_forced = FALSE, as_json = FALSE;
  gint seconds = 5;
  const auto flag = [](const char *name, gboolean *value, const char *text) {
    return GOptionEntry{name, 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, value, text, nullptr};
  };
  Options options(
      words,
      {"FILE",
       "Writes a page about the whole system, to be read and sent: findings, drivers, clients, motions, status, the\n"
       "last minute of the wire, timings, parameters, the log and versions. The page needs no other file. FILE is -\n"
       "for standard output. Without --driver and --socket, all drivers are in it. --timeout is for each part.",
       " --seconds 1 --text -"},
      Asks::driver,
      {flag("text", &as_text, "Write plain text"),
       {"seconds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &seconds, "Watch the motions for so long, by default 5",
        "N"},
       flag("full", &is_full, "Show passwords and other secrets"),
       flag("force", &is_forced, "Replace the file if it exists"),
       {"json", 'j', G_OPTION_FLAG_HIDDEN, G_OPTION_ARG_NONE, &as_json, nullptr, nullptr}},
      default_timeout_ms);
  const auto given = options.parse(argc, argv);
  if (!given || !options.is_within("--seconds", seconds, 0, most_seconds)) return exit_usage;
  if (as_json != FALSE) return options.misused("a report is HTML, or text with --text");
  const std::string &file = given->front();
  const auto existing = is_forced != FALSE ? tools::Existing::replace : tools::Existing::keep;
  const std::string problem = file != standard_output ? tools::problem_with_output(file, existing) : "";
  if (!problem.empty()) {
    complain("%s", problem.c_str());
    return EXIT_FAILURE;
  }
  const tools::Page page = report_of({options.driver_name(), options.socket_path(), static_cast<guint>(seconds),
                                      options.timeout_ms(), is_full != FALSE});
  return write_report(file, as_text != FALSE ? tools::text_of(page) : tools::html_of(page), existing);
}

}  // namespace ptzctl
