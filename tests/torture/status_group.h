// tests/torture/status_group.h - a status group whose values belong together, for the torture programs.
#pragma once
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/status_store.h"
#include "temp_dir.h"

namespace torture {

constexpr int related_values = 40;

// Values that are all the same number, with a text whose length changes the layout now and then.
class Related {
  std::string names_[related_values];
  guint64 numbers_[related_values] = {};
  char text_[16] = {};
  StatusStoreParam params_[related_values + 1] = {};
  StatusStoreParam *list_[related_values + 2] = {};

 public:
  Related() {
    for (int i = 0; i < related_values; ++i) {
      names_[i] = "VALUE_" + std::to_string(i);
      params_[i] = {names_[i].c_str(), sizeof numbers_[i], &numbers_[i], 1};
      list_[i] = &params_[i];
    }
    params_[related_values] = {"LENGTH", 1, text_, 1};
  }
  Related(const Related &) = delete;

  // 0, or the error, negative.
  int write(const char *group, guint64 number) {
    for (auto &each : numbers_) each = number;
    params_[related_values].size = static_cast<guint32>(1 + number / 64 % 16);
    list_[related_values] = &params_[related_values];
    errno = 0;
    return status_store_set_group(group, list_, 2) == 0 ? 0 : -errno;
  }
  // The number of values, or the error, negative.
  int read(const char *group) {
    list_[related_values] = nullptr;
    errno = 0;
    const int count = status_store_get_group(group, list_, 0);
    return count >= 0 ? count : -errno;
  }
  [[nodiscard]] guint64 number() const { return numbers_[0]; }
  [[nodiscard]] bool is_torn() const {
    for (const auto &each : numbers_) {
      if (each != numbers_[0]) return true;
    }
    return false;
  }
};

// A folder for the groups of this process and its children.
struct StatusFolder {
  ptz_test::TempDir dir;
  StatusFolder() { setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1); }
};

}  // namespace torture
