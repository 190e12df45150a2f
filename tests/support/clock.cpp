#include "clock.h"

#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <ctime>

#include "interpose.h"

namespace {
constexpr std::int64_t nanoseconds_per_second = 1'000'000'000;
std::atomic<std::int64_t> offset_ns = 0;
}  // namespace

namespace ptz_test {

void advance_clock(std::int64_t milliseconds) { offset_ns += milliseconds * 1'000'000; }

std::int64_t real_time_ms() {
  timespec now{};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return now.tv_sec * std::int64_t{1000} + now.tv_nsec / 1'000'000;
}

}  // namespace ptz_test

INTERPOSE(int, clock_gettime, (clockid_t clock, timespec *time)) {
  const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  if (result == 0 && (clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_COARSE)) {
    const std::int64_t moved = time->tv_sec * nanoseconds_per_second + time->tv_nsec + offset_ns;
    time->tv_sec = moved / nanoseconds_per_second;
    time->tv_nsec = moved % nanoseconds_per_second;
  }
  return result;
}
