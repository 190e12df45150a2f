#include "time_text.h"

#include <cmath>
#include <utility>

#include "handles.h"

namespace tools {

namespace {

constexpr gint64 ns_per_s = 1'000'000'000;

std::string local_text(gint64 real_time_s, const char *format) {
  const Handle<GDateTime, g_date_time_unref> time(g_date_time_new_from_unix_local(real_time_s));
  const Text text(time != nullptr ? g_date_time_format(time.get(), format) : g_strdup("-"));
  return text.get();
}

}  // namespace

std::string number_text(double number, int digits) {
  char format[8];
  g_snprintf(format, sizeof format, "%%.%df", digits);
  char text[G_ASCII_DTOSTR_BUF_SIZE + 320];
  const std::string shown = g_ascii_formatd(text, sizeof text, format, number);
  return shown.find_first_not_of("-0.") == std::string::npos && shown.front() == '-' ? shown.substr(1) : shown;
}

std::string duration_text(double microseconds) {
  const auto [value, unit] = microseconds < 1000     ? std::pair(microseconds, " µs")
                             : microseconds < 1000e3 ? std::pair(microseconds / 1000, " ms")
                                                     : std::pair(microseconds / 1e6, " s");
  const bool is_whole = value >= 100 || std::abs(value - std::round(value)) < 0.005;
  return number_text(value, is_whole ? 0 : value >= 10 ? 1 : 2) + unit;
}

std::string clock_text(gint64 real_time_ns) {
  const Text fraction(g_strdup_printf(".%06d", static_cast<int>(real_time_ns % ns_per_s / 1000)));
  return local_text(real_time_ns / ns_per_s, "%H:%M:%S") + fraction.get();
}

std::string local_time_text(gint64 real_time_us) {
  return local_text(real_time_us / G_USEC_PER_SEC, "%Y-%m-%d %H:%M:%S %z");
}

}  // namespace tools
