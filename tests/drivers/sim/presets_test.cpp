// The presets of the simulated head in the file that the kit keeps for it.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <ostream>

#include "faults.h"
#include "fixtures.h"
#include "running_driver.h"
#include "syslog_capture.h"

using namespace sim;
using namespace sim_test;

namespace {

constexpr PerAxis place = {-12'34, 5'67, 8'90};
constexpr PerAxis elsewhere = {0, 0, 1'00};

struct StoredPreset {
  std::string name;
  PerAxis position;
};
using Presets = std::map<guint32, StoredPreset>;

class PresetStoreFile : public RunningDriver {
 protected:
  ptz_test::TempDir dir_;
  ptz_test::SyslogCapture log_;
  const std::string path_ = dir_.file("state");

  void write(const std::string &text) { std::ofstream(path_) << text; }
  std::string contents() {
    std::ifstream in(path_);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  // A new driver with this file.
  void open(const Presets &factory_presets = {}) {
    make();
    g_object_set(driver_.get(), "preset-file", path_.c_str(), nullptr);
    for (const auto &[number, preset] : factory_presets) {
      const auto message = message_of(number, preset);
      ptz_kit_driver_add_factory_preset(driver_.get(), &message);
    }
    start();
  }
  static PTZKitSetPresetRequest message_of(guint32 number, const StoredPreset &preset) {
    const PerAxis &place = preset.position;
    return {number, const_cast<gchar *>(preset.name.c_str()), all_axes, {place[0], place[1], place[2]}};
  }
  bool set(guint32 number, const StoredPreset &preset) {
    const auto message = message_of(number, preset);
    return ptz_kit_driver_store_preset(driver_.get(), &message, nullptr) != FALSE;
  }
  Presets all() {
    const PointerArray presets(ptz_kit_driver_get_presets(driver_.get()));
    Presets all;
    for (guint index = 0; index < presets->len; ++index) {
      const auto &preset = *static_cast<const PTZKitSetPresetRequest *>(presets->pdata[index]);
      all[preset.number] = {preset.name, per_axis(preset.position)};
    }
    return all;
  }
};

struct Unusable {
  const char *why;
  std::string text;
};
void PrintTo(const Unusable &file, std::ostream *out) { *out << file.why; }

class PresetStoreUnusableFile : public PresetStoreFile, public testing::WithParamInterface<Unusable> {};

}  // namespace

TEST_F(PresetStoreFile, IsWrittenWhenAPresetIsSetAndNotBefore) {
  open({{2, {"gate", elsewhere}}});
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(set(7, {"entrance", place}));
  EXPECT_EQ(
      contents(),
      "[Header]\nVersionMajor=1\nVersionMinor=0\n\n[DevicePreset7]\nName=entrance\nPan=-1234\nTilt=567\nZoom=890\n");
}

TEST_F(PresetStoreFile, BringsPresetsBackAsTheyWere) {
  const std::vector<std::string> names = {" spaces ", "a=b;[c]#\\s", "line\nbreak\r\ttab", "Tür", "\x01\x7F"};
  open();
  for (guint32 number = 1; number <= names.size(); ++number) {
    EXPECT_TRUE(set(number, {names[number - 1], place}));
  }
  open();
  ASSERT_EQ(all().size(), names.size());
  for (guint32 number = 1; number <= names.size(); ++number) {
    EXPECT_EQ(all().at(number).name, names[number - 1]);
    EXPECT_EQ(all().at(number).position, place);
  }
}

TEST_F(PresetStoreFile, CountsMoreThanTheFactory) {
  const Presets factory = {{1, {"overview", elsewhere}}, {2, {"gate", elsewhere}}};
  open(factory);
  EXPECT_TRUE(set(2, {"mine", place}));
  open(factory);
  EXPECT_EQ(all().at(1).name, "overview");
  EXPECT_EQ(all().at(2).name, "mine");
}

TEST_F(PresetStoreFile, KeepsWhatANewerDriverAdded) {
  write(
      "[Header]\nVersionMajor=1\nVersionMinor=3\n[DevicePreset1]\nName=a\nPan=1\nTilt=2\nZoom=100\nFocus=5\n[Lens]\nx="
      "y\n");
  open();
  EXPECT_TRUE(set(1, {"b", place}));
  EXPECT_EQ(contents(),
            "[Header]\nVersionMajor=1\nVersionMinor=3\n\n"
            "[DevicePreset1]\nName=b\nPan=-1234\nTilt=567\nZoom=890\nFocus=5\n\n[Lens]\nx=y\n");
}

TEST_F(PresetStoreFile, AndThePresetStayAsTheyWereWhereTheDiskIsFull) {
  open();
  EXPECT_TRUE(set(1, {"a", place}));
  const std::string before = contents();
  {
    const ptz_test::Fault full(ptz_test::Call::write, ENOSPC);
    EXPECT_FALSE(set(1, {"b", elsewhere}));
    EXPECT_FALSE(set(2, {"c", elsewhere}));
  }
  EXPECT_EQ(contents(), before);
  ASSERT_EQ(all().size(), 1U);
  EXPECT_EQ(all().at(1).name, "a");
  // What was refused does not come with the next one.
  EXPECT_TRUE(set(3, {"d", place}));
  open();
  EXPECT_EQ(all().size(), 2U);
}

TEST_F(PresetStoreFile, ThatCannotBeMadeIsAnErrorReplyAndNothingElse) {
  std::ofstream(dir_.file("no-directory")) << "";
  g_object_set(driver_.get(), "preset-file", (dir_.file("no-directory") + "/state").c_str(), nullptr);
  start();
  EXPECT_EQ(refusal(answer(make_body(Preset{1, "a"}))), guint32{PTZ_KIT_ERROR_CODE_NOT_KEPT});
  EXPECT_EQ(refusal(answer(goto_preset(1))), guint32{PTZ_KIT_ERROR_CODE_NOT_FOUND});
}

TEST_F(PresetStoreFile, OfADirectoryIsLeftAlone) {
  std::filesystem::create_directory(path_);
  open();
  EXPECT_FALSE(set(1, {"a", place}));
}

TEST_P(PresetStoreUnusableFile, IsKeptByteForByteAndTakesNothing) {
  write(GetParam().text);
  open({{2, {"gate", place}}});
  EXPECT_FALSE(set(1, {"a", place}));
  EXPECT_FALSE(set(2, {"b", elsewhere}));
  EXPECT_EQ(contents(), GetParam().text);
  ASSERT_EQ(all().size(), 1U);
  EXPECT_EQ(all().at(2).name, "gate");
}
const std::string header = "[Header]\nVersionMajor=1\nVersionMinor=0\n";
INSTANTIATE_TEST_SUITE_P(
    All, PresetStoreUnusableFile,
    testing::Values(
        Unusable{"empty", ""}, Unusable{"no key file", std::string("\0\x01\xFFgarbage", 10)},
        Unusable{"no header", "[DevicePreset1]\nName=a\nPan=0\nTilt=0\nZoom=100\n"},
        Unusable{"another major version", "# mine\n[Header]\nVersionMajor=2\nVersionMinor=0\n"},
        Unusable{"an older minor version", "[Header]\nVersionMajor=1\nVersionMinor=-1\n"},
        Unusable{"a preset cut short", header + "[DevicePreset3]\nName=a\nPan=0\n"},
        Unusable{"no preset taken before a broken one",
                 header + "[DevicePreset1]\nName=a\nPan=0\nTilt=0\nZoom=100\n[DevicePreset3]\nName=a\n"},
        Unusable{"a position that is no number", header + "[DevicePreset3]\nName=a\nPan=0\nTilt=up\nZoom=100\n"},
        Unusable{"a position of more than 32 bits",
                 header + "[DevicePreset3]\nName=a\nPan=0\nTilt=0\nZoom=3000000000\n"},
        Unusable{"a name that is too long",
                 header + "[DevicePreset3]\nName=" + std::string(33, 'n') + "\nPan=0\nTilt=0\nZoom=100\n"},
        Unusable{"a name that is no text", header + "[DevicePreset3]\nName=\xE9\nPan=0\nTilt=0\nZoom=100\n"}));
