// tests/support/subclass.h - a subclass as a driver's author makes one in C.
#pragma once
#include <glib-object.h>

namespace ptz_test {

// Registers a type without fields of its own; class_init fills in the operations that it overrides.
inline GType subclass(GType parent, const char *name, GClassInitFunc class_init) {
  GTypeQuery sizes{};
  g_type_query(parent, &sizes);
  return g_type_register_static_simple(parent, name, sizes.class_size, class_init, sizes.instance_size, nullptr,
                                       GTypeFlags{});
}

}  // namespace ptz_test
