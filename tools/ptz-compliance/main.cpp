// ptz-compliance - checks from outside what every driver must get right.
#include <glib/gstdio.h>
#include <syslog.h>

#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdlib>

#include "colours.h"
#include "report.h"
#include "requests.h"

namespace {

using namespace compliance;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;  // and a driver that cannot be started
constexpr double most_seconds = 3600;
constexpr int died_limit_ms = 100;  // between the end of a connection and the end of its process
constexpr char placeholder[] = "{socket}";

constexpr const Checks *areas[] = {&socket_checks,  &framing_checks,    &client_checks,  &reply_checks,
                                   &command_checks, &capability_checks, &motion_checks,  &limit_checks,
                                   &preset_checks,  &status_checks,     &latency_checks, &process_checks};

constexpr char description[] =
    "A COMMAND is started, and started again where a check ends it; each \"{socket}\" in it stands for the path\n"
    "on which it is to listen. Without a COMMAND the driver that listens on --socket is checked.\n"
    "\n"
    "The driver's head moves, a little. Two presets are stored under numbers that are free.\n"
    "\n"
    "Examples:\n"
    "  ptz-compliance --instance 1 -- sim-driver --instance 1 --socket {socket}\n"
    "  ptz-compliance --socket /run/ptz/head.socket --only 'framing.*' --only 'clients.*'\n"
    "  ptz-compliance --tap --log driver.log -- ./my-driver {socket}\n"
    "\n"
    "Exit status:\n"
    "  0  no check failed\n"
    "  1  a check failed\n"
    "  2  wrong usage, or the driver could not be started";

struct Settings {
  int timeout_ms;
  int motion_timeout_ms;
  guint instance;
};

std::vector<const Check *> matching(char **only, char **skip) {
  const auto matches = [](char **patterns, const char *name) {
    for (; *patterns != nullptr; ++patterns) {
      if (g_pattern_match_simple(*patterns, name) != FALSE) return true;
    }
    return false;
  };
  std::vector<const Check *> chosen;
  for (const Checks *area : areas) {
    for (const Check &check : *area) {
      if (only != nullptr && !matches(only, check.name)) continue;
      if (skip != nullptr && matches(skip, check.name)) continue;
      chosen.push_back(&check);
    }
  }
  return chosen;
}

// What a check has left of the driver. A driver that a check has ended is no longer there to be asked.
void expect_alive(Subject &subject, const Settings &settings, Probe &probe) {
  if (subject.started_by_us() && !subject.runs()) return;
  Probe after(subject, settings.timeout_ms, settings.motion_timeout_ms, settings.instance);
  after.connect().ask(harmless_request());
  if (after.result() == Result::passed) return;
  const auto end = subject.died(died_limit_ms);
  probe.overrule(end ? "the driver " + *end : "afterwards, " + after.remark());
}

Outcome run(const Check &check, Subject &subject, const Settings &settings) {
  const gint64 start = g_get_monotonic_time();
  Probe probe(subject, settings.timeout_ms, settings.motion_timeout_ms, settings.instance);
  if (subject.started_by_us() && !subject.runs()) {
    if (const auto reason = subject.start()) probe.fail("%s", reason->c_str());
  }
  if (!probe.decided()) {
    check.run(probe);
    expect_alive(subject, settings, probe);
  }
  // The next check is to meet a driver that has not been through this one.
  if (probe.result() == Result::failed) subject.clear_away();
  return {probe.result(), probe.remark(), probe.traffic(), static_cast<double>(g_get_monotonic_time() - start) / 1000};
}

// A folder for the socket of a driver that is started, where nobody named one.
class TemporaryFolder {
  Text path_;

