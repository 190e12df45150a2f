// fuzz/input.h - reads an input of the fuzzer from its front.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ptz_fuzz {

// Returns zeros once the input is used up.
class Input {
  std::string_view rest_;

 public:
  Input(const std::uint8_t *data, std::size_t size) : rest_(reinterpret_cast<const char *>(data), size) {}
  [[nodiscard]] bool empty() const { return rest_.empty(); }

  std::uint8_t byte() {
    const auto first = bytes(1);
    return first.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(first.front());
  }

  // As many as there are, at most this many.
  std::string_view bytes(std::size_t most) {
    const auto taken = rest_.substr(0, most);
    rest_.remove_prefix(taken.size());
    return taken;
  }
};

}  // namespace ptz_fuzz
