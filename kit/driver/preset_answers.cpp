// The presets that the class keeps for a driver that can move.
#include "driver/driver_core.h"

namespace ptz_kit {

namespace {

void refuse_unknown(guint32 number, PTZKitReply *reply) {
  ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no preset %u", number);
}

// The reason names a file, whose name might not fit the reply.
void refuse_unkept(guint32 number, PTZKitReply *reply) {
  ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_NOT_KEPT, "preset %u cannot be kept; the driver's log tells why",
                      number);
}

void go_to(DriverCore &core, PresetKind kind, guint32 number, guint16 speed, PTZKitReply *reply) {
  const StoredPreset *const preset = core.presets.find(kind, number);
  if (preset == nullptr) return refuse_unknown(number, reply);
  move_to(core, preset->axes, preset->position, speed, reply);
}

}  // namespace

void answer_set_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitSetPresetRequest *>(request);
  StoredPreset preset = {wanted->name, wanted->axes, {}};
  for (std::size_t index = 0; index < core.axes.size(); ++index) {
    if ((wanted->axes & axis_bit(index)) == 0) continue;
    const Axis &axis = core.axes[index];
    const gint32 position = wanted->position[index];
    if (!axis.is_set()) {
      return ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "the head has no %s", axis_labels[index]);
    }
    if (position != axis.clamped(position)) {
      return ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_OUT_OF_RANGE, "%s %d is not within %d to %d",
                                 axis_labels[index], position, axis.minimum(), axis.maximum());
    }
    preset.position[index] = position;
  }
  if (!core.presets.set(PresetKind::driver, wanted->number, preset)) return refuse_unkept(wanted->number, reply);
  const PTZKitSetPresetReply message = {wanted->number};
  ptz_kit_reply_set_preset(reply, &message);
}

void answer_set_device_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitSetDevicePresetRequest *>(request);
  core.update();
  StoredPreset preset = {wanted->name, axes_set(core.axes), {}};
  for (std::size_t axis = 0; axis < core.axes.size(); ++axis) preset.position[axis] = core.axes[axis].position();
  if (!core.change_preset(wanted->number, &preset)) return refuse_unkept(wanted->number, reply);
  const PTZKitSetDevicePresetReply message = {wanted->number};
  ptz_kit_reply_set_device_preset(reply, &message);
}

void answer_get_device_presets(DriverCore &core, gconstpointer, PTZKitReply *reply) {
  const Handle<PTZKitGetDevicePresetsReply, ptz_kit_get_device_presets_reply_free> message(
      ptz_kit_get_device_presets_reply_new());
  for (const auto &[number, preset] : core.presets.all(PresetKind::device)) {
    const PTZKitPreset entry = {number, const_cast<gchar *>(preset.name.c_str())};
    ptz_kit_get_device_presets_reply_add_preset(message.get(), &entry);
  }
  ptz_kit_reply_get_device_presets(reply, message.get());
}

void answer_goto_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitGotoPresetRequest *>(request);
  go_to(core, PresetKind::driver, wanted->number, wanted->speed, reply);
}

void answer_goto_device_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitGotoDevicePresetRequest *>(request);
  go_to(core, PresetKind::device, wanted->number, wanted->speed, reply);
}

// A preset of the driver hides one of the device with the same number.
void answer_get_preset_position(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const auto *wanted = static_cast<const PTZKitGetPresetPositionRequest *>(request);
  const StoredPreset *preset = core.presets.find(PresetKind::driver, wanted->number);
  if (preset == nullptr) preset = core.presets.find(PresetKind::device, wanted->number);
  if (preset == nullptr) return refuse_unknown(wanted->number, reply);
  PTZKitGetPresetPositionReply message = {};
  message.axes = preset->axes;
  std::ranges::copy(preset->position, message.position);
  ptz_kit_reply_get_preset_position(reply, &message);
}

void answer_default_home_preset(DriverCore &core, gconstpointer request, PTZKitReply *reply) {
  const guint32 number = static_cast<const PTZKitDefaultHomePresetRequest *>(request)->number;
  if (number != 0 && core.presets.find(PresetKind::device, number) == nullptr) return refuse_unknown(number, reply);
  if (!core.presets.set_home(number)) return refuse_unkept(number, reply);
  ptz_kit_reply_ok(reply);
}

}  // namespace ptz_kit
