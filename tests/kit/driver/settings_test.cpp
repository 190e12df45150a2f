// Declared settings: values from files, and what is told of a bad one.
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "running_driver.h"
#include "syslog_capture.h"

namespace {

class KitSettings : public testing::Test {
 protected:
  ptz_test::TempDir dir_;
  PTZKitDriver *driver_ = PTZ_KIT_DRIVER(g_object_new(recording_driver_get_type(), nullptr));

  void SetUp() override {
    ptz_kit_driver_add_setting(driver_, "Head", "Speed", PTZ_KIT_SETTING_INTEGER, "50", 1, 100, "Speed");
    ptz_kit_driver_add_setting(driver_, "Head", "Port", PTZ_KIT_SETTING_STRING, "first", 1, 8, "Port");
    ptz_kit_driver_add_setting(driver_, "Wiper", "On", PTZ_KIT_SETTING_BOOLEAN, "yes", 0, 0, "Wiper");
  }
  void TearDown() override { g_object_unref(driver_); }

  std::string file(const char *name, const std::string &text) {
    std::ofstream(dir_.file(name)) << text;
    return dir_.file(name);
  }
  // The error; empty on success.
  std::string load(const std::vector<std::string> &files) {
    std::vector<const gchar *> paths;
    for (const std::string &path : files) paths.push_back(path.c_str());
    paths.push_back(nullptr);
    GError *error = nullptr;
    if (ptz_kit_driver_load_settings(driver_, paths.data(), &error)) return "";
    EXPECT_TRUE(g_error_matches(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE));
    std::string message = error->message;
    g_error_free(error);
    return message;
  }
  std::string load_text(const std::string &text) { return load({file("settings", text)}); }
  std::string at(int line) { return dir_.file("settings") + ":" + std::to_string(line) + ": "; }
  gint64 speed() { return ptz_kit_driver_get_integer(driver_, "Head", "Speed"); }
  std::string port() { return ptz_kit_driver_get_string(driver_, "Head", "Port"); }
  bool wiper() { return ptz_kit_driver_get_boolean(driver_, "Wiper", "On") != FALSE; }
};

TEST_F(KitSettings, DefaultsHoldWithoutFile) {
  EXPECT_EQ(speed(), 50);
  EXPECT_EQ(port(), "first");
  EXPECT_TRUE(wiper());
}

TEST_F(KitSettings, TextWithEscapedByteThatIsNotUtf8IsBad) {
  EXPECT_EQ(load_text(R"([Head]
Port=caf\\351)"),
            at(2) + "[Head] Port: the text is not UTF-8");
}

TEST_F(KitSettings, EscapesAreResolvedAsByLibrary) {
  for (const auto &[text, value] : {std::pair{R"(a\sb\\101)", "a bA"}, {R"(x\q\)", "xq"}, {R"("\s")", " "}}) {
    EXPECT_EQ(load_text(std::string("[Head]\nPort=") + text + "\n"), "");
    EXPECT_EQ(port(), value) << text;
    gchar *of_library = ptz_settings_get_string("Head", -1, "Port");
    EXPECT_STREQ(of_library, value) << text;
    g_free(of_library);
  }
}

TEST_F(KitSettings, DriverMayRefuseValuesThatAreGoodByThemselves) {
  reinterpret_cast<RecordingDriver *>(driver_)->complaint = "[Head] Speed: too much\n[Head] Port: too far";
  EXPECT_EQ(load_text("[Head]\nSpeed=2\n"), "[Head] Speed: too much\n[Head] Port: too far");
  EXPECT_EQ(load_text("[Head]\nSpeed=0\n"), at(2) + "[Head] Speed: 0 is not within 1 to 100");
}

TEST_F(KitSettings, ValuesOfFileReplaceDefaults) {
  EXPECT_EQ(load_text("# comment\n[Head]\nSpeed = 0x20\nPort=\"a b\"\n\n[root.Wiper]\nOn=No\r\n"), "");
  EXPECT_EQ(speed(), 32);
  EXPECT_EQ(port(), "a b");
  EXPECT_FALSE(wiper());
}

TEST_F(KitSettings, LaterFileOverridesEarlierOne) {
  EXPECT_EQ(load({file("a", "[Head]\nSpeed=1\nPort=x\n"), file("b", "[Head]\nSpeed=2\n")}), "");
  EXPECT_EQ(speed(), 2);
  EXPECT_EQ(port(), "x");
}

TEST_F(KitSettings, EveryBadValueIsToldWithFileAndLine) {
  EXPECT_EQ(load_text("[Head]\nSpeed=fast\nPort=123456789\n[Wiper]\nOn=1\n"),
            at(2) + "[Head] Speed: \"fast\" is not a whole number\n" + at(3) +
                "[Head] Port: the text has 9 bytes, not 1 to 8\n" + at(5) +
                "[Wiper] On: \"1\" is not yes, no, true or false");
}

TEST_F(KitSettings, NumberBeyondBoundsOrFollowedByTextIsBad) {
  EXPECT_EQ(load_text("[Head]\nSpeed=101\n"), at(2) + "[Head] Speed: 101 is not within 1 to 100");
  EXPECT_EQ(load_text("[Head]\nSpeed=9.5\n"), at(2) + "[Head] Speed: \"9.5\" is not a whole number");
  EXPECT_EQ(load_text("[Head]\nSpeed=99999999999999999999\n"),
            at(2) + "[Head] Speed: \"99999999999999999999\" is not a whole number");
  EXPECT_EQ(speed(), 50);
}

TEST_F(KitSettings, UnknownKeyIsWarningWithFileAndLine) {
  const ptz_test::SyslogCapture log;
  EXPECT_EQ(load_text("[Head]\nSpeed=7\nSpede=8\n"), "");
  EXPECT_EQ(log.containing(at(3) + "[Head] Spede: there is no such setting"), 1U);
  EXPECT_EQ(speed(), 7);
}

TEST_F(KitSettings, LineThatIsNothingIsBad) {
  EXPECT_EQ(load_text("Speed=1\n"), at(1) +
                                        "this is neither a group, nor a key in a group with its value, nor a "
                                        "comment");
}

TEST_F(KitSettings, FileThatIsNotUtf8IsBad) {
  EXPECT_EQ(load_text("[Head]\nPort=\xff\n"), dir_.file("settings") + ": the file is not UTF-8");
}

TEST_F(KitSettings, EscapeSequencesOfTextAreResolved) {
  EXPECT_EQ(load_text("[Head]\nPort=a\\tb\n"), "");
  EXPECT_EQ(port(), "a\tb");
}

TEST_F(KitSettings, ByteOrderMarkIsToldOnce) {
  EXPECT_EQ(load_text("\xef\xbb\xbf[Head]\nSpeed=1\nPort=x\n"),
            dir_.file("settings") + ": the file begins with a byte order mark");
}

TEST_F(KitSettings, FifoWithoutWriterIsBadAtOnce) {
  ASSERT_EQ(mkfifo(dir_.file("fifo").c_str(), 0600), 0);
  EXPECT_EQ(load({dir_.file("fifo")}), dir_.file("fifo") + ": this is no regular file");
}

TEST_F(KitSettings, FileWithoutEndIsBad) { EXPECT_EQ(load({"/dev/zero"}), "/dev/zero: this is no regular file"); }

TEST_F(KitSettings, FileOfMoreThanOneMebibyteIsNotRead) {
  EXPECT_EQ(load_text("#" + std::string(1 << 20, 'x')), dir_.file("settings") + ": the file has more than 1 MiB");
  EXPECT_EQ(load_text("#" + std::string((1 << 20) - 1, 'x')), "");
}

TEST_F(KitSettings, ProblemsBehindTwentiethAreCounted) {
  std::string text;
  for (int i = 0; i < 25; ++i) text += "x\n";
  const std::string error = load_text(text);
  EXPECT_EQ(std::ranges::count(error, '\n'), 20);
  EXPECT_TRUE(error.ends_with("\nand 5 more")) << error;
  const ptz_test::SyslogCapture log;
  text = "[Head]\n";
  for (int i = 0; i < 21; ++i) text += "Key" + std::to_string(i) + "=1\n";
  EXPECT_EQ(load_text(text), "");
  EXPECT_EQ(log.containing("there is no such setting"), 20U);
  EXPECT_EQ(log.containing("and 1 more"), 1U);
}

TEST_F(KitSettings, TextWithEscapeOfByteZeroIsBad) {
  for (const char *text : {R"(a\\0b)", R"(\\000)", R"(a\\400b)"}) {
    EXPECT_EQ(load_text(std::string("[Head]\nPort=") + text + "\n"), at(2) + "[Head] Port: the text holds the byte 0");
  }
  EXPECT_EQ(load_text("[Head]\nPort=\\\\\\\\0\\\\0601\n"), "");
  EXPECT_EQ(port(),
            "\\0"
            "01");
}

TEST_F(KitSettings, SettingThatNoFileHasGetsDefaultAgain) {
  EXPECT_EQ(load_text("[Head]\nSpeed=7\n"), "");
  EXPECT_EQ(load_text("[Head]\nPort=x\n"), "");
  EXPECT_EQ(speed(), 50);
  EXPECT_EQ(port(), "x");
}

TEST_F(KitSettings, FailedLoadKeepsAllValues) {
  EXPECT_EQ(load_text("[Head]\nSpeed=7\n"), "");
  const gchar *kept = ptz_kit_driver_get_string(driver_, "Head", "Port");
  EXPECT_NE(load_text("[Head]\nSpeed=8\nPort=123456789\n"), "");
  EXPECT_EQ(speed(), 7);
  EXPECT_EQ(ptz_kit_driver_get_string(driver_, "Head", "Port"), kept);
}

TEST_F(KitSettings, DeclarationThatContradictsItselfOrAnotherIsCritical) {
  const ptz_test::GlibLogCapture log;
  ptz_kit_driver_add_setting(driver_, "Lens", "A", PTZ_KIT_SETTING_INTEGER, "abc", 1, 9, "not a number");
  ptz_kit_driver_add_setting(driver_, "Lens", "B", PTZ_KIT_SETTING_INTEGER, "10", 1, 9, "beyond");
  ptz_kit_driver_add_setting(driver_, "Lens", "C", PTZ_KIT_SETTING_STRING, "", 9, 1, "no range");
  ptz_kit_driver_add_setting(driver_, "Lens", "D", PTZ_KIT_SETTING_BOOLEAN, "maybe", 0, 0, "no boolean");
  ptz_kit_driver_add_setting(driver_, "Head", "Speed", PTZ_KIT_SETTING_INTEGER, "3", 1, 9, "twice");
  EXPECT_EQ(log.criticals(), 5U);
  ptz_kit_driver_add_setting(driver_, "Lens", "E", PTZ_KIT_SETTING_STRING, "", 1, 9, "no value");
  EXPECT_EQ(log.criticals(), 5U);
  EXPECT_EQ(speed(), 50);
}

TEST_F(KitSettings, DefaultIsReadAsInFile) {
  ptz_kit_driver_add_setting(driver_, "Lens", "Name", PTZ_KIT_SETTING_STRING, "\"a b\"", 1, 9, "a name");
  EXPECT_STREQ(ptz_kit_driver_get_string(driver_, "Lens", "Name"), "a b");
}

TEST_F(KitSettings, MissingFileIsBad) { EXPECT_NE(load({dir_.file("none")}).find("/none"), std::string::npos); }

TEST_F(KitSettings, LibraryHasSettingsOfFilesToo) {
  EXPECT_EQ(load_text("[PTZDriverManager]\nNbrOfDrivers=2\n"), "");
  gint32 drivers = 0;
  EXPECT_TRUE(ptz_settings_get_int("PTZDriverManager", -1, "NbrOfDrivers", &drivers));
  EXPECT_EQ(drivers, 2);
}

TEST_F(KitSettings, UndeclaredSettingIsCritical) {
  const ptz_test::GlibLogCapture log;
  EXPECT_EQ(ptz_kit_driver_get_integer(driver_, "Head", "Port"), 0);
  EXPECT_EQ(log.criticals(), 1U);
}

}  // namespace
