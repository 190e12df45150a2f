// figures.h - reads the dictionaries of ptz_kit_monitor_get_figures().
#pragma once
#include <glib.h>

#include <string>

namespace ptzctl {

// Empty if the dictionary has no such text.
[[nodiscard]] inline std::string text_in(GVariant *figures, const char *key) {
  const char *text = "";
  g_variant_lookup(figures, key, "&s", &text);
  return text;
}

}  // namespace ptzctl
