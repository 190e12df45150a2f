// report.h - verdicts, as people, TAP readers and other programs want them.
#pragma once
#include <memory>

#include "check.h"
#include "trace.h"

namespace compliance {

struct Outcome {
  Result result;
  std::string remark;
  std::string answer;  // of the driver, which made the check inapplicable; may be empty
  std::deque<Traffic> traffic;
  double ms;
  Trace trace;

  // "the driver announces no zoom (Get capabilities: move 0x0000003f ...)"
  [[nodiscard]] std::string explanation() const { return answer.empty() ? remark : remark + " (" + answer + ")"; }
};

[[nodiscard]] const char *name_of(Traffic::Direction direction);
// "0c 00 00 00 ... (300 bytes)"
[[nodiscard]] std::string hex(const Traffic &traffic);

class Report {
 public:
  virtual ~Report() = default;
  virtual void add(const Check &check, const Outcome &outcome) = 0;
  [[nodiscard]] virtual std::string finish() = 0;  // the problem, or empty
};

enum class Format { text, tap, json };
std::unique_ptr<Report> make_report(Format format, std::size_t checks, const Subject &subject);
// Writes the page at the end.
std::unique_ptr<Report> make_html_report(const std::string &path, const Subject &subject);
void list_checks(Format format, const std::vector<const Check *> &checks);

}  // namespace compliance
