// tests/config/settings.h - short ways to load settings and to ask for them.
#pragma once
#include <glib.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "file_calls.h"
#include "fixtures.h"
#include "handles.h"
#include "ptz_settings.h"

namespace ptz_test {

using TextList = std::unique_ptr<gchar *, FreeWith<g_strfreev>>;
using Names = std::vector<std::string>;

inline std::optional<std::string> text_of(gchar *value) {
  const Text owned(value);
  return owned ? std::optional<std::string>(owned.get()) : std::nullopt;
}

inline std::optional<Names> names_of(gchar **values) {
  const TextList owned(values);
  if (!owned) return std::nullopt;
  return Names(owned.get(), owned.get() + g_strv_length(owned.get()));
}

inline std::optional<Names> find(const std::string &pattern, gboolean report = FALSE) {
  return names_of(ptz_settings_find_config_files(pattern.c_str(), report));
}

inline std::optional<std::string> setting(const std::string &group, const std::string &key) {
  return text_of(ptz_settings_get_custom_string(group.c_str(), key.c_str()));
}

inline std::optional<std::string> shell_setting(const std::string &key) {
  return text_of(ptz_settings_shell_get_string("%s", key.c_str()));
}

// Records of files, and the array that the loaders take.
template <typename Record>
class Files {
  std::vector<Record> records_;

 public:
  Files(std::initializer_list<Record> records) : records_(records) { records_.push_back({}); }
  explicit Files(std::vector<Record> records) : records_(std::move(records)) { records_.push_back({}); }
  [[nodiscard]] const Record *get() const { return records_.data(); }
};
using Plain = Files<PTZSettingsFile>;
using Extended = Files<PTZSettingsFileExt>;

// A folder of its own, and stores that hold nothing of what another test has loaded.
struct SettingsTest : testing::Test {
  TempDir dir;

  SettingsTest() {
    EXPECT_TRUE(ptz_settings_load_config(nullptr, nullptr));
    EXPECT_FALSE(ptz_settings_load_config_gkf(nullptr, nullptr));
    EXPECT_TRUE(ptz_settings_shell_load_config(nullptr));
  }

  std::string file(const std::string &name, std::string_view bytes) const {
    write_file(dir.file(name), bytes);
    return dir.file(name);
  }
  bool load_key_file(std::string_view bytes) const {
    const auto path = file("key-file", bytes);
    return ptz_settings_load_config_gkf(Plain{{path.c_str(), TRUE}}.get(), nullptr) != FALSE;
  }
  bool load_parsed(std::string_view bytes) const {
    const auto path = file("parsed", bytes);
    return ptz_settings_load_config(Plain{{path.c_str(), TRUE}}.get(), nullptr) != FALSE;
  }
  bool load_shell(std::string_view bytes) const {
    const auto path = file("shell", bytes);
    return ptz_settings_shell_load_config(Plain{{path.c_str(), TRUE}}.get()) != FALSE;
  }
};

}  // namespace ptz_test
