#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "interpose.h"
#include "syslog_capture.h"

namespace {

std::mutex &lines_lock() {
  static std::mutex lock;
  return lock;
}

std::vector<ptz_test::LogLine> &all_lines() {
  static std::vector<ptz_test::LogLine> lines;
  return lines;
}

}  // namespace

namespace ptz_test {

SyslogCapture::SyslogCapture() {
  const std::lock_guard lock(lines_lock());
  first_ = all_lines().size();
}

std::vector<LogLine> SyslogCapture::lines() const {
  const std::lock_guard lock(lines_lock());
  return {all_lines().begin() + static_cast<std::ptrdiff_t>(first_), all_lines().end()};
}

std::size_t SyslogCapture::count(int priority, std::string_view text) const {
  const auto seen = lines();
  return std::count_if(seen.begin(), seen.end(),
                       [&](const LogLine &line) { return line.priority == priority && line.text == text; });
}

std::size_t SyslogCapture::containing(std::string_view part) const {
  const auto seen = lines();
  return std::count_if(seen.begin(), seen.end(),
                       [&](const LogLine &line) { return line.text.find(part) != std::string::npos; });
}

}  // namespace ptz_test

INTERPOSE(void, syslog, (int priority, const char *format, ...)) {
  const int saved_errno = errno;  // what "%m" prints
  char text[4096];
  va_list arguments;
  va_start(arguments, format);
  errno = saved_errno;
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  {
    const std::lock_guard lock(lines_lock());
    all_lines().push_back({priority, text});
  }
  errno = saved_errno;
}
