#include "driver_messages.h"

#include <gtest/gtest.h>
#include <ptz_serialize.h>

#include <vector>

using namespace example;

namespace {

using Bytes = std::vector<guint8>;

Bytes bytes(const Body &body) { return {body->data, body->data + body->len}; }

// What a message says once it has been written and read back.
template <typename Message>
Message read_back(const Message &message) {
  const Body body = make_body(PTZ_COMMAND_MOVE, message);
  BodyReader reader(body.get());
  EXPECT_EQ(reader.i32(), PTZ_COMMAND_MOVE);
  Message read = Message::read(reader);
  EXPECT_TRUE(reader.finished());
  return read;
}

}  // namespace

// The byte examples of docs/driver-commands.md.
TEST(DriverMessages, AMoveHasTheBytesOfItsDescription) {
  const Body body = make_body(PTZ_COMMAND_MOVE,
                              MoveRequest{PTZ_MOVE_ABSOLUTE, axis_bit(pan) | axis_bit(tilt), 50, {90'00, -10'00, 0}});
  EXPECT_EQ(bytes(body), (Bytes{0x05, 0,    0,    0,    0x01, 0,    0,    0, 0x03, 0x32, 0x00, 0x28,
                                0x23, 0x00, 0x00, 0x18, 0xfc, 0xff, 0xff, 0, 0,    0,    0}));
}

TEST(DriverMessages, APositionHasTheBytesOfItsDescription) {
  const Body body =
      make_body(PTZ_COMMAND_QUERY_POSITION,
                Positions{{-45'00, 10'00, 2'00}, {PTZ_MOVE_STATUS_MOVING, PTZ_MOVE_STATUS_IDLE, PTZ_MOVE_STATUS_IDLE}});
  EXPECT_EQ(bytes(body), (Bytes{0x0d, 0, 0, 0, 0x6c, 0xee, 0xff, 0xff, 1, 0, 0, 0, 0xe8, 0x03,
                                0,    0, 0, 0, 0,    0,    0xc8, 0,    0, 0, 0, 0, 0,    0}));
}

TEST(DriverMessages, APresetHasTheBytesOfItsDescription) {
  const Body body = make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{1, "gate"});
  EXPECT_EQ(bytes(body), (Bytes{0x01, 0, 0, 0, 0x01, 0, 0, 0, 0x04, 0x00, 'g', 'a', 't', 'e'}));
}

TEST(DriverMessages, AnErrorReplyHasTheBytesOfItsDescription) {
  const Body body = make_body(PTZ_COMMAND_ERROR_REPLY, ErrorReply{ErrorCode::not_found, "there is no preset 7"});
  Bytes expected = {0xff, 0xff, 0xff, 0xff, 0x05, 0, 0, 0, 0x14, 0x00};
  for (const char letter : std::string("there is no preset 7")) expected.push_back(static_cast<guint8>(letter));
  EXPECT_EQ(bytes(body), expected);
}

TEST(DriverMessages, AreReadAsTheyWereWritten) {
  const MoveRequest move = read_back(MoveRequest{PTZ_MOVE_RELATIVE, 5, 70, {-1, 2, -3}});
  EXPECT_EQ(move.kind, guint32{PTZ_MOVE_RELATIVE});
  EXPECT_EQ(move.axes, 5);
  EXPECT_EQ(move.speed, 70);
  EXPECT_EQ(move.values, (PerAxis{-1, 2, -3}));

  const GotoPresetRequest preset = read_back(GotoPresetRequest{9, 80});
  EXPECT_EQ(preset.number, 9U);
  EXPECT_EQ(preset.speed, 80);

  const Auxiliary auxiliary = read_back(Auxiliary{"wiper", PTZ_ENABLE_OFF});
  EXPECT_EQ(auxiliary.name, "wiper");
  EXPECT_EQ(auxiliary.state, guint32{PTZ_ENABLE_OFF});

  const Limits limits = read_back(Limits{{-3, -2, -1}, {1, 2, 3}});
  EXPECT_EQ(limits.minimum, (PerAxis{-3, -2, -1}));
  EXPECT_EQ(limits.maximum, (PerAxis{1, 2, 3}));

  const DriverParameter parameter = read_back(DriverParameter{1, "name", "label", "value", 2, 3, "range"});
  EXPECT_EQ(parameter.group, 1U);
  EXPECT_EQ(parameter.name + parameter.label + parameter.value + parameter.range, "namelabelvaluerange");
  EXPECT_EQ(parameter.kind, 2U);
  EXPECT_EQ(parameter.flags, 3U);
}

TEST(DriverMessages, ADriverParameterIsTheLibrarysRecord) {
  const Body body(ptz_serialize_create_array());
  DriverParameter{1, "a", "", "bc", 2, 3, ""}.write(body.get());
  EXPECT_EQ(std::string(body->data, body->len), std::string("\1\0\0\0\1\0a\0\0\2\0bc\2\0\0\0\3\0\0\0\0\0", 23));
}

TEST(DriverMessages, AListMayBeEmptyAndKeepsItsOrder) {
  EXPECT_TRUE(read_back(PresetList{}).elements.empty());
  const PresetList list = read_back(PresetList{{{2, "two"}, {1, ""}}});
  ASSERT_EQ(list.elements.size(), 2U);
  EXPECT_EQ(list.elements[0].name, "two");
  EXPECT_EQ(list.elements[1].number, 1U);
}
