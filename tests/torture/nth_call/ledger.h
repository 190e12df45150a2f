// tests/torture/nth_call/ledger.h - what the program holds: blocks of memory, open descriptors, and lines that it
// logged.
#pragma once
#include <string>

namespace nth_call {

[[nodiscard]] long live_blocks();
[[nodiscard]] int open_descriptors();

// Since the start of the program, by threads that are not peers.
[[nodiscard]] long allocations_made();
[[nodiscard]] long locks_taken();

void forget_log();
[[nodiscard]] std::string log_text();
[[nodiscard]] bool critical_was_logged();

}  // namespace nth_call
