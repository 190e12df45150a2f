// Each component of the path of a driver's socket, and who can connect.
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "doctor/examinations.h"
#include "doctor/folder_check.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "doctor/socket_probe.h"

namespace ptzctl {

namespace {

const char *kind_of(mode_t mode) {
  if (S_ISREG(mode)) return "a regular file";
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  return "a device";
}

std::string owner_of(const struct stat &status) {
  return format("owner %s, group %s, mode %04o", name_of_user(status.st_uid).c_str(),
                name_of_group(status.st_gid).c_str(), status.st_mode & 07777);
}

// The folders on the way, from the root on.
std::vector<std::string> folders_of(const std::string &path) {
  std::vector<std::string> folders = {"/"};
  for (auto at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    folders.push_back(path.substr(0, at));
  }
  return folders;
}

// The members of this group use the driver: that of the folder.
struct Reader {
  const Driver &driver;
  gid_t group;
  Findings &findings;
};

void report_link(const Driver &driver, const std::string &path, const struct stat &link, Findings &findings) {
  if (link.st_uid == 0 || link.st_uid == geteuid()) return;
  findings.note(
      {.id = "socket.link",
       .subject = driver.label(),
       .what = path + " is a symbolic link of the user " + name_of_user(link.st_uid) + ", to " + target_of(path) + ".",
       .why = "That user decides which socket clients of this path reach.",
       .command = ""});
}

// False if the socket cannot be reached through this folder.
bool check_folder(const Reader &reader, const std::string &path) {
  struct stat link, status;
  const std::string subject = reader.driver.label();
  if (lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) report_link(reader.driver, path, link, reader.findings);
  if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    const int error = errno;
    const bool is_file = stat(path.c_str(), &status) == 0;
    reader.findings.fault({.id = "socket.no-folder",
                           .subject = subject,
                           .what = is_file ? path + " is " + kind_of(status.st_mode) + ", and not a folder."
                                           : path + " cannot be entered: " + g_strerror(error) + ".",
                           .why = "The driver's socket is to be below it. Clients find nothing.",
                           .command = is_file           ? "mv -- " + quoted(path) + " " + quoted(path + ".old")
                                      : error == ENOENT ? "install --directory --mode=2770 " + quoted(path)
                                                        : "namei --long " + quoted(path)});
    return false;
  }
  if (access(path.c_str(), X_OK) != 0) {
    reader.findings.fault(
        {.id = "socket.no-access",
         .subject = subject,
         .what = "The user " + name_of_user(geteuid()) + " cannot enter " + path + " (" + owner_of(status) + ").",
         .why = "This user cannot connect to the driver.",
         .command = "sudo adduser " + quoted(name_of_user(geteuid())) + " " + quoted(name_of_group(status.st_gid)) +
                    "  # then log in again"});
    return false;
  }
  if (!group_has_access(status, reader.group, may_search)) {
    reader.findings.warning(
        {.id = "socket.path-closed",
         .subject = subject,
         .what = "Members of the group " + name_of_group(reader.group) + " cannot enter " + path + " (" +
                 owner_of(status) + ").",
         .why = "The socket is below it: they cannot connect to the driver.",
         .command = status.st_gid == reader.group ? "chmod g+x " + quoted(path) : "chmod o+x " + quoted(path)});
  }
  return true;
}

void report_missing(const Driver &driver, guint timeout_ms, Findings &findings) {
  findings.fault({.id = "socket.missing",
                  .subject = driver.label(),
                  .what = "There is no socket " + driver.socket + ".",
                  .why = driver.is_registered
                             ? "The file was removed while the driver ran. A driver that works listens "
                               "there again within a second, so this one does not get to it."
                             : "No driver listens there: it was not started, or has ended.",
                  .command = driver.is_registered ? restart_command(driver) : start_command(driver, timeout_ms)});
}

void report_other_file(const Driver &driver, const struct stat &status, Findings &findings) {
  findings.fault(
      {.id = "socket.not-a-socket",
       .subject = driver.label(),
       .what = driver.socket + " is " + kind_of(status.st_mode) + ", and not a socket (" + owner_of(status) + ").",
       .why = "It is in the place of the driver's socket: no client can connect. A driver does not replace "
              "it, and listens there again when it is gone.",
       .command = "mv -- " + quoted(driver.socket) + " " + quoted(driver.socket + ".old")});
}

// Not a mode for all users: the folder may be open to strangers.
std::string open_to_group(const Reader &reader) {
  const std::string socket = quoted(reader.driver.socket);
  return "chgrp -- " + quoted(name_of_group(reader.group)) + " " + socket + " && chmod 0660 -- " + socket;
}

void check_mode(const Reader &reader, const struct stat &status) {
  const Driver &driver = reader.driver;
  if (access(driver.socket.c_str(), W_OK) != 0) {
    reader.findings.fault({.id = "socket.no-access",
                           .subject = driver.label(),
                           .what = "The user " + name_of_user(geteuid()) + " cannot connect to " + driver.socket +
                                   " (" + owner_of(status) + ").",
                           .why = "To connect, a user needs the right to write to the socket.",
                           .command = group_member(reader.group) != 0
                                          ? open_to_group(reader)
                                          : "sudo adduser " + quoted(name_of_user(geteuid())) + " " +
                                                quoted(name_of_group(reader.group))});
  } else if (!group_has_access(status, reader.group, may_write)) {
    reader.findings.fault({.id = "socket.mode",
                           .subject = driver.label(),
                           .what = "Members of the group " + name_of_group(reader.group) + " cannot connect to " +
                                   driver.socket + " (" + owner_of(status) + ").",
                           .why = "Daemons of other users than the driver's are refused.",
                           .command = open_to_group(reader)});
  }
}

void report_refused(const Driver &driver, int error, Findings &findings) {
  Finding finding = {.id = "socket.unusable",
                     .subject = driver.label(),
                     .what = "Connecting to " + driver.socket + " fails: " + g_strerror(error) + ".",
                     .why = "No client reaches the driver.",
                     .command = restart_command(driver)};
  if (error == ECONNREFUSED) {
    finding.id = "socket.leftover";
    finding.what = "No process listens at the socket " + driver.socket + ".";
    finding.why = "It is left over from a driver that was killed. A driver that is started there replaces the file.";
    if (!driver.is_registered) finding.command = "rm -- " + quoted(driver.socket);
  } else if (error == EPROTOTYPE) {
    finding.id = "socket.wrong-type";
    finding.what = driver.socket + " is a socket of another type than a stream.";
    finding.why = "Another program listens in the driver's place.";
    finding.command = "mv -- " + quoted(driver.socket) + " " + quoted(driver.socket + ".old");
  }
  findings.fault(std::move(finding));
}

// The driver runs, and the file is not the one that it has made.
void report_stolen(const Driver &driver, const Probe &found, Findings &findings) {
  Finding finding = {.id = "socket.stolen",
                     .subject = driver.label(),
                     .why =
                         "Clients reach another program, or none. A driver that works takes its path back within a "
                         "second, so this one does not get to it."};
  if (found.error == 0 && found.listener != 0 && found.listener != driver.pid) {
    finding.what = "Process " + name_of_process(found.listener) + " listens at " + driver.socket +
                   ", and not the driver, process " + std::to_string(driver.pid) + ".";
    finding.command = "kill " + std::to_string(found.listener);
  } else {
    finding.what = "The socket " + driver.socket + " is not the one that the driver, process " +
                   std::to_string(driver.pid) + ", has made.";
    finding.command = restart_command(driver);
  }
  findings.fault(std::move(finding));
}

}  // namespace

