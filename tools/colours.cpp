#include "colours.h"

#include <unistd.h>

#include <array>
#include <cstdlib>

namespace {

constexpr std::array<const char *, 5> codes = {"0", "1", "33", "32", "31"};  // by Look
bool are_on = false;

}  // namespace

bool choose_colours(const std::string &when) {
  const char *const refusal = std::getenv("NO_COLOR");
  const bool are_welcome = isatty(STDOUT_FILENO) != 0 && (refusal == nullptr || *refusal == '\0');
  are_on = when == "always" || (when == "auto" && are_welcome);
  return when == "always" || when == "auto" || when == "never";
}

bool colours_are_on() { return are_on; }

std::string painted(Look look, const std::string &text) {
  if (!are_on || look == Look::plain) return text;
  return std::string("\x1b[") + codes[static_cast<std::size_t>(look)] + "m" + text + "\x1b[0m";
}
