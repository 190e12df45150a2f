// Reads a formatted string of arbitrary bytes, by itself and into dynamical properties, and holds the value, what is
// logged and what is notified against what the bytes say. What was read is written and read again.
#include <syslog.h>

#include <bit>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_target.h"
#include "handles.h"
#include "interpose.h"
#include "ptz_dynamical_properties.h"
#include "ptz_gvalue_utils.h"
#include "values.h"

using namespace ptz_test;

namespace {

int criticals;
std::string last_critical;
int lines;
std::string last_line;

void take_message(const gchar *, GLogLevelFlags level, const gchar *text, gpointer) {
  if ((level & G_LOG_LEVEL_CRITICAL) == 0) return;  // of a type without values GLib itself has something to say
  ++criticals;
  last_critical = text;
}

void forget_logs() {
  criticals = lines = 0;
  last_critical.clear();
  last_line.clear();
}

}  // namespace

INTERPOSE(void, syslog, (int, const char *format, ...)) {
  char text[8192];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  ++lines;
  last_line = text;
}

namespace {

// A third piece that is missing is not one that is empty.
struct Pieces {
  std::string name, word;
  std::optional<std::string> text;
};

Pieces pieces_of(const std::string &string) {
  Pieces pieces;
  const auto first = string.find(':');
  pieces.name = string.substr(0, first);
  if (first == std::string::npos) return pieces;
  const auto second = string.find(':', first + 1);
  pieces.word = string.substr(first + 1, second == std::string::npos ? second : second - first - 1);
  if (second != std::string::npos) pieces.text = string.substr(second + 1);
  return pieces;
}

GType type_of(const std::string &word) {
  const GType known = g_type_from_name(word.c_str());
  if (known != 0) return known;
  if (word == "int32" || word == "int") return G_TYPE_INT;
  if (word == "boolean" || word == "bool") return G_TYPE_BOOLEAN;
  if (word == "double") return G_TYPE_DOUBLE;
  return word == "string" ? G_TYPE_STRING : G_TYPE_NONE;
}

bool has_text_form(GType type) {
  return type == G_TYPE_INT || type == G_TYPE_BOOLEAN || type == G_TYPE_DOUBLE || type == G_TYPE_STRING;
}

bool ignoring_case(const std::optional<std::string> &text, const char *word) {
  return text && g_ascii_strcasecmp(text->c_str(), word) == 0;
}

void require_value(const GValue *value, GType type, const std::optional<std::string> &text) {
  REQUIRE(G_VALUE_TYPE(value) == type);
  int expected_lines = 0;
  if (type == G_TYPE_INT) {
    const auto number = static_cast<gint>(g_ascii_strtoll(text.value_or("").c_str(), nullptr, 10));
    REQUIRE(g_value_get_int(value) == number);
  } else if (type == G_TYPE_DOUBLE) {
    const gdouble number = g_ascii_strtod(text.value_or("").c_str(), nullptr);
    REQUIRE(std::bit_cast<guint64>(g_value_get_double(value)) == std::bit_cast<guint64>(number));
  } else if (type == G_TYPE_STRING) {
    REQUIRE(g_strcmp0(g_value_get_string(value), text ? text->c_str() : nullptr) == 0);
  } else {
    REQUIRE(g_value_get_boolean(value) == (ignoring_case(text, "true") ? TRUE : FALSE));
    if (!ignoring_case(text, "true") && !ignoring_case(text, "false")) {
      expected_lines = 1;
      REQUIRE(last_line == "should be boolean value, was \"" + text.value_or("(null)") + "\"");
    }
  }
  REQUIRE(lines == expected_lines);
}

// Not doubles, which are written with six decimals, nor what is not there.
void require_reads_back(const char *name, const GValue *value) {
  if (G_VALUE_HOLDS_DOUBLE(value) || (G_VALUE_HOLDS_STRING(value) && g_value_get_string(value) == nullptr)) return;
  const Text string(ptz_gvalue_utils_gvalue_to_formatted_string(name, value));
  gchar *name_again = nullptr;
  GValue *value_again = nullptr;
  REQUIRE(ptz_gvalue_utils_formatted_string_to_gvalue(string.get(), &name_again, &value_again));
  const Text owned_name(name_again);
  const Value owned_value(value_again);
  REQUIRE(g_strcmp0(name_again, name) == 0);
  REQUIRE(ptz_gvalue_utils_gvalue_cmp0(value_again, value) == 0);
}

// Twice: the second time nothing changes, unless the value is no number.
void require_property(const char *string, const Pieces &pieces, bool is_readable) {
  const Object<PTZDynamicalProperties> properties(ptz_dynamical_properties_new());
  std::string notified;
  g_signal_connect(properties.get(), "notify_change",
                   G_CALLBACK(+[](PTZDynamicalProperties *, const char *name, gpointer names) {
                     static_cast<std::string *>(names)->append(name).append(1, '\n');
                   }),
                   &notified);
  std::string expected;
  for (int times = 0; times < 2; ++times) {
    forget_logs();
    const Text name(ptz_dynamical_properties_set_from_string(properties.get(), string));
    REQUIRE(g_strcmp0(name.get(), is_readable ? pieces.name.c_str() : nullptr) == 0);
    REQUIRE(criticals == (is_readable ? 0 : 1));
    const GValue *value = ptz_dynamical_properties_get(properties.get(), pieces.name.c_str());
    REQUIRE((value != nullptr) == is_readable);
    if (!is_readable) continue;
    const bool is_no_number = G_VALUE_HOLDS_DOUBLE(value) && g_value_get_double(value) != g_value_get_double(value);
    REQUIRE((ptz_dynamical_properties_compare(properties.get(), pieces.name.c_str(), value) != 0) == is_no_number);
    if (times == 0 || is_no_number) expected += pieces.name + "\n";
  }
  REQUIRE(notified == expected);
  REQUIRE(g_hash_table_size(properties->properties) == (is_readable ? 1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  g_log_set_default_handler(take_message, nullptr);
  // In a block of its own, which ends where the string does.
  const std::size_t length = strnlen(reinterpret_cast<const char *>(data), size);
  const std::unique_ptr<char[]> string(new char[length + 1]);
  if (length > 0) std::memcpy(string.get(), data, length);
  string[length] = '\0';
  const Pieces pieces = pieces_of(string.get());
  const GType type = type_of(pieces.word);

  forget_logs();
  gchar *name = nullptr;
  GValue *value = nullptr;
  const gboolean result = ptz_gvalue_utils_formatted_string_to_gvalue(string.get(), &name, &value);
  const Text owned_name(name);
  const Value owned_value(value);
  const bool is_complete = !pieces.name.empty() && !pieces.word.empty();
  const bool is_readable = is_complete && has_text_form(type);
  REQUIRE(result == (is_readable ? TRUE : FALSE));
  REQUIRE(g_strcmp0(name, is_readable ? pieces.name.c_str() : nullptr) == 0);
  REQUIRE((value != nullptr) == (is_complete && type != G_TYPE_NONE));
  REQUIRE(criticals == (is_readable ? 0 : 1));
  if (is_readable) {
    require_value(value, type, pieces.text);
    require_reads_back(name, value);
  } else {
    REQUIRE(lines == 0);
    const char *complaint = !is_complete       ? "'vector[0][0] != '\\0' && vector[1][0] != '\\0''"
                            : value == nullptr ? "'type != G_TYPE_NONE'"
                                               : "should not be reached";
    REQUIRE(last_critical.find(complaint) != std::string::npos);
  }
  require_property(string.get(), pieces, is_readable);
  return 0;
}
