// src/base/clock.h - the one way in which the library reads a clock.
#pragma once
#include <glib.h>
#include <ctime>

namespace ptz {

// Zero if the clock cannot be read. Goes through the plain clock_gettime symbol, so that tests can move the clock.
[[nodiscard]] inline timespec clock_now(clockid_t clock = CLOCK_MONOTONIC) {
  timespec now = {};
  if (clock_gettime(clock, &now) < 0) now = {};
  return now;
}

[[nodiscard]] inline gint64 clock_now_ns(clockid_t clock = CLOCK_MONOTONIC) {
  const timespec now = clock_now(clock);
  return now.tv_sec * gint64{1'000'000'000} + now.tv_nsec;
}

// Whole milliseconds, each part rounded towards zero.
[[nodiscard]] inline gint64 elapsed_ms(const timespec &start, const timespec &now) {
  return (gint64{now.tv_sec} - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1'000'000;
}

}  // namespace ptz
