// html_page.h - a report as one HTML file that needs no other: one style sheet, no script, nothing from a network.
#pragma once
#include "page.h"

namespace tools {

// Safe as text and as a quoted attribute; characters that are not visible are made so.
[[nodiscard]] std::string html_text(const std::string &text);
[[nodiscard]] std::string html_of(const Page &page);

}  // namespace tools
