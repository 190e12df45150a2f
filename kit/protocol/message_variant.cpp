#include <ptz_kit_body.h>

#include <cstring>
#include <optional>

#include "protocol/message_access.h"

namespace ptz_kit {
namespace {

constexpr char command_key[] = "command";

// --- to variants ---

GVariant *number_to_variant(gconstpointer message, const Element &element) {
  const gint64 value = value_of(message, element);
  return element.kind == Kind::i32 ? g_variant_new_int32(static_cast<gint32>(value))
                                   : g_variant_new_uint32(static_cast<guint32>(value));
}

void add_fields(GVariantBuilder *builder, const Layout &layout, gconstpointer message);

GVariant *list_to_variant(const Element &element, const GPtrArray *list) {
  const Layout *record = record_of(element);
  GVariantBuilder builder;
  g_variant_builder_init(&builder, record != nullptr ? G_VARIANT_TYPE("aa{sv}") : G_VARIANT_TYPE_STRING_ARRAY);
  for (guint i = 0; i < list->len; ++i) {
    if (record == nullptr) {
      g_variant_builder_add(&builder, "s", static_cast<const gchar *>(list->pdata[i]));
    } else {
      g_variant_builder_open(&builder, G_VARIANT_TYPE_VARDICT);
      add_fields(&builder, *record, list->pdata[i]);
      g_variant_builder_close(&builder);
    }
  }
  return g_variant_builder_end(&builder);
}

// The three values of a field per axis lie side by side in the structure: its first element stands for all.
GVariant *axes_to_variant(gconstpointer message, const Element &pan) {
  return g_variant_new_fixed_array(G_VARIANT_TYPE_INT32, &member<gint32>(message, pan), PTZ_KIT_N_AXES, sizeof(gint32));
}

GVariant *field_to_variant(gconstpointer message, const Element &element) {
  if (element.axis != 0) return axes_to_variant(message, element);
  if (element.kind == Kind::text) return g_variant_new_string(text_of(message, element));
  if (element.kind == Kind::list) return list_to_variant(element, member<GPtrArray *>(message, element));
  return number_to_variant(message, element);
}

// Whether a body has to hold the field, whose other axes follow in the structure.
bool is_needed(const Layout &layout, gconstpointer message, const Element &element) {
  if (&element - elements_of(layout).data() < layout.required) return true;
  Element item = element;
  for (; item.axis > 0 && item.axis < PTZ_KIT_N_AXES && has_default(message, item); ++item.axis) {
    item.offset += sizeof(gint32);
  }
  return !has_default(message, item);
}

void add_fields(GVariantBuilder *builder, const Layout &layout, gconstpointer message) {
  for (const Element &element : elements_of(layout)) {
    if (element.axis > 1 || !is_needed(layout, message, element)) continue;
    g_variant_builder_add(builder, "{sv}", name_of(element), field_to_variant(message, element));
  }
}

// --- from variants ---

std::optional<gint64> integer_of(GVariant *value) {
  switch (g_variant_classify(value)) {
    case G_VARIANT_CLASS_BYTE:
      return g_variant_get_byte(value);
    case G_VARIANT_CLASS_INT16:
      return g_variant_get_int16(value);
    case G_VARIANT_CLASS_UINT16:
      return g_variant_get_uint16(value);
    case G_VARIANT_CLASS_INT32:
      return g_variant_get_int32(value);
    case G_VARIANT_CLASS_UINT32:
      return g_variant_get_uint32(value);
    case G_VARIANT_CLASS_INT64:
      return g_variant_get_int64(value);
    case G_VARIANT_CLASS_UINT64: {
      const guint64 number = g_variant_get_uint64(value);
      return number <= G_MAXINT64 ? std::optional<gint64>(number) : std::nullopt;
    }
    default:
      return std::nullopt;
  }
}

bool fail(const Layout &layout, const char *name, const char *problem, GError **error) {
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s: field \"%s\": %s", title_of(layout), name, problem);
  return false;
}

bool set_integer(const Layout &layout, const Element &element, gpointer message, GVariant *value, GError **error) {
  const auto number = integer_of(value);
  if (number && set_value(message, element, *number)) return true;
  return fail(layout, name_of(element), number ? "the number does not fit" : "not a number", error);
}

bool set_fields(const Layout &layout, gpointer message, GVariant *fields, gsize others, GError **error);

bool set_list(const Layout &layout, const Element &element, GPtrArray *list, GVariant *value, GError **error) {
  const Layout *record = record_of(element);
  const auto *type = record != nullptr ? G_VARIANT_TYPE("aa{sv}") : G_VARIANT_TYPE_STRING_ARRAY;
  if (!g_variant_is_of_type(value, type)) return fail(layout, name_of(element), "not a list of its elements", error);
  for (gsize i = 0; i < g_variant_n_children(value); ++i) {
    GVariant *child = g_variant_get_child_value(value, i);
    bool set = true;
    if (record == nullptr) {
      g_ptr_array_add(list, g_variant_dup_string(child, nullptr));
    } else {
      g_ptr_array_add(list, make_message(*record));
      set = set_fields(*record, list->pdata[i], child, 0, error);
    }
    g_variant_unref(child);
    if (!set) return false;
  }
  return true;
}

bool set_axis(const Layout &layout, const Element &element, gpointer message, GVariant *value, GError **error) {
  if (!g_variant_type_is_array(g_variant_get_type(value)) || g_variant_n_children(value) != PTZ_KIT_N_AXES) {
    return fail(layout, name_of(element), "not a list of three numbers", error);
  }
  GVariant *child = g_variant_get_child_value(value, element.axis - gsize{1});
  const bool set = set_integer(layout, element, message, child, error);
  g_variant_unref(child);
  return set;
}

bool set_field(const Layout &layout, const Element &element, gpointer message, GVariant *value, GError **error) {
  if (element.axis != 0) return set_axis(layout, element, message, value, error);
  if (element.kind == Kind::list) return set_list(layout, element, member<GPtrArray *>(message, element), value, error);
  if (element.kind != Kind::text) return set_integer(layout, element, message, value, error);
  if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return fail(layout, name_of(element), "not a text", error);
  g_free(member<gchar *>(message, element));
  member<gchar *>(message, element) = g_variant_dup_string(value, nullptr);
  return true;
}

// Every field once, those of later versions at most once, and beside them as many keys as the caller knows of.
bool set_fields(const Layout &layout, gpointer message, GVariant *fields, gsize others, GError **error) {
  gsize known = others;
  const Element *later = later_elements_of(layout).data();
  for (const Element &element : elements_of(layout)) {
    GVariant *value = g_variant_lookup_value(fields, name_of(element), nullptr);
    if (value == nullptr && &element >= later) continue;
    if (value == nullptr) return fail(layout, name_of(element), "missing", error);
    const bool set = set_field(layout, element, message, value, error);
    g_variant_unref(value);
    if (!set) return false;
    if (element.axis <= 1) ++known;
  }
  if (g_variant_n_children(fields) == known) return true;
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED,
              "%s: there are fields that it does not have, or one of them twice", title_of(layout));
  return false;
}

