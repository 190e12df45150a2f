#include "driver_settings.h"

#include <gtest/gtest.h>

#include <fstream>
#include <ostream>

#include "fixtures.h"
#include "running_driver.h"
#include "syslog_capture.h"

using namespace sim;

namespace {

class DriverSettingsFiles : public sim_test::RunningDriver {
 protected:
  ptz_test::TempDir dir_;
  ptz_test::SyslogCapture log_;
  std::vector<std::string> complaints_;

  std::string write(const std::string &name, const std::string &text) {
    std::ofstream(dir_.file(name)) << text;
    return dir_.file(name);
  }
  std::optional<DriverSettings> load_files(const std::vector<std::string> &files) {
    std::vector<const gchar *> paths;
    for (const std::string &file : files) paths.push_back(file.c_str());
    paths.push_back(nullptr);
    GError *raw = nullptr;
    if (ptz_kit_driver_load_settings(driver_.get(), paths.data(), &raw) != FALSE) {
      return read_settings(driver_.get(), nullptr);
    }
    const Error error(raw);
    const TextList lines(g_strsplit(error->message, "\n", -1));
    for (char **line = lines.get(); *line != nullptr; ++line) complaints_.emplace_back(*line);
    return std::nullopt;
  }
  std::optional<DriverSettings> load(const std::string &text) { return load_files({write("settings", text)}); }
  // Where a complaint says that the value stands.
  std::string at(int line) const { return dir_.file("settings") + ":" + std::to_string(line) + ": "; }
};

struct BadValue {
  const char *text;
  const char *group_and_key;
};
void PrintTo(const BadValue &value, std::ostream *out) { *out << testing::PrintToString(std::string(value.text)); }

class DriverSettingsBadValue : public DriverSettingsFiles, public testing::WithParamInterface<BadValue> {};

}  // namespace

