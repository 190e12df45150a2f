// preset_store.h - the device presets, and the driver key file that keeps them through a restart.
#pragma once
#include <functional>
#include <string>
#include <utility>

#include "presets.h"

namespace example {

using KeyFile = Owned<GKeyFile, g_key_file_unref>;

// Begins with the presets of the factory and has no file: presets then live as long as the process.
class PresetStore {
 public:
  // Told of each preset that has changed; there was none before, or is none after.
  using Watcher = std::function<void(guint32 number, const StoredPreset *before, const StoredPreset *after)>;

 private:
  enum class State { without_file, open, unusable };
  State state_ = State::without_file;
  std::string path_;
  KeyFile key_file_;  // all that the file holds, so that what a newer driver added stays in it
  Presets presets_;
  Watcher watcher_;

  bool keep(guint32 number, const StoredPreset *preset);

 public:
  explicit PresetStore(Presets factory_presets = {}) : presets_(std::move(factory_presets)) {}

  // Keeps presets in this file, and takes those that are there. False, with the reason in the log, where it was written
  // by another version or is broken: the store goes on with what it has and leaves the file as it is, for whoever wants
  // to look into it; no preset can be set.
  bool open(const std::string &path);

  [[nodiscard]] const Presets &all() const { return presets_; }
  // False, with the reason in the log, where the preset cannot be kept. Nothing has then changed.
  bool set(guint32 number, const StoredPreset &preset);
  // The same for a preset that is there. One of the factory is there again when the driver has been started anew.
  bool remove(guint32 number);
  // Writes all of them once more. False, with the reason in the log, where there is no file or it cannot be written.
  bool sync();
  void watch(Watcher watcher) { watcher_ = std::move(watcher); }
};

}  // namespace example
