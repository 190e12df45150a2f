// fuzz/fuzz_target.h - what every fuzz target has: an entry point, and laws that must hold for any input.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Called with each input, over and over in one process: whatever it starts it ends before it returns.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// A law that does not hold is a finding: it ends the process, which leaves the input behind.
#define REQUIRE(condition)                                                         \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)
