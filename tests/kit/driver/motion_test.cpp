// The directions of a move command.
#include "running_driver.h"

namespace {

const StatusStore store;

struct Direction {
  const char *title;
  PTZMoveCmd value;
  gint32 pan, tilt;  // their signs
};
class KitDriverDirection : public RunningDriver, public testing::WithParamInterface<Direction> {};

TEST_P(KitDriverDirection, IsContinuousMoveWithItsSigns) {
  start();
  const Direction &direction = GetParam();
  ask(("{'command': <'move_command'>, 'direction': <" + std::to_string(direction.value) + ">, 'speed': <50>}").c_str());
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_CONTINUOUS});
  EXPECT_EQ(driver_->last_move.axes, 3);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], direction.pan * 12000);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], direction.tilt * 9000);
}

INSTANTIATE_TEST_SUITE_P(
    , KitDriverDirection,
    testing::Values(Direction{"Up", PTZ_MOVE_CMD_UP, 0, 1}, Direction{"Down", PTZ_MOVE_CMD_DOWN, 0, -1},
                    Direction{"Left", PTZ_MOVE_CMD_LEFT, -1, 0}, Direction{"Right", PTZ_MOVE_CMD_RIGHT, 1, 0},
                    Direction{"UpLeft", PTZ_MOVE_CMD_UP_LEFT, -1, 1}, Direction{"UpRight", PTZ_MOVE_CMD_UP_RIGHT, 1, 1},
                    Direction{"DownLeft", PTZ_MOVE_CMD_DOWN_LEFT, -1, -1},
                    Direction{"DownRight", PTZ_MOVE_CMD_DOWN_RIGHT, 1, -1}),
    [](const auto &info) { return info.param.title; });

}  // namespace
