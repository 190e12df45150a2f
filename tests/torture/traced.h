// tests/torture/traced.h - a child process that runs from one system call to the next.
#pragma once
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>

#include "torture.h"

namespace torture {

// Begins the part of a traced function that is stepped through.
inline void begin_steps() { raise(SIGSTOP); }

// The main thread of the child is traced; threads that it starts are not.
class Traced {
  pid_t pid_ = -1;
  bool has_ended_ = false;
  int status_ = 0;

  bool wait_for_stop(int &signal) {
    int status = 0;
    while (waitpid(pid_, &status, __WALL) < 0 && errno == EINTR) {
    }
    if (WIFSTOPPED(status)) {
      signal = WSTOPSIG(status);
      return true;
    }
    has_ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return false;
  }

  bool go_on(__ptrace_request request, bool (*is_end)(int)) {
    int signal = 0, deliver = 0;
    while (ptrace(request, pid_, nullptr, reinterpret_cast<void *>(static_cast<std::intptr_t>(deliver))) == 0) {
      if (!wait_for_stop(signal)) return false;
      if (is_end(signal)) return true;
      deliver = signal == SIGSTOP || signal == SIGTRAP ? 0 : signal;
    }
    return false;
  }

 public:
  // Runs the function up to begin_steps().
  explicit Traced(const std::function<int()> &run) {
    pid_ = start([&] {
      if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 125;
      raise(SIGSTOP);
      return run();
    });
    int signal = 0;
    if (!wait_for_stop(signal)) return;
    ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    go_on(PTRACE_CONT, [](int stop) { return stop == SIGSTOP; });
  }
  Traced(const Traced &) = delete;
  ~Traced() {
    if (!has_ended_) kill();
  }

  // Runs to the next entry or exit of a system call. Returns false if the child has ended before.
  bool step() {
    return !has_ended_ && go_on(PTRACE_SYSCALL, [](int stop) { return stop == (SIGTRAP | 0x80); });
  }
  bool step(int count) {
    for (; count > 0; --count) {
      if (!step()) return false;
    }
    return !has_ended_;
  }
  // The exit status, or the negative number of a signal.
  int finish() {
    if (!has_ended_) go_on(PTRACE_CONT, [](int) { return false; });
    return status_;
  }
  void kill() {
    ::kill(pid_, SIGKILL);
    int signal = 0;
    while (!has_ended_ && wait_for_stop(signal)) ptrace(PTRACE_CONT, pid_, nullptr, nullptr);
  }
  [[nodiscard]] bool has_ended() const { return has_ended_; }
  [[nodiscard]] pid_t pid() const { return pid_; }
  // "number name", for a report.
  [[nodiscard]] std::string call() const {
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info) <= 0) return "?";
    const bool entry = info.op == PTRACE_SYSCALL_INFO_ENTRY;
    return (entry ? "before call " + std::to_string(info.entry.nr) : std::string("after a call"));
  }
};

}  // namespace torture
