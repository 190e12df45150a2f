// tools/doctor/folder_check.h - the two folders that the members of the group share.
#pragma once
#include <sys/stat.h>

#include <span>
#include <string>

#include "doctor/finding.h"
#include "doctor/process_facts.h"

namespace ptzctl {

constexpr mode_t shared_mode = 02770;
constexpr char shared_group[] = "ptz";

// "what" names the folder, such as "registry" or "params": it begins the ids of the findings. Returns false if the
// folder cannot be used at all.
bool check_shared_folder(const std::string &id, const char *name, const std::string &path, Findings &findings);

// Whether a user with these groups has the access, by owner, group and mode. Lists of access control are not looked at.
enum Access : mode_t { may_read = 4, may_write = 2, may_search = 1 };
[[nodiscard]] bool has_access(const struct stat &file, uid_t uid, gid_t gid, std::span<const gid_t> groups,
                              mode_t access);
// Whether members of the group have the access, unless they are the owner.
[[nodiscard]] bool group_has_access(const struct stat &file, gid_t gid, mode_t access);

}  // namespace ptzctl
