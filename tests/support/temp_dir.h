// tests/support/temp_dir.h - a folder of its own for one test or measurement.
#pragma once
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace ptz_test {

// Removed with all that is in it.
class TempDir {
  std::string path_;

 public:
  TempDir() : path_((std::filesystem::temp_directory_path() / "ptz-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) std::abort();
  }
  TempDir(const TempDir &) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  [[nodiscard]] const std::string &path() const { return path_; }
  [[nodiscard]] std::string file(const std::string &name) const { return path_ + "/" + name; }
};

}  // namespace ptz_test
