// tests/support/clock.h - the monotonic clock of the test program, which a test may move; GLib's timers follow it.
#pragma once
#include <cstdint>

namespace ptz_test {

// Moves the monotonic clock of the whole process on. It never moves back: tests measure differences.
void advance_clock(std::int64_t milliseconds);

// Milliseconds of real time, which nobody moves.
[[nodiscard]] std::int64_t real_time_ms();

}  // namespace ptz_test
