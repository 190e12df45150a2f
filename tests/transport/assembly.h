// tests/transport/assembly.h - a frame assembler and the fields that it works on.
#pragma once
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "transport/frame_assembler.h"

namespace ptz_test {

struct Assembly {
  // On the heap and without a spare byte, so that the address sanitizer sees every access beyond it.
  std::unique_ptr<guint8[]> buffer = std::make_unique<guint8[]>(PTZ_SOCKET_FRAME_MAX);
  guint32 fill = 0;
  guint32 expected = PTZ_SOCKET_FRAME_UNKNOWN;
  ptz::frame::FrameAssembler assembler{buffer.get(), &fill, &expected};

  // As many of the bytes as the assembler wants; removes them from the text.
  ptz::frame::FrameAssembler::Progress put_wanted(std::string_view &bytes) {
    const auto room = assembler.wanted();
    const auto count = std::min(room.size(), bytes.size());
    std::copy_n(bytes.begin(), count, room.begin());
    bytes.remove_prefix(count);
    return assembler.take(count);
  }
  [[nodiscard]] std::string received() const { return text_of(assembler.received()); }
  [[nodiscard]] std::string body() const { return text_of(assembler.body()); }

  [[nodiscard]] static std::string text_of(std::span<const guint8> bytes) {
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
  }
};

[[nodiscard]] inline std::span<const guint8> bytes_of(std::string_view text) {
  return {reinterpret_cast<const guint8 *>(text.data()), text.size()};
}

}  // namespace ptz_test
