// tests/tools/ptzctl.h - ptzctl as it was built, run as its users run it, beside a platform of its own.
#pragma once
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fixtures.h"
#include "process.h"

namespace ptz_test {

struct Result {
  int status;
  std::string text;  // errors included
};

inline bool has(const Result &result, const std::string &part) { return result.text.find(part) != std::string::npos; }

// What it does on a terminal. It is sent the keys when it has drawn the text.
inline Result run_on_terminal(const std::vector<std::string> &arguments, const std::string &text = "",
                              const std::string &keys = "") {
  std::vector<char *> words = {const_cast<char *>(PTZCTL)};
  for (const auto &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
  words.push_back(nullptr);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    setenv("TERM", "xterm", 1);
    execv(PTZCTL, words.data());
    _exit(127);
  }
  Result result = {-1, ""};
  bool are_keys_due = !keys.empty();
  pollfd ready = {terminal, POLLIN, 0};
  while (poll(&ready, 1, 10'000) > 0) {
    char bytes[4096];
    const ssize_t count = read(terminal, bytes, sizeof bytes);
    if (count <= 0) break;
    result.text.append(bytes, static_cast<std::size_t>(count));
    if (!are_keys_due || !has(result, text)) continue;
    if (write(terminal, keys.data(), keys.size()) < 0) break;
    are_keys_due = false;
  }
  close(terminal);
  int status = 0;
  if (waitpid(child, &status, 0) == child && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

struct Ptzctl : testing::Test {
  TempDir dir;
  TempDir output;

  Ptzctl() {
    for (const char *folder : folders) setenv(folder, dir.path().c_str(), 1);
    setenv("LC_ALL", "C", 1);
    unsetenv("NO_COLOR");
  }
  ~Ptzctl() override {
    for (const char *folder : folders) unsetenv(folder);
  }

  [[nodiscard]] Result run(const std::vector<std::string> &arguments) const {
    std::filesystem::remove(output.file("text"));
    Process process(PTZCTL, arguments, output.file("text"));
    const int status = process.wait();
    return {status, contents(output.file("text"))};
  }

 private:
  static constexpr const char *folders[] = {"PTZ_PLATFORM_RUNTIME_DIR", "PTZ_PLATFORM_STATE_DIR",
                                            "PTZ_PLATFORM_TEMPLATE_DIR"};
};

}  // namespace ptz_test