 public:
  bool make() {
    path_.reset(g_dir_make_tmp("ptz-compliance-XXXXXX", nullptr));
    return path_ != nullptr;
  }
  [[nodiscard]] std::string file(const char *name) const { return std::string(path_.get()) + "/" + name; }
  ~TemporaryFolder() {
    if (path_) g_rmdir(path_.get());
  }
};

std::string replaced(std::string word, const std::string &path) {
  for (std::size_t at = word.find(placeholder); at != std::string::npos; at = word.find(placeholder, at)) {
    word.replace(at, std::size(placeholder) - 1, path);
    at += path.size();
  }
  return word;
}

int usage(const char *problem) {
  g_printerr("ptz-compliance: %s; see --help\n", problem);
  return exit_usage;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");
  char *socket_option = nullptr;
  char *log_option = nullptr;
  char *colour_option = nullptr;
  char **only_option = nullptr;
  char **skip_option = nullptr;
  gboolean list = FALSE;
  gboolean tap = FALSE;
  gboolean json = FALSE;
  double timeout_s = 2;
  gint instance = 0;
  double motion_timeout_s = 20;
  double start_timeout_s = 10;
  const GOptionEntry entries[] = {
      {"socket", 's', G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &socket_option,
       "The driver's socket (with a COMMAND: default a new path)", "PATH"},
      {"list", 'l', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &list, "List the checks and end", nullptr},
      {"only", 'o', G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING_ARRAY, &only_option,
       "Only checks with such a name, with * and ?; may be given several times", "PATTERN"},
      {"skip", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING_ARRAY, &skip_option,
       "No checks with such a name; may be given several times", "PATTERN"},
      {"timeout", 't', G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &timeout_s,
       "Wait for a reply, or for an end on SIGTERM, at most so long (default: 2)", "SECONDS"},
      {"motion-timeout", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &motion_timeout_s,
       "Wait for the end of a motion at most so long (default: 20)", "SECONDS"},
      {"start-timeout", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_DOUBLE, &start_timeout_s,
       "Wait at most so long until a driver that was started listens (default: 10)", "SECONDS"},
      {"log", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_FILENAME, &log_option,
       "Append what the COMMAND prints to this file (default: nowhere)", "FILE"},
      {"instance", 'i', G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &instance,
       "The driver publishes its status as this PTZ instance (default: its status is not looked at)", "N"},
      {"tap", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &tap, "Print TAP, for a test harness", nullptr},
      {"json", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &json, "Print JSON", nullptr},
      {"color", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_STRING, &colour_option,
       "Colours: always, never, or auto, on a terminal where NO_COLOR is not set", "WHEN"},
      {}};
  const Options options(g_option_context_new("[-- COMMAND...] - check a pan-tilt-zoom driver"));
  g_option_context_add_main_entries(options.get(), entries, nullptr);
  g_option_context_set_description(options.get(), description);
  GError *error = nullptr;
  if (g_option_context_parse(options.get(), &argc, &argv, &error) == FALSE) {
    const Owned<GError, g_error_free> owner(error);
    return usage(error->message);
  }
  const Text socket(socket_option);
  const Text log(log_option);
  const Text colours(colour_option);
  const Owned<char *, g_strfreev> only(only_option);
  const Owned<char *, g_strfreev> skip(skip_option);
  char **words = argv + 1;
  if (*words != nullptr && std::string_view(*words) == "--") ++words;

  for (const double seconds : {timeout_s, motion_timeout_s, start_timeout_s}) {
    if (!(seconds > 0 && seconds <= most_seconds)) return usage("times are above 0 and at most 3600 seconds");
  }
  if (instance < 0) return usage("instances count from 1");
  if (!choose_colours(colours ? colours.get() : "auto")) return usage("--color is always, never or auto");
  if (tap && json) return usage("--tap and --json exclude each other");
  const Format format = tap ? Format::tap : json ? Format::json : Format::text;
  const auto checks = matching(only.get(), skip.get());
  if (checks.empty()) return usage("no check has such a name");
  if (list) {
    list_checks(format, checks);
    return EXIT_SUCCESS;
  }
  if (!socket && *words == nullptr) return usage("it takes --socket PATH, or a COMMAND, or both");

  TemporaryFolder folder;
  std::string path;
  if (socket) {
    path = socket.get();
  } else if (folder.make()) {
    path = folder.file("driver.socket");
  } else {
    return usage("no temporary folder can be made");
  }
  std::vector<std::string> command;
  bool told = false;
  for (; *words != nullptr; ++words) {
    command.push_back(replaced(*words, path));
    told = told || command.back() != *words;
  }
  if (!socket && !told) return usage("without --socket, the COMMAND needs {socket} where it takes its path");

  signal(SIGPIPE, SIG_IGN);  // drivers may close their connections at any moment
  openlog("ptz-compliance", LOG_PID, LOG_USER);
  const auto ms = [](double seconds) { return static_cast<int>(std::ceil(seconds * 1000)); };
  const Settings settings{ms(timeout_s), ms(motion_timeout_s), static_cast<guint>(instance)};
  bool failed = false;
  {
    Subject subject(path, command, log ? log.get() : "", ms(start_timeout_s));
    if (const auto reason = subject.start()) {
      g_printerr("ptz-compliance: %s%s\n", reason->c_str(),
                 !subject.was_started() || log ? "" : "; --log FILE keeps what it prints");
      return exit_usage;
    }
    const auto report = make_report(format, checks.size(), subject);
    for (const Check *check : checks) {
      const Outcome outcome = run(*check, subject, settings);
      failed = failed || outcome.result == Result::failed;
      report->add(*check, outcome);
    }
    report->finish();
  }
  return failed ? exit_failed : EXIT_SUCCESS;
}
