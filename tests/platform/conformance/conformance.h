// tests/platform/conformance/conformance.h - what the tests of all services share.
#pragma once
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "boundary.h"
#include "handles.h"
#include "temp_dir.h"

namespace conformance {

using ptz_test::FreeWith;
using ptz_test::TempDir;
using ptz_test::Text;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;

// The tests of a service. They fail if the libraries lack one of its functions.
class ServiceTest : public testing::Test {
  std::string service_;

 protected:
  explicit ServiceTest(std::string service) : service_(std::move(service)) {}
  void SetUp() override {
    const auto missing = missing_of(service_);
    if (!missing.empty()) FAIL() << "the platform library lacks" << missing;
  }
  // A name that no earlier run has used.
  [[nodiscard]] static std::string own_name(const std::string &name) { return name + std::to_string(getpid()); }
};

// Runs an action in another process, which loads the same libraries. Returns what it prints; nothing if it fails.
[[nodiscard]] std::optional<std::string> in_other_process(const Strings &action);
// Carries out an action in that process. Returns the exit status.
int act(const Strings &action);

inline std::string read_file(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
inline void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace conformance
