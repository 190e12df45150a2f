// plain_text.h - text of other processes, as it may be printed.
#pragma once
#include <string>

namespace tools {

// On one line and in UTF-8: each character that begins a line, controls a terminal or cannot be seen is '?'.
[[nodiscard]] std::string plain_text(const std::string &text);

// What plain_text() replaces by '?' is written as "\n", "\x1b" or "\u202e", and a backslash as two.
[[nodiscard]] std::string escaped_text(const std::string &text);
// The same between quotes, with the quotes in it escaped.
[[nodiscard]] std::string quoted_text(const std::string &text);

}  // namespace tools
