#include "plain_text.h"

#include "handles.h"

namespace tools {

std::string plain_text(const std::string &text) {
  const Text valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  std::string plain;
  const char *next = nullptr;
  for (const char *at = valid.get(); *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    plain += g_unichar_isprint(g_utf8_get_char(at)) != FALSE ? std::string(at, next) : "?";
  }
  return plain;
}

namespace {

std::string escaped(const std::string &text, gunichar quote) {
  const Text valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())));
  std::string result;
  const char *next = nullptr;
  for (const char *at = valid.get(); *at != '\0'; at = next) {
    next = g_utf8_next_char(at);
    const gunichar letter = g_utf8_get_char(at);
    if (letter == '\\' || letter == quote) {
      result += std::string("\\") + *at;
    } else if (g_unichar_isprint(letter) != FALSE) {
      result.append(at, next);
    } else if (letter == '\n' || letter == '\t') {
      result += letter == '\n' ? "\\n" : "\\t";
    } else {
      const Text code(g_strdup_printf(letter < 0x100 ? "\\x%02x" : "\\u%04x", letter));
      result += code.get();
    }
  }
  return result;
}

}  // namespace

std::string escaped_text(const std::string &text) { return escaped(text, 0); }
std::string quoted_text(const std::string &text) { return "\"" + escaped(text, '"') + "\""; }

}  // namespace tools
