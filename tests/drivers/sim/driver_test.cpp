#include "driver.h"

#include <gtest/gtest.h>
#include <ptz_serialize.h>
#include <ptz_socket_frame.h>

#include <algorithm>
#include <optional>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

using namespace example;

namespace example {
void PrintTo(ErrorCode code, std::ostream *out) { *out << "error code " << static_cast<guint32>(code); }
}  // namespace example

namespace {

class SimDriver : public testing::Test {
 protected:
  static constexpr gint64 long_us = 60 * G_USEC_PER_SEC;  // longer than any motion
  Driver driver_;
  gint64 now_us_ = 1'000'000;

  Body answer(const Body &request) { return driver_.answer(request.get(), now_us_); }

  // The reply to a request that is obeyed.
  template <typename Message>
  Message ask(PTZCommand command, const Body &request) {
    const Body reply = answer(request);
    BodyReader reader(reply.get());
    EXPECT_EQ(reader.i32(), command);
    Message message = Message::read(reader);
    EXPECT_TRUE(reader.finished());
    return message;
  }
  template <typename Message>
  Message ask(PTZCommand command) {
    return ask<Message>(command, make_body(command));
  }
  // Whether a request is obeyed with the command word alone.
  bool obeys(PTZCommand command, const Body &request) {
    const Body reply = answer(request);
    BodyReader reader(reply.get());
    return reader.i32() == command && reader.finished();
  }
  std::optional<ErrorCode> refusal(const Body &request) {
    const Body reply = answer(request);
    BodyReader reader(reply.get());
    if (reader.i32() != PTZ_COMMAND_ERROR_REPLY) return std::nullopt;
    const ErrorReply error = ErrorReply::read(reader);
    EXPECT_TRUE(reader.finished());
    EXPECT_FALSE(error.text.empty());
    return error.code;
  }

  bool move(guint32 kind, guint8 axes, const PerAxis &values, guint16 speed = full_speed) {
    return obeys(PTZ_COMMAND_MOVE, make_body(PTZ_COMMAND_MOVE, MoveRequest{kind, axes, speed, values}));
  }
  bool move_command(guint32 direction, guint16 speed = full_speed) {
    return obeys(PTZ_COMMAND_MOVE_COMMAND, make_body(PTZ_COMMAND_MOVE_COMMAND, MoveCommandRequest{direction, speed}));
  }
  void store(guint32 number, const std::string &name) {
    EXPECT_EQ(
        ask<PresetNumber>(PTZ_COMMAND_SET_DEVICE_PRESET, make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{number, name}))
            .number,
        number);
  }
  Positions positions() { return ask<Positions>(PTZ_COMMAND_QUERY_POSITION); }
  PerAxis position_later() {
    now_us_ += long_us;
    const Positions later = positions();
    EXPECT_TRUE(later.idle());
    return later.position;
  }
};

// One body of each request that the driver serves.
std::vector<Body> served_requests() {
  std::vector<Body> requests;
  for (const PTZCommand command :
       {PTZ_COMMAND_GET_DEVICE_PRESETS, PTZ_COMMAND_STOP, PTZ_COMMAND_QUERY_SPEED, PTZ_COMMAND_QUERY_POSITION,
        PTZ_COMMAND_QUERY_LIMIT_RANGES, PTZ_COMMAND_GET_DRIVER_NAME, PTZ_COMMAND_GET_DEVICE_TYPES,
        PTZ_COMMAND_GET_CAPABILITIES, PTZ_COMMAND_GET_DRIVER_PARAMETERS}) {
    requests.push_back(make_body(command));
  }
  requests.push_back(make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{3, "gate"}));
  requests.push_back(make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{3, full_speed}));
  requests.push_back(make_body(PTZ_COMMAND_MOVE, MoveRequest{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {1, 2, 300}}));
  requests.push_back(make_body(PTZ_COMMAND_MOVE_COMMAND, MoveCommandRequest{PTZ_MOVE_CMD_LEFT, full_speed}));
  requests.push_back(make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", PTZ_ENABLE_ON}));
  return requests;
}

Body cut(const Body &whole, guint size) {
  Body body(ptz_serialize_create_array());
  ptz_serialize_blob(body.get(), whole->data, size);
  return body;
}

}  // namespace

