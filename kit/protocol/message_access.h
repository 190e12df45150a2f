// kit/protocol/message_access.h - the members of a message by their elements.
#pragma once
#include "protocol/message_codec.h"

namespace ptz_kit {

template <typename T>
T &member(gpointer message, const Element &element) {
  return *reinterpret_cast<T *>(static_cast<char *>(message) + element.offset);
}
template <typename T>
const T &member(gconstpointer message, const Element &element) {
  return *reinterpret_cast<const T *>(static_cast<const char *>(message) + element.offset);
}

inline const char *name_of(const Element &element) { return tables.names + element.name; }
constexpr char axis_names[][9] = {"", " of pan", " of tilt", " of zoom"};  // by Element::axis, behind a field's name
inline const char *title_of(const Layout &layout) { return tables.names + layout.title; }
inline std::span<const Element> elements_of(const Layout &layout) {
  return {tables.elements + layout.first, layout.count};
}

inline std::span<const Element> later_elements_of(const Layout &layout) {
  return elements_of(layout).subspan(layout.required);
}

// The record of the elements of a list; null for texts.
inline const Layout *record_of(const Element &element) {
  return element.element != 0 ? &tables.layouts[element.element - 1] : nullptr;
}
inline gint64 most_of(const Element &element) {
  return element.kind == Kind::i32 ? gint64{static_cast<gint32>(element.most)} : gint64{element.most};
}

inline const gchar *text_of(gconstpointer message, const Element &element) {
  const gchar *text = member<gchar *>(message, element);
  return text != nullptr ? text : "";
}

// A message that is NULL, or a body: the programmer's error.
[[nodiscard]] bool is_given(const Layout &layout, gconstpointer given);
[[nodiscard]] bool has_default(gconstpointer message, const Element &element);
// The value of a number.
[[nodiscard]] gint64 value_of(gconstpointer message, const Element &element);
// False if the bytes of the element cannot hold the value.
[[nodiscard]] bool set_value(gpointer message, const Element &element, gint64 value);

}  // namespace ptz_kit
