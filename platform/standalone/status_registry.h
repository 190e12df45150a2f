// platform/standalone/status_registry.h - the status groups that this process has used, and their mapped files.
//
// Groups are found without a lock. Neither a group nor a mapping is ever freed, because another thread may be using it.
// Once a second the group's path is looked at again, so that a group that was removed and created anew is noticed.
#pragma once
#include <atomic>
#include <cstdint>

#include "status_file.h"

namespace ptz::platform {

struct Mapping {
  MappedFile file;
  std::atomic<std::int64_t> looked_at_ns = 0;
  Mapping *older = nullptr;  // of the file that the group had before
  std::atomic<bool> state_in_use = false;
  State state;

  explicit Mapping(const MappedFile &mapped) : file(mapped), state(mapped.ring.group_size()) {}
};

[[nodiscard]] const char *runtime_directory();

// Returns nullptr with errno set on failure; ENOENT if there is no such group.
[[nodiscard]] Mapping *mapping_of(const char *name, Access access);

}  // namespace ptz::platform
