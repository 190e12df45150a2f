// presets.h - the device presets that checks store.
#pragma once
#include "requests.h"

namespace compliance {

inline constexpr char preset_name[] = "compliance";
inline constexpr char other_name[] = "compliance 2";
constexpr guint32 most_presets = 32;
constexpr std::size_t longest_preset_name = 32;  // bytes

struct Presets {
  Reply<PresetList>::Owner reply;
  explicit Presets(Link &link) : reply(query<PresetList>(link)) {}
  [[nodiscard]] std::size_t size() const { return reply->presets->len; }
  [[nodiscard]] const PTZKitPreset &operator[](std::size_t index) const {
    return *static_cast<const PTZKitPreset *>(g_ptr_array_index(reply->presets, index));
  }
  [[nodiscard]] std::size_t count(guint32 number) const;
  [[nodiscard]] const PTZKitPreset *find(guint32 number) const;
};

// The last number that is free or that a check has used before; not applicable if all are in use.
guint32 free_preset(Link &link, guint32 below = most_presets + 1);
void store_preset(Link &link, guint32 number, const char *name = preset_name);

}  // namespace compliance
