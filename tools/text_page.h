// text_page.h - a report as plain text. Diagrams become their descriptions.
#pragma once
#include "page.h"

namespace tools {

[[nodiscard]] std::string text_of(const Page &page);

}  // namespace tools
