#include "preset_store.h"

#include <ptz_config.h>
#include <syslog.h>

namespace example {

namespace {

// Of what this driver writes. A change that an older driver can live with raises the minor version.
constexpr gint format_major = 1;
constexpr gint format_minor = 0;
constexpr const char *name_key = "Name";

std::string group_of(guint32 number) { return "DevicePreset" + std::to_string(number); }

class Failure {
  GError *error_ = nullptr;

 public:
  Failure() = default;
  Failure(const Failure &) = delete;
  ~Failure() { g_clear_error(&error_); }
  GError **out() { return &error_; }
  explicit operator bool() const { return error_ != nullptr; }
  [[nodiscard]] const char *message() const { return error_ != nullptr ? error_->message : "unknown error"; }
};

bool read_preset(GKeyFile *key_file, const std::string &group, StoredPreset &preset, Failure &failure) {
  const Text name(g_key_file_get_string(key_file, group.c_str(), name_key, failure.out()));
  if (failure) return false;
  preset.name = name.get();
  for (std::size_t axis = 0; axis < axis_count && !failure; ++axis) {
    preset.position[axis] = g_key_file_get_integer(key_file, group.c_str(), axis_titles[axis], failure.out());
  }
  return !failure && valid_preset_name(preset.name);
}

void write_preset(GKeyFile *key_file, const std::string &group, const StoredPreset &preset) {
  g_key_file_set_string(key_file, group.c_str(), name_key, preset.name.c_str());
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    g_key_file_set_integer(key_file, group.c_str(), axis_titles[axis], preset.position[axis]);
  }
}

KeyFile copy(GKeyFile *key_file, Failure &failure) {
  gsize length = 0;
  const Text text(g_key_file_to_data(key_file, &length, nullptr));
  KeyFile same(g_key_file_new());
  g_key_file_load_from_data(same.get(), text.get(), length, G_KEY_FILE_NONE, failure.out());
  return same;
}

}  // namespace

bool PresetStore::open(const std::string &path) {
  path_ = path;
  state_ = State::unusable;
  Failure failure;
  gboolean compatible = FALSE;
  KeyFile key_file(ptz_config_init_key_file(path.c_str(), format_major, format_minor, &compatible, failure.out()));
  if (!key_file) {
    syslog(LOG_ERR, "no presets from '%s', which is left as it is: %s", path.c_str(), failure.message());
    return false;
  }
  if (!compatible) {
    syslog(LOG_ERR, "no presets from '%s', which is left as it is: its format is not that of version %d.%d",
           path.c_str(), format_major, format_minor);
    return false;
  }
  Presets presets = presets_;
  for (guint32 number = 1; number <= most_presets; ++number) {
    const std::string group = group_of(number);
    if (!g_key_file_has_group(key_file.get(), group.c_str())) continue;
    StoredPreset preset;
    if (!read_preset(key_file.get(), group, preset, failure)) {
      syslog(LOG_ERR, "no presets from '%s', which is left as it is: [%s]: %s", path.c_str(), group.c_str(),
             failure ? failure.message() : "the name makes no sense");
      return false;
    }
    presets[number] = preset;
  }
  presets_ = std::move(presets);
  key_file_ = std::move(key_file);
  state_ = State::open;
  return true;
}

// Without a preset, what the file has under the number goes.
bool PresetStore::keep(guint32 number, const StoredPreset *preset) {
  if (state_ == State::without_file) return true;
  if (state_ == State::unusable) {
    syslog(LOG_WARNING, "preset %u is not kept: '%s' is not a file of this version", number, path_.c_str());
    return false;
  }
  // What is in memory stays what is in the file, also where the file cannot be written.
  Failure failure;
  KeyFile changed = copy(key_file_.get(), failure);
  const std::string group = group_of(number);
  if (preset != nullptr) {
    write_preset(changed.get(), group, *preset);
  } else {
    g_key_file_remove_group(changed.get(), group.c_str(), nullptr);
  }
  if (failure || !ptz_config_store_key_file(path_.c_str(), changed.get(), failure.out())) {
    syslog(LOG_WARNING, "preset %u is not kept: %s", number, failure.message());
    return false;
  }
  key_file_ = std::move(changed);
  return true;
}

bool PresetStore::set(guint32 number, const StoredPreset &preset) {
  if (!keep(number, &preset)) return false;
  const auto found = presets_.find(number);
  if (found == presets_.end()) {
    presets_.emplace(number, preset);
    if (watcher_) watcher_(number, nullptr, &preset);
  } else {
    const StoredPreset before = std::exchange(found->second, preset);
    if (watcher_) watcher_(number, &before, &preset);
  }
  return true;
}

bool PresetStore::remove(guint32 number) {
  if (!keep(number, nullptr)) return false;
  const auto removed = presets_.extract(number);
  if (removed && watcher_) watcher_(number, &removed.mapped(), nullptr);
  return true;
}

bool PresetStore::sync() {
  Failure failure;
  if (state_ == State::open && ptz_config_store_key_file(path_.c_str(), key_file_.get(), failure.out())) return true;
  syslog(LOG_WARNING, "the presets are not kept: %s",
         state_ == State::open           ? failure.message()
         : state_ == State::without_file ? "there is no file for them"
                                         : "their file is not one of this version");
  return false;
}

}  // namespace example
