// The status that drivers publish: age, publishers, values.
#include <ptz_status_cache.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <set>

#include "doctor/examinations.h"
#include "doctor/folder_check.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr char file_suffix[] = ".status";
constexpr gint64 shortest_stale_ms = 1000;
constexpr gint64 periods = 3;

struct Position {
  std::string group;
  std::vector<StoredValue> values;
  Reading reading;
  int error = 0;

  explicit Position(guint instance) {
    constexpr PTZSCParam params[] = {PTZ_SC_PARAM_POSITION_UPDATE_RATE, PTZ_SC_PARAM_POSITION_TIME_VAL,
                                     PTZ_SC_PARAM_POSITION_PAN, PTZ_SC_PARAM_POSITION_TILT,
                                     PTZ_SC_PARAM_POSITION_MZOOM};
    const tools::Handle<PTZStatusCacheGroup, ptz_status_cache_free_group> handle(
        ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, instance, std::size(params)));
    gint64 unused = 0;
    group = handle->name;
    for (std::size_t i = 0; i < std::size(params); ++i) {
      ptz_status_cache_add_param(handle.get(), params[i], &unused);
      values.push_back({handle->params[i]->key, handle->params[i]->size, handle->params[i]->type});
    }
    reading = read_group(group, values);
    error = errno;
  }
  [[nodiscard]] gint64 age_ms() const {
    const auto &time = values[1].value.time;
    return (g_get_monotonic_time() - (time.seconds * gint64{G_USEC_PER_SEC} + time.fraction)) / 1000;
  }
  [[nodiscard]] bool is_stale() const {
    const gint64 rate = values[0].found ? values[0].value.number : 0;
    return values[1].found && age_ms() > std::max(shortest_stale_ms, periods * 1000 / std::max<gint64>(rate, 1));
  }
};

// Processes that have the file mapped for writing. Those of other users are seen by root only.
std::vector<pid_t> writers_of(const std::string &path) {
  std::vector<pid_t> writers;
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return writers;
  const std::string inode = " " + std::to_string(status.st_ino) + " ";
  for (const pid_t pid : all_processes()) {
    if (pid == getpid()) continue;
    const std::string maps = beginning_of("/proc/" + std::to_string(pid) + "/maps", 4 * 1024 * 1024);
    for (auto at = maps.find(inode); at != std::string::npos; at = maps.find(inode, at + 1)) {
      const auto begin = maps.rfind('\n', at) + 1;
      const std::string line = maps.substr(begin, maps.find('\n', at) - begin);
      if (line.find(" rw-s ") == std::string::npos || line.find(file_suffix) == std::string::npos) continue;
      writers.push_back(pid);
      break;
    }
  }
  return writers;
}

void check_values(const std::string &subject, const Position &position, Findings &findings) {
  for (std::size_t i = 2; i < position.values.size(); ++i) {
    const StoredValue &value = position.values[i];
    if (!value.found || std::isfinite(value.value.measure)) continue;
    findings.warning({.id = "status.values",
                      .subject = subject,
                      .what = std::string(value.key) + " of " + position.group + " is not a number.",
                      .why = "The driver has read nonsense from its device, and daemons compute with it.",
                      .command = "ptzctl driver position"});
  }
  if (position.values[1].found && position.age_ms() < -shortest_stale_ms) {
    findings.warning({.id = "status.future",
                      .subject = subject,
                      .what = "The time of " + position.group + " is in the future.",
                      .why = "The driver publishes another clock than the monotonic one; daemons cannot tell how old "
                             "the values are.",
                      .command = "ptzctl status show position"});
  }
}

void report_no_access(const std::string &subject, const std::string &path, Findings &findings) {
  findings.note({.id = "status.no-access",
                 .subject = subject,
                 .what = "The user " + name_of_user(geteuid()) + " cannot read " + path + ".",
                 .why = "The status was not examined.",
                 .command = ""});
}

void report_unreadable(const Surroundings &system, const Driver &driver, const Position &position, Findings &findings) {
  const std::string path = system.runtime + "/" + position.group + file_suffix;
  if (position.reading == Reading::no_group) {
    findings.fault({.id = "status.not-published",
                    .subject = driver.label(),
                    .what = format("Instance %u has no group %s in %s.", driver.instance, position.group.c_str(),
                                   system.runtime.c_str()),
                    .why = "Daemons do not see where the head is. The driver cannot write there, or the file system is "
                           "full; the system log has the line 'is not written'.",
                    .command = restart_command(driver)});
  } else if (position.error == EACCES) {
    report_no_access(driver.label(), path, findings);
  } else {
    findings.fault({.id = "status.damaged",
                    .subject = driver.label(),
                    .what = path + " cannot be read: " + g_strerror(position.error) + ".",
                    .why = "The file is damaged, of another release, or a foreign user's: daemons see no position. The "
                           "driver makes it anew when it is gone.",
                    .command = "rm -- " + quoted(path)});
  }
}

void report_stale(const Driver &driver, const Position &position, Findings &findings) {
  findings.fault({.id = "status.stale",
                  .subject = driver.label(),
                  .what = format("%s is %.1f s old, and its publisher announces %d updates a second.",
                                 position.group.c_str(), static_cast<double>(position.age_ms()) / 1000,
                                 position.values[0].found ? position.values[0].value.number : 0),
                  .why = "Daemons show where the head was, and not where it is. The driver's main loop is stuck, or it "
                         "cannot write the file.",
                  .command = restart_command(driver)});
}

