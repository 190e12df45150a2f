// replies.h - the bytes that come from cameras: packets out of a stream, replies out of packets, the header over IP.
//
// Nothing here owns a descriptor or allocates. All of it is lenient: whatever can be understood in one way only is
// understood.
#pragma once
#include <optional>

#include "commands.h"

namespace visca {

// Codes of errors.
constexpr Byte error_length = 0x01, error_syntax = 0x02, error_buffer_full = 0x03, error_cancelled = 0x04,
               error_no_socket = 0x05, error_not_executable = 0x41;

enum class ReplyKind : Byte { ack, completion, answer, error, address_set, interface_clear, network_change };

struct Reply {
  ReplyKind kind = ReplyKind::ack;
  Byte camera = 0;     // that sent it; 0 for a broadcast
  Byte socket = 0;     // of an ACK, a completion or an error; 0 if it names none
  Byte code = 0;       // of an error; of an address set: the number of cameras + 1
  ByteSpan data = {};  // of an answer, without the terminator
};

// Empty for a packet that is no reply, such as the echo of a command on a two-wire line.
[[nodiscard]] std::optional<Reply> parse_reply(ByteSpan packet);

// The values in the data of an answer; empty if the data does not fit.
[[nodiscard]] std::optional<std::uint16_t> parse_position(ByteSpan data);
[[nodiscard]] std::optional<PanTiltSteps> parse_pan_tilt(ByteSpan data);
// Whether the data can be an answer to the inquiry: an answer that comes late must not pass for another one.
[[nodiscard]] bool fits(InquiryKind kind, ByteSpan data);

// Takes packets out of a stream of bytes. Bytes that belong to no packet are dropped: noise before a header, a reply
// that was cut off by the next one, more bytes than a packet has without a terminator.
class PacketAssembler {
  std::array<Byte, longest_packet> bytes_ = {};  // the last ones that were received
  std::size_t size_ = 0;
  bool overflowed_ = false;

  [[nodiscard]] ByteSpan packet() const;

 public:
  void reset() {
    size_ = 0;
    overflowed_ = false;
  }
  [[nodiscard]] bool has_part() const { return size_ != 0; }
  // Calls take(ByteSpan) for each packet, terminator included. The bytes are valid during the call.
  template <typename Take>
  void feed(ByteSpan bytes, Take take) {
    for (const Byte byte : bytes) {
      if (add(byte)) {
        const ByteSpan whole = packet();
        if (!whole.empty()) take(whole);
        reset();
      }
    }
  }
  // True at the end of a packet.
  bool add(Byte byte);
};

enum class PayloadType : std::uint16_t {
  command = 0x0100,
  inquiry = 0x0110,
  reply = 0x0111,
  device_setting = 0x0120,
  control = 0x0200,
  control_reply = 0x0201,
};

constexpr std::size_t header_size = 8;
constexpr Byte control_reset = 0x01, control_error = 0x0f;
constexpr Byte error_sequence_number = 0x01, error_message_type = 0x02;

struct Message {
  PayloadType type = PayloadType::reply;
  std::uint32_t sequence = 0;
  bool has_header = true;
  ByteSpan payload = {};
};

// A datagram with a header in front of the payload.
class Datagram {
  std::array<Byte, header_size + longest_packet> bytes_ = {};
  std::size_t size_ = 0;

 public:
  Datagram(PayloadType type, std::uint32_t sequence, ByteSpan payload);
  [[nodiscard]] ByteSpan bytes() const { return {bytes_.data(), size_}; }
};

// Takes the first message off the datagram, which may hold several, or bare packets without a header. Empty at the end.
[[nodiscard]] std::optional<Message> take_message(ByteSpan &datagram);

}  // namespace visca
