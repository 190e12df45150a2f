// tests/platform/shared_group.h - short ways to use the status store in a folder of the test's own.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "clock.h"
#include "fixtures.h"
#include "platform/status_store.h"

namespace ptz_test {

// A value of a group.
struct Item {
  std::string key;
  std::string bytes;
  std::uint32_t type = 1;
  bool operator==(const Item &) const = default;
};
using Items = std::vector<Item>;

inline Item item(std::string key, gint32 value) {
  return {std::move(key), std::string(reinterpret_cast<const char *>(&value), sizeof value)};
}

inline std::vector<StatusStoreParam> params_of(Items &items) {
  std::vector<StatusStoreParam> params;
  for (auto &[key, bytes, type] : items) {
    params.push_back({key.c_str(), static_cast<guint32>(bytes.size()), bytes.data(), type});
  }
  return params;
}

template <typename Call>
int with_list(Items &items, Call call) {
  auto params = params_of(items);
  std::vector<StatusStoreParam *> list;
  for (auto &param : params) list.push_back(&param);
  list.push_back(nullptr);
  errno = 0;
  const gint result = call(list.data());
  return result >= 0 ? result : -errno;
}

// Each returns what the store returned, or its error number, negative.
inline int create(const std::string &name, guint32 size = 512) {
  errno = 0;
  const gint result = status_store_create_group(name.c_str(), size, 0);
  return result >= 0 ? result : -errno;
}
inline int set(const std::string &name, Items items) {
  return with_list(items, [&](StatusStoreParam **list) { return status_store_set_group(name.c_str(), list, 2); });
}
inline int get(const std::string &name, Items &items) {
  return with_list(items, [&](StatusStoreParam **list) { return status_store_get_group(name.c_str(), list, 0); });
}

// One integer of a group; where there is none, the error number.
inline int number(const std::string &name, const std::string &key) {
  Items items = {item(key, 0)};
  const int result = get(name, items);
  if (result != 1) return result < 0 ? result : -ENOKEY;
  gint32 value = 0;
  items[0].bytes.copy(reinterpret_cast<char *>(&value), sizeof value);
  return value;
}

// A store in a folder of its own.
struct StoreTest : testing::Test {
  TempDir dir;
  StoreTest() { use_folder(dir.path()); }
  ~StoreTest() override { unsetenv("PTZ_PLATFORM_RUNTIME_DIR"); }

  // The store reads the environment once a second.
  static void use_folder(const std::string &path) {
    setenv("PTZ_PLATFORM_RUNTIME_DIR", path.c_str(), 1);
    advance_clock(1000);
  }
  [[nodiscard]] std::string path(const std::string &name) const { return dir.file(name + ".status"); }
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(dir.path())) names.push_back(entry.path().filename());
    return names;
  }
};

inline std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
inline void write_content(const std::string &path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  chmod(path.c_str(), 0644);  // whatever the umask: a group that everybody may write is refused
}

}  // namespace ptz_test
