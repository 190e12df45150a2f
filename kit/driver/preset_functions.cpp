// What a driver may do itself with the presets that the class keeps.
#include <gio/gio.h>

#include "driver/driver_private.h"

using namespace ptz_kit;

namespace {

// Borrows the name.
PTZKitSetPresetRequest message_of(guint32 number, const StoredPreset &preset) {
  PTZKitSetPresetRequest message = {number, const_cast<gchar *>(preset.name.c_str()), preset.axes, {}};
  std::ranges::copy(preset.position, message.position);
  return message;
}

StoredPreset preset_of(const PTZKitSetPresetRequest &message) {
  StoredPreset preset = {message.name, message.axes, {}};
  std::ranges::copy(message.position, preset.position.begin());
  return preset;
}

bool validate(DriverCore &core, const PTZKitSetPresetRequest &message, GError **error) {
  if (!core.keeps_presets()) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "this driver keeps no presets");
    return false;
  }
  if (ptz_kit_set_preset_request_validate(&message, error) == FALSE) return false;
  const bool has_axes = (message.axes & ~axes_set(core.axes)) == 0;
  if (has_axes && g_utf8_validate(message.name, -1, nullptr) != FALSE) return true;
  g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_OUT_OF_RANGE,
                      has_axes ? "the name is not UTF-8" : "the head does not have all of these axes");
  return false;
}

gboolean fail(GError **error) {
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "the presets cannot be kept; the log tells why");
  return FALSE;
}

}  // namespace

bool DriverCore::change_preset(guint32 number, const StoredPreset *preset) {
  const StoredPreset *const found = presets.find(PresetKind::device, number);
  const StoredPreset before = found != nullptr ? *found : StoredPreset();
  const bool was_there = found != nullptr;
  if (!(preset != nullptr ? presets.set(PresetKind::device, number, *preset)
                          : presets.remove(PresetKind::device, number))) {
    return false;
  }
  if (!was_there && preset == nullptr) return true;
  const PTZKitSetPresetRequest old = message_of(number, before);
  const PTZKitSetPresetRequest present = preset != nullptr ? message_of(number, *preset) : PTZKitSetPresetRequest();
  g_signal_emit_by_name(object, "preset-changed", number, was_there ? &old : nullptr,
                        preset != nullptr ? &present : nullptr);
  return true;
}

void ptz_kit_driver_add_factory_preset(PTZKitDriver *self, const PTZKitSetPresetRequest *preset) {
  g_return_if_fail(PTZ_KIT_IS_DRIVER(self));
  g_return_if_fail(preset != NULL && ptz_kit_set_preset_request_validate(preset, NULL));
  core_of(self).presets.add_factory_preset(preset->number, preset_of(*preset));
}

GPtrArray *ptz_kit_driver_get_presets(PTZKitDriver *self) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), NULL);
  const auto free_preset = [](gpointer preset) {
    ptz_kit_set_preset_request_free(static_cast<PTZKitSetPresetRequest *>(preset));
  };
  GPtrArray *presets = g_ptr_array_new_with_free_func(free_preset);
  for (const auto &[number, preset] : core_of(self).presets.all(PresetKind::device)) {
    const PTZKitSetPresetRequest message = message_of(number, preset);
    g_ptr_array_add(presets, ptz_kit_set_preset_request_copy(&message));
  }
  return presets;
}

guint32 ptz_kit_driver_get_home_preset(PTZKitDriver *self) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), 0);
  return core_of(self).presets.home();
}

gboolean ptz_kit_driver_store_preset(PTZKitDriver *self, const PTZKitSetPresetRequest *preset, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  g_return_val_if_fail(preset != NULL, FALSE);
  DriverCore &core = core_of(self);
  if (!validate(core, *preset, error)) return FALSE;
  const StoredPreset stored = preset_of(*preset);
  return core.change_preset(preset->number, &stored) ? TRUE : fail(error);
}

gboolean ptz_kit_driver_remove_preset(PTZKitDriver *self, guint32 number, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  return core_of(self).change_preset(number, nullptr) ? TRUE : fail(error);
}

gboolean ptz_kit_driver_sync_presets(PTZKitDriver *self, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_DRIVER(self), FALSE);
  return core_of(self).presets.sync() ? TRUE : fail(error);
}
