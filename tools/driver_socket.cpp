#include "driver_socket.h"

#include "plain_text.h"

namespace tools {

RegistryList registered_drivers(Error &error) {
  const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
  return RegistryList(ptz_kit_registry_list(registry.get(), out(error)));
}

RegistryEntry driver_named(const char *name, std::string &problem) {
  const Object<PTZKitRegistry> registry(ptz_kit_registry_new(nullptr));
  Error error;
  RegistryEntry entry(ptz_kit_registry_find(registry.get(), name, out(error)));
  if (entry == nullptr) problem = plain_text(error->message);
  return entry;
}

RegistryEntry only_driver(std::string &problem) {
  Error error;
  const RegistryList list = registered_drivers(error);
  const PTZKitRegistryEntry *found = nullptr;
  std::string names;
  for (guint i = 0; list != nullptr && i < list->len; ++i) {
    const auto *const entry = static_cast<const PTZKitRegistryEntry *>(g_ptr_array_index(list.get(), i));
    if (entry->liveness == PTZ_KIT_DRIVER_DEAD) continue;
    if (found != nullptr) problem = "several drivers run";
    names += (names.empty() ? "" : ", ") + plain_text(entry->name) + ":" + std::to_string(entry->instance);
    found = entry;
  }
  if (!problem.empty()) problem += ": " + names;
  return found != nullptr && problem.empty() ? RegistryEntry(ptz_kit_registry_entry_copy(found)) : nullptr;
}

}  // namespace tools
