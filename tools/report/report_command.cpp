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
constexpr gint most_seconds = 600;
constexpr char standard_output[] = "-";

tools::Page report_of(const ReportSettings &settings) {
  const ReportedDrivers drivers = reported_drivers(settings.driver);
  tools::Page page = {"Pan-tilt-zoom report", "", {}, {}};
  page.lead = std::string(g_get_host_name()) + ", " + local_time_text(g_get_real_time());
  // Before the doctor, whose requests would be on the wire, too.
  Watch watch(drivers.entries, settings.timeout_ms);
  watch.run(settings.seconds);
  const auto add = [&page](tools::Section section) { page.sections.push_back(std::move(section)); };
  add(doctor_section(settings, page.tiles));
  add(drivers_section(drivers));
  page.tiles.push_back({std::to_string(drivers.entries.size()), drivers.entries.size() == 1 ? "driver" : "drivers"});
  add(figures_section(watch, page.tiles));
  add(motion_section(watch, settings.seconds));
  add(status_section(drivers));
  add(wire_section(watch, settings.full));
  add(timings_section());
  add(parameters_section(settings));
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
  gboolean as_text = FALSE, is_full = FALSE, is_forced = FALSE;
  gint seconds = 5, timeout_ms = 2000;
  char *driver = nullptr;
  Options options(
      words,
      {"FILE",
       "Writes a page about the whole system, to be read and sent: findings, drivers, clients, motions, status, the\n"
       "last minute of the wire, timings, parameters, the log and versions. The page needs no other file. FILE is -\n"
       "for standard output.",
       " /tmp/report.html"},
      Asks::none,
      {{"text", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_text, "Write plain text", nullptr},
       {"driver", 'd', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &driver,
        "Only this driver, by its name in ptzctl driver list, by NAME:INSTANCE, or by its instance", "NAME"},
       {"seconds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &seconds, "Watch the motions for so long, by default 5",
        "N"},
       {"timeout", 't', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &timeout_ms,
        "How long each part may take, by default 2000", "MS"},
       {"full", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &is_full, "Show passwords and other secrets", nullptr},
       {"force", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &is_forced, "Replace the file if it exists", nullptr}});
  const auto given = options.parse(argc, argv);
  const tools::Text owned(driver);
  if (!given || !options.is_within("--seconds", seconds, 0, most_seconds) ||
      !options.is_within("--timeout", timeout_ms, 1, G_MAXINT / 10)) {
    return exit_usage;
  }
  if (options.as_json()) return options.misused("a report is HTML, or text with --text");
  const std::string &file = given->front();
  const auto existing = is_forced != FALSE ? tools::Existing::replace : tools::Existing::keep;
  const std::string problem = file != standard_output ? tools::problem_with_output(file, existing) : "";
  if (!problem.empty()) {
    complain("%s", problem.c_str());
    return EXIT_FAILURE;
  }
  const tools::Page page = report_of(
      {driver != nullptr ? driver : "", static_cast<guint>(seconds), static_cast<guint>(timeout_ms), is_full != FALSE});
  return write_report(file, as_text != FALSE ? tools::text_of(page) : tools::html_of(page), existing);
}

}  // namespace ptzctl
