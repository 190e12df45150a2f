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
  std::string initial;  // as it would stand in a file
  gint64 least, most;
  std::string doc;
  std::string value = {};
};

// The first lines, and the number of the others: a file of the wrong kind has a problem in every line.
class ProblemLines {
  std::vector<std::string> lines_;
  std::size_t more_ = 0;

 public:
  void add(std::string line);
  [[nodiscard]] bool empty() const { return lines_.empty(); }
  [[nodiscard]] std::vector<std::string> lines() const;
};

struct Problems {
  ProblemLines bad;      // values, lines and files
  ProblemLines unknown;  // keys
};

class Settings {
  struct Place {
    const char *file;
    guint line;
  };

  std::vector<Setting> settings_;

  [[nodiscard]] Setting *look_up(std::string_view group, std::string_view key);
  void read_file(const char *path, Problems &problems);
  void read_text(const char *path, std::string_view text, Problems &problems);
  void read_line(std::string_view line, std::string &group, const Place &place, Problems &problems);
  void read_value(std::string_view group, std::string_view key, std::string_view value, const Place &place,
                  Problems &problems);

 public:
  Settings();
  // A critical warning, and no setting, if the declaration contradicts itself or another one.
  void add(Setting setting);
  // Every file is read to its end, so that all problems are known. A setting that no file has gets its default. If
  // there are bad lines, all settings stay as they are. Loads the library's own settings, too.
  [[nodiscard]] Problems load(const char *const *files);
  // A critical warning if there is no such setting of this kind.
  [[nodiscard]] const Setting *find(const char *group, const char *key, PTZKitSettingKind kind);
  [[nodiscard]] std::string describe() const;
};

[[nodiscard]] bool boolean_of(const Setting &setting);
[[nodiscard]] gint64 integer_of(const Setting &setting);

}  // namespace ptz_kit
