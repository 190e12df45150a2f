// The typed messages of the kit: structures, bodies, errors, bounds.
#include <gtest/gtest.h>
#include <ptz_kit.h>
#include <ptz_serialize.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct ErrorDeleter {
  void operator()(GError *error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, ErrorDeleter>;

template <auto free_message>
struct FreeMessage {
  template <typename T>
  void operator()(T *message) const {
    free_message(message);
  }
};
template <typename T, auto free_message>
using Message = std::unique_ptr<T, FreeMessage<free_message>>;
using Move = Message<PTZKitMoveRequest, ptz_kit_move_request_free>;
using Preset = Message<PTZKitPreset, ptz_kit_preset_free>;
using Presets = Message<PTZKitGetDevicePresetsReply, ptz_kit_get_device_presets_reply_free>;
using Types = Message<PTZKitGetDeviceTypesReply, ptz_kit_get_device_types_reply_free>;
using Name = Message<PTZKitGetDriverNameReply, ptz_kit_get_driver_name_reply_free>;

using Bytes = std::vector<guint8>;

constexpr gint32 values[] = {9000, -1000, 0};
Move a_move() { return Move(ptz_kit_move_request_new(PTZ_MOVE_ABSOLUTE, 3, 50, values)); }

Bytes body_of(GBytes *given) {
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(given, &length));
  Bytes body(data, data + length);
  g_bytes_unref(given);
  return body;
}

template <typename Operation>
std::string error_of(Operation operation) {
  GError *raw = nullptr;
  operation(&raw);
  const Error error(raw);
  return error != nullptr ? error->message : "";
}

std::string move_error(const Bytes &body) {
  return error_of(
      [&](GError **error) { EXPECT_EQ(ptz_kit_move_request_read(body.data(), body.size(), error), nullptr); });
}

TEST(KitMessages, WriteAppendsCommandWordAndFieldsInOrder) {
  GArray *body = ptz_serialize_create_array();
  ASSERT_TRUE(ptz_kit_move_request_write(a_move().get(), body, nullptr));
  const Bytes expected = {5, 0, 0, 0, 1, 0, 0, 0, 3, 50, 0, 0x28, 0x23, 0, 0, 0x18, 0xfc, 0xff, 0xff, 0, 0, 0, 0};
  EXPECT_EQ(Bytes(body->data, body->data + body->len), expected);
  g_array_unref(body);
}

TEST(KitMessages, ReadReturnsWhatWasWritten) {
  const Bytes body = body_of(ptz_kit_move_request_to_bytes(a_move().get(), nullptr));
  const Move move(ptz_kit_move_request_read(body.data(), body.size(), nullptr));
  ASSERT_NE(move, nullptr);
  EXPECT_EQ(move->kind, guint32{PTZ_MOVE_ABSOLUTE});
  EXPECT_EQ(move->axes, 3);
  EXPECT_EQ(move->speed, 50);
  EXPECT_EQ(move->value[PTZ_KIT_AXIS_PAN], 9000);
  EXPECT_EQ(move->value[PTZ_KIT_AXIS_TILT], -1000);
  EXPECT_EQ(move->value[PTZ_KIT_AXIS_ZOOM], 0);
}

TEST(KitMessages, EveryPrefixOfBodyIsMalformed) {
  const Bytes body = body_of(ptz_kit_move_request_to_bytes(a_move().get(), nullptr));
  for (std::size_t length = 0; length < body.size(); ++length) {
    EXPECT_NE(move_error(Bytes(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(length))), "") << length;
  }
}

TEST(KitMessages, ErrorOfShortBodyNamesFieldAxisAndOffset) {
  Bytes body = body_of(ptz_kit_move_request_to_bytes(a_move().get(), nullptr));
  body.resize(17);
  EXPECT_EQ(move_error(body), "move request: field \"value\" of tilt at byte 15: the body is too short");
  EXPECT_EQ(move_error({}), "move request: field \"command\" at byte 0: the body is too short");
}

TEST(KitMessages, BytesBehindLastFieldAreMalformed) {
  Bytes body = body_of(ptz_kit_move_request_to_bytes(a_move().get(), nullptr));
  body.resize(body.size() + 2);
  EXPECT_EQ(move_error(body), "move request: 2 bytes left over at byte 23");
}

TEST(KitMessages, BodyOfAnotherCommandIsMalformed) {
  Bytes body = body_of(ptz_kit_move_request_to_bytes(a_move().get(), nullptr));
  body[0] = PTZ_COMMAND_STOP;
  EXPECT_EQ(move_error(body), "move request: field \"command\" at byte 0: it is another command");
}

