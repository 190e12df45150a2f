#include "terminal.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace example {

namespace {

constexpr const char *bold = "\033[1m";
constexpr const char *green = "\033[32m";
constexpr const char *red = "\033[31m";
constexpr const char *plain = "\033[0m";

std::string with_decimals(gint32 hundredths, const char *unit) {
  std::array<char, 32> text;
  g_snprintf(text.data(), text.size(), "%.2f", hundredths / 100.0);
  return text.data() + std::string(unit);
}

}  // namespace

std::string in_degrees(gint32 hundredths) { return with_decimals(hundredths, g_get_charset(nullptr) ? "°" : " deg"); }
std::string in_magnification(gint32 hundredths) { return with_decimals(hundredths, "x"); }
std::string in_unit(PTZKitAxis axis, gint32 value) {
  return axis == PTZ_KIT_AXIS_ZOOM ? in_magnification(value) : in_degrees(value);
}

std::string describe(const gint32 *position) {
  return "pan " + in_degrees(position[PTZ_KIT_AXIS_PAN]) + ", tilt " + in_degrees(position[PTZ_KIT_AXIS_TILT]) +
         ", zoom " + in_magnification(position[PTZ_KIT_AXIS_ZOOM]);
}

bool is_idle(const PTZKitQueryPositionReply &reply) {
  return std::ranges::all_of(reply.status, [](gint32 status) { return status == PTZ_MOVE_STATUS_IDLE; });
}

std::string right_aligned(const std::string &text, glong width) {
  const glong missing = width - g_utf8_strlen(text.c_str(), -1);
  return std::string(missing > 0 ? static_cast<std::size_t>(missing) : 0, ' ') + text;
}

std::string in_columns(const gint32 *position) {
  const auto cell = [&](PTZKitAxis axis, glong width) { return right_aligned(in_unit(axis, position[axis]), width); };
  return "pan " + cell(PTZ_KIT_AXIS_PAN, 8) + "  tilt " + cell(PTZ_KIT_AXIS_TILT, 7) + "  zoom " +
         cell(PTZ_KIT_AXIS_ZOOM, 6);
}

Terminal::Terminal() : interactive_(isatty(STDOUT_FILENO) == 1 && g_strcmp0(std::getenv("TERM"), "dumb") != 0) {
  setvbuf(stdout, nullptr, _IOLBF, 0);  // the reader of a pipe sees each line at once
}

void Terminal::end_live() {
  if (live_) std::fputs("\n", stdout);
  live_ = false;
}

void Terminal::print(const char *colour, const char *prefix, const std::string &text) {
  end_live();
  const bool coloured = interactive_ && colour != nullptr;
  std::printf("%s%s%s%s\n", coloured ? colour : "", prefix, coloured ? plain : "", text.c_str());
}

void Terminal::heading(const std::string &text) {
  end_live();
  std::printf("\n%s%s%s\n", interactive_ ? bold : "", text.c_str(), interactive_ ? plain : "");
}
void Terminal::line(const std::string &text) { print(nullptr, "   ", text); }
void Terminal::good(const std::string &text) { print(green, "   ok  ", text); }
void Terminal::bad(const std::string &text) { print(red, "   FAILED  ", text); }

void Terminal::live(const std::string &text) {
  if (!interactive_) return line(text);
  std::printf("\r\033[K   %s", text.c_str());
  std::fflush(stdout);
  live_ = true;
}

}  // namespace example
