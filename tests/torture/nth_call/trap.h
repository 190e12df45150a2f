// tests/torture/nth_call/trap.h - makes the n-th system call of a kind fail, made by the library, GLib,
// SQLite or the C library.
//
// A seccomp filter sends the calls of the table to a signal handler, which carries them out, or returns the error
// instead. The filter stays for the life of the process, so a test installs it in a child process.
//
// Time is virtual: a sleep and a wait that times out take at most a moment and move the monotonic clock on.
#pragma once
#include <array>
#include <cstdint>
#include <span>

namespace nth_call {

// Not an error of the kernel: the call transfers one byte.
constexpr int short_transfer = -1;

struct FallibleCall {
  long number;
  const char *name;
  std::array<int, 8> errors;  // ended by 0
};

// The calls that can fail, with the errors that are plausible for each.
[[nodiscard]] std::span<const FallibleCall> fallible_calls();

struct Fault {
  long call = -1;
  int error = 0;
  int nth = 1;
  bool onwards = false;  // all calls after the n-th fail, too; of interruptions a burst
};

// False if the machine has no filters, or is of an architecture that this file does not know.
[[nodiscard]] bool install_trap();

void arm(const Fault &fault);
// Returns how many calls have failed.
int disarm();

// Calls that were made since arm(): of one kind, by its place in the table, and of all.
[[nodiscard]] std::uint32_t calls_made(std::size_t place);
[[nodiscard]] std::uint32_t all_calls_made();

[[nodiscard]] bool is_peer();

// While it lives, calls of this thread do not fail and are not counted: those of a peer.
class AsPeer {
 public:
  AsPeer();
  AsPeer(const AsPeer &) = delete;
  ~AsPeer();
};

}  // namespace nth_call
