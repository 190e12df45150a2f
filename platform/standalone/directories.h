// platform/standalone/directories.h - the directories of the stand-alone platform, which the environment may change.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>

namespace ptz::platform {

// A directory that an environment variable names. getenv() is slow in a large environment and races with setenv() in
// other threads, so a caller that runs often uses recent(), which is at most a second old.
class DirectorySetting {
  struct Known {
    std::string path;
    Known *next;
  };
  const char *const variable_, *const fallback_;
  Known *known_ = nullptr;
  std::atomic<const std::string *> current_ = nullptr;
  std::atomic<std::int64_t> read_at_ns_ = 0;

 public:
  static constexpr std::int64_t max_age_ns = 990'000'000;  // a coarse clock may be up to 10 ms late

  constexpr DirectorySetting(const char *variable, const char *fallback) : variable_(variable), fallback_(fallback) {}

  // Equal paths are the same object, which is never freed. Returns nullptr if the environment was last read more than a
  // second before `now_ns`, a time of the monotonic clock.
  [[nodiscard]] const std::string *recent(std::int64_t now_ns) const {
    const auto *path = current_.load(std::memory_order_acquire);
    return now_ns - read_at_ns_.load(std::memory_order_relaxed) < max_age_ns ? path : nullptr;
  }

  // Reads the environment. The caller serialises calls, and keeps fork() out of them.
  [[nodiscard]] const std::string &read(std::int64_t now_ns);
};

}  // namespace ptz::platform
