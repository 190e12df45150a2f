// tools/doctor/shell_text.h - words of a command that a user pastes into a shell.
#pragma once
#include <string>
#include <vector>

namespace ptzctl {

// The word as a POSIX shell reads it back; with control characters, as bash, zsh and ksh do.
[[nodiscard]] std::string quoted(const std::string &word);
[[nodiscard]] std::string quoted(const std::vector<std::string> &words);

}  // namespace ptzctl
