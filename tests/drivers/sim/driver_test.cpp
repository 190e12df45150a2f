// The commands of the driver of a simulated head, without a socket.
#include <gtest/gtest.h>
#include <ptz_socket_frame.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

#include "clock.h"
#include "messages.h"
#include "running_driver.h"

using namespace sim;
using namespace sim_test;

namespace {

class SimDriver : public RunningDriver {
 protected:
  void SetUp() override { start(); }

  static void pass(gint64 microseconds) { ptz_test::advance_clock(microseconds / 1000); }

  bool move(guint32 kind, guint8 axes, const PerAxis &values, guint16 speed = full_speed) {
    return obeys(make_body(MoveRequest{kind, axes, speed, values}));
  }
  // Whether a request is obeyed with the command word alone.
  bool obeys(const Body &request) { return answer(request) == request.substr(0, sizeof(gint32)); }
  bool command(guint32 direction, guint16 speed = full_speed) { return obeys(move_command(direction, speed)); }
  guint32 refused(const Body &request) { return refusal(answer(request)); }
  void store(guint32 number, const std::string &name) {
    EXPECT_EQ(READ_REPLY(set_device_preset, answer(make_body(Preset{number, name})))->number, number);
  }
  std::vector<Preset> presets() { return read_presets(answer(make_body(PTZ_COMMAND_GET_DEVICE_PRESETS))); }
  Positions positions() { return read_positions(answer(make_body(PTZ_COMMAND_QUERY_POSITION))); }
  Limits limits() { return read_limits(answer(make_body(PTZ_COMMAND_QUERY_LIMIT_RANGES))); }
  PerAxis speeds() { return per_axis(READ_REPLY(query_speed, answer(make_body(PTZ_COMMAND_QUERY_SPEED)))->current); }
  PerAxis max_speeds() {
    return per_axis(READ_REPLY(query_speed, answer(make_body(PTZ_COMMAND_QUERY_SPEED)))->maximum);
  }
  guint32 auxiliary(const std::string &name, guint32 state) {
    return READ_REPLY(auxiliary, answer(make_body(Auxiliary{name, state})))->state;
  }
  PerAxis position_later() {
    pass(60 * G_USEC_PER_SEC);  // longer than any motion
    const Positions later = positions();
    EXPECT_TRUE(later.idle());
    return later.position;
  }
  struct Parameter {
    guint32 group, kind;
    std::string label, value, range;
  };
  Parameter parameter(const std::string &name) {
    const auto reply = READ_REPLY(get_driver_parameters, answer(make_body(PTZ_COMMAND_GET_DRIVER_PARAMETERS)));
    for (guint index = 0; index < reply->parameters->len; ++index) {
      const auto &each = *static_cast<const PTZKitParameter *>(reply->parameters->pdata[index]);
      if (name == each.name) return {each.group, each.kind, each.label, each.value, each.range};
    }
    return {};
  }
};

// One body of each request that the driver itself serves.
std::vector<Body> served_requests() {
  std::vector<Body> requests;
  for (const PTZCommand command :
       {PTZ_COMMAND_GET_DEVICE_PRESETS, PTZ_COMMAND_STOP, PTZ_COMMAND_QUERY_SPEED, PTZ_COMMAND_QUERY_POSITION,
        PTZ_COMMAND_QUERY_LIMIT_RANGES, PTZ_COMMAND_GET_DRIVER_NAME, PTZ_COMMAND_GET_DEVICE_TYPES,
        PTZ_COMMAND_GET_CAPABILITIES, PTZ_COMMAND_GET_DRIVER_PARAMETERS, PTZ_COMMAND_GET_AUXILIARY}) {
    requests.push_back(make_body(command));
  }
  requests.push_back(make_body(Preset{3, "gate"}));
  requests.push_back(goto_preset(3));
  requests.push_back(make_body(MoveRequest{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {1, 2, 300}}));
  requests.push_back(move_command(PTZ_MOVE_CMD_LEFT));
  requests.push_back(make_body(Auxiliary{"light", PTZ_ENABLE_ON}));
  return requests;
}

}  // namespace

