// report.h - verdicts, as people, TAP readers and other programs want them.
#pragma once
#include <memory>

#include "check.h"

namespace compliance {

struct Outcome {
  Result result;
  std::string remark;
  std::string answer;  // of the driver, which made the check inapplicable; may be empty
  std::deque<Traffic> traffic;
  double ms;

  // "the driver announces no zoom (Get capabilities: move 0x0000003f ...)"
  [[nodiscard]] std::string explanation() const { return answer.empty() ? remark : remark + " (" + answer + ")"; }
};

class Report {
 public:
  virtual ~Report() = default;
  virtual void add(const Check &check, const Outcome &outcome) = 0;
  virtual void finish() = 0;
};

enum class Format { text, tap, json };
std::unique_ptr<Report> make_report(Format format, std::size_t checks, const Subject &subject);
void list_checks(Format format, const std::vector<const Check *> &checks);

}  // namespace compliance
