#include "presets.h"

#include <algorithm>

namespace compliance {

PresetList list_of(Link &link) { return query<PresetList>(link, PTZ_COMMAND_GET_DEVICE_PRESETS); }

guint32 free_preset(Link &link, guint32 below) {
  const PresetList list = list_of(link);
  for (guint32 number = below - 1; number > 0; --number) {
    const auto taken = std::ranges::find(list.elements, number, &Preset::number);
    if (taken == list.elements.end() || taken->name == preset_name || taken->name == other_name) return number;
  }
  link.probe().not_applicable("every preset from 1 to %u is in use", below - 1);
  return 0;
}

void store_preset(Link &link, guint32 number, const char *name) {
  obtain(link, make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{number, name}));
}

}  // namespace compliance
