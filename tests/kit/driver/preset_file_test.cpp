// Preset files that are not as the driver wrote them last, and presets that a request meets in them.
#include <glib/gstdio.h>

#include <fstream>
#include <iterator>

#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;
constexpr char header[] = "[Header]\nVersionMajor=1\nVersionMinor=0\n";

std::string group(const char *name, const char *preset, int pan, int axes = 3) {
  return "[" + std::string(name) + "]\nName=" + preset + "\nAxes=" + std::to_string(axes) +
         "\nPan=" + std::to_string(pan) + "\nTilt=0\nZoom=0\n";
}

class KitPresetFile : public RunningDriver {
 protected:
  const std::string file_ = dir_.file("presets");

  void start_with(const std::string &groups) {
    std::ofstream(file_) << header << groups;
    make();
    g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
    start();
  }
  std::string list() { return ask("{'command': <'get_device_presets'>}"); }
  gint32 pan_after(const char *request) {
    EXPECT_FALSE(is_error(ask(request), PTZ_KIT_ERROR_CODE_NOT_FOUND));
    return driver_->last_move.value[PTZ_KIT_AXIS_PAN];
  }
  static constexpr char no_presets[] = "{'command': <'get_device_presets'>, 'presets': <@aa{sv} []>}";
};

TEST_F(KitPresetFile, PositionBeyondLimitIsMovedToLimit) {
  start_with(group("DevicePreset1", "far", 99999));
  EXPECT_EQ(pan_after("{'command': <'goto_device_preset'>, 'number': <1>, 'speed': <50>}"), 17000);
}

TEST_F(KitPresetFile, PresetOfAxesThatHeadDoesNotHaveMovesNothing) {
  start_with(group("Preset1", "zoom", 0, 4));
  EXPECT_EQ(ask("{'command': <'goto_preset'>, 'number': <1>, 'speed': <50>}"), "{'command': <'goto_preset'>}");
  EXPECT_EQ(driver_->moves, 0U);
}

TEST_F(KitPresetFile, DefaultHomePresetIsReadFromFile) {
  start_with(group("DevicePreset1", "door", 4000) + "[DefaultHome]\nPreset=1\n");
  EXPECT_EQ(pan_after("{'command': <'move_command'>, 'direction': <8>, 'speed': <50>}"), 4000);
}

TEST_F(KitPresetFile, PresetOfDriverHidesPresetOfDeviceInGetPresetPosition) {
  start_with(group("DevicePreset1", "door", 4000) + group("Preset1", "left", -9000));
  EXPECT_NE(ask("{'command': <'get_preset_position'>, 'number': <1>}").find("[-9000, 0, 0]"), std::string::npos);
}

TEST_F(KitPresetFile, GroupThatIsNoPresetLeavesNoPresetsAndStoringIsError6) {
  const ptz_test::SyslogCapture log;
  start_with(group("DevicePreset1", "door", 4000) + "[DevicePreset2]\nName=gate\nPan=far\n");
  EXPECT_EQ(log.containing("is left as it is: [DevicePreset2]"), 1U);
  EXPECT_EQ(list(), no_presets);
  EXPECT_TRUE(
      is_error(ask("{'command': <'set_device_preset'>, 'number': <3>, 'name': <'new'>}"), PTZ_KIT_ERROR_CODE_NOT_KEPT));
}

TEST_F(KitPresetFile, PresetThatCannotBeWrittenIsError6AndNotListed) {
  start_with("");
  // A folder in place of the file: writing fails for root, too.
  ASSERT_EQ(std::remove(file_.c_str()), 0);
  ASSERT_EQ(g_mkdir_with_parents((file_ + "/full").c_str(), 0700), 0);
  EXPECT_TRUE(
      is_error(ask("{'command': <'set_device_preset'>, 'number': <3>, 'name': <'new'>}"), PTZ_KIT_ERROR_CODE_NOT_KEPT));
  EXPECT_EQ(list(), no_presets);
}

TEST_F(KitPresetFile, ChangeThatCannotBeWrittenIsNotWrittenByNextOne) {
  start_with(group("DevicePreset1", "door", 4000) + "Tour=7\n");
  ASSERT_EQ(std::remove(file_.c_str()), 0);
  ASSERT_EQ(g_mkdir_with_parents((file_ + "/full").c_str(), 0700), 0);
  ask("{'command': <'set_device_preset'>, 'number': <1>, 'name': <'new'>}");
  ask("{'command': <'set_device_preset'>, 'number': <2>, 'name': <'new'>}");
  ASSERT_EQ(g_rmdir((file_ + "/full").c_str()) + g_rmdir(file_.c_str()), 0);
  EXPECT_FALSE(is_error(ask("{'command': <'set_device_preset'>, 'number': <3>, 'name': <'gate'>}"),
                        PTZ_KIT_ERROR_CODE_NOT_KEPT));
  std::ifstream file(file_);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  EXPECT_NE(text.find("Name=door"), std::string::npos) << text;
  EXPECT_NE(text.find("Tour=7"), std::string::npos) << text;
  EXPECT_NE(text.find("Name=gate"), std::string::npos) << text;
  EXPECT_EQ(text.find("new"), std::string::npos) << text;
}

}  // namespace
