// What a camera may send: a stream and datagrams of arbitrary bytes, and a link that gets every reply that they hold.
//
//   input   the first byte: bit 0: the link has a header, bit 1: datagrams are lost; then pieces: a length of one byte
//           (modulo 64), and so many bytes. After each piece the clock goes on by 16 times the length in milliseconds,
//           and the link gets a command, a stop or an inquiry.
#include <link.h>

#include <memory>
#include <vector>

#include "fuzz_target.h"

using namespace visca;

namespace {

class Peer final : public Wire, public LinkUser {
 public:
  void send(ByteSpan packet, PayloadType, std::uint32_t) override {
    REQUIRE(!packet.empty() && packet.size() <= longest_packet);
  }
  bool is_free_for(const Link &) const override { return true; }
  void changed() override {}
  void link_is_up() override {}
  void link_is_lost() override {}
  void on_answer(InquiryKind kind, ByteSpan data) override { REQUIRE(fits(kind, data)); }
  void on_no_answer(InquiryKind, Outcome) override {}
};

// Counts how often a command is told that it was accepted, which must be once at most.
struct Order {
  unsigned acknowledged = 0, ended = 0;
};

void submit(Link &link, Order &order, unsigned choice, std::int64_t now) {
  const bool stop = choice % 4 == 0;
  const Packet packet = stop ? pan_tilt_drive(1, {1, 1}, PanDirection::stop, TiltDirection::stop)
                             : pan_tilt_absolute(1, {1, 1}, {static_cast<std::int32_t>(choice), 0});
  link.submit({.packet = packet,
               .group = choice % 3 == 0 ? Group::zoom : Group::pan_tilt,
               .motion = !stop,
               .continuous = choice % 5 == 0,
               .stop = stop,
               .repeatable = choice % 7 != 0,
               .acknowledged = [&order](Outcome) { REQUIRE(++order.acknowledged == 1); },
               .ended = [&order](Outcome) { REQUIRE(order.acknowledged == 1 && ++order.ended == 1); }},
              now);
  if (choice % 2 == 0) link.inquire(static_cast<InquiryKind>(choice % 8), now);
}

void take_datagram(Link &link, ByteSpan datagram, std::int64_t now) {
  while (const auto message = take_message(datagram)) {
    const bool is_control = message->type == PayloadType::control || message->type == PayloadType::control_reply;
    if (message->has_header && is_control) {
      link.control(message->payload, message->sequence, now);
      continue;
    }
    PacketAssembler assembler;
    const auto sequence = message->has_header ? std::optional(message->sequence) : std::nullopt;
    assembler.feed(message->payload, [&](ByteSpan packet) {
      if (const auto reply = parse_reply(packet)) link.receive(*reply, sequence, now);
    });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  ByteSpan left(data + 1, size - 1);
  Peer peer;
  std::vector<std::unique_ptr<Order>> orders;  // before the link, which tells them when it stops
  Link link(peer, peer, 1, {.has_header = (data[0] & 1) != 0, .loses_packets = (data[0] & 2) != 0});
  std::int64_t now = 1'000'000;
  link.start(now);
  PacketAssembler stream;
  while (!left.empty()) {
    const std::size_t length = std::min<std::size_t>(left[0] % 64, left.size() - 1);
    const ByteSpan piece = left.subspan(1, length);
    const unsigned choice = left[0];
    left = left.subspan(1 + length);
    if ((data[0] & 2) != 0) {
      take_datagram(link, piece, now);
    } else {
      stream.feed(piece, [&](ByteSpan packet) {
        REQUIRE(packet.size() <= longest_packet);
        if (const auto reply = parse_reply(packet)) link.receive(*reply, std::nullopt, now);
      });
    }
    submit(link, *orders.emplace_back(std::make_unique<Order>()), choice, now);
    REQUIRE(link.commands_in_camera() <= 8);
    const std::int64_t end = now + static_cast<std::int64_t>(length) * 16'000;
    for (unsigned rounds = 0; link.deadline(now) <= end; ++rounds) {
      REQUIRE(rounds < 1000);
      now = std::max(now, link.deadline(now));
      link.advance(now);
    }
    now = end;
  }
  link.stop();
  for (const auto &order : orders) REQUIRE(order->acknowledged == 1);
  return 0;
}