const Layout *layout_of(const Command &command, PTZKitBodyKind kind) {
  const guint8 number = kind == PTZ_KIT_BODY_REQUEST ? command.request : command.reply;
  return number != 0 ? &tables.layouts[number - 1] : nullptr;
}

const Command *command_of(const guint8 *body, gsize length, GError **error) {
  gint32 value = 0;
  const Command *command = nullptr;
  if (ptz_kit_body_get_command(body, length, &value)) command = find_command(value);
  if (command == nullptr) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED,
                length < sizeof value ? "field \"command\" at byte 0: the body is too short"
                                      : "field \"command\" at byte 0: there is no command %d",
                value);
  }
  return command;
}

GBytes *make_body(const Command &command, PTZKitBodyKind kind, GVariant *fields, GError **error) {
  const Layout *layout = layout_of(command, kind);
  if (layout == nullptr) {
    if (g_variant_n_children(fields) == 1) {
      const gint32 word = GINT32_TO_LE(command.value);
      return g_bytes_new(&word, sizeof word);
    }
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s: it has no fields", tables.names + command.name);
    return nullptr;
  }
  gpointer message = make_message(*layout);
  GBytes *body = nullptr;
  if (set_fields(*layout, message, fields, 1, error)) body = message_to_bytes(*layout, message, error);
  free_message(*layout, message);
  return body;
}

}  // namespace
}  // namespace ptz_kit

using namespace ptz_kit;

const gchar *ptz_kit_command_name(gint32 command) {
  const Command *known = find_command(command);
  return known != nullptr ? tables.names + known->name : nullptr;
}

gboolean ptz_kit_command_from_name(const gchar *name, gint32 *command) {
  g_return_val_if_fail(name != NULL, FALSE);
  g_return_val_if_fail(command != NULL, FALSE);
  for (const Command &each : tables.commands) {
    if (strcmp(tables.names + each.name, name) != 0) continue;
    *command = each.value;
    return TRUE;
  }
  return FALSE;
}

gboolean ptz_kit_body_get_command(const guint8 *body, gsize length, gint32 *command) {
  g_return_val_if_fail(body != NULL || length == 0, FALSE);
  g_return_val_if_fail(command != NULL, FALSE);
  gint32 word = 0;
  if (length < sizeof word) return FALSE;
  memcpy(&word, body, sizeof word);
  *command = GINT32_FROM_LE(word);
  return TRUE;
}

GVariant *ptz_kit_body_to_variant(PTZKitBodyKind kind, const guint8 *body, gsize length, GError **error) {
  g_return_val_if_fail(body != NULL || length == 0, NULL);
  const Command *command = command_of(body, length, error);
  if (command == nullptr) return nullptr;
  const Layout *layout = layout_of(*command, kind);
  gpointer message = nullptr;
  if (layout != nullptr) {
    message = read_message(*layout, {body, length}, error);
    if (message == nullptr) return nullptr;
  } else if (length != sizeof(gint32)) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s: %" G_GSIZE_FORMAT " bytes left over at byte 4",
                tables.names + command->name, length - sizeof(gint32));
    return nullptr;
  }
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&builder, "{sv}", command_key, g_variant_new_string(tables.names + command->name));
  if (layout != nullptr) {
    add_fields(&builder, *layout, message);
    free_message(*layout, message);
  }
  return g_variant_ref_sink(g_variant_builder_end(&builder));
}

GBytes *ptz_kit_body_from_variant(PTZKitBodyKind kind, GVariant *fields, GError **error) {
  g_return_val_if_fail(fields != NULL, NULL);
  g_variant_ref_sink(fields);
  const gchar *name = nullptr;
  gint32 value = 0;
  GBytes *body = nullptr;
  if (!g_variant_is_of_type(fields, G_VARIANT_TYPE_VARDICT) || !g_variant_lookup(fields, command_key, "&s", &name)) {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "field \"command\": missing");
  } else if (!ptz_kit_command_from_name(name, &value)) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "field \"command\": there is no command \"%s\"", name);
  } else {
    body = make_body(*find_command(value), kind, fields, error);
  }
  g_variant_unref(fields);
  return body;
}
