#include "page.h"

#include <glib.h>

namespace tools {

namespace {

bool is_visible(gunichar character) {
  const GUnicodeType type = g_unichar_type(character);
  return g_unichar_isprint(character) != FALSE && type != G_UNICODE_PRIVATE_USE && type != G_UNICODE_LINE_SEPARATOR &&
         type != G_UNICODE_PARAGRAPH_SEPARATOR;
}

std::string escaped(const char *format, guint32 number) {
  char text[16];
  g_snprintf(text, sizeof text, format, number);
  return text;
}

}  // namespace

std::string visible_text(const std::string &text) {
  std::string visible;
  const char *const end = text.data() + text.size();
  for (const char *at = text.data(); at != end;) {
    const auto byte = static_cast<guint8>(*at);
    const gunichar character = byte == 0 ? 0 : g_utf8_get_char_validated(at, end - at);
    if (character == static_cast<gunichar>(-1) || character == static_cast<gunichar>(-2) || byte < ' ') {
      visible += escaped("\\x%02x", byte);
      ++at;
      continue;
    }
    const char *const next = g_utf8_next_char(at);
    visible += is_visible(character) ? std::string(at, next) : escaped("\\u%04x", character);
    at = next;
  }
  return visible;
}

}  // namespace tools
