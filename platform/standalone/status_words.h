// platform/standalone/status_words.h - words of shared memory, and the checksum of a run of words.
#pragma once
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace ptz::platform {

using Word = std::uint64_t;
static_assert(std::atomic_ref<Word>::is_always_lock_free, "a reader may not take locks that it shares with writers");

constexpr std::uint32_t words_for(std::size_t bytes) {
  return static_cast<std::uint32_t>((bytes + sizeof(Word) - 1) / sizeof(Word));
}

inline Word load(const Word &word) {
  return std::atomic_ref<Word>(const_cast<Word &>(word)).load(std::memory_order_acquire);
}
inline void store(Word &word, Word value) { std::atomic_ref<Word>(word).store(value, std::memory_order_release); }

constexpr Word mix(Word sum, Word word) {
  constexpr Word odd = 0x9E3779B97F4A7C15;
  return (sum ^ word) * odd;
}

// Copies words and returns their checksum. Four sums side by side, since each step of one waits for the step before.
template <typename Copy>
Word copy_words(std::uint32_t count, Copy copy) {
  Word sums[4] = {count, 1, 2, 3};
  std::uint32_t i = 0;
  for (; i + 4 <= count; i += 4) {
    for (std::uint32_t lane = 0; lane < 4; ++lane) sums[lane] = std::rotl(sums[lane], 7) ^ copy(i + lane);
  }
  for (; i < count; ++i) sums[i % 4] = std::rotl(sums[i % 4], 7) ^ copy(i);
  Word all = 0;
  for (const Word sum : sums) all = mix(all, sum);
  return all;
}

}  // namespace ptz::platform
