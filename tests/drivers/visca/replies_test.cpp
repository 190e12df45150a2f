// Replies out of packets, packets out of a stream, and the header over IP.
#include "replies.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace visca {

namespace {

using Bytes = std::vector<Byte>;

std::optional<Reply> parse(const Bytes &packet) { return parse_reply(packet); }

struct Case {
  const char *name;
  Bytes packet;
  ReplyKind kind;
  Byte camera, socket, code;
};
void PrintTo(const Case &of, std::ostream *stream) { *stream << of.name; }

class EachReply : public testing::TestWithParam<Case> {};

TEST_P(EachReply, IsReadWithCameraSocketAndCode) {
  const auto reply = parse(GetParam().packet);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->kind, GetParam().kind);
  EXPECT_EQ(reply->camera, GetParam().camera);
  EXPECT_EQ(reply->socket, GetParam().socket);
  EXPECT_EQ(reply->code, GetParam().code);
}

const Case cases[] = {
    {"Ack", {0x90, 0x41, 0xff}, ReplyKind::ack, 1, 1, 0},
    {"AckOfCamera7", {0xf0, 0x42, 0xff}, ReplyKind::ack, 7, 2, 0},
    {"Completion", {0x90, 0x52, 0xff}, ReplyKind::completion, 1, 2, 0},
    {"InterfaceClearOfOneCamera", {0xa0, 0x50, 0xff}, ReplyKind::completion, 2, 0, 0},
    {"Answer", {0x90, 0x50, 0x02, 0xff}, ReplyKind::answer, 1, 0, 0},
    {"LengthError", {0x90, 0x60, 0x01, 0xff}, ReplyKind::error, 1, 0, error_length},
    {"SyntaxError", {0x90, 0x60, 0x02, 0xff}, ReplyKind::error, 1, 0, error_syntax},
    {"BufferFull", {0x90, 0x60, 0x03, 0xff}, ReplyKind::error, 1, 0, error_buffer_full},
    {"Cancelled", {0x90, 0x61, 0x04, 0xff}, ReplyKind::error, 1, 1, error_cancelled},
    {"NoSocket", {0x90, 0x62, 0x05, 0xff}, ReplyKind::error, 1, 2, error_no_socket},
    {"NotExecutable", {0x90, 0x61, 0x41, 0xff}, ReplyKind::error, 1, 1, error_not_executable},
    {"AddressSet", {0x88, 0x30, 0x04, 0xff}, ReplyKind::address_set, 0, 0, 4},
    {"InterfaceClearOfAll", {0x88, 0x01, 0x00, 0x01, 0xff}, ReplyKind::interface_clear, 0, 0, 0},
    {"NetworkChange", {0xb0, 0x38, 0xff}, ReplyKind::network_change, 3, 0, 0},
    {"NetworkChangeOfAll", {0x88, 0x38, 0xff}, ReplyKind::network_change, 0, 0, 0},
};
INSTANTIATE_TEST_SUITE_P(Reply, EachReply, testing::ValuesIn(cases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ParseReply, RefusesWhatIsNoReply) {
  EXPECT_FALSE(parse({}));
  EXPECT_FALSE(parse({0xff}));
  EXPECT_FALSE(parse({0x90, 0xff}));
  EXPECT_FALSE(parse({0x90, 0x41}));
  EXPECT_FALSE(parse({0x10, 0x41, 0xff}));
  EXPECT_FALSE(parse({0x81, 0x41, 0xff})) << "the echo of a controller";
  EXPECT_FALSE(parse({0x81, 0x01, 0x06, 0x04, 0xff}));
  EXPECT_FALSE(parse(Bytes(17, 0x50)));
}

TEST(ParsePosition, TakesFourNibbles) {
  EXPECT_EQ(parse_position(Bytes{0x03, 0x0b, 0x04, 0x0b}), 0x3b4b);
  EXPECT_EQ(parse_position(Bytes{0x0f, 0x0f, 0x0f, 0x0f}), 0xffff);
  EXPECT_FALSE(parse_position(Bytes{0x03, 0x0b, 0x04}));
  EXPECT_FALSE(parse_position(Bytes{0x13, 0x0b, 0x04, 0x00}));
}

TEST(ParsePanTilt, ReadsTwosComplement) {
  const auto steps = parse_pan_tilt(Bytes{0x0f, 0x07, 0x02, 0x05, 0x00, 0x04, 0x0b, 0x00});
  ASSERT_TRUE(steps);
  EXPECT_EQ(steps->pan, -2267);
  EXPECT_EQ(steps->tilt, 0x4b0);
  EXPECT_EQ(steps->pan_nibbles, 4U);
}

TEST(ParsePanTilt, ReadsFiveNibblesOfPan) {
  const auto steps = parse_pan_tilt(Bytes{0x0f, 0x0f, 0x0f, 0x0f, 0x0e, 0x0f, 0x0f, 0x0f, 0x0d});
  ASSERT_TRUE(steps);
  EXPECT_EQ(steps->pan, -2);
  EXPECT_EQ(steps->tilt, -3);
  EXPECT_EQ(steps->pan_nibbles, 5U);
}

TEST(Fits, TellsAnswersApart) {
  const Bytes version = {0x00, 0x20, 0x05, 0x11, 0x01, 0x02, 0x02}, zoom = {0, 0, 0, 0}, power = {2}, two = {24, 20},
              pan_tilt(8, 0);
  EXPECT_TRUE(fits(InquiryKind::version, version));
  EXPECT_TRUE(fits(InquiryKind::zoom_position, zoom));
  EXPECT_TRUE(fits(InquiryKind::power, power));
  EXPECT_TRUE(fits(InquiryKind::pan_tilt_max_speed, two));
  EXPECT_TRUE(fits(InquiryKind::pan_tilt_position, pan_tilt));
  EXPECT_FALSE(fits(InquiryKind::pan_tilt_position, zoom));
  EXPECT_FALSE(fits(InquiryKind::zoom_position, pan_tilt));
  EXPECT_FALSE(fits(InquiryKind::version, pan_tilt));
  EXPECT_FALSE(fits(InquiryKind::power, two));
}

std::vector<Bytes> packets_of(const std::vector<Bytes> &pieces) {
  PacketAssembler assembler;
  std::vector<Bytes> packets;
  for (const Bytes &piece : pieces) {
    assembler.feed(piece, [&](ByteSpan packet) { packets.emplace_back(packet.begin(), packet.end()); });
  }
  return packets;
}

const Bytes ack = {0x90, 0x41, 0xff}, completion = {0x90, 0x51, 0xff};

TEST(PacketAssembler, TakesSeveralPacketsOutOfOnePiece) {
  EXPECT_EQ(packets_of({{0x90, 0x41, 0xff, 0x90, 0x51, 0xff}}), (std::vector{ack, completion}));
}

TEST(PacketAssembler, JoinsAPacketThatComesInPieces) {
  EXPECT_EQ(packets_of({{0x90}, {0x41}, {0xff, 0x90, 0x51}, {0xff}}), (std::vector{ack, completion}));
}

TEST(PacketAssembler, DropsNoiseBeforeAHeader) {
  EXPECT_EQ(packets_of({{0x00, 0x13, 0x90, 0x41, 0xff}}), std::vector<Bytes>{ack});
  EXPECT_EQ(packets_of({{0xff, 0xff, 0x90, 0x41, 0xff}}), std::vector<Bytes>{ack});
}

TEST(PacketAssembler, DropsAReplyThatTheNextOneCutsOff) {
  EXPECT_EQ(packets_of({{0x90, 0x50, 0x00, 0x01}, {0x90, 0x41, 0xff}}), std::vector<Bytes>{ack});
  const Bytes position = {0x90, 0x50, 1, 2, 3, 4, 0xff};
  EXPECT_EQ(packets_of({{0x90, 0x50, 0x00, 0x01}, position}), std::vector<Bytes>{position});
}

TEST(PacketAssembler, KeepsAnAnswerThatHoldsAHeader) {
  const Bytes version = {0x90, 0x50, 0x00, 0x01, 0x90, 0x02, 0x90, 0x02, 0x02, 0xff};
  EXPECT_EQ(packets_of({version}), std::vector<Bytes>{version});
}

TEST(PacketAssembler, FindsTheReplyAtTheEndOfAnEndlessMessage) {
  Bytes endless(10000, 0x07);
  EXPECT_TRUE(packets_of({endless, {0xff}}).empty());
  endless.insert(endless.end(), ack.begin(), ack.end());
  EXPECT_EQ(packets_of({endless}), std::vector<Bytes>{ack});
}

TEST(PacketAssembler, SurvivesRandomBytes) {
  std::mt19937 random(1);
  PacketAssembler assembler;
  for (int round = 0; round < 20000; ++round) {
    Bytes piece(random() % 40);
    for (Byte &byte : piece) byte = random() % 4 == 0 ? 0xff : static_cast<Byte>(random());
    assembler.feed(piece, [](ByteSpan packet) {
      EXPECT_LE(packet.size(), longest_packet);
      const auto reply = parse_reply(packet);
      if (reply && reply->kind == ReplyKind::answer) {
        for (int kind = 0; kind <= 7; ++kind) (void)fits(static_cast<InquiryKind>(kind), reply->data);
      }
    });
    for (ByteSpan left = piece; take_message(left);) {
    }
  }
}

TEST(Datagram, HasTypeLengthAndSequenceNumberInBigEndian) {
  const Bytes payload = {0x81, 0x09, 0x06, 0x12, 0xff};
  const Datagram datagram(PayloadType::inquiry, 0x01020304, payload);
  EXPECT_EQ(Bytes(datagram.bytes().begin(), datagram.bytes().end()),
            (Bytes{0x01, 0x10, 0x00, 0x05, 0x01, 0x02, 0x03, 0x04, 0x81, 0x09, 0x06, 0x12, 0xff}));
  const Datagram reset(PayloadType::control, 0, Bytes{control_reset});
  EXPECT_EQ(Bytes(reset.bytes().begin(), reset.bytes().end()), (Bytes{0x02, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0x01}));
}

std::vector<Message> messages_of(const Bytes &datagram) {
  ByteSpan left = datagram;
  std::vector<Message> messages;
  while (auto message = take_message(left)) messages.push_back(*message);
  return messages;
}

TEST(TakeMessage, ReadsAReply) {
  const Bytes datagram = {0x01, 0x11, 0x00, 0x03, 0x00, 0x00, 0x00, 0x2a, 0x90, 0x41, 0xff};
  const auto messages = messages_of(datagram);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].type, PayloadType::reply);
  EXPECT_EQ(messages[0].sequence, 42U);
  EXPECT_TRUE(std::ranges::equal(messages[0].payload, ack));
}

