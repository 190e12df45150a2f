// kit/driver/settings.h - the settings of a driver: a declared schema, and values from key files.
#pragma once
#include <ptz_kit_driver.h>

#include <string>
#include <string_view>
#include <vector>

namespace ptz_kit {

struct Setting {
  std::string group, key;
  PTZKitSettingKind kind;
  std::string value;  // the default, until a file has another
  gint64 least, most;
  std::string doc;
};

struct Problems {
  std::vector<std::string> bad;      // values, lines and files
  std::vector<std::string> unknown;  // keys
};

class Settings {
  struct Place {
    const char *file;
    guint line;
  };

  std::vector<Setting> settings_;

  [[nodiscard]] Setting *look_up(std::string_view group, std::string_view key);
  void read_file(const char *path, Problems &problems);
  void read_line(std::string_view line, std::string &group, const Place &place, Problems &problems);
  void read_value(std::string_view group, std::string_view key, std::string_view value, const Place &place,
                  Problems &problems);

 public:
  Settings();
  void add(Setting setting) { settings_.push_back(std::move(setting)); }
  // Every file is read to its end, so that all problems are known. Loads the library's own settings, too.
  [[nodiscard]] Problems load(const char *const *files);
  // A critical warning if there is no such setting of this kind.
  [[nodiscard]] const Setting *find(const char *group, const char *key, PTZKitSettingKind kind);
  [[nodiscard]] std::string describe() const;
};

[[nodiscard]] bool boolean_of(const Setting &setting);
[[nodiscard]] gint64 integer_of(const Setting &setting);

}  // namespace ptz_kit
