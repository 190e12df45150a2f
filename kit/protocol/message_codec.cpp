#include "protocol/message_codec.h"

#include <ptz_kit_messages.h>
#include <ptz_serialize.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "protocol/message_access.h"

// clang-format off
G_DEFINE_QUARK(ptz-kit-error-quark, ptz_kit_error)
// clang-format on

namespace ptz_kit {
namespace {

constexpr gsize most_body_bytes = PTZ_KIT_MAX_BODY_BYTES;

GPtrArray *make_list(const Element &element) {
  if (record_of(element) == nullptr) return g_ptr_array_new_with_free_func(g_free);
  return g_ptr_array_new();  // its records are freed by free_list(), which knows their layout
}

void clear_message(const Layout &layout, gpointer message);

void free_list(const Element &element, GPtrArray *list) {
  if (list == nullptr) return;
  if (record_of(element) != nullptr) {
    for (guint i = 0; i < list->len; ++i) free_message(*record_of(element), list->pdata[i]);
  }
  g_ptr_array_unref(list);
}

void clear_message(const Layout &layout, gpointer message) {
  for (const Element &element : elements_of(layout)) {
    if (element.kind == Kind::text) {
      g_free(member<gchar *>(message, element));
    } else if (element.kind == Kind::list) {
      free_list(element, member<GPtrArray *>(message, element));
    }
  }
}

GPtrArray *copy_list(const Element &element, const GPtrArray *list) {
  GPtrArray *copy = make_list(element);
  for (guint i = 0; list != nullptr && i < list->len; ++i) {
    const auto *data = list->pdata[i];
    g_ptr_array_add(copy, data != nullptr && record_of(element) != nullptr
                              ? copy_message(*record_of(element), data)
                              : g_strdup(static_cast<const gchar *>(data)));
  }
  return copy;
}

bool fail_element(const char *title, const Element &list, guint index, const char *problem, GError **error) {
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_OUT_OF_RANGE, "%s: element %u of field \"%s\": %s", title, index,
              name_of(list), problem);
  return false;
}

// --- writing ---

bool write_text(const char *title, const char *name, const gchar *text, GArray *body, GError **error) {
  const gsize length = strlen(text);
  if (length > most_body_bytes) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TOO_LONG,
                "%s: the text of field \"%s\" has %" G_GSIZE_FORMAT " bytes", title, name, length);
    return false;
  }
  if (g_utf8_validate_len(text, length, nullptr) == FALSE) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_BAD_TEXT, "%s: the text of field \"%s\" is not UTF-8", title, name);
    return false;
  }
  ptz_serialize_string(body, text);
  return true;
}

bool write_fields(const char *title, const Layout &layout, gconstpointer message, GArray *body, GError **error);

bool write_list(const char *title, const Element &element, const GPtrArray *list, GArray *body, GError **error) {
  const guint count = list != nullptr ? list->len : 0;
  ptz_serialize_32bit(body, count);
  for (guint i = 0; i < count; ++i) {
    const auto *data = list->pdata[i];
    if (data == nullptr) return fail_element(title, element, i, "it is NULL", error);
    const bool written = record_of(element) != nullptr
                             ? write_fields(title, *record_of(element), data, body, error)
                             : write_text(title, name_of(element), static_cast<const gchar *>(data), body, error);
    if (!written) return false;
  }
  return true;
}

// A peer of an older version knows no later elements, so they are left out as far as they have their defaults.
std::span<const Element> elements_to_write(const Layout &layout, gconstpointer message) {
  auto elements = elements_of(layout);
  while (elements.size() > layout.required && has_default(message, elements.back())) {
    elements = elements.first(elements.size() - 1);
  }
  return elements;
}

bool write_fields(const char *title, const Layout &layout, gconstpointer message, GArray *body, GError **error) {
  for (const Element &element : elements_to_write(layout, message)) {
    switch (element.kind) {
      case Kind::u8:
        ptz_serialize_8bit(body, member<guint8>(message, element));
        break;
      case Kind::u16:
        ptz_serialize_16bit(body, member<guint16>(message, element));
        break;
      case Kind::u32:
      case Kind::i32:
        ptz_serialize_32bit(body, member<guint32>(message, element));
        break;
      case Kind::text:
        if (!write_text(title, name_of(element), text_of(message, element), body, error)) return false;
        break;
      case Kind::list:
        if (!write_list(title, element, member<GPtrArray *>(message, element), body, error)) return false;
        break;
    }
  }
  return true;
}

// --- bounds ---

bool fail_bounds(const Layout &layout, const Element &element, const char *what, gint64 value, GError **error) {
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_OUT_OF_RANGE,
              "%s: %s \"%s\"%s is %" G_GINT64_FORMAT ", not within %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT,
              title_of(layout), what, name_of(element), axis_names[element.axis], value, gint64{element.least},
              most_of(element));
  return false;
}

GType type_of(const Element &element) { return tables.type_getters[element.enumeration - 1](); }

bool is_enumerator(GType type, gint64 value) {
  auto *values = static_cast<GEnumClass *>(g_type_class_ref(type));
  const bool is_one = value <= G_MAXINT && g_enum_get_value(values, static_cast<gint>(value)) != nullptr;
  g_type_class_unref(values);
  return is_one;
}

bool validate_list(const Layout &layout, const Element &element, const GPtrArray *list, GError **error) {
  const Layout *record = record_of(element);
  for (guint i = 0; list != nullptr && i < list->len; ++i) {
    const auto *data = list->pdata[i];
    if (data == nullptr) return fail_element(title_of(layout), element, i, "it is NULL", error);
    if (record == nullptr || validate_message(*record, data, error) != FALSE) continue;
    g_prefix_error(error, "%s: element %u of field \"%s\": ", title_of(layout), i, name_of(element));
    return false;
  }
  return true;
}

