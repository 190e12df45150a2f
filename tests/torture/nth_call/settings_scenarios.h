// tests/torture/nth_call/settings_scenarios.h - operations of the settings and of the driver's key file.
#pragma once
#include <ptz_config.h>
#include <ptz_settings.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "ends.h"

namespace nth_call {

using Text = ptz_test::Text;

inline void write_file(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline std::string read_file(const std::string &path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline constexpr char settings_text[] = "[Motion]\nSpeed=7\nName=slow\n";

class SettingsLoad : public Scenario {
 public:
  enum class Loader { records, key_file, shell };
  explicit SettingsLoad(Loader loader) : loader_(loader) {}
  void prepare() override {
    write_file(path_, loader_ == Loader::shell ? "SPEED=7\nNAME=slow\n" : settings_text);
    (void)load(false);
  }
  void act() override { succeeded = load(true); }
  std::string judge() override {
    if (!succeeded && logged().empty()) return "failed without a line in the log";
    if (succeeded && !is_whole()) return "success, but not all was loaded";
    return load(true) && is_whole() ? "" : "cannot be loaded after the fault";
  }

 private:
  const Loader loader_;
  const std::string path_ = scratch() + "/settings.conf";

  [[nodiscard]] bool load(bool with_file) const {
    const PTZSettingsFile files[] = {{with_file ? path_.c_str() : nullptr, TRUE}, {nullptr, FALSE}};
    switch (loader_) {
      case Loader::records:
        return ptz_settings_load_config(files, nullptr) != FALSE;
      case Loader::key_file:
        return ptz_settings_load_config_gkf(files, nullptr) != FALSE;
      case Loader::shell:
        return ptz_settings_shell_load_config(files) != FALSE;
    }
    return false;
  }
  [[nodiscard]] bool is_whole() const {
    const bool shell = loader_ == Loader::shell;
    const Text speed(shell ? ptz_settings_shell_get_string("SPEED")
                           : ptz_settings_get_custom_string("Motion", "Speed"));
    const Text name(shell ? ptz_settings_shell_get_string("NAME") : ptz_settings_get_custom_string("Motion", "Name"));
    return speed != nullptr && name != nullptr && std::string("7") == speed.get() && std::string("slow") == name.get();
  }
};

class KeyFileStore : public Scenario {
  const std::string folder_ = scratch() + "/keys", path_ = folder_ + "/driver.conf";

  [[nodiscard]] bool store(const char *value) const {
    GKeyFile *file = g_key_file_new();
    g_key_file_set_string(file, "Group", "Key", value);
    GError *error = nullptr;
    const bool stored = ptz_config_store_key_file(path_.c_str(), file, &error) != FALSE;
    g_key_file_unref(file);
    states_ = stored == (error == nullptr);
    g_clear_error(&error);
    return stored;
  }
  mutable bool states_ = true;

 public:
  void prepare() override {
    std::filesystem::create_directories(folder_);
    write_file(path_, "[Group]\nKey=old\n");
  }
  void act() override { succeeded = store("new"); }
  std::string judge() override {
    if (!states_) return "failed without an error, or succeeded with one";
    const std::string now = read_file(path_);
    const bool is_new = now == "[Group]\nKey=new\n";
    if (succeeded && !is_new) return "success, but another content";
    if (!is_new && now != "[Group]\nKey=old\n") return "half a file: " + now;
    return store("new") ? "" : "cannot be stored after the fault";
  }
};

class KeyFileLoad : public Scenario {
  const std::string path_ = scratch() + "/load.conf";
  bool states_ = false;

 public:
  void prepare() override { write_file(path_, "[Header]\nVersionMajor=1\nVersionMinor=2\n[Group]\nKey=old\n"); }
  void act() override {
    GError *error = nullptr;
    gboolean compatible = FALSE;
    GKeyFile *file = ptz_config_init_key_file(path_.c_str(), 1, 2, &compatible, &error);
    states_ = (file == nullptr) == (error != nullptr);
    const Text value(file != nullptr ? g_key_file_get_string(file, "Group", "Key", nullptr) : nullptr);
    succeeded = value != nullptr;
    if (file != nullptr) g_key_file_unref(file);
    g_clear_error(&error);
  }
  std::string judge() override { return states_ ? "" : "neither a file nor an error"; }
};

}  // namespace nth_call
