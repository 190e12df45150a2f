#include "driver/preset_store.h"

#include <ptz_config.h>
#include <ptz_kit_messages.h>
#include <syslog.h>

#include <utility>
#include <vector>

#include "driver/axes.h"
#include "driver/format.h"

namespace ptz_kit {

namespace {

// Of what the kit writes. A change that an older driver can live with raises the minor version.
constexpr gint format_major = 1;
constexpr gint format_minor = 0;
constexpr guint8 all_axes = 7;
constexpr char axis_keys[][5] = {"Pan", "Tilt", "Zoom"};
constexpr char home_group[] = "DefaultHome";
constexpr char home_key[] = "Preset";

std::string group_of(PresetKind kind, guint32 number) {
  return format("%sPreset%u", kind == PresetKind::device ? "Device" : "", number);
}

const char *reason_of(const Error &error) { return error ? error->message : "the file holds no proper preset"; }

// A file without the key "Axes" holds presets of all axes.
bool read_preset(GKeyFile *file, const char *group, StoredPreset &preset, Error &error) {
  const Text name(g_key_file_get_string(file, group, "Name", out(error)));
  if (!name || *name == '\0' || strlen(name.get()) > PTZ_KIT_MAX_PRESET_NAME_BYTES) return false;
  preset.name = name.get();
  preset.axes = all_axes;
  if (g_key_file_has_key(file, group, "Axes", nullptr) != FALSE) {
    preset.axes = static_cast<guint8>(g_key_file_get_integer(file, group, "Axes", out(error)) & all_axes);
    if (error) return false;
  }
  for (std::size_t axis = 0; axis < PTZ_KIT_N_AXES; ++axis) {
    preset.position[axis] = g_key_file_get_integer(file, group, axis_keys[axis], out(error));
    if (error) return false;
  }
  return true;
}

void write_preset(GKeyFile *file, const char *group, const StoredPreset &preset) {
  g_key_file_set_string(file, group, "Name", preset.name.c_str());
  if (preset.axes == all_axes) {
    g_key_file_remove_key(file, group, "Axes", nullptr);
  } else {
    g_key_file_set_integer(file, group, "Axes", preset.axes);
  }
  for (std::size_t axis = 0; axis < PTZ_KIT_N_AXES; ++axis) {
    g_key_file_set_integer(file, group, axis_keys[axis], preset.position[axis]);
  }
}

// The keys of a group as they are. A copy of the whole file would take seconds if others keep much in it.
class GroupBackup {
  GKeyFile *const file_;
  const char *const group_;
  std::vector<std::pair<std::string, std::string>> values_;

 public:
  GroupBackup(GKeyFile *file, const char *group) : file_(file), group_(group) {
    const TextList keys(g_key_file_get_keys(file, group, nullptr, nullptr));
    for (char **key = keys.get(); key != nullptr && *key != nullptr; ++key) {
      const Text value(g_key_file_get_value(file, group, *key, nullptr));
      values_.emplace_back(*key, value.get());
    }
  }
  void restore() const {
    g_key_file_remove_group(file_, group_, nullptr);
    for (const auto &[key, value] : values_) g_key_file_set_value(file_, group_, key.c_str(), value.c_str());
  }
};

void log_unusable(const std::string &path, const char *reason) {
  syslog(LOG_ERR, "no presets from '%s', which is left as it is: %s", path.c_str(), reason);
}

}  // namespace

bool PresetStore::read_group(const std::string &group, PresetKind kind, guint32 number) {
  if (g_key_file_has_group(key_file_.get(), group.c_str()) == FALSE) return true;
  StoredPreset preset;
  Error error;
  if (!read_preset(key_file_.get(), group.c_str(), preset, error)) {
    log_unusable(path_, format("[%s]: %s", group.c_str(), reason_of(error)).c_str());
    return false;
  }
  presets_[static_cast<std::size_t>(kind)][number] = preset;
  return true;
}

void PresetStore::open(const std::string &path) {
  path_ = path;
  state_ = State::unusable;
  reset();
  home_ = 0;
  Error error;
  gboolean compatible = FALSE;
  key_file_.reset(ptz_config_init_key_file(path.c_str(), format_major, format_minor, &compatible, out(error)));
  if (!key_file_) return log_unusable(path, reason_of(error));
  if (compatible == FALSE) return log_unusable(path, "its format is of another version");
  for (guint32 number = 1; number <= PTZ_KIT_MAX_PRESETS; ++number) {
    for (const PresetKind kind : {PresetKind::device, PresetKind::driver}) {
      if (read_group(group_of(kind, number), kind, number)) continue;
      return reset();
    }
  }
  // 0 without the group.
  const gint home = g_key_file_get_integer(key_file_.get(), home_group, home_key, nullptr);
  if (home > 0 && find(PresetKind::device, static_cast<guint32>(home)) != nullptr) home_ = static_cast<guint32>(home);
  state_ = State::open;
}

void PresetStore::add_factory_preset(guint32 number, const StoredPreset &preset) {
  factory_[number] = preset;
  presets_[static_cast<std::size_t>(PresetKind::device)].emplace(number, preset);
}

const StoredPreset *PresetStore::find(PresetKind kind, guint32 number) const {
  const auto found = all(kind).find(number);
  return found != all(kind).end() ? &found->second : nullptr;
}

// The group gets its old keys again if the file cannot be written, so that the memory stays what the file holds.
template <typename Change>
bool PresetStore::keep(const char *what, guint32 number, const char *group, Change change) {
  if (state_ == State::without_file) return true;
  if (state_ == State::unusable) {
    syslog(LOG_WARNING, "%s %u is not kept: '%s' cannot be used", what, number, path_.c_str());
    return false;
  }
  Error error;
  const GroupBackup backup(key_file_.get(), group);
  change(key_file_.get());
  if (ptz_config_store_key_file(path_.c_str(), key_file_.get(), out(error)) != FALSE) return true;
  backup.restore();
  syslog(LOG_WARNING, "%s %u is not kept: %s", what, number, reason_of(error));
  return false;
}

bool PresetStore::set(PresetKind kind, guint32 number, const StoredPreset &preset) {
  const std::string group = group_of(kind, number);
  const auto change = [&](GKeyFile *file) { write_preset(file, group.c_str(), preset); };
  if (!keep("preset", number, group.c_str(), change)) return false;
  presets_[static_cast<std::size_t>(kind)][number] = preset;
  return true;
}

bool PresetStore::remove(PresetKind kind, guint32 number) {
  const std::string group = group_of(kind, number);
  const auto change = [&](GKeyFile *file) { g_key_file_remove_group(file, group.c_str(), nullptr); };
  if (!keep("the removal of preset", number, group.c_str(), change)) return false;
  presets_[static_cast<std::size_t>(kind)].erase(number);
  return true;
}

bool PresetStore::sync() {
  Error error;
  if (state_ == State::open && ptz_config_store_key_file(path_.c_str(), key_file_.get(), out(error)) != FALSE) {
    return true;
  }
  syslog(LOG_WARNING, "the presets are not kept: %s",
         state_ == State::open           ? reason_of(error)
         : state_ == State::without_file ? "there is no file for them"
                                         : "their file cannot be used");
  return false;
}

bool PresetStore::set_home(guint32 number) {
  const auto change = [number](GKeyFile *file) {
    g_key_file_set_integer(file, home_group, home_key, static_cast<gint>(number));
  };
  if (!keep("home preset", number, home_group, change)) return false;
  home_ = number;
  return true;
}

}  // namespace ptz_kit
