// src/base/enum_type.h - one line registers a table of values as a GLib enumeration or flags type.
#pragma once
#include <glib-object.h>
#include <cstddef>
namespace ptz {
// Rows are {value, name, nick} in the order that callers see; GLib keeps a pointer to them, so they live for ever.
template <typename Row, std::size_t n>
consteval bool ended(const Row (&rows)[n]) {
  return rows[n - 1].value_name == nullptr;
}
}  // namespace ptz
#define DEFINE_ENUM_TYPE(TypeName, get_type, rows)                     \
  static_assert(ptz::ended(rows));                                     \
  GType get_type(void) {                                               \
    static const GType type = g_enum_register_static(#TypeName, rows); \
    return type;                                                       \
  }
#define DEFINE_FLAGS_TYPE(TypeName, get_type, rows)                     \
  static_assert(ptz::ended(rows));                                      \
  GType get_type(void) {                                                \
    static const GType type = g_flags_register_static(#TypeName, rows); \
    return type;                                                        \
  }
