#include "doctor/folder_check.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "doctor/shell_text.h"

namespace ptzctl {

namespace {

constexpr mode_t access_bits = 07777;

std::string making_command(const std::string &path) {
  const bool is_ours = path == "/run/ptz" || path == "/var/lib/ptz";
  return "install --directory --mode=2770" +
         std::string(is_ours && getgrnam(shared_group) != nullptr ? " --group=ptz " : " ") + quoted(path);
}

void check_mode(const std::string &id, const std::string &path, const struct stat &status, Findings &findings) {
  const mode_t mode = status.st_mode & access_bits;
  const std::string what =
      format("%s has the mode %04o, and not %04o.", path.c_str(), mode, static_cast<unsigned>(shared_mode));
  const std::string command = "chmod 2770 " + quoted(path);
  if ((mode & S_IWOTH) != 0) {
    findings.fault({.id = id + ".folder-open",
                    .subject = path,
                    .what = what,
                    .why = "Every user of the machine can put a file of the same name in the place of a driver's.",
                    .command = command});
  } else if (mode != shared_mode) {
    const bool is_closed = (mode & S_IRWXG) != S_IRWXG;
    findings.warning(
        {.id = id + ".folder-mode",
         .subject = path,
         .what = what,
         .why = is_closed
                    ? "Members of the group cannot use the files in it, and drivers of other users cannot make any."
                : (mode & S_ISGID) == 0
                    ? "New files in it do not belong to the folder's group, so its members cannot use them."
                    : "Users outside the group can enter it, and a driver's socket may be open to all.",
         .command = command});
  }
}

void check_group(const std::string &id, const std::string &path, const struct stat &status, Findings &findings) {
  const group *const wanted = getgrnam(shared_group);
  const bool is_ours = path == "/run/ptz" || path == "/var/lib/ptz";
  if (!is_ours || wanted == nullptr || wanted->gr_gid == status.st_gid) return;
  findings.warning({.id = id + ".folder-group",
                    .subject = path,
                    .what = path + " belongs to the group " + name_of_group(status.st_gid) + ", and not to ptz.",
                    .why = "Members of ptz cannot use the drivers.",
                    .command = "chgrp ptz " + quoted(path)});
}

}  // namespace

bool group_has_access(const struct stat &file, gid_t gid, mode_t access) {
  const mode_t granted = file.st_gid == gid ? file.st_mode >> 3 : file.st_mode;
  return (granted & access) == access;
}

bool has_access(const struct stat &file, uid_t uid, gid_t gid, std::span<const gid_t> groups, mode_t access) {
  if (uid == 0) return true;
  if (file.st_uid == uid) return (file.st_mode >> 6 & access) == access;
  const bool is_member = file.st_gid == gid || std::ranges::find(groups, file.st_gid) != groups.end();
  return ((is_member ? file.st_mode >> 3 : file.st_mode) & access) == access;
}

bool check_shared_folder(const std::string &id, const char *name, const std::string &path, Findings &findings) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    const bool is_missing = errno == ENOENT;
    findings.fault({.id = id + (is_missing ? ".no-folder" : ".folder-unreachable"),
                    .subject = path,
                    .what = format("The %s folder %s %s: %s.", name, path.c_str(),
                                   is_missing ? "is missing" : "cannot be looked at", g_strerror(errno)),
                    .why = "Drivers keep there what they share with daemons. Nothing can be found there.",
                    .command = is_missing ? making_command(path) : "namei --long " + quoted(path)});
    return false;
  }
  if (!S_ISDIR(status.st_mode)) {
    findings.fault(
        {.id = id + ".not-a-folder",
         .subject = path,
         .what = format("A file that is not a folder is in the place of the %s folder %s.", name, path.c_str()),
         .why = "Drivers can share nothing with daemons.",
         .command = "mv -- " + quoted(path) + " " + quoted(path + ".old") + " && " + making_command(path)});
    return false;
  }
  check_mode(id, path, status, findings);
  check_group(id, path, status, findings);
  if (access(path.c_str(), R_OK | X_OK) == 0) return true;
  findings.fault({.id = id + ".no-access",
                  .subject = path,
                  .what = format("The user %s cannot read %s: %s.", name_of_user(geteuid()).c_str(), path.c_str(),
                                 g_strerror(errno)),
                  .why = "This user cannot use the drivers, and most of the examinations see nothing.",
                  .command = "sudo adduser " + quoted(name_of_user(geteuid())) + " " +
                             quoted(name_of_group(status.st_gid)) + "  # then log in again"});
  return false;
}

}  // namespace ptzctl
