// check.h - a check of a driver, what it may do, and what becomes of it.
#pragma once
#include <glib.h>

#include <cstdarg>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "handles.h"
#include "subject.h"
#include "trace.h"

namespace compliance {

using tools::Body;
using tools::Handle;
using tools::Object;
using tools::Text;
using tools::UniqueFd;

class Link;

enum class Result { passed, failed, not_applicable };

// Bytes that went over one of a check's connections, in order. Of many, the last are kept; of long ones, the beginning.
struct Traffic {
  enum Direction { sent, received } direction;
  int client;  // counts from 1 in each check
  std::size_t size;
  std::string beginning;
};

// What a check works with. The first verdict stands: after it, every operation of the probe and of its links returns at
// once with nothing done, so that a check reads straight from top to bottom. Without a verdict the check has passed.
class Probe {
  Subject &subject_;
  int timeout_ms_;
  int motion_timeout_ms_;
  guint instance_;
  std::optional<Result> verdict_;
  std::string remark_;
  std::string answer_;
  std::deque<Traffic> traffic_;
  Trace trace_;
  int clients_ = 0;
  guint32 next_id_ = 1001;  // 0 and great ones are what some checks are about

  void decide(std::optional<Result> verdict, const char *format, va_list arguments);

 public:
  // The status is published as that of this PTZ instance; 0 if it was not given.
  Probe(Subject &subject, int timeout_ms, int motion_timeout_ms, guint instance)
      : subject_(subject), timeout_ms_(timeout_ms), motion_timeout_ms_(motion_timeout_ms), instance_(instance) {}
  Probe(const Probe &) = delete;

  void fail(const char *format, ...) G_GNUC_PRINTF(2, 3);
  void fail_unless(bool condition, const char *format, ...) G_GNUC_PRINTF(3, 4);
  // The reason, by which checks are counted, and the driver's answer that it follows from; empty if it was not an
  // answer.
  void not_applicable(const std::string &answer, const char *reason, ...) G_GNUC_PRINTF(3, 4);
  void note(const char *format, ...) G_GNUC_PRINTF(2, 3);  // figures, shown with a check that has passed
  [[nodiscard]] bool decided() const { return verdict_.has_value(); }
  [[nodiscard]] Result result() const { return verdict_.value_or(Result::passed); }
  [[nodiscard]] const std::string &remark() const { return remark_; }  // the reason, or the note
  [[nodiscard]] const std::string &answer() const { return answer_; }  // that made the check inapplicable
  [[nodiscard]] const std::deque<Traffic> &traffic() const { return traffic_; }
  // A driver that died or hangs is the check's fault, whatever it thought of the driver before.
  void overrule(const std::string &reason);

  [[nodiscard]] Link connect();
  void record(Traffic::Direction direction, int client, std::string_view bytes);
  [[nodiscard]] Trace &trace() { return trace_; }
  [[nodiscard]] guint32 new_id() { return next_id_++; }

  [[nodiscard]] Subject &subject() { return subject_; }
  [[nodiscard]] int timeout_ms() const { return timeout_ms_; }
  [[nodiscard]] int motion_timeout_ms() const { return motion_timeout_ms_; }
  [[nodiscard]] guint instance() const { return instance_; }
};

struct Check {
  const char *name;
  const char *title;
  void (*run)(Probe &probe);
};
using Checks = std::span<const Check>;

// One for each file of checks, in the order in which they run.
extern const Checks socket_checks, framing_checks, client_checks, reply_checks, command_checks, capability_checks,
    motion_checks, limit_checks, preset_checks, status_checks, latency_checks, process_checks;

}  // namespace compliance