TEST_F(DriverSettingsFiles, OfTheExampleAreWhatItShows) {
  const auto settings = load_files({SIM_DRIVER_SETTINGS});
  ASSERT_TRUE(settings) << complaints_.front();
  EXPECT_EQ(settings->ranges[pan].minimum, -160'00);
  EXPECT_EQ(settings->ranges[pan].maximum, 160'00);
  EXPECT_EQ(settings->ranges[tilt].minimum, -15'00);
  EXPECT_EQ(settings->ranges[zoom].maximum, 20'00);
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    EXPECT_EQ(settings->ranges[axis].max_speed, head_ranges[axis].max_speed);
    EXPECT_EQ(settings->ranges[axis].acceleration, head_ranges[axis].acceleration);
  }
  ASSERT_EQ(settings->factory_presets.size(), 2U);
  EXPECT_EQ(settings->factory_presets.at(1).name, "overview");
  EXPECT_EQ(settings->factory_presets.at(2).name, "far gate");
  EXPECT_EQ(settings->factory_presets.at(2).position, (PerAxis{-120'00, -5'00, 15'00}));
}

TEST_F(DriverSettingsFiles, AreTheBuiltInOnesWhereAKeyIsMissing) {
  const auto settings = load("[Tilt]\nMaxSpeed=7\n[Camera]\nMin=x\n[Pan]\nColour=white\n");
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->ranges[tilt].max_speed, 7);
  EXPECT_EQ(settings->ranges[tilt].minimum, head_ranges[tilt].minimum);
  EXPECT_EQ(settings->ranges[pan].maximum, head_ranges[pan].maximum);
  EXPECT_TRUE(settings->factory_presets.empty());
}

TEST_F(DriverSettingsFiles, AreReadAsOneWhereALaterKeyCounts) {
  const std::string first = write("1.conf", "[Pan]\nMin=-100\nMax=100\n");
  const std::string second = write("2.conf", "[Pan]\nMax=0x20\n");
  const auto settings = load_files({first, second});
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->ranges[pan].minimum, -100);
  EXPECT_EQ(settings->ranges[pan].maximum, 32);
}

TEST_F(DriverSettingsFiles, TakeTheWholeRangeOf32Bits) {
  const auto settings = load("[Pan]\nMin=-2147483648\nMax=2147483647\nMaxSpeed=1000000\nAcceleration=1000000\n");
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->ranges[pan].minimum, G_MININT32);
  EXPECT_EQ(settings->ranges[pan].maximum, G_MAXINT32);
  EXPECT_EQ(faster(settings->ranges, 20)[pan].acceleration, 400'000'000);
}

TEST_F(DriverSettingsFiles, MayLeaveOutPresetsAndTheirKeys) {
  const auto settings = load("[Pan]\nMin=500\n[Preset31]\n[Preset4]\nTilt=1\n[Preset32]\nName=too many\n");
  ASSERT_TRUE(settings);
  ASSERT_EQ(settings->factory_presets.size(), 2U);
  EXPECT_EQ(settings->factory_presets.at(5).name, "Preset 5");
  EXPECT_EQ(settings->factory_presets.at(5).position, (PerAxis{500, 1, 1'00}));
  EXPECT_EQ(settings->factory_presets.at(32).position, (PerAxis{500, 0, 1'00}));
}

TEST_F(DriverSettingsFiles, PutTheHeadNextToItsHomeWhereTheLimitsExcludeThat) {
  const auto settings = load("[Pan]\nMin=500\n[Tilt]\nMax=-300\n[Zoom]\nMin=200\n");
  ASSERT_TRUE(settings);
  start();
  EXPECT_EQ(head_of(driver_.get()).each(&Axis::position), (PerAxis{500, -300, 200}));
}

TEST_F(DriverSettingsFiles, TellAllThatIsWrong) {
  EXPECT_FALSE(load("[Pan]\nMaxSpeed=0\n[Zoom]\nMin=x\nAcceleration=-1\n"));
  EXPECT_EQ(complaints_, (std::vector<std::string>{at(2) + "[Pan] MaxSpeed: 0 is not within 1 to 1000000",
                                                   at(4) + "[Zoom] Min: \"x\" is not a whole number",
                                                   at(5) + "[Zoom] Acceleration: -1 is not within 1 to 1000000"}));
}

TEST_F(DriverSettingsFiles, TellAllThatDoesNotFitTheRest) {
  EXPECT_FALSE(load("[Pan]\nMin=17001\n[Zoom]\nMax=99\n[Preset3]\nTilt=9001\n"));
  EXPECT_EQ(complaints_, (std::vector<std::string>{"[Pan] Min: 17001 is not below Max, 17000",
                                                   "[Zoom] Min: 100 is not below Max, 99"}));
  complaints_.clear();
  make();
  EXPECT_FALSE(load("[Preset3]\nTilt=9001\n[Preset4]\nPan=-17001\n"));
  EXPECT_EQ(complaints_, (std::vector<std::string>{"[Preset3] Tilt: 9001 is not within -2000 to 9000",
                                                   "[Preset4] Pan: -17001 is not within -17000 to 17000"}));
}

TEST_F(DriverSettingsFiles, MustAllBeThere) {
  const std::string there = write("1.conf", "[Pan]\nMin=-100\n");
  EXPECT_FALSE(load_files({there, dir_.file("missing")}));
  EXPECT_EQ(complaints_.size(), 1U);
}

TEST_F(DriverSettingsFiles, MustBeAKeyFile) {
  EXPECT_FALSE(load("Pan is 160 degrees\n"));
  EXPECT_EQ(complaints_.size(), 1U);
}

TEST_P(DriverSettingsBadValue, IsRefusedByGroupAndKey) {
  EXPECT_FALSE(load(GetParam().text));
  ASSERT_EQ(complaints_.size(), 1U);
  EXPECT_NE(complaints_.front().find(GetParam().group_and_key), std::string::npos) << complaints_.front();
}
INSTANTIATE_TEST_SUITE_P(
    All, DriverSettingsBadValue,
    testing::Values(
        BadValue{"[Pan]\nMin=17001\n", "[Pan] Min"}, BadValue{"[Tilt]\nMin=100\nMax=99\n", "[Tilt] Min"},
        BadValue{"[Tilt]\nMin=100\nMax=100\n", "[Tilt] Min"}, BadValue{"[Zoom]\nMin=0\n", "[Zoom] Min"},
        BadValue{"[Pan]\nMaxSpeed=0\n", "[Pan] MaxSpeed"}, BadValue{"[Pan]\nMaxSpeed=-5\n", "[Pan] MaxSpeed"},
        BadValue{"[Pan]\nMaxSpeed=1000001\n", "[Pan] MaxSpeed"},
        BadValue{"[Tilt]\nAcceleration=0\n", "[Tilt] Acceleration"}, BadValue{"[Pan]\nMax=fast\n", "[Pan] Max"},
        BadValue{"[Pan]\nMax=\n", "[Pan] Max"}, BadValue{"[Pan]\nMax=90.5\n", "[Pan] Max"},
        BadValue{"[Pan]\nMax=9000 # degrees\n", "[Pan] Max"}, BadValue{"[Pan]\nMax=0x\n", "[Pan] Max"},
        BadValue{"[Pan]\nMax=\\q\n", "[Pan] Max"}, BadValue{"[Pan]\nMax=2147483648\n", "[Pan] Max"},
        BadValue{"[Pan]\nMin=-2147483649\n", "[Pan] Min"}, BadValue{"[Pan]\nMax=99999999999999999999\n", "[Pan] Max"},
        BadValue{"[Preset0]\nPan=17001\n", "[Preset0] Pan"}, BadValue{"[Preset31]\nZoom=x\n", "[Preset31] Zoom"},
        BadValue{"[Preset2]\nName=\n", "[Preset2] Name"},
        BadValue{"[Preset2]\nName=123456789012345678901234567890123\n", "[Preset2] Name"},
        BadValue{"[Preset2]\nName=caf\xE9\n", "the file is not UTF-8"},
        BadValue{"[Preset2]\nName=caf\\\\351\n", "[Preset2] Name"}));
