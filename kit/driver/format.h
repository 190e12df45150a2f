// kit/driver/format.h - text from a printf-like format.
#pragma once
#include <glib.h>

#include <string>

namespace ptz_kit {

// Out of line: a chain of operator+ takes several times the code.
[[nodiscard]] std::string format(const char *format, ...) G_GNUC_PRINTF(1, 2);

}  // namespace ptz_kit