TEST(TakeMessage, ReadsSeveralMessagesOfOneDatagram) {
  const Bytes datagram = {0x01, 0x11, 0x00, 0x03, 0, 0, 0, 1, 0x90, 0x41, 0xff,
                          0x01, 0x11, 0x00, 0x03, 0, 0, 0, 2, 0x90, 0x51, 0xff};
  const auto messages = messages_of(datagram);
  ASSERT_EQ(messages.size(), 2U);
  EXPECT_EQ(messages[1].sequence, 2U);
  EXPECT_TRUE(std::ranges::equal(messages[1].payload, completion));
}

TEST(TakeMessage, KeepsSeveralRepliesUnderOneHeader) {
  const Bytes datagram = {0x01, 0x11, 0x00, 0x03, 0, 0, 0, 1, 0x90, 0x41, 0xff, 0x90, 0x51, 0xff};
  const auto messages = messages_of(datagram);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(messages[0].payload.size(), 6U);
}

TEST(TakeMessage, ReadsBarePacketsWithoutAHeader) {
  const auto messages = messages_of(ack);
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_FALSE(messages[0].has_header);
  EXPECT_TRUE(std::ranges::equal(messages[0].payload, ack));
}

TEST(TakeMessage, CorrectsAWrongLength) {
  for (const Byte length : {0, 1, 16, 255}) {
    const Bytes datagram = {0x01, 0x11, 0x00, length, 0, 0, 0, 1, 0x90, 0x41, 0xff};
    const auto messages = messages_of(datagram);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_TRUE(std::ranges::equal(messages[0].payload, ack)) << int{length};
  }
}

TEST(TakeMessage, DropsUnknownTypesAndShortHeaders) {
  EXPECT_TRUE(messages_of({0x03, 0x11, 0x00, 0x03, 0, 0, 0, 1, 0x90, 0x41, 0xff}).empty());
  EXPECT_TRUE(messages_of({0x01, 0x11, 0x00, 0x03, 0, 0, 0}).empty());
  EXPECT_TRUE(messages_of({0x01, 0x11, 0x00, 0x00, 0, 0, 0, 1}).empty());
}

}  // namespace
}  // namespace visca
