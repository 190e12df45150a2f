// presets.h - the device presets that checks store.
#pragma once
#include "requests.h"

namespace compliance {

inline constexpr char preset_name[] = "compliance";
inline constexpr char other_name[] = "compliance 2";

PresetList list_of(Link &link);
// The last number that is free or that a check has used before; not applicable where all are in use.
guint32 free_preset(Link &link, guint32 below = most_presets + 1);
void store_preset(Link &link, guint32 number, const char *name = preset_name);

}  // namespace compliance