void check_publishers(const Surroundings &system, const Driver &driver, const Position &position, Findings &findings) {
  const auto writers = writers_of(system.runtime + "/" + position.group + file_suffix);
  std::vector<pid_t> others = writers;
  std::erase(others, driver.pid);
  for (const auto &each : system.drivers) {
    const bool is_another = each.runs() && each.instance == driver.instance && each.pid > driver.pid;
    if (is_another && std::ranges::find(others, each.pid) == others.end()) others.push_back(each.pid);
  }
  if (others.empty()) return;
  std::string names;
  for (const pid_t pid : others) names += (names.empty() ? "" : ", ") + name_of_process(pid);
  findings.fault({.id = "status.two-publishers",
                  .subject = driver.label(),
                  .what = format("Instance %u is published by the driver, process %d, and by process %s.",
                                 driver.instance, driver.pid, names.c_str()),
                  .why = "The position jumps between two heads. Each driver needs an instance of its own.",
                  .command = "kill " + std::to_string(others.front())});
}

// Also of a file that this user can read: root sees no difference.
void check_mode(const Surroundings &system, const Driver &driver, const Position &position, Findings &findings) {
  struct stat folder, status;
  const std::string path = system.runtime + "/" + position.group + file_suffix;
  if (stat(system.runtime.c_str(), &folder) != 0 || stat(path.c_str(), &status) != 0) return;
  if (group_has_access(status, folder.st_gid, may_read)) return;
  findings.fault(
      {.id = "status.mode",
       .subject = driver.label(),
       .what = format("Members of the group %s cannot read %s (owner %s, group %s, mode %04o).",
                      name_of_group(folder.st_gid).c_str(), path.c_str(), name_of_user(status.st_uid).c_str(),
                      name_of_group(status.st_gid).c_str(), status.st_mode & 07777),
       .why = "Daemons of other users than the driver's do not see where the head is.",
       .command =
           "chgrp " + quoted(name_of_group(folder.st_gid)) + " " + quoted(path) + " && chmod 0660 " + quoted(path)});
}

void examine_of(const Surroundings &system, const Driver &driver, Findings &findings) {
  const Position position(driver.instance);
  check_mode(system, driver, position, findings);
  if (position.reading != Reading::done) return report_unreadable(system, driver, position, findings);
  check_values(driver.label(), position, findings);
  if (position.is_stale()) report_stale(driver, position, findings);
  check_publishers(system, driver, position, findings);
}

void report_without_driver(const Surroundings &system, guint instance, Findings &findings) {
  const Position position(instance);
  const std::string path = system.runtime + "/" + position.group + file_suffix;
  const auto writers = writers_of(path);
  const std::string subject = "instance " + std::to_string(instance);
  if (position.reading == Reading::failed && position.error == EACCES) return report_no_access(subject, path, findings);
  if (position.reading == Reading::done) check_values(subject, position, findings);
  const auto dead = std::ranges::find_if(
      system.drivers, [instance](const Driver &driver) { return !driver.runs() && driver.instance == instance; });
  const bool is_fresh = position.reading == Reading::done && !position.is_stale() && dead == system.drivers.end();
  if (!writers.empty() || is_fresh) {
    const std::string by = writers.empty() ? "a process" : "process " + name_of_process(writers.front());
    findings.note({.id = "status.unknown-publisher",
                   .subject = subject,
                   .what = position.group + " is published by " + by + ", which has no entry.",
                   .why = "A driver that is written without the kit has none.",
                   .command = ""});
    return;
  }
  std::string files;
  for (const char *group : {"PTZ_POSITION_IS", "PTZ_VARIOUS_IS", "PTZ_LIMIT_IS"}) {
    files += " " + quoted(system.runtime + "/" + group + std::to_string(instance) + file_suffix);
  }
  Finding finding = {.id = "status.publisher-dead",
                     .subject = dead != system.drivers.end() ? dead->label() : subject,
                     .what = format("The publisher of %s has ended; the values are %.0f s old.", position.group.c_str(),
                                    static_cast<double>(position.age_ms()) / 1000),
                     .why =
                         "Daemons that do not look at the time take it for the position of the head. Start the "
                         "driver, or remove the files.",
                     .command = "rm --force --" + files};
  if (position.reading != Reading::done)
    finding.what = "No process publishes " + position.group + ", and it cannot be read.";
  findings.warning(std::move(finding));
}

}  // namespace

void examine_status(const Surroundings &system, Findings &findings) {
  std::set<guint> examined;
  for (const auto &driver : system.drivers) {
    if (driver.instance == 0 || !driver.runs() || !examined.insert(driver.instance).second) continue;
    examine_of(system, driver, findings);
  }
  if (!system.are_all_drivers_meant()) return;
  constexpr std::string_view prefix = "PTZ_POSITION_IS";
  for (const auto &name : names_in(system.runtime)) {
    if (!name.starts_with(prefix) || !name.ends_with(file_suffix)) continue;
    const std::string number = name.substr(prefix.size(), name.size() - prefix.size() - std::size(file_suffix) + 1);
    guint64 instance = 0;
    if (g_ascii_string_to_unsigned(number.c_str(), 10, 0, G_MAXUINT32, &instance, nullptr) == FALSE) continue;
    if (examined.insert(static_cast<guint>(instance)).second) {
      report_without_driver(system, static_cast<guint>(instance), findings);
    }
  }
}

}  // namespace ptzctl
