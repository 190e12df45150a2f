// tests/torture/nth_call/ledger.h - what the program holds: blocks of memory, open descriptors, and lines that it
// logged.
#pragma once
#include <string>

namespace nth_call {

[[nodiscard]] long live_blocks();
[[nodiscard]] int open_descriptors();

void forget_log();
[[nodiscard]] std::string log_text();
[[nodiscard]] bool critical_was_logged();

}  // namespace nth_call
