// src/base/file_kind.h - what a path may name beside a file.
#pragma once
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace ptz {

// A directory ends too: reading it fails. The null device is how a file is left out on purpose.
[[nodiscard]] inline bool has_end(const struct stat &status) {
  return S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) ||
         (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3));
}

}  // namespace ptz
