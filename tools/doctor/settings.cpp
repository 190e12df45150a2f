// The settings of a driver, by the driver's own check.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/settings_check.h"
#include "doctor/shell_text.h"
#include "doctor/supervision.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr std::size_t most_program_bytes = 64 * 1024 * 1024;
constexpr char entry_point[] = "ptz_kit_driver_run";

// Whether another user can replace a file of this folder, or of one above it.
bool is_folder_trusted(const std::string &path) {
  struct stat status;
  const tools::Text folder(g_path_get_dirname(path.c_str()));
  if (stat(folder.get(), &status) != 0) return false;
  const bool is_shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0;
  if (status.st_uid != 0 || is_shared) return false;
  return g_str_equal(folder.get(), "/") != FALSE || is_folder_trusted(folder.get());
}

// Another user could let this one run any program. Root also distrusts the folders of the program.
bool is_trusted(const std::string &program) {
  struct stat status;
  if (!program.starts_with('/') || lstat(program.c_str(), &status) != 0) return false;
  const bool is_ours = status.st_uid == 0 || status.st_uid == geteuid();
  if (!is_ours || !S_ISREG(status.st_mode) || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return false;
  return geteuid() != 0 || is_folder_trusted(program);
}

// Only a program with the main function of the kit is known to end after its check. Another one may ignore the option
// and start as a second driver.
bool has_check(const std::string &program) {
  return beginning_of(program, most_program_bytes).find(entry_point) != std::string::npos;
}

// The options --config, in any spelling.
std::vector<std::string> config_options(const std::vector<std::string> &arguments) {
  std::vector<std::string> found;
  for (std::size_t i = 1; i < arguments.size(); ++i) {
    const std::string &word = arguments[i];
    if ((word == "--config" || word == "-c") && i + 1 < arguments.size()) {
      found.insert(found.end(), {"--config", arguments[++i]});
    } else if (word.starts_with("--config=")) {
      found.push_back(word);
    } else if (word.starts_with("-c") && word.size() > 2) {
      found.insert(found.end(), {"--config", word.substr(2)});
    }
  }
  return found;
}

std::vector<std::string> files_of(const std::vector<std::string> &options, const std::string &folder) {
  std::vector<std::string> files;
  for (const auto &word : options) {
    if (word == "--config") continue;
    const std::string file = word.starts_with("--config=") ? word.substr(9) : word;
    files.push_back(file.starts_with('/') || folder.empty() ? file : folder + "/" + file);
  }
  return files;
}

std::string first_lines(const std::string &output) {
  constexpr std::size_t most = 5;
  std::string text;
  std::size_t count = 0;
  const tools::TextList all(g_strsplit(output.c_str(), "\n", -1));
  for (char **line = all.get(); *line != nullptr && count < most; ++line) {
    if (**line == '\0') continue;
    text += (text.empty() ? "" : "; ") + tools::plain_text(*line);
    ++count;
  }
  return text;
}

void note(const std::string &subject, const std::string &what, Findings &findings) {
  findings.note({.id = "settings.not-examined",
                 .subject = subject,
                 .what = what,
                 .why = "Whether the driver starts again with its settings is not known.",
                 .command = ""});
}

}  // namespace

void check_settings(const SettingsOf &of, guint timeout_ms, Findings &findings) {
  const auto options = config_options(of.arguments);
  if (options.empty()) return;
  if (!is_trusted(of.program)) {
    return note(of.subject, "The check of " + of.program + " was not run: the program can be changed by another user.",
                findings);
  }
  if (!has_check(of.program)) {
    return note(of.subject, of.program + " is not known to check its settings: it does not call " + entry_point + ".",
                findings);
  }
  std::vector<std::string> words = {of.program};
  words.insert(words.end(), options.begin(), options.end());
  words.push_back("--check-settings");
  const auto result = run_program(words, timeout_ms, of.as);
  const auto files = files_of(options, of.as.folder);
  if (result.status == 0) return;
  if (result.is_late || result.status < 0 || result.status == 127) {
    return note(of.subject, "The check of the settings by " + of.program + " has not ended.", findings);
  }
  findings.fault(
      {.id = "settings.bad",
       .subject = of.subject,
       .what = "The driver refuses its settings: " + first_lines(result.output) + ".",
       .why = of.is_running ? "It runs with its previous settings, and does not start again." : "It does not start.",
       .command = (of.as.folder.empty() ? "" : "cd -- " + quoted(of.as.folder) + " && ") + "${EDITOR:-vi} " +
                  quoted(files) + " && " + quoted(words)});
}

void examine_settings(const Surroundings &system, const Driver &driver, Findings &findings) {
  if (!driver.runs() || !driver.is_registered) return;
  const auto facts = facts_of(driver.pid);
  if (!facts) return;
  const std::string process = "/proc/" + std::to_string(driver.pid);
  SettingsOf of = {
      .subject = driver.label(), .program = target_of(process + "/exe"), .arguments = arguments_of(driver.pid)};
  if (config_options(of.arguments).empty()) return;
  if (of.program.empty()) of.program = driver.program;
  of.as.folder = target_of(process + "/cwd");
  if (geteuid() == 0) of.as = {.uid = facts->uid, .gid = facts->gid, .groups = facts->groups, .folder = of.as.folder};
  check_settings(of, system.timeout_ms, findings);
  timespec up = {};
  clock_gettime(CLOCK_BOOTTIME, &up);
  const time_t started = time(nullptr) - up.tv_sec + static_cast<time_t>(facts->start_s);
  for (const auto &file : files_of(config_options(of.arguments), of.as.folder)) {
    struct stat status;
    if (stat(file.c_str(), &status) != 0 || status.st_mtime <= started + 1) continue;
    findings.note({.id = "settings.changed",
                   .subject = driver.label(),
                   .what = file + " was changed after the driver had started.",
                   .why = "Settings are read at the start.",
                   .command = restart_command(driver)});
  }
}

}  // namespace ptzctl
