// tests/support/syslog_capture.h - what the test program writes to the system log, kept instead of sent.
#pragma once
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace ptz_test {

struct LogLine {
  int priority;
  std::string text;
  bool operator==(const LogLine &) const = default;
};
inline void PrintTo(const LogLine &line, std::ostream *out) { *out << '<' << line.priority << "> " << line.text; }

// Collects the lines that are logged during its life, from every thread.
class SyslogCapture {
  std::size_t first_;

 public:
  SyslogCapture();
  [[nodiscard]] std::vector<LogLine> lines() const;
  [[nodiscard]] std::size_t count(int priority, std::string_view text) const;  // lines that are exactly this
  [[nodiscard]] std::size_t containing(std::string_view part) const;           // lines that hold this
};

}  // namespace ptz_test
