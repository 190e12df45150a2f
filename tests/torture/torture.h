// tests/torture/torture.h - what the programs of scripts/torture share: amounts, children, the line with the number.
#pragma once
#include <sys/mman.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <random>
#include <string>
#include <vector>

namespace torture {

constexpr int missed = 1, skipped = 77;

// The number after "--name=" among the arguments, or the given one.
inline long amount(int argc, char **argv, const char *name, long usual) {
  const std::string prefix = std::string("--") + name + '=';
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], prefix.c_str(), prefix.size()) == 0) return std::atol(argv[i] + prefix.size());
  }
  return usual;
}

// Prints the line that the table takes, and returns the exit status.
[[gnu::format(printf, 2, 3)]] inline int finish(bool goal_is_met, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::printf("measured: ");
  std::vprintf(format, arguments);
  std::printf("\n");
  std::fflush(nullptr);
  va_end(arguments);
  return goal_is_met ? 0 : missed;
}

// Prints a finding, the first ten of them.
[[gnu::format(printf, 1, 2)]] inline void note(const char *format, ...) {
  static int count = 0;
  if (++count > 10) return;
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  std::printf("\n");
  std::fflush(nullptr);
  va_end(arguments);
}

inline std::int64_t now_us() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

// A child process that ends with the status that the function returns.
inline pid_t start(const std::function<int()> &run) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child != 0) return child;
  const int status = run();
  std::fflush(nullptr);
  _exit(status);
}

// The exit status, or the negative number of the signal.
inline int wait_for(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Memory that this process shares with its children.
template <typename T>
T *shared() {
  void *memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  return new (memory) T;
}

}  // namespace torture
