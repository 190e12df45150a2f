// kit/driver/preset_store.h - the presets that the kit keeps for a driver, in memory and in the driver key file.
#pragma once
#include <ptz_kit_types.h>

#include <array>
#include <map>
#include <string>

#include "handles.h"

namespace ptz_kit {

using Position = std::array<gint32, PTZ_KIT_N_AXES>;

struct StoredPreset {
  std::string name;
  guint8 axes = 0;  // that the preset moves
  Position position = {};
};

enum class PresetKind : guint8 { device, driver };

// Invariant: the presets in memory equal those in the file, if there is a file. A file of another version, or one that
// cannot be read, is left as it is, and nothing can be stored then.
class PresetStore {
 public:
  using Presets = std::map<guint32, StoredPreset>;

 private:
  enum class State : guint8 { without_file, open, unusable };
  State state_ = State::without_file;
  std::string path_;
  KeyFile key_file_;
  std::array<Presets, 2> presets_;
  Presets factory_;  // of the device
  guint32 home_ = 0;

  template <typename Change>
  bool keep(const char *what, guint32 number, const char *group, Change change);
  bool read_group(const std::string &group, PresetKind kind, guint32 number);
  void reset() { presets_ = {factory_, Presets()}; }

 public:
  // Before open(), whose file may hold another preset of this number.
  void add_factory_preset(guint32 number, const StoredPreset &preset);
  // Logs why the presets of the file cannot be used.
  void open(const std::string &path);

  [[nodiscard]] const Presets &all(PresetKind kind) const { return presets_[static_cast<std::size_t>(kind)]; }
  [[nodiscard]] const StoredPreset *find(PresetKind kind, guint32 number) const;
  // The device preset that is home; 0 if there is none.
  [[nodiscard]] guint32 home() const { return home_; }

  // False, which is logged, if the change cannot be kept.
  bool set(PresetKind kind, guint32 number, const StoredPreset &preset);
  bool remove(PresetKind kind, guint32 number);
  // Writes the file once more. Without a file, this fails.
  bool sync();
  bool set_home(guint32 number);
};

}  // namespace ptz_kit
