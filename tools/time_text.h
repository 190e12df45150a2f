// time_text.h - times and durations as the tools print them.
#pragma once
#include <glib.h>

#include <string>

namespace tools {

// With so many digits after the point, whatever the locale.
[[nodiscard]] std::string number_text(double number, int digits);
// "350 µs", "2.50 ms", "1 s"
[[nodiscard]] std::string duration_text(double microseconds);
// "14:34:29.123456", local
[[nodiscard]] std::string clock_text(gint64 real_time_ns);
// "2026-11-22 14:34:29 +0000"
[[nodiscard]] std::string local_time_text(gint64 real_time_us);

}  // namespace tools
