// src/dbus/system_bus.h - what servers and clients share: the bus, the names on it, and the words for failures.
#pragma once
#include <gio/gio.h>

#include "base/handles.h"

namespace ptz {

using Connection = Object<GDBusConnection>;
using Variant = Handle<GVariant, g_variant_unref>;

constexpr gint no_index = -1;

// The process's shared connection; none where the bus cannot be reached, which is logged.
[[nodiscard]] Connection connect_to_system_bus();

[[nodiscard]] inline Text bus_name_of(const char *short_name) {
  return Text(g_strdup_printf("com.velk.PTZ.%s", short_name));
}
[[nodiscard]] inline Text object_path_of(const char *short_name, gint index = no_index) {
  return Text(index == no_index ? g_strdup_printf("/com/velk/PTZ/%s", short_name)
                                : g_strdup_printf("/com/velk/PTZ/%s/%d", short_name, index));
}

}  // namespace ptz
