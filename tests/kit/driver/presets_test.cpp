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

struct PresetDeleter {
  void operator()(PTZKitSetPresetRequest *preset) const { ptz_kit_set_preset_request_free(preset); }
};
using Preset = std::unique_ptr<PTZKitSetPresetRequest, PresetDeleter>;

Preset preset(guint32 number, const char *name, gint32 pan = 0, guint8 axes = 3) {
  const gint32 position[] = {pan, 0, 0};
  return Preset(ptz_kit_set_preset_request_new(number, name, axes, position));
}

class KitPresetsOfProgram : public KitPresets {
 protected:
  std::vector<std::string> changes_;

  void start() {
    if (driver_ == nullptr) make();
    g_signal_connect(driver_, "preset-changed", G_CALLBACK(on_change), this);
    KitPresets::start();
  }
  static void on_change(PTZKitDriver *, guint number, const PTZKitSetPresetRequest *before,
                        const PTZKitSetPresetRequest *after, KitPresetsOfProgram *self) {
    self->changes_.push_back(std::to_string(number) + ": " + text_of_preset(before) + " -> " + text_of_preset(after));
  }
  static std::string text_of_preset(const PTZKitSetPresetRequest *preset) {
    if (preset == nullptr) return "none";
    return std::string(preset->name) + " " + std::to_string(preset->axes) + " " + std::to_string(preset->position[0]);
  }
  // The error; empty on success.
  std::string store_preset(const Preset &preset) {
    GError *error = nullptr;
    if (ptz_kit_driver_store_preset(kit(), preset.get(), &error)) return "";
    std::string message = error->message;
    g_error_free(error);
    return message;
  }
  std::string names() {
    GPtrArray *presets = ptz_kit_driver_get_presets(kit());
    std::string text;
    for (guint index = 0; index < presets->len; ++index) {
      text += static_cast<PTZKitSetPresetRequest *>(presets->pdata[index])->name + std::string(";");
    }
    g_ptr_array_unref(presets);
    return text;
  }
};

TEST_F(KitPresetsOfProgram, FactoryPresetIsServedUntilFileHasAnother) {
  make();
  ptz_kit_driver_add_factory_preset(kit(), preset(1, "overview", 500).get());
  ptz_kit_driver_add_factory_preset(kit(), preset(3, "gate").get());
  g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
  start();
  store(1, "door");
  EXPECT_EQ(list(), two_presets);
  end();
  make();
  ptz_kit_driver_add_factory_preset(kit(), preset(1, "overview", 500).get());
  ptz_kit_driver_add_factory_preset(kit(), preset(2, "far").get());
  g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
  start();
  EXPECT_EQ(names(), "door;far;");
}

TEST_F(KitPresetsOfProgram, FactoryPresetIsServedIfFileCannotBeUsed) {
  std::ofstream(file_) << "[Header]\nVersionMajor=1\nVersionMinor=0\n[DevicePreset2]\nName=x\n";
  const ptz_test::SyslogCapture log;
  make();
  ptz_kit_driver_add_factory_preset(kit(), preset(1, "overview").get());
  g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
  start();
  EXPECT_EQ(names(), "overview;");
  EXPECT_EQ(log.containing("is left as it is"), 1U);
}

TEST_F(KitPresetsOfProgram, EveryChangeOfDevicePresetIsSignalledWithOldAndNewPreset) {
  start();
  ptz_kit_driver_report_axis(kit(), PTZ_KIT_AXIS_PAN, 4000, FALSE);
  store(1, "door");
  EXPECT_EQ(store_preset(preset(1, "gate", -7)), "");
  EXPECT_TRUE(ptz_kit_driver_remove_preset(kit(), 1, nullptr));
  EXPECT_TRUE(ptz_kit_driver_remove_preset(kit(), 1, nullptr));
  EXPECT_EQ(changes_, (std::vector<std::string>{"1: none -> door 3 4000", "1: door 3 4000 -> gate 3 -7",
                                                "1: gate 3 -7 -> none"}));
  EXPECT_EQ(names(), "");
}

