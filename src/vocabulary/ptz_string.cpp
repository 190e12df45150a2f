#include "ptz_string.h"

#include "base/check.h"

namespace {

constexpr gsize token_bytes = 50;        // with the NUL
constexpr gsize token_length_full = 48;  // tested after a letter, so a separator before it may lead one further

}  // namespace

gchar *CamelCase2token(const gchar *CamelCase, gchar separator) {
  assert_in("ptz_string", CamelCase != NULL);
  auto *token = static_cast<gchar *>(g_malloc(token_bytes));
  gsize length = 0;
  gchar previous = '\0';
  for (const gchar *letter = CamelCase; *letter != '\0' && length < token_length_full; ++letter) {
    if (g_ascii_isupper(*letter) && g_ascii_islower(previous)) token[length++] = separator;
    token[length++] = g_ascii_tolower(*letter);
    previous = *letter;
  }
  token[length] = '\0';
  return token;
}

gchar *CamelCase2hyphen(const gchar *CamelCase) { return CamelCase2token(CamelCase, '-'); }

gchar *CamelCase2uscore(const gchar *CamelCase) { return CamelCase2token(CamelCase, '_'); }