void examine_socket_path(const Surroundings &system, const Driver &driver, Findings &findings) {
  if (!driver.runs()) return;  // the examination of the process tells what is left
  if (driver.socket.size() >= sizeof sockaddr_un::sun_path) {
    findings.fault({.id = "socket.path-too-long",
                    .subject = driver.label(),
                    .what = format("The path %s has %zu bytes, and a socket's at most %zu.", driver.socket.c_str(),
                                   driver.socket.size(), sizeof sockaddr_un::sun_path - 1),
                    .why = "No driver can listen there, and no client can connect.",
                    .command = ""});
    return;
  }
  const auto folders = folders_of(driver.socket);
  struct stat status;
  const gid_t group = stat(folders.back().c_str(), &status) == 0 ? status.st_gid : getegid();
  const Reader reader = {driver, group, findings};
  for (const auto &folder : folders) {
    if (!check_folder(reader, folder)) return;
  }
  if (lstat(driver.socket.c_str(), &status) != 0) return report_missing(driver, system.timeout_ms, findings);
  if (S_ISLNK(status.st_mode)) {
    report_link(driver, driver.socket, status, findings);
    if (stat(driver.socket.c_str(), &status) != 0) return report_missing(driver, system.timeout_ms, findings);
  }
  if (!S_ISSOCK(status.st_mode)) return report_other_file(driver, status, findings);
  // The mode of another program's socket does not matter.
  if (driver.liveness == PTZ_KIT_DRIVER_STOLEN) return report_stolen(driver, probe(driver.socket), findings);
  check_mode(reader, status);
  if (is_halted(driver.pid) || backlog_of(driver.socket)) return;  // the kernel knows that a process listens
  const Probe found = probe(driver.socket);
  if (found.error != 0 && found.error != EAGAIN && found.error != EACCES) report_refused(driver, found.error, findings);
}

}  // namespace ptzctl