TEST_F(KitPresetsOfProgram, PresetThatCannotBeIsRefusedAndChangesNothing) {
  start();
  EXPECT_EQ(store_preset(preset(2, "far", 0, 4)), "the head does not have all of these axes");
  EXPECT_EQ(store_preset(preset(2, "caf\xE9")), "the name is not UTF-8");
  EXPECT_NE(store_preset(preset(33, "far")), "");
  EXPECT_NE(store_preset(preset(2, "")), "");
  EXPECT_EQ(names(), "");
  EXPECT_TRUE(changes_.empty());
}

TEST_F(KitPresetsOfProgram, ChangeThatCannotBeKeptIsErrorAndChangesNothing) {
  std::ofstream(dir_.file("no-folder")) << "";
  make();
  ptz_kit_driver_add_factory_preset(kit(), preset(1, "overview").get());
  g_object_set(driver_, "preset-file", dir_.file("no-folder/presets").c_str(), nullptr);
  const ptz_test::SyslogCapture log;
  start();
  EXPECT_NE(store_preset(preset(1, "door")), "");
  EXPECT_FALSE(ptz_kit_driver_remove_preset(kit(), 1, nullptr));
  EXPECT_FALSE(ptz_kit_driver_sync_presets(kit(), nullptr));
  EXPECT_EQ(names(), "overview;");
  EXPECT_TRUE(changes_.empty());
}

TEST_F(KitPresetsOfProgram, PresetBeyondLimitIsKeptAndGotoEndsAtLimit) {
  start();
  EXPECT_EQ(store_preset(preset(2, "far", 17001)), "");
  go("goto_device_preset", 2);
  EXPECT_EQ(driver_->last_move.value[PTZ_KIT_AXIS_PAN], 17000);
  EXPECT_EQ(position_of(2), "{'command': <'get_preset_position'>, 'axes': <uint32 3>, 'position': <[17001, 0, 0]>}");
}

TEST_F(KitPresetsOfProgram, SyncNeedsFile) {
  make();
  start();
  EXPECT_FALSE(ptz_kit_driver_sync_presets(kit(), nullptr));
  end();
  make();
  g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
  start();
  EXPECT_TRUE(ptz_kit_driver_sync_presets(kit(), nullptr));
}

TEST_F(KitPresetsOfProgram, FileNamesAxesOnlyIfThePresetDoesNotMoveAll) {
  make();
  ptz_kit_driver_set_axis(kit(), PTZ_KIT_AXIS_ZOOM, 0, 100, 10, 50);
  g_object_set(driver_, "preset-file", file_.c_str(), nullptr);
  start();
  const auto text = [this] {
    std::ifstream in(file_);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  const gint32 position[] = {1, 2, 3};
  EXPECT_EQ(store_preset(Preset(ptz_kit_set_preset_request_new(4, "some", 5, position))), "");
  EXPECT_NE(text().find("[DevicePreset4]\nName=some\nAxes=5\nPan=1\nTilt=2\nZoom=3\n"), std::string::npos) << text();
  EXPECT_EQ(store_preset(Preset(ptz_kit_set_preset_request_new(4, "all", 7, position))), "");
  EXPECT_NE(text().find("[DevicePreset4]\nName=all\nPan=1\nTilt=2\nZoom=3\n"), std::string::npos) << text();
}

TEST_F(KitPresets, HomePresetIsToldToTheDriver) {
  make();
  start();
  EXPECT_EQ(ptz_kit_driver_get_home_preset(kit()), 0U);
  store(3, "door");
  ask("{'command': <'default_home_preset'>, 'number': <3>}");
  EXPECT_EQ(ptz_kit_driver_get_home_preset(kit()), 3U);
}

TEST_F(KitPresets, DriverThatKeepsNoneDoesNotServeThem) {
  make();
  g_object_set(driver_, "keep-presets", FALSE, nullptr);
  start();
  EXPECT_TRUE(is_error(store(1, "door"), PTZ_KIT_ERROR_CODE_UNSUPPORTED));
  EXPECT_FALSE(ptz_kit_driver_store_preset(kit(), preset(1, "door").get(), nullptr));
}

}  // namespace
