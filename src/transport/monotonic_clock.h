// src/transport/monotonic_clock.h - how long a bounded wait has lasted.
#pragma once
#include <glib.h>
#include <ctime>

namespace ptz {

inline timespec monotonic_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

[[nodiscard]] inline gint64 elapsed_ms(const timespec &start, const timespec &now) {
  return (gint64{now.tv_sec} - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1'000'000;
}

}  // namespace ptz
