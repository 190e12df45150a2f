// tests/platform/child_process.h - runs a part of a test in a child process.
#pragma once
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <new>

namespace ptz_test {

inline pid_t start_child(const std::function<int()> &run) {
  const pid_t child = fork();
  if (child == 0) _exit(run());
  return child;
}

// The exit status, or the negative number of the signal that ended the child.
inline int wait_for_child(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline int run_child(const std::function<int()> &run) { return wait_for_child(start_child(run)); }

// Runs as another user with one supplementary group; 125 if the caller may not become that user.
inline int run_as(uid_t user, gid_t group, const std::function<int()> &run) {
  return run_child([&] {
    if (setgroups(1, &group) != 0 || setgid(user) != 0 || setresuid(user, user, user) != 0) return 125;
    return run();
  });
}

// Memory that this process shares with its children.
template <typename T>
T *shared_memory() {
  void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return new (memory) T;
}

}  // namespace ptz_test
