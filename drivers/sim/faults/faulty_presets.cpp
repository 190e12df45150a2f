// The faults of presets.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "../driver_settings.h"
#include "faulty_answers.h"

namespace sim {

namespace {

constexpr guint16 full_speed = 100;
constexpr std::size_t longest_name = 32;

void swap_ends(GPtrArray *array) {
  for (guint first = 0, last = array->len; first + 1 < last; ++first, --last) {
    std::swap(array->pdata[first], array->pdata[last - 1]);
  }
}

// The number of the preset, of which the rest of the body may be malformed.
guint32 number_in(const Body &request) {
  guint32 number = 0;
  if (request.size() >= 2 * sizeof number) std::memcpy(&number, request.data() + sizeof number, sizeof number);
  return number;
}

}  // namespace

std::optional<Body> FaultyAnswers::goto_preset(const Body &request) {
  if (fault("caps.answers-what-it-announces.devicepreset")) return refusal(PTZ_KIT_ERROR_CODE_UNSUPPORTED, "not here");
  const auto wanted = MESSAGE_IN(goto_device_preset_request, request);
  if (!wanted) return std::nullopt;
  const bool is_possible = wanted->number >= 1 && wanted->number <= most_presets;
  if ((fault("presets.unknown-is-refused") && wanted->number == G_MAXUINT32) ||
      (fault("presets.store-and-return") && is_possible && !moving() && wanted->speed == full_speed)) {
    return bare(PTZ_COMMAND_GOTO_DEVICE_PRESET);
  }
  return std::nullopt;
}

std::optional<Body> FaultyAnswers::list_presets(const Body &request) {
  const auto list = MESSAGE_IN(get_device_presets_reply, right(request));
  if (!list) return std::nullopt;
  if (fault("presets.is-listed")) g_ptr_array_set_size(list->presets, 0);
  if (fault("presets.in-order")) swap_ends(list->presets);
  return written<ptz_kit_get_device_presets_reply_write>(*list);
}

std::optional<Body> FaultyAnswers::store_preset(const Body &request) {
  using namespace std::string_view_literals;
  if (fault("commands.text-beyond-the-body") && request.ends_with("\xff\xffgate"sv)) abort();
  const auto wanted = MESSAGE_IN(set_device_preset_request, request);
  const std::string_view name = wanted ? wanted->name : "";
  const guint32 number = number_in(request);
  if ((fault("presets.bad-number") && number == 0) || (fault("presets.bad-name") && name.size() > longest_name) ||
      (fault("presets.is-replaced") && name == "compliance 2") ||
      (fault("commands.invalid-text") && request.ends_with("ga\xff\xfe"sv)) ||
      (fault("commands.text-with-nul") && request.ends_with("ga\0e"sv))) {
    return written<ptz_kit_set_device_preset_reply_write>(PTZKitSetDevicePresetReply{number});
  }
  return std::nullopt;
}

}  // namespace sim
