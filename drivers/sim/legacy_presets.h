// legacy_presets.h - the device presets as configuration on the system bus: each is a set of the interface
// com.velk.Configuration.Legacy, with the entries Name (s), Pan, Tilt and Zoom (i).
#pragma once
#include <ptz_legacy_config.h>
#include <ptz_legacy_config_dynamic.h>

#include <optional>

#include "head.h"
#include "live_settings.h"
#include "owners.h"

namespace sim {

// What a configuration event tells by its kind.
enum class ChangeKind : gint { changed = 0, added = 1, removed = 2 };

// Serves from start() to its end. Refusals are D-Bus errors that are named after their PTZKitErrorCode, such as
// com.velk.PTZ.Error.Code5. Whatever changes a preset is announced, a request of the daemon too: as configuration event
// of the set, with the entries that have changed, and each entry as PropertiesChanged, such as "3.Name". A live setting
// that changes is announced as PropertiesChanged, too, by its own name, such as "light".
class LegacyPresets {
  using Skeleton = ptzlegacyconfigdynamicConfigurationLegacy;

  PTZKitDriver *driver_;
  Head &head_;
  const LiveSettings &live_;
  Object<Skeleton> skeleton_;
  Owned<PTZLegacyConfigHandler, ptz_legacy_config_cleanup> handler_;
  std::optional<SettingWatch> settings_;

  static gboolean on_sync(Skeleton *skeleton, GDBusMethodInvocation *call, LegacyPresets *self);
  static gboolean on_add(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, LegacyPresets *self);
  static gboolean on_remove(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, LegacyPresets *self);
  static gboolean on_get(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, const gchar *entry,
                         LegacyPresets *self);
  static gboolean on_set(Skeleton *skeleton, GDBusMethodInvocation *call, gint number, const gchar *entry,
                         GVariant *value, LegacyPresets *self);
  static gboolean on_get_all(Skeleton *skeleton, GDBusMethodInvocation *call, LegacyPresets *self);
  static void on_change(PTZKitDriver *driver, guint number, const PTZKitSetPresetRequest *before,
                        const PTZKitSetPresetRequest *after, LegacyPresets *self);

  void announce(guint number, const PTZKitSetPresetRequest *before, const PTZKitSetPresetRequest *after) const;

 public:
  // All of them outlive it.
  LegacyPresets(PTZKitDriver *driver, Head &head, const LiveSettings &live)
      : driver_(driver), head_(head), live_(live) {}
  LegacyPresets(const LegacyPresets &) = delete;
  ~LegacyPresets();

  // Exports the presets at /com/velk/PTZ/NAME and claims com.velk.PTZ.NAME. False, with the reason in the log, where
  // there is no system bus, it does not let this process have the name, or another process has it.
  bool start(const char *short_name);
};

}  // namespace sim
