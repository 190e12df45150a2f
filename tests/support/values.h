// tests/support/values.h - typed values to give to the library, and what those that it gives back hold.
#pragma once
#include <glib-object.h>

#include <memory>

#include "handles.h"

namespace ptz_test {

inline void free_value(GValue *value) {
  g_value_unset(value);
  g_free(value);
}
using Value = std::unique_ptr<GValue, FreeWith<free_value>>;

inline Value empty_value(GType type) {
  Value value(g_new0(GValue, 1));
  g_value_init(value.get(), type);
  return value;
}
inline Value integer(int content) {
  Value value = empty_value(G_TYPE_INT);
  g_value_set_int(value.get(), content);
  return value;
}
inline Value boolean(bool content) {
  Value value = empty_value(G_TYPE_BOOLEAN);
  g_value_set_boolean(value.get(), content ? TRUE : FALSE);
  return value;
}
inline Value real(double content) {
  Value value = empty_value(G_TYPE_DOUBLE);
  g_value_set_double(value.get(), content);
  return value;
}
inline Value text(const char *content) {
  Value value = empty_value(G_TYPE_STRING);
  g_value_set_string(value.get(), content);
  return value;
}

}  // namespace ptz_test
