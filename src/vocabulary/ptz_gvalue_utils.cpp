#include "ptz_gvalue_utils.h"

#include "base/check.h"
#include "base/handles.h"

namespace {

constexpr char module_name[] = "ptz_gvalue_utils";
constexpr int pieces_max = 3;  // name, type word and value, which may hold further colons

constexpr struct {
  const char *word;
  GType type;
} type_words[] = {
    {"int32", G_TYPE_INT},     {"boolean", G_TYPE_BOOLEAN}, {"string", G_TYPE_STRING},
    {"double", G_TYPE_DOUBLE}, {"int", G_TYPE_INT},         {"bool", G_TYPE_BOOLEAN},
};

const gchar *text_of(gboolean value) { return value ? "true" : "false"; }

bool equals_ignoring_case(const gchar *text, const gchar *word) {
  return text != nullptr && g_ascii_strcasecmp(text, word) == 0;
}

gint integer_of(const gchar *text) {
  return text != nullptr ? static_cast<gint>(g_ascii_strtoll(text, nullptr, 10)) : 0;
}

// What has no type compares and prints like a type that nobody supports.
GType type_of(const GValue *value) { return value != nullptr ? G_VALUE_TYPE(value) : G_TYPE_INVALID; }

GType type_of_word(const gchar *word) {
  const GType type = g_type_from_name(word);
  if (type != G_TYPE_INVALID) return type;
  for (const auto &known : type_words) {
    if (g_str_equal(word, known.word)) return known.type;
  }
  return G_TYPE_NONE;
}

// False for a type without a text form.
bool fill(GValue *value, const gchar *text) {
  switch (G_VALUE_TYPE(value)) {
    case G_TYPE_INT:
      g_value_set_int(value, integer_of(text));
      return true;
    case G_TYPE_DOUBLE:
      g_value_set_double(value, text != nullptr ? g_ascii_strtod(text, nullptr) : 0);
      return true;
    case G_TYPE_STRING:
      g_value_set_string(value, text);
      return true;
    case G_TYPE_BOOLEAN: {
      const bool is_true = equals_ignoring_case(text, "true");
      if (!is_true && !equals_ignoring_case(text, "false")) {
        syslog(LOG_ERR, "should be boolean value, was \"%s\"", text != nullptr ? text : "(null)");
      }
      g_value_set_boolean(value, is_true ? TRUE : FALSE);
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

gboolean ptz_gvalue_utils_formatted_string_to_gvalue(const gchar *string, gchar **name, GValue **value) {
  g_return_val_if_fail(string, FALSE);
  g_return_val_if_fail(value, FALSE);
  const ptz::TextList vector(g_strsplit_set(string, ":", pieces_max));
  g_return_val_if_fail(vector, FALSE);
  gchar **const pieces = vector.get();
  const auto is_missing = [](const gchar *piece) { return piece == nullptr || piece[0] == '\0'; };
  return_val_if_fail_stated(!is_missing(pieces[0]) && !is_missing(pieces[1]),
                            "vector[0][0] != '\\0' && vector[1][0] != '\\0'", FALSE);
  const GType type = type_of_word(pieces[1]);
  g_return_val_if_fail(type != G_TYPE_NONE, FALSE);
  *value = g_new0(GValue, 1);
  g_value_init(*value, type);
  if (!fill(*value, pieces[2])) return_val_if_reached_in(module_name, FALSE);
  if (name != nullptr) *name = g_strdup(pieces[0]);
  return TRUE;
}

gchar *ptz_gvalue_utils_gvalue_to_formatted_string(const gchar *name, const GValue *value) {
  switch (type_of(value)) {
    case G_TYPE_INT:
      return g_strdup_printf("%s:int32:%d", name, g_value_get_int(value));
    case G_TYPE_BOOLEAN:
      return g_strdup_printf("%s:boolean:%s", name, text_of(g_value_get_boolean(value)));
    case G_TYPE_DOUBLE:
      return g_strdup_printf("%s:double:%f", name, g_value_get_double(value));
    case G_TYPE_STRING:
      return g_strdup_printf("%s:string:%s", name, g_value_get_string(value));
    default:
      return_val_if_reached_in(module_name, NULL);
  }
}

gchar *ptz_gvalue_utils_string_from_gvalue(const GValue *value) {
  if (G_VALUE_HOLDS_BOOLEAN(value)) return g_strdup(text_of(g_value_get_boolean(value)));
  if (G_VALUE_HOLDS_INT(value)) return g_strdup_printf("%d", g_value_get_int(value));
  if (G_VALUE_HOLDS_STRING(value)) return g_value_dup_string(value);
  return nullptr;
}

gboolean ptz_gvalue_utils_gvalue_from_string(const gchar *text, gint kind, GValue *value) {
  g_return_val_if_fail(value, FALSE);
  *value = G_VALUE_INIT;
  switch (kind) {
    case PTZ_PARAMETER_BOOLEAN:
      g_value_init(value, G_TYPE_BOOLEAN);
      g_value_set_boolean(value, equals_ignoring_case(text, "true") ? TRUE : FALSE);
      return TRUE;
    case PTZ_PARAMETER_INTEGER:
      g_value_init(value, G_TYPE_INT);
      g_value_set_int(value, integer_of(text));
      return TRUE;
    case PTZ_PARAMETER_CONSTANT:
    case PTZ_PARAMETER_TEXT:
      g_value_init(value, G_TYPE_STRING);
      g_value_set_string(value, text);
      return TRUE;
    default:  // constants of other types are not for conversion either: they are never set
      return FALSE;
  }
}

gint ptz_gvalue_utils_gvalue_cmp0(const GValue *val1, const GValue *val2) {
  const GType type = type_of(val1);
  return_val_if_fail_stated(type_of(val2) == type, "G_VALUE_TYPE (val2) == type", -1);
  switch (type) {
    case G_TYPE_BOOLEAN:
      return g_value_get_boolean(val1) == g_value_get_boolean(val2) ? 0 : 1;
    case G_TYPE_INT: {
      const gint left = g_value_get_int(val1), right = g_value_get_int(val2);
      return (left > right) - (left < right);
    }
    case G_TYPE_STRING:
      return g_strcmp0(g_value_get_string(val1), g_value_get_string(val2));
    default:
      log_func(LOG_ERR, "Tried to compare unhandled type: %u", static_cast<guint>(type));
      return -1;
  }
}
