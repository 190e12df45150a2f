#include "doctor/shell_text.h"

#include <glib.h>

#include <algorithm>

#include "handles.h"

namespace ptzctl {

namespace {

bool is_plain(unsigned char letter) {
  return g_ascii_isalnum(static_cast<char>(letter)) ||
         std::string_view("_./:@%+,-=").find(static_cast<char>(letter)) != std::string_view::npos;
}

bool is_control(unsigned char letter) { return letter < 0x20 || letter == 0x7f; }

// Terminals would obey control characters, and refuse bytes that are not UTF-8.
std::string escaped(const std::string &word) {
  constexpr char digits[] = "01234567";
  std::string text = "$'";
  for (const char each : word) {
    const auto letter = static_cast<unsigned char>(each);
    if (letter == '\'' || letter == '\\') {
      text += '\\';
      text += each;
    } else if (is_control(letter) || letter >= 0x80) {
      text += {'\\', digits[letter >> 6], digits[letter >> 3 & 7], digits[letter & 7]};
    } else {
      text += each;
    }
  }
  return text + "'";
}

}  // namespace

std::string quoted(const std::string &word) {
  if (!word.empty() && std::ranges::all_of(word, is_plain)) return word;
  if (std::ranges::any_of(word, is_control) || g_utf8_validate(word.c_str(), -1, nullptr) == FALSE)
    return escaped(word);
  const tools::Text text(g_shell_quote(word.c_str()));
  return text.get();
}

std::string quoted(const std::vector<std::string> &words) {
  std::string text;
  for (const auto &each : words) text += (text.empty() ? "" : " ") + quoted(each);
  return text;
}

}  // namespace ptzctl