TEST(KitMessages, ReadErrorsAreInDomainOfKit) {
  GError *raw = nullptr;
  EXPECT_EQ(ptz_kit_move_request_read(nullptr, 0, &raw), nullptr);
  const Error error(raw);
  EXPECT_TRUE(g_error_matches(raw, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
}

TEST(KitMessages, TextThatIsNotUtf8IsMalformed) {
  const Bytes body = {21, 0, 0, 0, 2, 0, 'a', 0xff};
  const auto error = error_of(
      [&](GError **error) { EXPECT_EQ(ptz_kit_get_driver_name_reply_read(body.data(), body.size(), error), nullptr); });
  EXPECT_EQ(error, "get driver name reply: field \"name\" at byte 4: the text is not UTF-8");
}

TEST(KitMessages, TextWithNulIsMalformed) {
  const Bytes body = {21, 0, 0, 0, 2, 0, 'a', 0};
  EXPECT_EQ(ptz_kit_get_driver_name_reply_read(body.data(), body.size(), nullptr), nullptr);
}

TEST(KitMessages, ListThatClaimsMoreElementsThanBodyHoldsIsMalformedAtItsCount) {
  const Bytes body = {2, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 1, 0, 0, 0, 0, 0};
  const auto error = error_of([&](GError **error) {
    EXPECT_EQ(ptz_kit_get_device_presets_reply_read(body.data(), body.size(), error), nullptr);
  });
  EXPECT_EQ(error, "get device presets reply: field \"presets\" at byte 4: the list is longer than the body");
}

TEST(KitMessages, ListsOfRecordsAndTextsAreReadInOrder) {
  const Presets presets(ptz_kit_get_device_presets_reply_new());
  const Preset first(ptz_kit_preset_new(1, "gate")), second(ptz_kit_preset_new(2, "door"));
  ptz_kit_get_device_presets_reply_add_preset(presets.get(), first.get());
  ptz_kit_get_device_presets_reply_add_preset(presets.get(), second.get());
  const Bytes body = body_of(ptz_kit_get_device_presets_reply_to_bytes(presets.get(), nullptr));
  const Presets read(ptz_kit_get_device_presets_reply_read(body.data(), body.size(), nullptr));
  ASSERT_NE(read, nullptr);
  ASSERT_EQ(read->presets->len, 2u);
  const auto *last = static_cast<const PTZKitPreset *>(read->presets->pdata[1]);
  EXPECT_EQ(last->number, 2u);
  EXPECT_STREQ(last->name, "door");

  const Types types(ptz_kit_get_device_types_reply_new());
  ptz_kit_get_device_types_reply_add_type(types.get(), "dome");
  const Bytes names = body_of(ptz_kit_get_device_types_reply_to_bytes(types.get(), nullptr));
  const Types read_types(ptz_kit_get_device_types_reply_read(names.data(), names.size(), nullptr));
  ASSERT_NE(read_types, nullptr);
  ASSERT_EQ(read_types->types->len, 1u);
  EXPECT_STREQ(static_cast<const gchar *>(read_types->types->pdata[0]), "dome");
}

TEST(KitMessages, EmptyListIsReadAsEmptyList) {
  const Presets empty(ptz_kit_get_device_presets_reply_new());
  const Bytes body = body_of(ptz_kit_get_device_presets_reply_to_bytes(empty.get(), nullptr));
  const Presets read(ptz_kit_get_device_presets_reply_read(body.data(), body.size(), nullptr));
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->presets->len, 0u);
}

TEST(KitMessages, CopyOwnsItsTextsAndLists) {
  Presets presets(ptz_kit_get_device_presets_reply_new());
  const Preset preset(ptz_kit_preset_new(1, "gate"));
  ptz_kit_get_device_presets_reply_add_preset(presets.get(), preset.get());
  const Presets copy(ptz_kit_get_device_presets_reply_copy(presets.get()));
  presets.reset();
  EXPECT_STREQ(static_cast<const PTZKitPreset *>(copy->presets->pdata[0])->name, "gate");
}

TEST(KitMessages, MissingTextIsWrittenAsEmptyText) {
  const Name name(ptz_kit_get_driver_name_reply_new(nullptr));
  EXPECT_EQ(body_of(ptz_kit_get_driver_name_reply_to_bytes(name.get(), nullptr)), (Bytes{21, 0, 0, 0, 0, 0}));
}

TEST(KitMessages, WriteOfMessageLongerThanFrameFailsAndLeavesBodyUnchanged) {
  const Types types(ptz_kit_get_device_types_reply_new());
  const std::string text(600, 'x');
  for (int i = 0; i < 5; ++i) ptz_kit_get_device_types_reply_add_type(types.get(), text.c_str());
  GArray *body = ptz_serialize_create_array();
  ptz_serialize_8bit(body, 1);
  GError *raw = nullptr;
  EXPECT_FALSE(ptz_kit_get_device_types_reply_write(types.get(), body, &raw));
  const Error error(raw);
  EXPECT_TRUE(g_error_matches(raw, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TOO_LONG));
  EXPECT_EQ(body->len, 1u);
  g_array_unref(body);
}

TEST(KitMessages, WriteBehindOtherBodiesIsWholeHoweverMuchTheyHold) {
  const Types types(ptz_kit_get_device_types_reply_new());
  for (const char *type : {"dome", "box", "bullet"}) ptz_kit_get_device_types_reply_add_type(types.get(), type);
  const Bytes alone = body_of(ptz_kit_get_device_types_reply_to_bytes(types.get(), nullptr));
  GArray *bodies = ptz_serialize_create_array();
  g_array_set_size(bodies, 3000);
  ASSERT_TRUE(ptz_kit_get_device_types_reply_write(types.get(), bodies, nullptr));
  EXPECT_EQ(Bytes(bodies->data + 3000, bodies->data + bodies->len), alone);
  g_array_unref(bodies);
}

TEST(KitMessages, WriteOfTextThatIsNotUtf8Fails) {
  const Name name(ptz_kit_get_driver_name_reply_new("\xff"));
  GError *raw = nullptr;
  EXPECT_EQ(ptz_kit_get_driver_name_reply_to_bytes(name.get(), &raw), nullptr);
  const Error error(raw);
  EXPECT_TRUE(g_error_matches(raw, PTZ_KIT_ERROR, PTZ_KIT_ERROR_BAD_TEXT));
}

struct Bound {
  const char *title;
  guint32 kind;
  guint8 axes;
  guint16 speed;
  const char *error;
};
struct KitMessageBounds : testing::TestWithParam<Bound> {};

TEST_P(KitMessageBounds, ValidateNamesFieldThatIsOutOfRange) {
  const Bound &bound = GetParam();
  const Move move(ptz_kit_move_request_new(bound.kind, bound.axes, bound.speed, nullptr));
  EXPECT_EQ(error_of([&](GError **error) {
              EXPECT_EQ(ptz_kit_move_request_validate(move.get(), error) != FALSE, *bound.error == '\0');
            }),
            bound.error);
}

INSTANTIATE_TEST_SUITE_P(
    , KitMessageBounds,
    testing::Values(Bound{"AllWithin", 1, 7, 100, ""},
                    Bound{"KindNone", 0, 1, 1,
                          "move request: field \"kind\" is 0, a value of PTZMove that is not allowed here"},
                    Bound{"KindUnknown", 9, 1, 1, "move request: field \"kind\" is 9, which is no value of PTZMove"},
                    Bound{"KindBeyondInt", 0xffffffff, 1, 1,
                          "move request: field \"kind\" is 4294967295, which is no value of PTZMove"},
                    Bound{"NoAxis", 1, 0, 1, "move request: field \"axes\" is 0, not within 1 to 7"},
                    Bound{"AxisUnknown", 1, 8, 1, "move request: field \"axes\" is 8, not within 1 to 7"},
                    Bound{"SpeedZero", 1, 1, 0, "move request: field \"speed\" is 0, not within 1 to 100"},
                    Bound{"SpeedAbove", 1, 1, 101, "move request: field \"speed\" is 101, not within 1 to 100"}),
    [](const auto &info) { return info.param.title; });

TEST(KitMessages, PresetThatMovesNoAxisIsOutOfRange) {
  PTZKitSetPresetRequest *preset = ptz_kit_set_preset_request_new(1, "gate", 0, values);
  EXPECT_EQ(error_of([&](GError **error) { EXPECT_FALSE(ptz_kit_set_preset_request_validate(preset, error)); }),
            "set preset request: field \"axes\" is 0, not within 1 to 7");
  ptz_kit_set_preset_request_free(preset);
}

TEST(KitMessages, ValidateChecksLengthOfTexts) {
  const Preset empty(ptz_kit_preset_new(1, "")), longest(ptz_kit_preset_new(1, std::string(32, 'x').c_str()));
  const Preset too_long(ptz_kit_preset_new(1, std::string(33, 'x').c_str()));
  EXPECT_TRUE(ptz_kit_preset_validate(longest.get(), nullptr));
  EXPECT_EQ(error_of([&](GError **error) { ptz_kit_preset_validate(empty.get(), error); }),
            "preset: the length of field \"name\" is 0, not within 1 to 32");
  EXPECT_FALSE(ptz_kit_preset_validate(too_long.get(), nullptr));
}

TEST(KitMessages, ValidateChecksRecordsOfLists) {
  const Presets presets(ptz_kit_get_device_presets_reply_new());
  const Preset bad(ptz_kit_preset_new(33, "gate"));
  ptz_kit_get_device_presets_reply_add_preset(presets.get(), bad.get());
  EXPECT_EQ(
      error_of([&](GError **error) { ptz_kit_get_device_presets_reply_validate(presets.get(), error); }),
      "get device presets reply: element 0 of field \"presets\": preset: field \"number\" is 33, not within 1 to 32");
}

template <typename T, auto write, auto validate, auto copy, auto free_message>
void check_null_element(T *message, GPtrArray *list, const char *expected) {
  g_ptr_array_add(list, nullptr);
  GArray *body = ptz_serialize_create_array();
  EXPECT_EQ(error_of([&](GError **error) { EXPECT_FALSE(write(message, body, error)); }), expected);
  EXPECT_EQ(body->len, 0u);
  g_array_unref(body);
  EXPECT_EQ(error_of([&](GError **error) { EXPECT_FALSE(validate(message, error)); }), expected);
  free_message(copy(message));
  free_message(message);
}

TEST(KitMessages, NullElementOfListOfRecordsIsError) {
  PTZKitGetDevicePresetsReply *presets = ptz_kit_get_device_presets_reply_new();
  const Preset first(ptz_kit_preset_new(1, "gate"));
  ptz_kit_get_device_presets_reply_add_preset(presets, first.get());
  check_null_element<PTZKitGetDevicePresetsReply, ptz_kit_get_device_presets_reply_write,
                     ptz_kit_get_device_presets_reply_validate, ptz_kit_get_device_presets_reply_copy,
                     ptz_kit_get_device_presets_reply_free>(
      presets, presets->presets, "get device presets reply: element 1 of field \"presets\": it is NULL");
}

TEST(KitMessages, NullElementOfListOfTextsIsError) {
  PTZKitGetDeviceTypesReply *types = ptz_kit_get_device_types_reply_new();
  check_null_element<PTZKitGetDeviceTypesReply, ptz_kit_get_device_types_reply_write,
                     ptz_kit_get_device_types_reply_validate, ptz_kit_get_device_types_reply_copy,
                     ptz_kit_get_device_types_reply_free>(
      types, types->types, "get device types reply: element 0 of field \"types\": it is NULL");
}

TEST(KitMessages, AutoptrsOfRecordsRequestsAndRepliesCompile) {
  g_autoptr(PTZKitPreset) preset = ptz_kit_preset_new(1, "gate");
  g_autoptr(PTZKitMoveRequest) request = ptz_kit_move_request_new(PTZ_MOVE_ABSOLUTE, 3, 50, values);
  g_autoptr(PTZKitGetDevicePresetsReply) reply = ptz_kit_get_device_presets_reply_new();
  ptz_kit_get_device_presets_reply_add_preset(reply, preset);
  EXPECT_EQ(reply->presets->len, 1u);
  EXPECT_EQ(request->speed, 50);
}

TEST(KitMessages, ConstantsAreThoseOfDescription) {
  EXPECT_EQ(PTZ_KIT_PROTOCOL_VERSION, 1);
  EXPECT_EQ(PTZ_KIT_MAX_BODY_BYTES, 2552);
  EXPECT_EQ(PTZ_KIT_MAX_PRESETS, 32);
  EXPECT_EQ(PTZ_KIT_MAX_PRESET_NAME_BYTES, 32);
}

TEST(KitMessages, MessagesAreBoxedTypes) {
  const Move move = a_move();
  Move copy(static_cast<PTZKitMoveRequest *>(g_boxed_copy(PTZ_KIT_TYPE_MOVE_REQUEST, move.get())));
  EXPECT_EQ(copy->speed, 50);
  EXPECT_STREQ(g_type_name(PTZ_KIT_TYPE_MOVE_REQUEST), "PTZKitMoveRequest");
}

}  // namespace
