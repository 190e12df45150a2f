// packet.h - one VISCA packet: header, message, terminator; 3 to 16 bytes.
#pragma once
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>

namespace visca {

using Byte = std::uint8_t;
using ByteSpan = std::span<const Byte>;

constexpr Byte terminator = 0xff;
constexpr std::size_t shortest_packet = 3, longest_packet = 16;
constexpr Byte first_camera = 1, last_camera = 7, broadcast = 8;

// A packet that is built piece by piece; never longer than a packet may be.
class Packet {
  std::array<Byte, longest_packet> bytes_ = {};
  std::size_t size_ = 0;

 public:
  constexpr Packet() = default;
  // To a camera, or to all of them.
  constexpr Packet(Byte receiver, std::initializer_list<Byte> message) {
    add(static_cast<Byte>(0x80 | receiver));
    for (const Byte byte : message) add(byte);
  }
  constexpr void add(Byte byte) {
    if (size_ < longest_packet) bytes_[size_++] = byte;
  }
  // A number as `count` bytes with four bits each, the highest first.
  constexpr void add_nibbles(std::uint32_t number, unsigned count) {
    for (unsigned left = count; left > 0; --left) add((number >> (4 * (left - 1))) & 0xf);
  }
  [[nodiscard]] constexpr Packet ended() const {
    Packet whole = *this;
    whole.add(terminator);
    return whole;
  }
  [[nodiscard]] constexpr ByteSpan bytes() const { return {bytes_.data(), size_}; }
  [[nodiscard]] constexpr std::size_t size() const { return size_; }
  constexpr bool operator==(const Packet &other) const { return std::ranges::equal(bytes(), other.bytes()); }
};

}  // namespace visca
