// statistics.h - what is told of many measurements.
#pragma once
#include <algorithm>
#include <cstddef>
#include <vector>

namespace bench {

inline double quantile(std::vector<double> values, double part) {
  const auto at = std::min(static_cast<std::size_t>(part * static_cast<double>(values.size())), values.size() - 1);
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(at));
  return values[at];
}

inline double median(const std::vector<double> &values) { return quantile(values, 0.5); }

// One measure by another, each pair from the same round; the median over the rounds.
inline double ratio(const std::vector<double> &numerators, const std::vector<double> &denominators) {
  std::vector<double> ratios;
  for (std::size_t i = 0; i < numerators.size(); ++i) ratios.push_back(numerators[i] / denominators[i]);
  return median(ratios);
}

}  // namespace bench