TEST_F(SimDriver, TellsWhatItIs) {
  EXPECT_STREQ(READ_REPLY(get_driver_name, answer(make_body(PTZ_COMMAND_GET_DRIVER_NAME)))->name, "sim-driver");
  EXPECT_EQ(READ_REPLY(get_device_types, answer(make_body(PTZ_COMMAND_GET_DEVICE_TYPES)))->types->len, 1U);
  const auto capabilities = READ_REPLY(get_capabilities, answer(make_body(PTZ_COMMAND_GET_CAPABILITIES)));
  EXPECT_NE(capabilities->move & PTZ_DRIVER_MOVE_CAPABILITIES_CONTZOOM, 0U);
  EXPECT_NE(capabilities->extra & PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICEPRESET, 0U);
}

TEST_F(SimDriver, TellsItsLimitsAsParametersToo) {
  EXPECT_EQ(parameter("max_tilt").value, std::to_string(limits().maximum[tilt]));
}

TEST_F(SimDriver, MovesAbsolutelyAndArrivesExactly) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {90'00, -12'34, 7'00}));
  pass(G_USEC_PER_SEC / 2);
  EXPECT_EQ(positions().status[pan], PTZ_MOVE_STATUS_MOVING);
  EXPECT_GT(speeds()[pan], 0);
  EXPECT_EQ(position_later(), (PerAxis{90'00, -12'34, 7'00}));
  EXPECT_EQ(speeds(), (PerAxis{0, 0, 0}));
}

TEST_F(SimDriver, MovesOnlyTheAxesThatAreNamed) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, axis_bit(tilt), {G_MAXINT32, 10'00, G_MININT32}));
  pass(1000);
  EXPECT_EQ(positions().status, (PerAxis{PTZ_MOVE_STATUS_IDLE, PTZ_MOVE_STATUS_MOVING, PTZ_MOVE_STATUS_IDLE}));
  EXPECT_EQ(position_later(), (PerAxis{0, 10'00, 1'00}));
}

TEST_F(SimDriver, MovesAtTheSpeedThatIsAskedFor) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, axis_bit(pan), {100'00, 0, 0}, 25));
  pass(G_USEC_PER_SEC);
  EXPECT_EQ(speeds()[pan], max_speeds()[pan] / 4);
}

TEST_F(SimDriver, RefusesAnAbsoluteTargetBeyondALimitAsAWhole) {
  const MoveRequest beyond{PTZ_MOVE_ABSOLUTE, all_axes, full_speed, {10'00, 10'00, 30'01}};
  EXPECT_EQ(refused(make_body(beyond)), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
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
  pass(G_USEC_PER_SEC);
  EXPECT_EQ(speeds(), (PerAxis{-25'00, 0, 1'00}));
  EXPECT_EQ(position_later(), (PerAxis{-170'00, 0, 30'00}));
}

TEST_F(SimDriver, RefusesAContinuousMoveFasterThanItCan) {
  const MoveRequest faster{PTZ_MOVE_CONTINUOUS, axis_bit(pan), full_speed, {120'01, 0, 0}};
  EXPECT_EQ(refused(make_body(faster)), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
}

TEST_F(SimDriver, StopsAllAxes) {
  EXPECT_TRUE(move(PTZ_MOVE_CONTINUOUS, all_axes, {50'00, 40'00, 2'00}));
  pass(G_USEC_PER_SEC);
  EXPECT_TRUE(obeys(make_body(PTZ_COMMAND_STOP)));
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
    EXPECT_EQ(refused(make_body(request)), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
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
  EXPECT_TRUE(command(GetParam().direction, 50));
  pass(G_USEC_PER_SEC);
  const PerAxis position = positions().position;
  EXPECT_EQ(speeds()[pan], GetParam().right * max_speeds()[pan] / 2);
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
  EXPECT_TRUE(command(PTZ_MOVE_CMD_UP_RIGHT));
  pass(G_USEC_PER_SEC / 10);
  EXPECT_TRUE(command(PTZ_MOVE_CMD_DOWN));
  EXPECT_EQ(position_later()[tilt], -20'00);
  EXPECT_LT(positions().position[pan], 10'00);
}

TEST_F(SimDriver, GoesHomeAndStopsByMoveCommand) {
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {100'00, 50'00, 9'00}));
  pass(G_USEC_PER_SEC / 2);
  EXPECT_TRUE(command(PTZ_MOVE_CMD_STOP));
  EXPECT_LT(position_later()[pan], 100'00);
  EXPECT_TRUE(command(PTZ_MOVE_CMD_HOME));
  EXPECT_EQ(position_later(), head_home);
  EXPECT_EQ(refused(move_command(10)), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
}

TEST_F(SimDriver, StoresPresetsAndReturnsToThem) {
  EXPECT_TRUE(presets().empty());
  EXPECT_TRUE(move(PTZ_MOVE_ABSOLUTE, all_axes, {12'00, 34'00, 5'00}));
  position_later();
  store(32, "entrance");
  EXPECT_TRUE(command(PTZ_MOVE_CMD_HOME));
  position_later();
  store(1, "home");
  EXPECT_TRUE(obeys(goto_preset(32)));
  EXPECT_EQ(position_later(), (PerAxis{12'00, 34'00, 5'00}));

  const std::vector<Preset> list = presets();
  ASSERT_EQ(list.size(), 2U);
  EXPECT_EQ(list[0].name, "home");
  EXPECT_EQ(list[1].number, 32U);
}

TEST_F(SimDriver, RefusesPresetsThatCannotBe) {
  for (const Preset &preset : {Preset{0, "a"}, Preset{33, "a"}, Preset{1, ""}, Preset{1, std::string(33, 'a')}}) {
    EXPECT_EQ(refused(make_body(preset)), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
  }
  EXPECT_EQ(refused(goto_preset(4)), guint32{PTZ_KIT_ERROR_CODE_NOT_FOUND});
}

TEST_F(SimDriver, AFullListOfPresetsFitsAReply) {
  for (guint32 number = 1; number <= 32; ++number) store(number, std::string(32, 'n'));
  EXPECT_EQ(presets().size(), 32U);
  EXPECT_LE(answer(make_body(PTZ_COMMAND_GET_DEVICE_PRESETS)).size(), PTZ_SOCKET_BODY_MAX);
}

TEST_F(SimDriver, SwitchesAnAuxiliaryAndTellsItsState) {
  const auto state = [this](guint32 wanted) { return auxiliary("light", wanted); };
  EXPECT_EQ(state(PTZ_ENABLE_NONE), guint32{PTZ_ENABLE_OFF});
  EXPECT_EQ(state(PTZ_ENABLE_ON), guint32{PTZ_ENABLE_ON});
  EXPECT_EQ(state(PTZ_ENABLE_NONE), guint32{PTZ_ENABLE_ON});
  EXPECT_EQ(state(PTZ_ENABLE_OFF), guint32{PTZ_ENABLE_OFF});
  EXPECT_EQ(refused(make_body(Auxiliary{"light", 3})), guint32{PTZ_KIT_ERROR_CODE_OUT_OF_RANGE});
  EXPECT_EQ(refused(make_body(Auxiliary{"siren", PTZ_ENABLE_ON})), guint32{PTZ_KIT_ERROR_CODE_NOT_FOUND});
}

TEST_F(SimDriver, TellsItsLiveSettingsAsParametersThatFollowThem) {
  for (const auto &setting : live_settings) {
    EXPECT_EQ(parameter(setting.name).group, guint32{PTZ_PARAMETER_GROUP_AUX_BUTTON}) << setting.name;
    EXPECT_EQ(parameter(setting.name).kind, guint32{PTZ_PARAMETER_BOOLEAN});
    EXPECT_EQ(parameter(setting.name).label, setting.label);
    EXPECT_EQ(parameter(setting.name).range, "false,true");
    EXPECT_EQ(parameter(setting.name).value, "false");
    auxiliary(setting.name, PTZ_ENABLE_ON);
    EXPECT_EQ(parameter(setting.name).value, "true");
    auxiliary(setting.name, PTZ_ENABLE_OFF);
    EXPECT_EQ(parameter(setting.name).value, "false");
  }
}

TEST_F(SimDriver, TellsOfALiveSettingOnceForEachChange) {
  std::vector<std::string> heard;
  const SettingWatch watch(live_settings_of(driver_.get()), [&heard](const char *name, const GValue *value) {
    heard.push_back(std::string(name) + (g_value_get_boolean(value) != FALSE ? " on" : " off"));
  });
  for (const guint32 state : {PTZ_ENABLE_ON, PTZ_ENABLE_ON, PTZ_ENABLE_NONE, PTZ_ENABLE_OFF}) {
    auxiliary("wiper", state);
  }
  EXPECT_EQ(heard, (std::vector<std::string>{"wiper on", "wiper off"}));
}

TEST_F(SimDriver, ListsItsAuxiliariesWithTheirStates) {
  auxiliary("wiper", PTZ_ENABLE_ON);
  const auto reply = READ_REPLY(get_auxiliary, answer(make_body(PTZ_COMMAND_GET_AUXILIARY)));
  std::string list;
  for (guint index = 0; index < reply->auxiliaries->len; ++index) {
    const auto &each = *static_cast<const PTZKitAuxiliary *>(reply->auxiliaries->pdata[index]);
    list += std::string(each.name) + (each.state == PTZ_ENABLE_ON ? " on;" : " off;");
  }
  EXPECT_EQ(list, "light off;wiper on;ir_cut_filter off;");
}

TEST_F(SimDriver, TellsUnknownCommandsFromThoseItDoesNotServe) {
  for (const int command : {29, 30, 31, 33, -2, G_MAXINT32, G_MININT32}) {
    EXPECT_EQ(refused(make_body(PTZCommand(command))), guint32{PTZ_KIT_ERROR_CODE_UNKNOWN_COMMAND}) << command;
  }
  for (const PTZCommand command : {PTZ_COMMAND_OSD_MENU, PTZ_COMMAND_ERROR_REPLY, PTZ_COMMAND_END_OF_RECORD}) {
    EXPECT_EQ(refused(make_body(command)), guint32{PTZ_KIT_ERROR_CODE_UNSUPPORTED}) << command;
  }
}

TEST_F(SimDriver, RefusesEveryRequestThatIsCutShort) {
  for (const Body &request : served_requests()) {
    for (std::size_t size = 0; size < request.size(); ++size) {
      EXPECT_EQ(refused(request.substr(0, size)), guint32{PTZ_KIT_ERROR_CODE_MALFORMED})
          << "command " << int{request[0]} << ", " << size;
    }
  }
  EXPECT_EQ(position_later(), head_home);
}

TEST_F(SimDriver, RefusesEveryRequestWithSurplusBytes) {
  for (const Body &request : served_requests()) {
    EXPECT_EQ(refused(request + '\0'), guint32{PTZ_KIT_ERROR_CODE_MALFORMED}) << "command " << int{request[0]};
  }
  EXPECT_EQ(position_later(), head_home);
}

TEST_F(SimDriver, RefusesATextThatClaimsMoreThanThereIs) {
  Body request = make_body(Auxiliary{"light", PTZ_ENABLE_ON});
  request[4] = request[5] = '\xFF';
  EXPECT_EQ(refused(request), guint32{PTZ_KIT_ERROR_CODE_MALFORMED});
}

TEST_F(SimDriver, AnswersWhateverItIsSentAndStaysWithinItsLimits) {
  std::mt19937 random(1961);
  const std::vector<Body> seeds = served_requests();
  const Limits limits = this->limits();
  for (int round = 0; round < 20'000; ++round) {
    Body request = seeds[random() % seeds.size()];
    if (round % 2 == 0) {  // a known command, and nonsense
      request.resize(4);
      for (guint left = random() % 64; left > 0; --left) request += static_cast<char>(random());
    } else {  // a good request with a few bytes changed
      for (guint left = random() % 4; left > 0; --left)
        request[random() % request.size()] = static_cast<char>(random());
    }
    pass(random() % G_USEC_PER_SEC);
    const Body reply = answer(request);
    ASSERT_GE(reply.size(), 4U);
    ASSERT_LE(reply.size(), PTZ_SOCKET_BODY_MAX);
    ASSERT_TRUE(first_word(reply) == PTZ_COMMAND_ERROR_REPLY || first_word(reply) == first_word(request));
    const Positions now = positions();
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      ASSERT_GE(now.position[axis], limits.minimum[axis]);
      ASSERT_LE(now.position[axis], limits.maximum[axis]);
    }
  }
}

TEST_F(SimDriver, AnswersTheLongestRequestThatAFrameCanHold) {
  const std::string name(PTZ_SOCKET_BODY_MAX - 10, 'x');
  const Body request = make_body(Auxiliary{name, PTZ_ENABLE_ON});
  ASSERT_EQ(request.size(), PTZ_SOCKET_BODY_MAX);
  EXPECT_NE(refused(request), 0U);
  EXPECT_LE(answer(request).size(), PTZ_SOCKET_BODY_MAX);
}
