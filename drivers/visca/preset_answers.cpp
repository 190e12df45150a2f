// Device presets: the camera remembers the place, the driver the name. Presets beyond the camera's memories are kept as
// positions.
#include "driver_state.h"

namespace visca {

namespace {

constexpr guint8 all_axes = 7;
using Preset = Owned<PTZKitSetPresetRequest, ptz_kit_set_preset_request_free>;

// The preset as the class keeps it; empty if there is none.
const PTZKitSetPresetRequest *find(const GPtrArray *presets, guint32 number) {
  for (guint index = 0; index < presets->len; ++index) {
    const auto *preset = static_cast<const PTZKitSetPresetRequest *>(g_ptr_array_index(presets, index));
    if (preset->number == number) return preset;
  }
  return nullptr;
}

bool is_in_camera(const State &state, guint32 number) { return number <= state.head->profile().memories; }

void keep(PTZKitDriver *self, guint32 number, const char *name, PTZKitReply *reply) {
  gint32 position[axis_count] = {};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    position[axis] = ptz_kit_driver_get_position(self, static_cast<PTZKitAxis>(axis));
  }
  const Preset preset(ptz_kit_set_preset_request_new(number, name, all_axes, position));
  Error error;
  if (ptz_kit_driver_store_preset(self, preset.get(), out(error)) == FALSE) {
    return ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_NOT_KEPT,
                               "preset %u cannot be kept; the driver's log tells why", number);
  }
  const PTZKitSetDevicePresetReply message = {number};
  ptz_kit_reply_set_device_preset(reply, &message);
}

}  // namespace

void set_device_preset(PTZKitDriver *self, const PTZKitSetDevicePresetRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  if (!is_in_camera(state, request->number)) {
    if (state.head->knows_position()) return keep(self, request->number, request->name, reply);
    return ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_NOT_KEPT,
                               "the camera keeps %u presets, and does not tell its position",
                               state.head->profile().memories);
  }
  ptz_kit_reply_defer(reply);
  const std::shared_ptr<PTZKitReply> kept(static_cast<PTZKitReply *>(g_object_ref(reply)), g_object_unref);
  state.head->memory(MemoryAction::set, static_cast<Byte>(request->number - 1),
                     [self, kept, number = request->number, name = std::string(request->name)](Outcome outcome) {
                       if (ptz_kit_reply_is_answered(kept.get()) != FALSE) return;
                       if (outcome != Outcome::done) return refuse(kept.get(), outcome);
                       keep(self, number, name.c_str(), kept.get());
                     });
}

void goto_device_preset(PTZKitDriver *self, const PTZKitGotoDevicePresetRequest *request, PTZKitReply *reply) {
  State &state = state_of(self);
  const PointerArray presets(ptz_kit_driver_get_presets(self));
  const PTZKitSetPresetRequest *const preset = find(presets.get(), request->number);
  if (preset == nullptr) {
    return ptz_kit_reply_error(reply, PTZ_KIT_ERROR_CODE_NOT_FOUND, "there is no preset %u", request->number);
  }
  if (state.waits(reply, [self, wanted = *request](PTZKitReply *later) { goto_device_preset(self, &wanted, later); }))
    return;
  if (!state.head->is_there()) return refuse(reply, Outcome::no_answer);
  if (is_in_camera(state, request->number)) {
    return state.head->memory(MemoryAction::recall, static_cast<Byte>(request->number - 1), answer_later(reply));
  }
  Order order = {.share = request->speed / 100.0};
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    order.axes[axis] = (preset->axes >> axis & 1U) != 0;
    order.value[axis] = preset->position[axis];
  }
  state.head->move(order, answer_later(reply));
}

}  // namespace visca
