// driver_socket.h - the sockets of the drivers that run, by the drivers' names.
#pragma once
#include <ptz_kit_registry.h>

#include <optional>
#include <string>

#include "handles.h"

namespace tools {

using RegistryEntry = Handle<PTZKitRegistryEntry, ptz_kit_registry_entry_free>;
using RegistryList = Handle<GPtrArray, g_ptr_array_unref>;

// All entries, or null with an error.
[[nodiscard]] RegistryList registered_drivers(Error &error);
// The driver that runs under this name, NAME:INSTANCE or number of an instance. Null with the problem told if there is
// none, or if there are several.
[[nodiscard]] RegistryEntry driver_named(const char *name, std::string &problem);
// The only driver that runs; null if none does. Null with the problem told if several do.
[[nodiscard]] RegistryEntry only_driver(std::string &problem);

}  // namespace tools
