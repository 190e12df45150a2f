#include "presets.h"

namespace compliance {

std::size_t Presets::count(guint32 number) const {
  std::size_t found = 0;
  for (std::size_t index = 0; index < size(); ++index) found += (*this)[index].number == number ? 1 : 0;
  return found;
}

const PTZKitPreset *Presets::find(guint32 number) const {
  for (std::size_t index = 0; index < size(); ++index) {
    if ((*this)[index].number == number) return &(*this)[index];
  }
  return nullptr;
}

guint32 free_preset(Link &link, guint32 below) {
  const Presets list(link);
  for (guint32 number = below - 1; number > 0; --number) {
    const PTZKitPreset *const taken = list.find(number);
    if (taken == nullptr || g_str_equal(taken->name, preset_name) || g_str_equal(taken->name, other_name)) {
      return number;
    }
  }
  link.probe().not_applicable("Get device presets: " + std::to_string(list.size()) + " presets",
                              "every preset from 1 to %u is in use", below - 1);
  return 0;
}

void store_preset(Link &link, guint32 number, const char *name) { obtain(link, make_preset_body(number, name)); }

}  // namespace compliance
