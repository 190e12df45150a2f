// ptz-compliance - checks from outside what every driver must get right.
#include <glib.h>
#include <syslog.h>

#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "problems.h"
#include "requests.h"
#include "settings.h"

namespace {

using namespace compliance;

constexpr int exit_failed = 1;
constexpr int exit_usage = 2;       // and a driver that cannot be started
constexpr int died_limit_ms = 100;  // between the end of a connection and the end of its process

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
  subject.forget_output();
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
  return {probe.result(),
          probe.remark(),
          probe.answer(),
          probe.traffic(),
          static_cast<double>(g_get_monotonic_time() - start) / 1000,
          probe.trace()};
}

// The runtime directory of a driver that is started, and the folder of its socket if the user named none. So a driver
// of the same instance that runs on this machine keeps its status and its entry in the registry.
class TemporaryFolder {
  Text path_;

 public:
  bool make() {
    path_.reset(g_dir_make_tmp("ptz-compliance-XXXXXX", nullptr));
    return path_ != nullptr && g_setenv("PTZ_PLATFORM_RUNTIME_DIR", path_.get(), TRUE) != FALSE;
  }
  [[nodiscard]] std::string file(const char *name) const { return std::string(path_.get()) + "/" + name; }
  ~TemporaryFolder() {
    std::error_code ignored;
    if (path_) std::filesystem::remove_all(path_.get(), ignored);
  }
};

std::string replaced(std::string word, const std::string &path) {
  for (std::size_t at = word.find(placeholder); at != std::string::npos; at = word.find(placeholder, at)) {
    word.replace(at, std::size(placeholder) - 1, path);
    at += path.size();
  }
  return word;
}

int run_all(Subject &subject, const Settings &settings) {
  if (const auto reason = subject.start()) {
    const bool is_kept = !subject.was_started() || !settings.log.empty();
    tools::print_problem("ptz-compliance", *reason + (is_kept ? "" : "; --log FILE keeps what it prints"));
    return exit_usage;
  }
  bool failed = false;
  std::vector<std::unique_ptr<Report>> reports;
  reports.push_back(make_report(settings.format, settings.checks.size(), subject));
  if (!settings.html.empty()) reports.push_back(make_html_report(settings.html, subject));
  for (const Check *check : settings.checks) {
    const Outcome outcome = run(*check, subject, settings);
    failed = failed || outcome.result == Result::failed;
    for (const auto &report : reports) report->add(*check, outcome);
  }
  for (const auto &report : reports) {
    const std::string problem = report->finish();
    if (problem.empty()) continue;
    tools::print_problem("ptz-compliance", problem);
    return exit_usage;
  }
  return failed ? exit_failed : EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_CTYPE, "");
  auto settings = settings_from(argc, argv);
  if (!settings) return exit_usage;
  if (settings->list) {
    list_checks(settings->format, settings->checks);
    return EXIT_SUCCESS;
  }
  TemporaryFolder folder;
  if (!settings->command.empty() && !folder.make()) {
    complain_of_usage("no temporary folder can be made");
    return exit_usage;
  }
  if (settings->socket.empty()) settings->socket = folder.file("driver.socket");
  for (std::string &word : settings->command) word = replaced(word, settings->socket);
  signal(SIGPIPE, SIG_IGN);  // drivers may close their connections at any moment
  openlog("ptz-compliance", LOG_PID, LOG_USER);
  Subject subject(settings->socket, settings->command, settings->log, settings->start_timeout_ms);
  return run_all(subject, *settings);
}
