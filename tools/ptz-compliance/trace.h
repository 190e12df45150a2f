// trace.h - what the frames of a check tell of the driver: how long its replies took, and how its head moved.
#pragma once
#include <map>
#include <string_view>
#include <vector>

#include "motion_trace.h"

namespace compliance {

class Trace {
  std::map<guint32, gint64> unanswered_;  // when each request was sent, by message id
  std::vector<double> latencies_us_;
  tools::MotionTrace motion_;

 public:
  void sent(guint32 id, std::string_view body);
  void received(guint32 id, std::string_view body);
  [[nodiscard]] const std::vector<double> &latencies_us() const { return latencies_us_; }
  [[nodiscard]] const tools::MotionTrace &motion() const { return motion_; }
};

}  // namespace compliance
