// process.h - one of the example programs, run as a child of the test program and never left behind.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

namespace ptz_test {

class Process {
  pid_t pid_;

 public:
  // What it prints, errors included, goes to the file.
  Process(const char *program, const std::vector<std::string> &arguments, const std::string &output);
  Process(const Process &) = delete;
  ~Process();  // kills it

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int number) const;
  // The exit status; -1 when a signal ended it, or when it does not end.
  int wait();
};

// What the file holds; empty if there is none.
[[nodiscard]] std::string contents(const std::string &file);

}  // namespace ptz_test
