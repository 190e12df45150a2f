// load.h - what a driver or a client did in the last interval, from the figures that the driver counts.
#pragma once
#include <glib.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

namespace ptzctl {

// Since the driver, or the connection, began.
struct Counters {
  guint64 requests = 0, errors = 0, bytes = 0, unsent = 0, timeouts = 0;
  guint32 pending = 0;
  std::vector<guint32> latency;  // a histogram, see ptz_kit_latency_bucket_limit()

  Counters() = default;
  explicit Counters(GVariant *figures);  // a dictionary of ptz_kit_monitor_get_figures(); what it lacks is 0
};

struct Load {
  Counters total;
  double requests_per_s = -1, bytes_per_s = -1;  // in the last interval; negative if there was none
  double p50_us = -1, p99_us = -1;               // in the last intervals; negative if nothing was answered
};

// Remembers what was counted before. A key is a driver, or a client of one.
class LoadHistory {
  static constexpr std::size_t intervals = 10;  // of which the quantiles are
  struct Sample {
    gint64 time_us;
    Counters counters;
  };
  struct Past {
    std::deque<Sample> samples;
    bool is_present = true;
  };
  std::map<std::string, Past> past_;

 public:
  [[nodiscard]] Load load_of(const std::string &key, gint64 time_us, const Counters &counters);
  // For what was not counted this time.
  void keep(const std::string &key);
  // Forgets what was neither counted nor kept since the last call.
  void end_of_round();
};

}  // namespace ptzctl
