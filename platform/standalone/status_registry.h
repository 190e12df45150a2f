// platform/standalone/status_registry.h - the status groups that this process has used, and their mapped files.
//
// Fast path. A group and its mapping are found without a lock and without a system call, because neither is ever freed.
//
// Slow path, under the registry's lock: the group is new to this process, it is missing, or its path was last looked at
// a second ago. Then the environment and the path are read again, so that a group that was removed and created anew is
// noticed. The slow path makes a few system calls on the runtime directory and waits for nothing else.
//
// Workspaces. A thread copies a state into a workspace of the mapping and gives it back afterwards. Eight threads fetch
// one group without an allocation; a further thread uses memory of its own. Writers of one process take turns by the
// first workspace of the writing mapping, and this turn comes before the group's lock.
//
// Lock order: the registry's lock, the turn of the writers (the registry only tries it), the group's owner word.
//
// Fork. The kernel copies the memory page by page while other threads run on, so the child may see a pointer without
// what it points to, or a workspace that changes. The prepare handler therefore takes the registry's lock and all free
// workspaces of readers. The child abandons the others, at the cost of one allocation each: those that other threads
// were using, and those of writers, because writers do not wait for a fork. It withdraws from the groups' locks
// (status_lock.h), and enrols again when it first writes.
#pragma once
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "status_file.h"
#include "status_lock.h"

namespace ptz::platform {

class alignas(64) Workspace {
  std::atomic<bool> is_in_use_ = false;
  bool is_kept_ = false;  // by the thread that forks
  std::unique_ptr<State> state_;

 public:
  [[nodiscard]] bool try_take() { return !is_in_use_.exchange(true, std::memory_order_acquire); }
  void give_back() { is_in_use_.store(false, std::memory_order_release); }
  // Taken by the caller.
  [[nodiscard]] State &state(std::uint32_t group_size) {
    if (state_ == nullptr) state_ = std::make_unique<State>(group_size);
    return *state_;
  }

  void before_fork() { is_kept_ = try_take(); }
  void after_fork_in_parent() {
    if (is_kept_) give_back();
  }
  void after_fork_in_child() {
    if (!is_kept_) static_cast<void>(state_.release());  // a thread that the child does not have may have changed half
    give_back();
  }
};

struct Mapping {
  static constexpr std::int64_t never = INT64_MIN / 2;

  const MappedFile file;
  std::atomic<std::int64_t> looked_at_ns = never;
  std::array<Workspace, 8> workspaces;
  WriterLock lock;           // only of a writing mapping; used in turn
  Mapping *older = nullptr;  // of the group's former file
  Word turn_wanted = 0;      // not 0 if a thread waits for its turn

  explicit Mapping(const MappedFile &mapped) : file(mapped) {}

  // Returns nullptr if all are in use.
  [[nodiscard]] Workspace *take_workspace() {
    for (auto &workspace : workspaces) {
      if (workspace.try_take()) return &workspace;
    }
    return nullptr;
  }
  // Returns false if another thread writes until the time is over.
  [[nodiscard]] bool take_turn(WriterPatience &patience);
  [[nodiscard]] Workspace &turn() { return workspaces[0]; }
};

// Returns nullptr with errno set on failure; ENOENT if there is no such group.
[[nodiscard]] Mapping *mapping_of(const char *name, Access access);

// The directory of the groups, as the environment says now.
[[nodiscard]] const std::string &runtime_directory();

// Returns the path of a group if no failed write to it was reported within the last minute. Remembers the group, even
// if it does not exist; a program has few names.
[[nodiscard]] std::optional<std::string> report_is_due(const char *name);

}  // namespace ptz::platform
