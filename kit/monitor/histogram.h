// kit/monitor/histogram.h - a histogram of latencies in buckets of about a fifth of their value.
#pragma once
#include <glib.h>

#include <array>
#include <bit>

namespace ptz_kit {

// Below four microseconds there is one bucket for each, from there on four for each power of two. The last one counts
// everything from 2^26 us, about a minute, on.
class Histogram {
  static constexpr int linear_bits = 2;
  static constexpr int last_bits = 26;

 public:
  static constexpr guint bucket_count = 4 + 4 * (last_bits - linear_bits) + 1;

  [[nodiscard]] static constexpr guint bucket_of(guint64 latency_us) {
    if (latency_us < 4) return static_cast<guint>(latency_us);
    const int power = std::bit_width(latency_us) - 1;
    if (power >= last_bits) return bucket_count - 1;
    return static_cast<guint>(4 * (power - linear_bits + 1)) + static_cast<guint>(latency_us >> (power - 2) & 3);
  }
  [[nodiscard]] static constexpr guint64 limit_of(guint bucket) {
    if (bucket < 4) return bucket + 1;
    if (bucket >= bucket_count - 1) return G_MAXUINT64;
    const guint power = bucket / 4 + 1;
    return (guint64{bucket % 4} + 5) << (power - 2);
  }

  void add(guint64 latency_us) {
    // Halving keeps the quantiles.
    if (++counts_[bucket_of(latency_us)] == G_MAXUINT32) {
      for (guint32 &count : counts_) count /= 2;
    }
  }
  [[nodiscard]] const std::array<guint32, bucket_count> &counts() const { return counts_; }

 private:
  std::array<guint32, bucket_count> counts_ = {};
};

}  // namespace ptz_kit
