// platform/standalone/folder_access.h - files of a shared folder get their mode, group and owner from that folder.
//
// The folder decides who shares its files. A file that only its creator can write would lock the other processes of the
// group out, so the creator's umask and primary group must not matter.
#pragma once
#include <sys/stat.h>

namespace ptz::platform {

// The mode of a file in the folder: the folder's read and write bits, never world-writable, always the owner's.
[[nodiscard]] constexpr mode_t file_mode_in(mode_t folder_mode) { return (folder_mode & 0664) | 0600; }

// Gives an open file the mode and the group of its folder; root also gives it the folder's owner. Returns false with
// errno set if the mode cannot be set. A group or an owner that cannot be given is left as it is: in a setgid folder
// the group is right from the beginning.
bool take_access_of(const struct stat &folder, int fd);

}  // namespace ptz::platform
