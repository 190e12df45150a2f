// kit/monitor/packet.h - the packets of the monitor socket, which docs/wire-format.md describes.
//
// Each packet is one message of a SOCK_SEQPACKET socket: a header of eight bytes and the fields of its kind,
// little-endian, without padding. A packet that is longer than its fields comes from a later version: the rest is
// ignored. Both sides treat each other's packets as foreign input.
#pragma once
#include <glib.h>

#include <array>
#include <cstring>
#include <span>
#include <string_view>

namespace ptz_kit {

inline constexpr char monitor_suffix[] = ".monitor";

enum class PacketKind : guint16 {
  // of a monitor
  figures = 1,
  subscribe = 2,
  // of a driver
  driver_figures = 0x101,
  client_figures = 0x102,
  end_of_figures = 0x103,
  frame = 0x104,
  busy = 0x105,
};

struct PacketHeader {
  PacketKind kind;
  guint16 flags;
  guint32 serial;  // of a request for figures; repeated in each packet of its answer
};

inline constexpr guint16 subscribe_with_past = 1;
inline constexpr guint16 frame_is_reply = 1;
inline constexpr guint16 frame_is_past = 2;
inline constexpr guint16 frame_is_unsent = 4;

inline constexpr std::size_t packet_header_size = 8;
inline constexpr std::size_t longest_packet = 8192;  // that a driver of this version sends
inline constexpr std::size_t longest_text = 1024;    // in a packet; a longer one is cut

class PacketWriter {
  std::array<guint8, longest_packet> bytes_;
  std::size_t size_ = 0;

 public:
  explicit PacketWriter(const PacketHeader &header) {
    put(static_cast<guint16>(header.kind));
    put(header.flags);
    put(header.serial);
  }
  template <typename T>
  void put(T value) {
    static_assert(std::is_integral_v<T>);
    g_assert(bytes_.size() - size_ >= sizeof value);
    for (std::size_t i = 0; i < sizeof value; ++i) {
      bytes_[size_++] = static_cast<guint8>(static_cast<std::make_unsigned_t<T>>(value) >> (8 * i));
    }
  }
  void put_text(std::string_view text) {
    text = text.substr(0, longest_text);
    put(static_cast<guint16>(text.size()));
    put_bytes({reinterpret_cast<const guint8 *>(text.data()), text.size()});
  }
  void put_bytes(std::span<const guint8> bytes) {
    g_assert(bytes_.size() - size_ >= bytes.size());
    if (!bytes.empty()) std::memcpy(bytes_.data() + size_, bytes.data(), bytes.size());
    size_ += bytes.size();
  }
  [[nodiscard]] std::span<const guint8> bytes() const { return std::span(bytes_).first(size_); }
};

// Reads zeros and empty texts beyond the end of the packet; failed() then tells so.
class PacketReader {
  std::span<const guint8> rest_;
  bool failed_ = false;

  [[nodiscard]] std::span<const guint8> take_up_to(std::size_t length) {
    if (length > rest_.size()) {
      failed_ = true;
      rest_ = {};
    }
    const auto taken = rest_.first(failed_ ? 0 : length);
    rest_ = rest_.subspan(taken.size());
    return taken;
  }

 public:
  explicit PacketReader(std::span<const guint8> packet) : rest_(packet) {}
  template <typename T>
  [[nodiscard]] T get() {
    std::make_unsigned_t<T> value = 0;
    const auto bytes = take_up_to(sizeof value);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      value = static_cast<std::make_unsigned_t<T>>(value | (std::make_unsigned_t<T>{bytes[i]} << (8 * i)));
    }
    return static_cast<T>(value);
  }
  [[nodiscard]] PacketHeader header() {
    const auto kind = static_cast<PacketKind>(get<guint16>());
    const auto flags = get<guint16>();
    return {kind, flags, get<guint32>()};
  }
  [[nodiscard]] std::string_view text() {
    const auto bytes = take_up_to(get<guint16>());
    if (bytes.empty()) return "";
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
  }
  [[nodiscard]] std::span<const guint8> rest() { return std::exchange(rest_, {}); }
  [[nodiscard]] std::size_t left() const { return rest_.size(); }
  [[nodiscard]] bool failed() const { return failed_; }
};

}  // namespace ptz_kit