TEST_F(SimDriver, TellsWhatItIs) {
  EXPECT_EQ(ask<Name>(PTZ_COMMAND_GET_DRIVER_NAME).text, "sim-driver");
  EXPECT_FALSE(ask<DeviceTypes>(PTZ_COMMAND_GET_DEVICE_TYPES).elements.empty());
  const Capabilities capabilities = ask<Capabilities>(PTZ_COMMAND_GET_CAPABILITIES);
  EXPECT_NE(capabilities.words.move & PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM, 0U);
  EXPECT_NE(capabilities.words.extra & PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET, 0U);
}

TEST_F(SimDriver, TellsItsLimitsAsParametersToo) {
  const Limits limits = ask<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES);
  const ParameterList parameters = ask<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
  bool found = false;
  for (const DriverParameter &parameter : parameters.elements) {
    found = found || (parameter.name == "max_tilt" && parameter.value == std::to_string(limits.maximum[tilt]));
  }
  EXPECT_TRUE(found);
}

TEST_F(SimDriver, MovesAbsolutelyAndArrivesExactly) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {90'00, -12'34, 7'00}));
  now_us_ += G_USEC_PER_SEC / 2;
  EXPECT_EQ(positions().status[pan], PTZ_MOVE_STATUS_MOVING);
  EXPECT_GT(ask<Speeds>(PTZ_COMMAND_QUERY_SPEED).current[pan], 0);
  EXPECT_EQ(position_later(), (PerAxis{90'00, -12'34, 7'00}));
  EXPECT_EQ(ask<Speeds>(PTZ_COMMAND_QUERY_SPEED).current, (PerAxis{0, 0, 0}));
}

TEST_F(SimDriver, MovesOnlyTheAxesThatAreNamed) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, axis_bit(tilt), {G_MAXINT32, 10'00, G_MININT32}));
  now_us_ += 1000;
  EXPECT_EQ(positions().status, (PerAxis{PTZ_MOVE_STATUS_IDLE, PTZ_MOVE_STATUS_MOVING, PTZ_MOVE_STATUS_IDLE}));
  EXPECT_EQ(position_later(), (PerAxis{0, 10'00, 1'00}));
}

TEST_F(SimDriver, MovesAtTheSpeedThatIsAskedFor) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, axis_bit(pan), {100'00, 0, 0}, 25));
  now_us_ += G_USEC_PER_SEC;
  const Speeds speeds = ask<Speeds>(PTZ_COMMAND_QUERY_SPEED);
  EXPECT_EQ(speeds.current[pan], speeds.maximum[pan] / 4);
}

TEST_F(SimDriver, RefusesAnAbsoluteTargetBeyondALimitAsAWhole) {
  const MoveRequest beyond{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {10'00, 10'00, 30'01}};
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_MOVE, beyond)), ErrorCode::out_of_range);
  EXPECT_EQ(position_later(), head_home);
}

TEST_F(SimDriver, ClampsARelativeMoveAtTheLimit) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, axis_bit(pan), {150'00, 0, 0}));
  EXPECT_EQ(position_later()[pan], 150'00);
  EXPECT_TRUE(move(PTZ_MOVE_RELATIVE, axis_bit(pan), {-30'00, 0, 0}));
  EXPECT_EQ(position_later()[pan], 120'00);
  EXPECT_TRUE(move(PTZ_MOVE_RELATIVE, all_axes, {G_MAXINT32, G_MININT32, G_MAXINT32}));
  EXPECT_EQ(position_later(), (PerAxis{170'00, -20'00, 30'00}));
}

TEST_F(SimDriver, RunsContinuouslyUntilTheLimit) {
  EXPECT_TRUE(move(PTZ_MOVE_CONTINUOUS, axis_bit(pan) | axis_bit(zoom), {-50'00, 0, 2'00}, 50));
  now_us_ += G_USEC_PER_SEC;
  EXPECT_EQ(ask<Speeds>(PTZ_COMMAND_QUERY_SPEED).current, (PerAxis{-25'00, 0, 1'00}));
  EXPECT_EQ(position_later(), (PerAxis{-170'00, 0, 30'00}));
}

TEST_F(SimDriver, RefusesAContinuousMoveFasterThanItCan) {
  const MoveRequest faster{PTZ_MOVE_CONTINUOUS, axis_bit(pan), full_speed, {120'01, 0, 0}};
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_MOVE, faster)), ErrorCode::out_of_range);
}

TEST_F(SimDriver, StopsAllAxes) {
  EXPECT_TRUE(move(PTZ_MOVE_CONTINUOUS, all_axes, {50'00, 40'00, 2'00}));
  now_us_ += G_USEC_PER_SEC;
  EXPECT_TRUE(obeys(PTZ_COMMAND_STOP, make_body(PTZ_COMMAND_STOP)));
  const PerAxis at_rest = position_later();
  EXPECT_LT(at_rest[pan], 60'00);
  EXPECT_EQ(position_later(), at_rest);
}

TEST_F(SimDriver, RefusesMovesThatMakeNoSense) {
  for (const MoveRequest &request :
       {MoveRequest{PTZ_MOVE_NONE, all_axes, full_speed, {}},
        MoveRequest{PTZ_MOVE_CONTINUOUS + 1, all_axes, full_speed, {}},
        MoveRequest{PTZ_MOVE_RELATIVE, 0, full_speed, {}}, MoveRequest{PTZ_MOVE_RELATIVE, 8, full_speed, {}},
        MoveRequest{PTZ_MOVE_RELATIVE, all_axes, 0, {}}, MoveRequest{PTZ_MOVE_RELATIVE, all_axes, 101, {}}}) {
    EXPECT_EQ(refusal(make_body(PTZ_COMMAND_MOVE, request)), ErrorCode::out_of_range);
  }
}

struct DirectionCase {
  PTZMoveCmd direction;
  int right;
  int up;
};
void PrintTo(const DirectionCase &test, std::ostream *out) { *out << "direction " << test.direction; }
class SimDriverDirection : public SimDriver, public testing::WithParamInterface<DirectionCase> {};

TEST_P(SimDriverDirection, LeadsThatWay) {
  EXPECT_TRUE(move_command(GetParam().direction, 50));
  now_us_ += G_USEC_PER_SEC;
  const Speeds speeds = ask<Speeds>(PTZ_COMMAND_QUERY_SPEED);
  const PerAxis position = positions().position;
  EXPECT_EQ(speeds.current[pan], GetParam().right * speeds.maximum[pan] / 2);
  EXPECT_EQ(position[pan] > 0, GetParam().right > 0);
  EXPECT_EQ(position[pan] < 0, GetParam().right < 0);
  EXPECT_EQ(position[tilt] > 0, GetParam().up > 0);
  EXPECT_EQ(position[tilt] < 0, GetParam().up < 0);
}
INSTANTIATE_TEST_SUITE_P(
    All, SimDriverDirection,
    testing::Values(DirectionCase{PTZ_MOVE_CMD_UP, 0, 1}, DirectionCase{PTZ_MOVE_CMD_DOWN, 0, -1},
                    DirectionCase{PTZ_MOVE_CMD_LEFT, -1, 0}, DirectionCase{PTZ_MOVE_CMD_RIGHT, 1, 0},
                    DirectionCase{PTZ_MOVE_CMD_UP_LEFT, -1, 1}, DirectionCase{PTZ_MOVE_CMD_UP_RIGHT, 1, 1},
                    DirectionCase{PTZ_MOVE_CMD_DOWN_LEFT, -1, -1}, DirectionCase{PTZ_MOVE_CMD_DOWN_RIGHT, 1, -1}));

TEST_F(SimDriver, ADirectionReplacesTheOneBefore) {
  EXPECT_TRUE(move_command(PTZ_MOVE_CMD_UP_RIGHT));
  now_us_ += G_USEC_PER_SEC / 10;
  EXPECT_TRUE(move_command(PTZ_MOVE_CMD_DOWN));
  EXPECT_EQ(position_later()[tilt], -20'00);
  EXPECT_LT(positions().position[pan], 10'00);
}

TEST_F(SimDriver, GoesHomeAndStopsByMoveCommand) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {100'00, 50'00, 9'00}));
  now_us_ += G_USEC_PER_SEC / 2;
  EXPECT_TRUE(move_command(PTZ_MOVE_CMD_STOP));
  EXPECT_LT(position_later()[pan], 100'00);
  EXPECT_TRUE(move_command(PTZ_MOVE_CMD_HOME));
  EXPECT_EQ(position_later(), head_home);
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_MOVE_COMMAND, MoveCommandRequest{10, full_speed})), ErrorCode::out_of_range);
}

TEST_F(SimDriver, StoresPresetsAndReturnsToThem) {
  EXPECT_TRUE(ask<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS).elements.empty());
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {12'00, 34'00, 5'00}));
  position_later();
  store(32, "entrance");
  EXPECT_TRUE(move_command(PTZ_MOVE_CMD_HOME));
  position_later();
  store(1, "home");
  EXPECT_TRUE(obeys(PTZ_COMMAND_GOTO_DEVICE_PRESET,
                    make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{32, full_speed})));
  EXPECT_EQ(position_later(), (PerAxis{12'00, 34'00, 5'00}));

  const PresetList list = ask<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS);
  ASSERT_EQ(list.elements.size(), 2U);
  EXPECT_EQ(list.elements[0].name, "home");
  EXPECT_EQ(list.elements[1].number, 32U);
}

TEST_F(SimDriver, RefusesPresetsThatCannotBe) {
  for (const Preset &preset : {Preset{0, "a"}, Preset{33, "a"}, Preset{1, ""}, Preset{1, std::string(33, 'a')}}) {
    EXPECT_EQ(refusal(make_body(PTZ_COMMAND_SET_DEVICE_PRESET, preset)), ErrorCode::out_of_range);
  }
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{4, full_speed})), ErrorCode::not_found);
}

TEST_F(SimDriver, AFullListOfPresetsFitsAReply) {
  for (guint32 number = 1; number <= most_presets; ++number) store(number, std::string(longest_preset_name, 'n'));
  EXPECT_EQ(ask<PresetList>(PTZ_COMMAND_GET_DEVICE_PRESETS).elements.size(), most_presets);
  EXPECT_LE(answer(make_body(PTZ_COMMAND_GET_DEVICE_PRESETS))->len, PTZ_SOCKET_BODY_MAX);
}

TEST_F(SimDriver, SwitchesAnAuxiliaryAndTellsItsState) {
  const auto state = [this](guint32 wanted) {
    return ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", wanted})).state;
  };
  EXPECT_EQ(state(PTZ_ENABLE_NONE), guint32{PTZ_ENABLE_OFF});
  EXPECT_EQ(state(PTZ_ENABLE_ON), guint32{PTZ_ENABLE_ON});
  EXPECT_EQ(state(PTZ_ENABLE_NONE), guint32{PTZ_ENABLE_ON});
  EXPECT_EQ(state(PTZ_ENABLE_OFF), guint32{PTZ_ENABLE_OFF});
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", 3})), ErrorCode::out_of_range);
  EXPECT_EQ(refusal(make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"siren", PTZ_ENABLE_ON})), ErrorCode::not_found);
}

TEST_F(SimDriver, TellsItsLiveSettingsAsParametersThatFollowThem) {
  const auto parameter = [this](const std::string &name) {
    const ParameterList parameters = ask<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
    const auto found = std::ranges::find(parameters.elements, name, &DriverParameter::name);
    return found != parameters.elements.end() ? *found : DriverParameter{};
  };
  for (const auto &setting : live_settings) {
    EXPECT_EQ(parameter(setting.name).group, guint32{PTZ_PARAMETER_GROUP_AUX_BUTTON}) << setting.name;
    EXPECT_EQ(parameter(setting.name).kind, guint32{PTZ_PARAMETER_BOOLEAN});
    EXPECT_EQ(parameter(setting.name).label, setting.label);
    EXPECT_EQ(parameter(setting.name).range, "false,true");
    EXPECT_EQ(parameter(setting.name).value, "false");
    ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{setting.name, PTZ_ENABLE_ON}));
    EXPECT_EQ(parameter(setting.name).value, "true");
    ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{setting.name, PTZ_ENABLE_OFF}));
    EXPECT_EQ(parameter(setting.name).value, "false");
  }
}

TEST_F(SimDriver, TellsOfALiveSettingOnceForEachChange) {
  std::vector<std::string> heard;
  const SettingWatch watch(driver_.settings(), [&heard](const char *name, const GValue *value) {
    heard.push_back(std::string(name) + (g_value_get_boolean(value) != FALSE ? " on" : " off"));
  });
  for (const guint32 state : {PTZ_ENABLE_ON, PTZ_ENABLE_ON, PTZ_ENABLE_NONE, PTZ_ENABLE_OFF}) {
    ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"wiper", state}));
  }
  EXPECT_EQ(heard, (std::vector<std::string>{"wiper on", "wiper off"}));
}

TEST_F(SimDriver, IsMovedWithItsLiveSettings) {
  Driver moved = std::move(driver_);
  driver_ = std::move(moved);
  ask<Auxiliary>(PTZ_COMMAND_AUXILIARY, make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", PTZ_ENABLE_ON}));
  const ParameterList parameters = ask<ParameterList>(PTZ_COMMAND_GET_DRIVER_PARAMETERS);
  EXPECT_EQ(std::ranges::find(parameters.elements, "light", &DriverParameter::name)->value, "true");
}

TEST_F(SimDriver, TellsUnknownCommandsFromThoseItDoesNotServe) {
  for (const int command : {29, 30, 31, 33, -2, G_MAXINT32, G_MININT32}) {
    EXPECT_EQ(refusal(make_body(PTZCommand(command))), ErrorCode::unknown_command) << command;
  }
  for (const PTZCommand command : {PTZ_COMMAND_OSD_MENU, PTZ_COMMAND_ERROR_REPLY, PTZ_COMMAND_END_OF_RECORD}) {
    EXPECT_EQ(refusal(make_body(command)), ErrorCode::unsupported) << command;
  }
}

TEST_F(SimDriver, RefusesEveryRequestThatIsCutShort) {
  for (const Body &request : served_requests()) {
    for (guint size = 0; size < request->len; ++size) {
      EXPECT_EQ(refusal(cut(request, size)), ErrorCode::malformed)
          << "command " << int{request->data[0]} << ", " << size;
    }
  }
  EXPECT_EQ(position_later(), head_home);
}

TEST_F(SimDriver, RefusesEveryRequestWithSurplusBytes) {
  for (const Body &request : served_requests()) {
    ptz_serialize_8bit(request.get(), 0);
    EXPECT_EQ(refusal(request), ErrorCode::malformed) << "command " << int{request->data[0]};
  }
  EXPECT_EQ(position_later(), head_home);
}

TEST_F(SimDriver, RefusesATextThatClaimsMoreThanThereIs) {
  const Body request = make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{"light", PTZ_ENABLE_ON});
  request->data[4] = request->data[5] = static_cast<char>(0xFF);
  EXPECT_EQ(refusal(request), ErrorCode::malformed);
}

TEST_F(SimDriver, AnswersWhateverItIsSentAndStaysWithinItsLimits) {
  std::mt19937 random(1961);
  const std::vector<Body> seeds = served_requests();
  const Limits limits = ask<Limits>(PTZ_COMMAND_QUERY_LIMIT_RANGES);
  for (int round = 0; round < 20'000; ++round) {
    Body request = cut(seeds[random() % seeds.size()], 4);
    if (round % 2 == 0) {  // a known command, and nonsense
      for (guint left = random() % 64; left > 0; --left) ptz_serialize_8bit(request.get(), random());
    } else {  // a good request with a few bytes changed
      const Body &seed = seeds[random() % seeds.size()];
      request = cut(seed, seed->len);
      for (guint left = random() % 4; left > 0; --left) request->data[random() % request->len] = random();
    }
    now_us_ += random() % G_USEC_PER_SEC;
    const Body reply = answer(request);
    ASSERT_GE(reply->len, 4U);
    ASSERT_LE(reply->len, PTZ_SOCKET_BODY_MAX);
    const bool refused = std::string(reply->data, 4) == "\xFF\xFF\xFF\xFF";
    ASSERT_TRUE(refused || std::string(reply->data, 4) == std::string(request->data, 4));
    const Positions now = positions();
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      ASSERT_GE(now.position[axis], limits.minimum[axis]);
      ASSERT_LE(now.position[axis], limits.maximum[axis]);
    }
  }
}

TEST_F(SimDriver, AnswersTheLongestRequestThatAFrameCanHold) {
  const std::string name(PTZ_SOCKET_BODY_MAX - 10, 'x');
  const Body request = make_body(PTZ_COMMAND_AUXILIARY, Auxiliary{name, PTZ_ENABLE_ON});
  ASSERT_EQ(request->len, PTZ_SOCKET_BODY_MAX);
  EXPECT_EQ(refusal(request), ErrorCode::not_found);
  EXPECT_LE(answer(request)->len, PTZ_SOCKET_BODY_MAX);
}
