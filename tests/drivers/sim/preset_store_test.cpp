#include "preset_store.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>

#include "driver.h"
#include "faults.h"
#include "fixtures.h"
#include "syslog_capture.h"

using namespace example;

namespace {

constexpr PerAxis place = {-12'34, 5'67, 8'90};

class PresetStoreFile : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  ptz_test::SyslogCapture log_;
  const std::string path_ = dir_.file("state");

  void write(const std::string &text) { std::ofstream(path_) << text; }
  std::string contents() {
    std::ifstream in(path_);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  PresetStore opened(Presets factory_presets = {}) {
    PresetStore store(std::move(factory_presets));
    EXPECT_TRUE(store.open(path_));
    return store;
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
  PresetStore store = opened({{2, {"gate", {}}}});
  EXPECT_FALSE(std::filesystem::exists(path_));
  EXPECT_TRUE(store.set(7, {"entrance", place}));
  EXPECT_EQ(
      contents(),
      "[Header]\nVersionMajor=1\nVersionMinor=0\n\n[DevicePreset7]\nName=entrance\nPan=-1234\nTilt=567\nZoom=890\n");
}

TEST_F(PresetStoreFile, BringsPresetsBackAsTheyWere) {
  const std::vector<std::string> names = {" spaces ", "a=b;[c]#\\s", "line\nbreak\r\ttab", "Tür", "\x01\x7F"};
  PresetStore before = opened();
  for (guint32 number = 1; number <= names.size(); ++number) {
    EXPECT_TRUE(before.set(number, {names[number - 1], place}));
  }
  const PresetStore after = opened();
  ASSERT_EQ(after.all().size(), names.size());
  for (guint32 number = 1; number <= names.size(); ++number) {
    EXPECT_EQ(after.all().at(number).name, names[number - 1]);
    EXPECT_EQ(after.all().at(number).position, place);
  }
}

TEST_F(PresetStoreFile, CountsMoreThanTheFactory) {
  const Presets factory = {{1, {"overview", {}}}, {2, {"gate", {}}}};
  EXPECT_TRUE(opened(factory).set(2, {"mine", place}));
  const PresetStore after = opened(factory);
  EXPECT_EQ(after.all().at(1).name, "overview");
  EXPECT_EQ(after.all().at(2).name, "mine");
}

TEST_F(PresetStoreFile, KeepsWhatANewerDriverAdded) {
  write(
      "[Header]\nVersionMajor=1\nVersionMinor=3\n[DevicePreset1]\nName=a\nPan=1\nTilt=2\nZoom=100\nFocus=5\n[Lens]\nx="
      "y\n");
  PresetStore store = opened();
  EXPECT_TRUE(store.set(1, {"b", place}));
  EXPECT_EQ(contents(),
            "[Header]\nVersionMajor=1\nVersionMinor=3\n\n"
            "[DevicePreset1]\nName=b\nPan=-1234\nTilt=567\nZoom=890\nFocus=5\n\n[Lens]\nx=y\n");
}

TEST_F(PresetStoreFile, AndThePresetStayAsTheyWereWhereTheDiskIsFull) {
  PresetStore store = opened();
  EXPECT_TRUE(store.set(1, {"a", place}));
  const std::string before = contents();
  {
    const ptz_test::Fault full(ptz_test::Call::write, ENOSPC);
    EXPECT_FALSE(store.set(1, {"b", {}}));
    EXPECT_FALSE(store.set(2, {"c", {}}));
  }
  EXPECT_EQ(contents(), before);
  ASSERT_EQ(store.all().size(), 1U);
  EXPECT_EQ(store.all().at(1).name, "a");
  // What was refused does not come with the next one.
  EXPECT_TRUE(store.set(3, {"d", place}));
  EXPECT_EQ(opened().all().size(), 2U);
}

TEST_F(PresetStoreFile, ThatCannotBeMadeIsAnErrorReplyAndNothingElse) {
  std::ofstream(dir_.file("no-directory")) << "";
  PresetStore store;
  ASSERT_TRUE(store.open(dir_.file("no-directory") + "/state"));
  Driver driver(head_ranges, std::move(store));
  const Body refused = driver.answer(make_body(PTZ_COMMAND_SET_DEVICE_PRESET, Preset{1, "a"}).get(), 1);
  BodyReader reader(refused.get());
  ASSERT_EQ(reader.i32(), PTZ_COMMAND_ERROR_REPLY);
  EXPECT_EQ(ErrorReply::read(reader).code, ErrorCode::not_kept);
  EXPECT_TRUE(reader.finished());
  const Body goto_reply =
      driver.answer(make_body(PTZ_COMMAND_GOTO_DEVICE_PRESET, GotoPresetRequest{1, full_speed}).get(), 1);
  EXPECT_EQ(BodyReader(goto_reply.get()).i32(), PTZ_COMMAND_ERROR_REPLY);
}

TEST_F(PresetStoreFile, OfADirectoryIsLeftAlone) {
  std::filesystem::create_directory(path_);
  PresetStore store;
  EXPECT_FALSE(store.open(path_));
  EXPECT_FALSE(store.set(1, {"a", place}));
}

TEST_P(PresetStoreUnusableFile, IsKeptByteForByteAndTakesNothing) {
  write(GetParam().text);
  PresetStore store({{2, {"gate", place}}});
  EXPECT_FALSE(store.open(path_));
  EXPECT_FALSE(store.set(1, {"a", place}));
  EXPECT_FALSE(store.set(2, {"b", {}}));
  EXPECT_EQ(contents(), GetParam().text);
  ASSERT_EQ(store.all().size(), 1U);
  EXPECT_EQ(store.all().at(2).name, "gate");
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
