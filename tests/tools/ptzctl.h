// tests/tools/ptzctl.h - ptzctl as it was built, run as its users run it, beside a platform of its own.
#pragma once
#include <gtest/gtest.h>

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

struct Ptzctl : testing::Test {
  TempDir dir;
  TempDir output;

  Ptzctl() {
    for (const char *folder : folders) setenv(folder, dir.path().c_str(), 1);
    setenv("LC_ALL", "C", 1);
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