bool validate_element(const Layout &layout, const Element &element, gconstpointer message, GError **error) {
  if (element.kind == Kind::list) return validate_list(layout, element, member<GPtrArray *>(message, element), error);
  if (element.kind == Kind::text) {
    const auto length = static_cast<gint64>(strlen(text_of(message, element)));
    if (length >= element.least && length <= most_of(element)) return true;
    return fail_bounds(layout, element, "the length of field", length, error);
  }
  const gint64 value = value_of(message, element);
  const bool is_within = value >= element.least && value <= most_of(element);
  if (element.enumeration == 0) return is_within || fail_bounds(layout, element, "field", value, error);
  const bool is_known = is_enumerator(type_of(element), value);
  if (is_within && is_known) return true;
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_OUT_OF_RANGE,
              is_known ? "%s: field \"%s\"%s is %" G_GINT64_FORMAT ", a value of %s that is not allowed here"
                       : "%s: field \"%s\"%s is %" G_GINT64_FORMAT ", which is no value of %s",
              title_of(layout), name_of(element), axis_names[element.axis], value, g_type_name(type_of(element)));
  return false;
}

}  // namespace

bool is_given(const Layout &layout, gconstpointer given) {
  if (given == nullptr) g_critical("%s: NULL", title_of(layout));
  return given != nullptr;
}

gint64 value_of(gconstpointer message, const Element &element) {
  switch (element.kind) {
    case Kind::u8:
      return member<guint8>(message, element);
    case Kind::u16:
      return member<guint16>(message, element);
    case Kind::u32:
      return member<guint32>(message, element);
    case Kind::i32:
      return member<gint32>(message, element);
    case Kind::text:
    case Kind::list:
      break;
  }
  g_assert_not_reached();
}

bool set_value(gpointer message, const Element &element, gint64 value) {
  const auto set = [&]<typename T>(T) {
    member<T>(message, element) = static_cast<T>(value);
    return std::in_range<T>(value);
  };
  switch (element.kind) {
    case Kind::u8:
      return set(guint8{});
    case Kind::u16:
      return set(guint16{});
    case Kind::u32:
      return set(guint32{});
    case Kind::i32:
      return set(gint32{});
    case Kind::text:
    case Kind::list:
      break;
  }
  g_assert_not_reached();
}

bool has_default(gconstpointer message, const Element &element) {
  if (element.kind == Kind::text) return *text_of(message, element) == '\0';
  if (element.kind != Kind::list) return value_of(message, element) == element.initial;
  const auto *list = member<GPtrArray *>(message, element);
  return list == nullptr || list->len == 0;
}

const Command *find_command(gint32 value) {
  const auto found = std::ranges::find(tables.commands, value, &Command::value);
  return found != tables.commands.end() ? std::to_address(found) : nullptr;
}

GType message_type(gsize &type, const char *name, GBoxedCopyFunc copy, GBoxedFreeFunc free) {
  if (g_once_init_enter(&type)) g_once_init_leave(&type, g_boxed_type_register_static(name, copy, free));
  return type;
}

gpointer make_message(const Layout &layout) {
  gpointer message = g_malloc0(layout.size);
  for (const Element &element : elements_of(layout)) {
    if (element.kind == Kind::list) member<GPtrArray *>(message, element) = make_list(element);
  }
  for (const Element &element : later_elements_of(layout)) {
    if (element.kind == Kind::text) {
      member<gchar *>(message, element) = g_strdup("");
    } else if (element.kind != Kind::list) {
      (void)set_value(message, element, element.initial);
    }
  }
  return message;
}

gpointer copy_message(const Layout &layout, gconstpointer message) {
  if (!is_given(layout, message)) return nullptr;
  gpointer copy = g_memdup2(message, layout.size);
  for (const Element &element : elements_of(layout)) {
    if (element.kind == Kind::text) {
      member<gchar *>(copy, element) = g_strdup(member<gchar *>(message, element));
    } else if (element.kind == Kind::list) {
      member<GPtrArray *>(copy, element) = copy_list(element, member<GPtrArray *>(message, element));
    }
  }
  return copy;
}

void free_message(const Layout &layout, gpointer message) {
  if (message == nullptr) return;
  clear_message(layout, message);
  g_free(message);
}

gboolean validate_message(const Layout &layout, gconstpointer message, GError **error) {
  if (!is_given(layout, message)) return FALSE;
  for (const Element &element : elements_of(layout)) {
    if (!validate_element(layout, element, message, error)) return FALSE;
  }
  return TRUE;
}

gboolean write_message(const Layout &layout, gconstpointer message, GArray *body, GError **error) {
  if (!is_given(layout, message) || !is_given(layout, body)) return FALSE;
  const guint start = body->len;
  ptz_serialize_32bit(body, static_cast<guint32>(layout.command));
  bool written = write_fields(title_of(layout), layout, message, body, error);
  if (written && body->len - start > most_body_bytes) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TOO_LONG,
                "%s: the body would have more than %" G_GSIZE_FORMAT " bytes", title_of(layout), most_body_bytes);
    written = false;
  }
  if (!written) g_array_set_size(body, start);
  return written ? TRUE : FALSE;
}

GBytes *message_to_bytes(const Layout &layout, gconstpointer message, GError **error) {
  GArray *body = ptz_serialize_create_array();
  if (write_message(layout, message, body, error) == FALSE) {
    g_array_unref(body);
    return nullptr;
  }
  gsize length = 0;
  gpointer bytes = g_array_steal(body, &length);
  g_array_unref(body);
  return g_bytes_new_take(bytes, length);
}

}  // namespace ptz_kit
