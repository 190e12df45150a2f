#include "load.h"

#include <ptz_kit_monitor.h>

#include "handles.h"

namespace ptzctl {

namespace {

// 0 if the driver began to count anew.
guint64 growth(guint64 from, guint64 to) { return to > from ? to - from : 0; }

double per_second(guint64 count, gint64 us) {
  return static_cast<double>(count) * G_USEC_PER_SEC / static_cast<double>(us);
}

tools::Variant growth_of(const std::vector<guint32> &from, const std::vector<guint32> &to) {
  std::vector<guint32> difference(to.size());
  for (std::size_t i = 0; i < to.size(); ++i) {
    difference[i] = static_cast<guint32>(growth(i < from.size() ? from[i] : 0, to[i]));
  }
  GVariant *const floating =
      g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, difference.data(), difference.size(), sizeof(guint32));
  return tools::Variant(g_variant_ref_sink(floating));
}

}  // namespace

Counters::Counters(GVariant *figures) {
  guint64 received = 0, sent = 0;
  g_variant_lookup(figures, "requests", "t", &requests);
  g_variant_lookup(figures, "errors", "t", &errors);
  g_variant_lookup(figures, "bytes-received", "t", &received);
  g_variant_lookup(figures, "bytes-sent", "t", &sent);
  g_variant_lookup(figures, "unsent-replies", "t", &unsent);
  g_variant_lookup(figures, "timeouts", "t", &timeouts);
  g_variant_lookup(figures, "pending", "u", &pending);
  bytes = received + sent;
  const tools::Variant histogram(g_variant_lookup_value(figures, "latency", G_VARIANT_TYPE("au")));
  if (histogram == nullptr) return;
  gsize count = 0;
  const auto *const buckets =
      static_cast<const guint32 *>(g_variant_get_fixed_array(histogram.get(), &count, sizeof(guint32)));
  latency.assign(buckets, buckets + count);
}

Load LoadHistory::load_of(const std::string &key, gint64 time_us, const Counters &counters) {
  Past &past = past_[key];
  past.is_present = true;
  Load load;
  load.total = counters;
  if (!past.samples.empty() && time_us > past.samples.back().time_us) {
    const Sample &last = past.samples.back();
    const gint64 interval_us = time_us - last.time_us;
    load.requests_per_s = per_second(growth(last.counters.requests, counters.requests), interval_us);
    load.bytes_per_s = per_second(growth(last.counters.bytes, counters.bytes), interval_us);
    const tools::Variant histogram = growth_of(past.samples.front().counters.latency, counters.latency);
    load.p50_us = ptz_kit_latency_quantile(histogram.get(), 0.5);
    load.p99_us = ptz_kit_latency_quantile(histogram.get(), 0.99);
  }
  past.samples.push_back({time_us, counters});
  if (past.samples.size() > intervals) past.samples.pop_front();
  return load;
}

void LoadHistory::keep(const std::string &key) {
  if (const auto found = past_.find(key); found != past_.end()) found->second.is_present = true;
}

void LoadHistory::end_of_round() {
  std::erase_if(past_, [](const auto &each) { return !each.second.is_present; });
  for (auto &[key, past] : past_) past.is_present = false;
}

}  // namespace ptzctl
