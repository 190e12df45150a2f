// The presets that the kit keeps for a driver that can move.
#include <fstream>

#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;

class KitPresets : public RunningDriver {
 protected:
  const std::string file_ = dir_.file("presets");

  void start_with_file() {
    make();
    g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
    start();
  }
  std::string store(int number, const char *name) {
    return ask(
        ("{'command': <'set_device_preset'>, 'number': <" + std::to_string(number) + ">, 'name': <'" + name + "'>}")
            .c_str());
  }
  std::string go(const char *command, int number) {
    return ask(
        (std::string("{'command': <'") + command + "'>, 'number': <" + std::to_string(number) + ">, 'speed': <60>}")
            .c_str());
  }
  std::string list() { return ask("{'command': <'get_device_presets'>}"); }
  std::string position_of(int number) {
    return ask(("{'command': <'get_preset_position'>, 'number': <" + std::to_string(number) + ">}").c_str());
  }
  static constexpr char two_presets[] =
      "{'command': <'get_device_presets'>, 'presets': <[{'number': <uint32 1>, 'name': <'door'>}, "
      "{'number': <uint32 3>, 'name': <'gate'>}]>}";
};

TEST_F(KitPresets, StoredPresetsAreListedByNumber) {
  start();
  EXPECT_EQ(store(3, "gate"), "{'command': <'set_device_preset'>, 'number': <uint32 3>}");
  store(1, "door");
  EXPECT_EQ(list(), two_presets);
}

TEST_F(KitPresets, GotoIsAbsoluteMoveToStoredPosition) {
  start();
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 4000, FALSE);
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_TILT, -500, FALSE);
  store(1, "door");
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 0, FALSE);
  EXPECT_EQ(go("goto_device_preset", 1), "{'command': <'goto_device_preset'>}");
  EXPECT_EQ(driver_->last_move.kind, guint32{PTZ_MOVE_ABSOLUTE});
  EXPECT_EQ(driver_->last_move.axes, 3);
  EXPECT_EQ(driver_->last_move.speed, 60);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 4000);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_TILT], -500);
}

TEST_F(KitPresets, UnknownPresetIsError5) {
  start();
  EXPECT_TRUE(is_error(go("goto_device_preset", 7), PTZ_KIT_ERROR_CODE_NOT_FOUND));
  EXPECT_TRUE(is_error(go("goto_preset", 7), PTZ_KIT_ERROR_CODE_NOT_FOUND));
  EXPECT_TRUE(is_error(position_of(7), PTZ_KIT_ERROR_CODE_NOT_FOUND));
}

TEST_F(KitPresets, DriverPresetMovesOnlyItsAxes) {
  start();
  EXPECT_EQ(ask("{'command': <'set_preset'>, 'number': <2>, 'name': <'left'>, 'axes': <1>, "
                "'position': <[-9000, 99999, 0]>}"),
            "{'command': <'set_preset'>, 'number': <uint32 2>}");
  EXPECT_EQ(position_of(2), "{'command': <'get_preset_position'>, 'axes': <uint32 1>, 'position': <[-9000, 0, 0]>}");
  EXPECT_EQ(go("goto_preset", 2), "{'command': <'goto_preset'>}");
  EXPECT_EQ(driver_->last_move.axes, 1);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], -9000);
}

TEST_F(KitPresets, DriverPresetBeyondLimitIsError4) {
  start();
  EXPECT_TRUE(is_error(ask("{'command': <'set_preset'>, 'number': <2>, 'name': <'left'>, 'axes': <1>, "
                           "'position': <[-17001, 0, 0]>}"),
                       PTZ_KIT_ERROR_CODE_OUT_OF_RANGE));
}

TEST_F(KitPresets, DefaultHomePresetIsWhereHomeGoes) {
  start();
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 4000, FALSE);
  store(1, "door");
  EXPECT_TRUE(is_error(ask("{'command': <'default_home_preset'>, 'number': <2>}"), PTZ_KIT_ERROR_CODE_NOT_FOUND));
  EXPECT_EQ(ask("{'command': <'default_home_preset'>, 'number': <1>}"), "{'command': <'default_home_preset'>}");
  const char *const home = "{'command': <'move_command'>, 'direction': <8>, 'speed': <100>}";
  ask(home);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 4000);
  ask("{'command': <'default_home_preset'>, 'number': <0>}");
  ask(home);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 100);
}

TEST_F(KitPresets, PresetsOfFileAreThereAfterRestart) {
  start_with_file();
  store(3, "gate");
  store(1, "door");
  ask("{'command': <'set_preset'>, 'number': <2>, 'name': <'left'>, 'axes': <1>, 'position': <[-9000, 0, 0]>}");
  ask("{'command': <'default_home_preset'>, 'number': <1>}");
  end();
  start_with_file();
  EXPECT_EQ(list(), two_presets);
  EXPECT_EQ(position_of(2), "{'command': <'get_preset_position'>, 'axes': <uint32 1>, 'position': <[-9000, 0, 0]>}");
}

TEST_F(KitPresets, FileOfAnotherVersionIsLeftAndStoringIsError6) {
  const std::string text = "[Header]\nVersionMajor=2\nVersionMinor=0\n";
  std::ofstream(file_) << text;
  const ptz_test::SyslogCapture log;
  start_with_file();
  EXPECT_TRUE(is_error(store(1, "door"), PTZ_KIT_ERROR_CODE_NOT_KEPT));
  EXPECT_EQ(list(), "{'command': <'get_device_presets'>, 'presets': <@aa{sv} []>}");
  EXPECT_EQ(log.containing("is left as it is"), 1U);
  std::ifstream in(file_);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), text);
}

TEST_F(KitPresets, DriverThatKeepsNoneDoesNotServeThem) {
  make();
  g_object_set(driver_, "keep-presets", FALSE, nullptr);
  start();
  EXPECT_TRUE(is_error(store(1, "door"), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
}

}  // namespace
