#include <ptz_kit_monitor.h>

#include <algorithm>
#include <cmath>

#include "monitor/histogram.h"

using ptz_kit::Histogram;

guint64 ptz_kit_latency_bucket_limit(guint index) { return Histogram::limit_of(index); }

gdouble ptz_kit_latency_quantile(GVariant *histogram, gdouble quantile) {
  g_return_val_if_fail(histogram != NULL, -1);
  g_return_val_if_fail(g_variant_is_of_type(histogram, G_VARIANT_TYPE("au")), -1);
  g_return_val_if_fail(quantile >= 0 && quantile <= 1, -1);
  gsize count = 0;
  const auto *buckets = static_cast<const guint32 *>(g_variant_get_fixed_array(histogram, &count, sizeof(guint32)));
  guint64 total = 0;
  for (gsize i = 0; i < count; ++i) total += buckets[i];
  if (total == 0) return -1;
  const double rank = quantile * static_cast<double>(total);
  double below = 0;
  for (gsize i = 0; i < count; ++i) {
    if (buckets[i] == 0 || below + buckets[i] < rank) {
      below += buckets[i];
      continue;
    }
    const guint64 least = i == 0 ? 0 : ptz_kit_latency_bucket_limit(static_cast<guint>(i) - 1);
    const guint64 limit = ptz_kit_latency_bucket_limit(static_cast<guint>(i));
    if (limit == G_MAXUINT64) return static_cast<double>(least);
    return static_cast<double>(least) + static_cast<double>(limit - least) * (rank - below) / buckets[i];
  }
  return -1;
}
