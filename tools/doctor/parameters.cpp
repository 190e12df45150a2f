// The parameter tree: its folder and files. It is not opened: the platform would repair it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "doctor/examinations.h"
#include "doctor/folder_check.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"

namespace ptzctl {

namespace {

constexpr off_t largest_log = 1024 * 1024;
constexpr std::string_view magic = "SQLite format 3";
constexpr guint known_version = 1;
constexpr std::size_t version_at = 60, header_bytes = 100;
constexpr guint64 full_bytes = 64 * 1024, nearly_full_bytes = 1024 * 1024;

void check_version(const std::string &file, Findings &findings) {
  struct stat status;
  // Of a file that a member of the group has put there, such as a link to a device, nothing is opened.
  if (lstat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return;
  const std::string header = beginning_of(file, header_bytes);
  if (header.empty()) return;
  if (header.size() < header_bytes || !header.starts_with(magic)) {
    findings.fault({.id = "params.damaged",
                    .subject = file,
                    .what = file + " is not a parameter tree.",
                    .why = "The next process that opens it sets it aside and begins with an empty tree. Restore a "
                           "copy that ptzctl param backup wrote, with ptzctl param restore and its name.",
                    .command = ""});
    return;
  }
  guint32 version = 0;
  std::memcpy(&version, header.data() + version_at, sizeof version);
  version = GUINT32_FROM_BE(version);
  if (version <= known_version) return;
  findings.fault({.id = "params.newer-version",
                  .subject = file,
                  .what = format("The tree has version %u, and this release knows %u.", version, known_version),
                  .why = "It was written by a newer release. Drivers of this release do not read it.",
                  .command = "apt policy libptznimbo-platform0"});
}

// A driver must be able to write the file, its log, and the folder in which the log is made.
void check_driver_may_write(const std::string &path, const Driver &driver, Findings &findings) {
  const auto facts = facts_of(driver.pid);
  struct stat status;
  if (!facts || stat(path.c_str(), &status) != 0) return;
  const mode_t wanted = S_ISDIR(status.st_mode) ? may_read | may_write | may_search : may_read | may_write;
  if (has_access(status, facts->uid, facts->gid, facts->groups, wanted)) return;
  const tools::Text folder(g_path_get_dirname(path.c_str()));
  struct stat above = status;
  if (!S_ISDIR(status.st_mode)) stat(folder.get(), &above);
  const std::string group = name_of_group(above.st_gid);
  findings.fault({.id = "params.not-writable",
                  .subject = driver.label(),
                  .what = format("The driver's user %s cannot write %s (owner %s, group %s, mode %04o).",
                                 name_of_user(facts->uid).c_str(), path.c_str(), name_of_user(status.st_uid).c_str(),
                                 name_of_group(status.st_gid).c_str(), status.st_mode & 07777),
                  .why = "What the driver keeps is lost when it ends.",
                  .command = S_ISDIR(status.st_mode)
                                 ? "chmod 2770 " + quoted(path)
                                 : "chgrp " + quoted(group) + " " + quoted(path) + " && chmod 0660 " + quoted(path)});
}

void check_log(const std::string &file, Findings &findings) {
  struct stat status;
  const std::string log = file + "-wal";
  if (stat(log.c_str(), &status) != 0 || status.st_size <= largest_log) return;
  findings.warning({.id = "params.log-large",
                    .subject = log,
                    .what = format("The log of changes %s has %.1f MiB.", log.c_str(),
                                   static_cast<double>(status.st_size) / (1024 * 1024)),
                    .why =
                        "A process that is stopped while it reads keeps the log from being emptied, or one write was "
                        "that large. The log fills the file system.",
                    .command = "ptzctl param sync"});
}

void look_for_damaged_copies(const std::string &folder, Findings &findings) {
  std::vector<std::string> copies;
  for (const auto &name : names_in(folder)) {
    const bool is_copy =
        name.starts_with("params.db.damaged-") || (name.starts_with("params.db-") && name.ends_with(".old"));
    if (is_copy) copies.push_back(folder + "/" + name);
  }
  if (copies.empty()) return;
  const std::string kept = folder + "/damaged";
  findings.warning({.id = "params.damaged-copy",
                    .subject = folder,
                    .what = "The tree was damaged once and set aside: " + copies.front() + ".",
                    .why =
                        "The drivers run with what could be saved, or with their defaults. If parameters are missing, "
                        "restore a copy that ptzctl param backup wrote, with ptzctl param restore and its name. This "
                        "command keeps what was set aside in a folder of its own.",
                    .command = "install --directory --mode=2770 " + quoted(kept) + " && mv --backup=numbered -- " +
                               quoted(copies) + " " + quoted(kept)});
}

void check_space(const std::string &id, const std::string &folder, Findings &findings) {
  struct statvfs status;
  if (statvfs(folder.c_str(), &status) != 0) return;
  if ((status.f_flag & ST_RDONLY) != 0) {
    findings.fault(
        {.id = id + ".read-only",
         .subject = folder,
         .what = "The file system of " + folder + " is read-only.",
         .why = "Drivers can write nothing there. A file system that has failed is made read-only by the kernel.",
         .command =
             "mount --options remount,rw \"$(findmnt --noheadings --output TARGET --target " + quoted(folder) + ")\""});
    return;
  }
  const guint64 left = guint64{status.f_bavail} * status.f_frsize;
  const bool is_without_files = status.f_files > 0 && status.f_favail == 0;
  if (left >= nearly_full_bytes && !is_without_files) return;
  Finding finding = {.id = id + ".full",
                     .subject = folder,
                     .what = is_without_files ? "The file system of " + folder + " can hold no further file."
                                              : format("The file system of %s has %" G_GUINT64_FORMAT " KiB left.",
                                                       folder.c_str(), left / 1024),
                     .why =
                         "Drivers cannot write their status and their parameters. This command shows what is large; "
                         "remove what is not needed.",
                     .command = "du --all --one-file-system " + quoted(folder) + " | sort --numeric-sort | tail"};
  if (is_without_files || left < full_bytes) {
    findings.fault(std::move(finding));
  } else {
    finding.id = id + ".nearly-full";
    findings.warning(std::move(finding));
  }
}

}  // namespace

void examine_parameters(const Surroundings &system, Findings &findings) {
  const std::string file = system.state + "/params.db";
  if (system.state != system.runtime && !check_shared_folder("params", "state", system.state, findings)) return;
  check_version(file, findings);
  for (const auto &driver : system.drivers) {
    if (!driver.runs() || driver.pid == 0) continue;
    check_driver_may_write(system.state, driver, findings);
    check_driver_may_write(file, driver, findings);
    check_driver_may_write(file + "-wal", driver, findings);
  }
  check_log(file, findings);
  look_for_damaged_copies(system.state, findings);
}

void examine_free_space(const Surroundings &system, Findings &findings) {
  check_space("runtime", system.runtime, findings);
  if (system.state != system.runtime) check_space("state", system.state, findings);
}

}  // namespace ptzctl
