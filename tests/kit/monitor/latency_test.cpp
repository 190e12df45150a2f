// The histogram of latencies, as a reader of the figures sees it.
#include <gtest/gtest.h>
#include <ptz_kit.h>

#include <vector>

namespace {

double quantile_of(const std::vector<guint32> &counts, double quantile) {
  GVariant *histogram = g_variant_ref_sink(
      g_variant_new_fixed_array(G_VARIANT_TYPE_UINT32, counts.data(), counts.size(), sizeof(guint32)));
  const double result = ptz_kit_latency_quantile(histogram, quantile);
  g_variant_unref(histogram);
  return result;
}

TEST(LatencyBucketLimit, OfFirstBucketsIsTheNextMicrosecond) {
  for (guint i = 0; i < 8; ++i) EXPECT_EQ(ptz_kit_latency_bucket_limit(i), i + 1);
}

TEST(LatencyBucketLimit, DoublesEveryFourBuckets) {
  for (guint i = 4; i + 4 < 100; ++i) {
    EXPECT_EQ(ptz_kit_latency_bucket_limit(i + 4), 2 * ptz_kit_latency_bucket_limit(i)) << i;
    EXPECT_GT(ptz_kit_latency_bucket_limit(i + 1), ptz_kit_latency_bucket_limit(i)) << i;
  }
}

TEST(LatencyBucketLimit, OfLastBucketAndBeyondIsTheLargestNumber) {
  EXPECT_EQ(ptz_kit_latency_bucket_limit(99), 1U << 26);
  EXPECT_EQ(ptz_kit_latency_bucket_limit(100), G_MAXUINT64);
  EXPECT_EQ(ptz_kit_latency_bucket_limit(101), G_MAXUINT64);
  EXPECT_EQ(ptz_kit_latency_bucket_limit(G_MAXUINT), G_MAXUINT64);
}

TEST(LatencyQuantile, OfEmptyHistogramIsMinusOne) {
  EXPECT_EQ(quantile_of({}, 0.5), -1);
  EXPECT_EQ(quantile_of({0, 0, 0}, 0.5), -1);
}

TEST(LatencyQuantile, LiesWithinTheBucketOfItsRank) {
  std::vector<guint32> counts(101);
  counts[10] = 98;
  counts[40] = 2;
  EXPECT_GE(quantile_of(counts, 0.5), ptz_kit_latency_bucket_limit(9));
  EXPECT_LE(quantile_of(counts, 0.5), ptz_kit_latency_bucket_limit(10));
  EXPECT_GE(quantile_of(counts, 0.99), ptz_kit_latency_bucket_limit(39));
  EXPECT_LE(quantile_of(counts, 0.99), ptz_kit_latency_bucket_limit(40));
  EXPECT_EQ(quantile_of(counts, 0), ptz_kit_latency_bucket_limit(9));
  EXPECT_EQ(quantile_of(counts, 1), ptz_kit_latency_bucket_limit(40));
}

TEST(LatencyQuantile, InLastBucketIsItsBeginning) {
  std::vector<guint32> counts(101);
  counts[100] = 1;
  EXPECT_EQ(quantile_of(counts, 0.5), 1U << 26);
}

}  // namespace
