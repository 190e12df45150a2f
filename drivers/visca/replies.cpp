#include "replies.h"

#include <utility>

namespace visca {

namespace {

constexpr Byte broadcast_header = 0x80 | broadcast;
// Longest data of the answers with two positions: pan may have five nibbles, and tilt as well.
constexpr std::size_t position_nibbles = 4, shortest_pan_tilt = 8, longest_pan_tilt = 10;

bool are_nibbles(ByteSpan data) {
  return std::ranges::all_of(data, [](Byte byte) { return byte <= 0x0f; });
}

// Two's complement with four bits a byte.
std::int32_t signed_number(ByteSpan nibbles) {
  std::uint32_t number = 0;
  for (const Byte nibble : nibbles) number = number << 4 | nibble;
  const std::uint32_t sign = 1U << (4 * nibbles.size() - 1);
  return static_cast<std::int32_t>(number ^ sign) - static_cast<std::int32_t>(sign);
}

std::optional<Reply> parse_broadcast(ByteSpan message) {
  if (message.size() == 2 && message[0] == 0x30) return Reply{.kind = ReplyKind::address_set, .code = message[1]};
  if (message.size() == 3 && message[0] == 0x01 && message[1] == 0x00 && message[2] == 0x01) {
    return Reply{.kind = ReplyKind::interface_clear};
  }
  if (message.size() == 1 && message[0] == 0x38) return Reply{.kind = ReplyKind::network_change};
  return std::nullopt;
}

std::uint32_t big_endian(ByteSpan bytes) {
  std::uint32_t number = 0;
  for (const Byte byte : bytes) number = number << 8 | byte;
  return number;
}

bool is_payload_type(std::uint32_t number) {
  switch (static_cast<PayloadType>(number)) {
    case PayloadType::command:
    case PayloadType::inquiry:
    case PayloadType::reply:
    case PayloadType::device_setting:
    case PayloadType::control:
    case PayloadType::control_reply:
      return true;
  }
  return false;
}

}  // namespace

std::optional<Reply> parse_reply(ByteSpan packet) {
  if (packet.size() < shortest_packet || packet.size() > longest_packet || packet.back() != terminator) {
    return std::nullopt;
  }
  const ByteSpan message = packet.subspan(1, packet.size() - 2);
  if (packet[0] == broadcast_header) return parse_broadcast(message);
  const Byte sender = (packet[0] >> 4) & 0x07;
  if ((packet[0] & 0x80) == 0 || (packet[0] & 0x0f) != 0 || sender == 0) return std::nullopt;
  Reply reply = {.camera = sender, .socket = static_cast<Byte>(message[0] & 0x0f)};
  switch (message[0] & 0xf0) {
    case 0x40:
      reply.kind = ReplyKind::ack;
      return reply;
    case 0x50:
      reply.kind = message.size() > 1 ? ReplyKind::answer : ReplyKind::completion;
      reply.data = message.subspan(1);
      return reply;
    case 0x60:
      reply.kind = ReplyKind::error;
      reply.code = message.size() > 1 ? message[1] : 0;
      return reply;
    default:
      break;
  }
  if (message[0] != 0x38) return std::nullopt;
  reply.kind = ReplyKind::network_change;
  reply.socket = 0;
  return reply;
}

std::optional<std::uint16_t> parse_position(ByteSpan data) {
  if (data.size() != position_nibbles || !are_nibbles(data)) return std::nullopt;
  return static_cast<std::uint16_t>(signed_number(data));
}

std::optional<PanTiltSteps> parse_pan_tilt(ByteSpan data) {
  if (data.size() < shortest_pan_tilt || data.size() > longest_pan_tilt || !are_nibbles(data)) return std::nullopt;
  const unsigned pan_nibbles = data.size() == shortest_pan_tilt ? 4 : 5;
  return PanTiltSteps{signed_number(data.first(pan_nibbles)), signed_number(data.subspan(pan_nibbles)), pan_nibbles};
}

bool fits(InquiryKind kind, ByteSpan data) {
  switch (kind) {
    case InquiryKind::version:
      return data.size() >= 6 && !(data.size() >= shortest_pan_tilt && are_nibbles(data));
    case InquiryKind::power:
    case InquiryKind::focus_mode:
      return data.size() == 1;
    case InquiryKind::zoom_position:
    case InquiryKind::focus_position:
      return parse_position(data).has_value();
    case InquiryKind::pan_tilt_position:
      return parse_pan_tilt(data).has_value();
    case InquiryKind::pan_tilt_max_speed:
    case InquiryKind::pan_tilt_status:
      return data.size() == 2;
  }
  return false;
}

bool PacketAssembler::add(Byte byte) {
  if (size_ == bytes_.size()) {
    std::ranges::copy(bytes_.begin() + 1, bytes_.end(), bytes_.begin());
    --size_;
    overflowed_ = true;
  }
  bytes_[size_++] = byte;
  return byte == terminator;
}

// The bytes up to the terminator, or the last part of them that is a reply by itself: what stands before is noise, or
// the beginning of a reply that was cut off. An answer may hold any bytes; only the header of the same camera and the
// first byte of a reply, next to each other, begin another one.
ByteSpan PacketAssembler::packet() const {
  const ByteSpan all(bytes_.data(), size_);
  const auto whole = overflowed_ ? std::nullopt : parse_reply(all);
  for (std::size_t begin = all.size() < shortest_packet ? 0 : all.size() - shortest_packet; begin > 0; --begin) {
    const ByteSpan rest = all.subspan(begin);
    if (whole && rest[0] != all[0]) continue;
    const auto reply = parse_reply(rest);
    if (!reply) continue;
    const bool is_exact =
        reply->kind != ReplyKind::error ? reply->socket <= 2 : rest.size() == shortest_packet + 1 && reply->socket <= 2;
    if (is_exact && (reply->kind != ReplyKind::ack || rest.size() == shortest_packet)) return rest;
  }
  if (whole) return all;
  return {};
}

Datagram::Datagram(PayloadType type, std::uint32_t sequence, ByteSpan payload) {
  const auto add = [&](std::uint32_t number, unsigned bytes) {
    for (unsigned left = bytes; left > 0; --left) bytes_[size_++] = static_cast<Byte>(number >> (8 * (left - 1)));
  };
  payload = payload.first(std::min(payload.size(), longest_packet));
  add(static_cast<std::uint32_t>(type), 2);
  add(static_cast<std::uint32_t>(payload.size()), 2);
  add(sequence, 4);
  std::ranges::copy(payload, bytes_.begin() + static_cast<std::ptrdiff_t>(size_));
  size_ += payload.size();
}

std::optional<Message> take_message(ByteSpan &datagram) {
  if (datagram.empty()) return std::nullopt;
  const ByteSpan all = std::exchange(datagram, {});
  if ((all[0] & 0x80) != 0) return Message{.has_header = false, .payload = all};
  if (all.size() <= header_size || !is_payload_type(big_endian(all.first(2)))) return std::nullopt;
  // A length that is too small or too large is corrected by what is there. Another message may follow its end.
  std::size_t length = std::min<std::size_t>(big_endian(all.subspan(2, 2)), all.size() - header_size);
  const ByteSpan rest = all.subspan(header_size + length);
  const bool goes_on = rest.size() > header_size && is_payload_type(big_endian(rest.first(2)));
  if (goes_on && length > 0) {
    datagram = rest;
  } else {
    length = all.size() - header_size;
  }
  return Message{.type = static_cast<PayloadType>(big_endian(all.first(2))),
                 .sequence = big_endian(all.subspan(4, 4)),
                 .payload = all.subspan(header_size, length)};
}

}  // namespace visca
