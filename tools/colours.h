// colours.h - colours for people who look at a terminal, and for nobody else.
#pragma once
#include <string>

enum class Look { plain, heading, notice, good, bad };

// Takes "always", "never" or "auto": on a terminal, unless NO_COLOR is set. False for any other word.
[[nodiscard]] bool choose_colours(const std::string &when);
[[nodiscard]] bool colours_are_on();

// The text in its colour, or as it is.
[[nodiscard]] std::string painted(Look look, const std::string &text);
