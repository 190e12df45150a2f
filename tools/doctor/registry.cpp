// The registry: its folder, its entries, and which drivers are examined.
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "doctor/examinations.h"
#include "doctor/folder_check.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "doctor/socket_probe.h"
#include "doctor/units.h"
#include "driver_socket.h"

namespace ptzctl {

namespace {

constexpr guint settling_ms = 1000, pause_ms = 20;
constexpr char entry_suffix[] = ".driver";
constexpr char monitor_suffix[] = ".monitor";

Driver driver_of(const PTZKitRegistryEntry &entry) {
  return {.name = entry.name,
          .socket = entry.socket_path,
          .program = entry.program,
          .pid = entry.pid,
          .uid = entry.uid,
          .instance = entry.instance,
          .protocol_version = entry.protocol_version,
          .since_us = entry.since,
          .is_registered = true,
          .liveness = entry.liveness};
}

// A later driver with the same duty. The entry of the dead one stays until a driver is started.
bool is_replaced(const Driver &dead, const std::vector<Driver> &all) {
  return std::ranges::any_of(all, [&dead](const Driver &other) {
    return other.runs() &&
           (other.socket == dead.socket || (other.name == dead.name && other.instance == dead.instance));
  });
}

bool is_meant(const Surroundings &system, const Driver &driver) {
  const std::string &wanted = system.wanted;
  if (!system.socket.empty()) {
    const tools::Text path(g_canonicalize_filename(system.socket.c_str(), nullptr));
    return driver.socket == path.get() || driver.socket == system.socket;
  }
  return wanted.empty() || driver.name == wanted || driver.label() == wanted ||
         std::to_string(driver.instance) == wanted;
}

// A driver that is written without the kit, or has no entry.
Driver unregistered(const std::string &socket) {
  const tools::Text path(g_canonicalize_filename(socket.c_str(), nullptr));
  Driver driver = {.name = path.get(), .socket = path.get()};
  driver.pid = probe(driver.socket).listener;
  if (const auto facts = facts_of(driver.pid)) driver.uid = facts->uid;
  return driver;
}

// The name of an entry's file begins with the number of the process.
void find_damaged_entries(const std::string &folder, const std::vector<Driver> &drivers, Findings &findings) {
  for (const auto &name : names_in(folder)) {
    if (!name.ends_with(entry_suffix)) continue;
    const auto pid = static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
    if (std::ranges::any_of(drivers, [pid](const Driver &driver) { return driver.pid == pid; })) continue;
    const std::string path = folder + "/" + name;
    if (access(path.c_str(), R_OK) != 0) {
      if (errno == ENOENT) continue;  // the driver has ended meanwhile
      findings.warning({.id = "registry.unreadable-entry",
                        .subject = path,
                        .what = format("The entry %s cannot be read: %s.", path.c_str(), g_strerror(errno)),
                        .why = "Daemons of this user do not find the driver.",
                        .command = "chmod g+r " + quoted(path)});
      continue;
    }
    findings.warning({.id = "registry.damaged-entry",
                      .subject = path,
                      .what = "The entry " + path + " is not one.",
                      .why = "Daemons do not find the driver that has made it. A driver makes a missing entry anew.",
                      .command = "rm -- " + quoted(path)});
  }
}

// Sockets beside those of the entries: left over, or of a driver without the kit.
void look_for_other_sockets(const Surroundings &system, const std::vector<Driver> &drivers, Findings &findings) {
  for (const auto &name : names_in(system.runtime)) {
    const std::string path = system.runtime + "/" + name;
    struct stat status;
    if (lstat(path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) continue;
    const auto owns = [&path](const Driver &driver) {
      return driver.socket == path || driver.socket + monitor_suffix == path;
    };
    if (std::ranges::any_of(drivers, owns)) continue;
    const Probe result = probe(path);
    if (result.error == ECONNREFUSED) {
      findings.warning({.id = "registry.leftover-socket",
                        .subject = path,
                        .what = "No process listens at the socket " + path + ", and no driver has an entry for it.",
                        .why = "The driver was killed, or has never been started since. Clients of this path are "
                               "refused. If a driver is to be there, start it: it replaces the file.",
                        .command = "rm -- " + quoted(path)});
    } else if (result.error == 0 && !name.ends_with(monitor_suffix)) {
      findings.note({.id = "registry.other-socket",
                     .subject = path,
                     .what = "Process " + name_of_process(result.listener) + " listens at " + path +
                             " and has no entry. It may be a driver that is written without the kit.",
                     .why = "It is examined only if it is named.",
                     .command = "ptzctl doctor --socket " + quoted(path)});
    }
  }
}

std::string names_of(const std::vector<Driver> &drivers) {
  std::string names;
  for (const auto &each : drivers) names += (names.empty() ? "" : ", ") + each.label();
  return names.empty() ? "no driver runs" : "there are: " + names;
}

void report_no_driver(const Surroundings &system, const std::vector<Driver> &all, Findings &findings) {
  std::vector<Unit> units;
  static_cast<void>(units_of_drivers(system.runtime, system.timeout_ms, units));
  if (!system.wanted.empty()) {
    const std::string name = system.wanted.substr(0, system.wanted.find(':'));
    const auto found =
        std::ranges::find_if(units, [&name](const Unit &unit) { return unit.name.find(name) != std::string::npos; });
    findings.fault({.id = "registry.driver-missing",
                    .subject = system.wanted,
                    .what = "There is no driver '" + system.wanted + "'; " + names_of(all) + ".",
                    .why = "A head without a driver does not move.",
                    .command = found != units.end() ? "systemctl start " + quoted(found->name) : ""});
    return;
  }
  const std::string command = units.empty() ? "" : "systemctl restart " + quoted(units.front().name);
  findings.fault(
      {.id = "registry.no-driver",
       .subject = system.runtime,
       .what = "No driver runs that has an entry in " + system.runtime + "/drivers.",
       .why = "A head without a driver does not move. A driver with another runtime folder is not seen here.",
       .command = command});
}

void check_same_sockets(const std::vector<Driver> &drivers, Findings &findings) {
  for (std::size_t i = 0; i < drivers.size(); ++i) {
    for (std::size_t other = i + 1; other < drivers.size(); ++other) {
      const Driver &one = drivers[i], &two = drivers[other];
      if (!one.runs() || !two.runs() || one.socket != two.socket) continue;
      const Driver &later = one.since_us > two.since_us ? one : two;
      findings.fault({.id = "registry.same-socket",
                      .subject = later.label(),
                      .what = format("The drivers of processes %d and %d listen at the same path, %s.", one.pid,
                                     two.pid, one.socket.c_str()),
                      .why = "They take it from each other: a client reaches now the one and now the other.",
                      .command = "kill " + std::to_string(later.pid)});
    }
  }
}

std::vector<Driver> drivers_of(const tools::RegistryList &list) {
  std::vector<Driver> all;
  for (guint i = 0; list != nullptr && i < list->len; ++i) {
    all.push_back(driver_of(*static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(list.get(), i))));
  }
  return all;
}

// The kernel takes a moment to end a killed process; until then the lock of its entry says that it runs.
tools::RegistryList settled_list(tools::Error &error) {
  const auto is_ending = [](const Driver &each) { return each.runs() && is_gone(each.pid); };
  for (guint waited_ms = 0;; waited_ms += pause_ms) {
    tools::RegistryList list = tools::registered_drivers(error);
    if (waited_ms >= settling_ms || std::ranges::none_of(drivers_of(list), is_ending)) return list;
    g_usleep(pause_ms * 1000);
  }
}

std::vector<Driver> drivers_in_registry(const std::string &folder, Findings &findings) {
  tools::Error error;
  const tools::RegistryList list = settled_list(error);
  if (list == nullptr) {
    findings.fault({.id = "registry.unreadable",
                    .subject = folder,
                    .what = "The entries of the drivers cannot be read: " + std::string(error->message) + ".",
                    .why = "Daemons do not find the drivers.",
                    .command = "namei --long " + quoted(folder)});
    return {};
  }
  std::vector<Driver> all = drivers_of(list);
  std::erase_if(all, [copy = all](const Driver &each) { return !each.runs() && is_replaced(each, copy); });
  return all;
}

}  // namespace

void examine_registry(const Surroundings &system, Findings &findings) {
  const std::string folder = system.runtime + "/drivers";
  std::vector<Driver> all;
  const bool is_usable = check_shared_folder("registry", "runtime", system.runtime, findings);
  struct stat status;
  if (is_usable && lstat(folder.c_str(), &status) == 0 &&
      check_shared_folder("registry", "registry", folder, findings)) {
    all = drivers_in_registry(folder, findings);
    if (system.are_all_drivers_meant()) find_damaged_entries(folder, all, findings);
    check_same_sockets(all, findings);
  }
  std::vector<Driver> meant = all;
  std::erase_if(meant, [&system](const Driver &each) { return !is_meant(system, each); });
  if (meant.empty() && !system.socket.empty()) meant.push_back(unregistered(system.socket));
  if (meant.empty() && is_usable) report_no_driver(system, all, findings);
  if (is_usable && system.are_all_drivers_meant()) look_for_other_sockets(system, all, findings);
  for (auto &each : meant) findings.add(std::move(each));
}

void find_changed_drivers(const Surroundings &system, Findings &findings) {
  tools::Error error;
  const auto now = drivers_of(settled_list(error));
  for (const auto &before : system.drivers) {
    const auto is_same = [&before](const Driver &each) {
      return each.pid == before.pid && each.socket == before.socket && each.liveness == before.liveness;
    };
    const bool is_changed =
        before.is_registered ? std::ranges::none_of(now, is_same) : before.pid != 0 && is_gone(before.pid);
    if (is_changed && error == nullptr) findings.add(before);
  }
}

}  // namespace ptzctl
