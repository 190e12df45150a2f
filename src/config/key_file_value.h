// src/config/key_file_value.h - a key file's values as text.
#pragma once
#include <cstring>

#include "base/handles.h"

namespace ptz {

// Resolves the escapes of a key file in place. One that is unknown stays, a lone backslash at the end is left out.
inline void resolve_key_file_escapes(gchar *value) {
  gchar *to = value;
  for (const gchar *from = value; *from != '\0'; ++from) {
    if (*from != '\\') {
      *to++ = *from;
      continue;
    }
    switch (*++from) {
      case 's':
        *to++ = ' ';
        break;
      case 'n':
        *to++ = '\n';
        break;
      case 't':
        *to++ = '\t';
        break;
      case 'r':
        *to++ = '\r';
        break;
      case '\\':
        *to++ = '\\';
        break;
      case '\0':
        --from;
        break;
      default:
        *to++ = '\\';
        *to++ = *from;
        break;
    }
  }
  *to = '\0';
}

// What g_key_file_get_string() returns, with an error or without: null for no such key and for what is not UTF-8. That
// function itself warns of a second error where an unknown escape is followed by a lone backslash at the end.
[[nodiscard]] inline Text key_file_value(GKeyFile *key_file, const gchar *group, const gchar *key) {
  Text value(g_key_file_get_value(key_file, group, key, nullptr));
  if (value == nullptr || !g_utf8_validate(value.get(), -1, nullptr)) return nullptr;
  if (gchar *escape = std::strchr(value.get(), '\\')) resolve_key_file_escapes(escape);
  return value;
}

}  // namespace ptz
