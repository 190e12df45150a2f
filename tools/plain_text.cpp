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

}  // namespace tools
