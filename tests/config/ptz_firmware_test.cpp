#include "ptz_firmware.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "file_calls.h"
#include "fixtures.h"
#include "handles.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;
using KeyFile = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;

const std::string major_path = "/etc/ptz/firmware.major";
const std::string minor_path = "/etc/ptz/firmware.minor";

std::optional<std::string> owned(gchar *text) {
  const Text handle(text);
  return handle ? std::optional<std::string>(handle.get()) : std::nullopt;
}

// --- tags -------------------------------------------------------------------------------------------------------

std::optional<PTZFirmwareMajorTag> majors(const std::string &tag) {
  PTZFirmwareMajorTag tags;
  std::memset(&tags, 'X', sizeof tags);
  return ptz_firmware_extract_majors(tag.c_str(), &tags) ? std::optional(tags) : std::nullopt;
}

std::optional<PTZFirmwareMinorTag> minors(const std::string &tag) {
  PTZFirmwareMinorTag tags{-9, -9, -9};
  return ptz_firmware_extract_minors(tag.c_str(), &tags) ? std::optional(tags) : std::nullopt;
}

TEST(FirmwareTags, AMajorTagHasFiveParts) {
  const auto tags = majors("camera_7-libptz_2-stable-a");
  ASSERT_TRUE(tags);
  EXPECT_STREQ(tags->name, "camera");
  EXPECT_EQ(tags->first, 7);
  EXPECT_EQ(tags->second, 2);
  EXPECT_STREQ(tags->third, "stable");
  EXPECT_STREQ(tags->fourth, "a");
}

TEST(FirmwareTags, TheFourthPartEndsAtADash) {
  const auto tags = majors("my camera_-7-libptz_+2-s_t a-end-more");
  ASSERT_TRUE(tags);
  EXPECT_STREQ(tags->name, "my camera");
  EXPECT_EQ(tags->first, -7);
  EXPECT_EQ(tags->second, 2);
  EXPECT_STREQ(tags->third, "s_t a");
  EXPECT_STREQ(tags->fourth, "end");
}

TEST(FirmwareTags, PartsOf31CharactersAreWhole) {
  const std::string longest(31, 'n');
  const auto tags = majors(longest + "_1-libptz_2-" + longest + "-" + longest);
  ASSERT_TRUE(tags);
  EXPECT_EQ(tags->name, longest);
  EXPECT_EQ(tags->third, longest);
  EXPECT_EQ(tags->fourth, longest);
}

TEST(FirmwareTags, ALongerLastPartIsCutAndOtherLongerPartsDoNotMatch) {
  const std::string longest(31, 'n');
  const auto tags = majors("camera_1-libptz_2-x-" + longest + "nn");
  ASSERT_TRUE(tags);
  EXPECT_EQ(tags->fourth, longest);
  EXPECT_FALSE(majors(longest + "n_1-libptz_2-x-y"));
  EXPECT_FALSE(majors("camera_1-libptz_2-" + longest + "n-y"));
}

struct BadMajorTag : testing::TestWithParam<const char *> {};

TEST_P(BadMajorTag, IsRefused) { EXPECT_FALSE(majors(GetParam())); }

INSTANTIATE_TEST_SUITE_P(, BadMajorTag,
                         testing::Values("", "camera", "camera_", "camera_7", "camera_x-libptz_2-a-b",
                                         "_7-libptz_2-a-b", "camera_7-libptz_", "camera_7-libptz_2",
                                         "camera_7-libptz_2-", "camera_7-libptz_2-a", "camera_7-libptz_2-a-",
                                         "camera_7-libptz_2--b", "camera_7-libxyz_2-a-b", "camera_7_libptz_2-a-b",
                                         "none", "%s%n%s%n", "camera_7-libptz_2-a--"));

TEST(FirmwareTags, AMinorTagHasTwoNumbers) {
  const auto tags = minors("camera_3-libptz_5");
  ASSERT_TRUE(tags);
  EXPECT_EQ(tags->first, 3);
  EXPECT_EQ(tags->second, 5);
  EXPECT_EQ(tags->third, 0);
}

TEST(FirmwareTags, TextAfterAMinorTagIsIgnored) {
  const auto tags = minors(std::string(200, 'n') + "_-3-libptz_5-more_6");
  ASSERT_TRUE(tags);
  EXPECT_EQ(tags->first, -3);
  EXPECT_EQ(tags->second, 5);
  EXPECT_EQ(tags->third, 0);
}

struct BadMinorTag : testing::TestWithParam<const char *> {};

TEST_P(BadMinorTag, IsRefused) { EXPECT_FALSE(minors(GetParam())); }

INSTANTIATE_TEST_SUITE_P(, BadMinorTag,
                         testing::Values("", "camera", "camera_", "camera_3", "_3-libptz_5", "camera_3-libptz_",
                                         "camera_x-libptz_5", "camera_3-libptz_x", "camera_3_libptz_5", "none",
                                         "%n%n"));

TEST(FirmwareTags, NumbersBeyond32BitsDoNoHarm) {
  majors("camera_99999999999999999999-libptz_99999999999-a-b");
  minors("camera_99999999999999999999-libptz_-99999999999999999999");
  const auto edge = minors("camera_2147483647-libptz_-2147483648");
  ASSERT_TRUE(edge);
  EXPECT_EQ(edge->first, 2147483647);
  EXPECT_EQ(edge->second, -2147483647 - 1);
}

// --- validation -------------------------------------------------------------------------------------------------

template <typename Validate>
void expect_verdict(Validate validate, const char *system, const char *driver, bool compatible,
                    std::vector<LogLine> lines) {
  const SyslogCapture log;
  GError *raw = nullptr;
  EXPECT_EQ(validate(system, driver, &raw) != FALSE, compatible);
  const Error error(raw);
  EXPECT_EQ(log.lines(), lines);
  EXPECT_EQ(error == nullptr, compatible);
  if (!error || lines.empty()) return;
  EXPECT_EQ(error->domain, g_quark_from_string("ptz_firmware_error_quark"));
  EXPECT_EQ(error->code, 118);
  EXPECT_EQ(error->message, lines.back().text);
}

void expect_majors(const char *system, const char *driver, bool compatible, std::vector<LogLine> lines) {
  expect_verdict(ptz_firmware_validate_majors, system, driver, compatible, std::move(lines));
}
void expect_minors(const char *system, const char *driver, bool compatible, std::vector<LogLine> lines) {
  expect_verdict(ptz_firmware_validate_minors, system, driver, compatible, std::move(lines));
}

TEST(Firmware, TheErrorDomainHasItsName) {
  EXPECT_STREQ(g_quark_to_string(ptz_firmware_error_quark()), "ptz_firmware_error_quark");
  EXPECT_EQ(PTZ_FIRMWARE_ERROR, ptz_firmware_error_quark());
  EXPECT_EQ(PTZ_FIRMWARE_ERROR_INCOMPATIBLE, 118);
}

TEST(Firmware, EqualMajorsAreCompatible) {
  expect_majors("camera_7-libptz_2-a-b", "camera_7-libptz_2-a-b", true, {});
  expect_majors("not a tag", "not a tag", true, {});
  expect_majors("", "", true, {});
}

TEST(Firmware, MajorsThatDifferInAnyCharacterAreNot) {
  expect_majors(
      "camera_7-libptz_2-a-b", "camera_07-libptz_2-a-b", false,
      {{LOG_WARNING, "PTZ major doesn't match: driver (camera_07-libptz_2-a-b), system (camera_7-libptz_2-a-b)"}});
  expect_majors("a", "A", false, {{LOG_WARNING, "PTZ major doesn't match: driver (A), system (a)"}});
  expect_majors("a", "", false, {{LOG_WARNING, "PTZ major doesn't match: driver (), system (a)"}});
  expect_majors("%s%n", "%d", false, {{LOG_WARNING, "PTZ major doesn't match: driver (%d), system (%s%n)"}});
}

TEST(Firmware, EqualMinorsAreCompatibleUnparsed) {
  expect_minors("camera_3-libptz_5", "camera_3-libptz_5", true, {});
  expect_minors("nonsense", "nonsense", true, {});
}

TEST(Firmware, MinorsOfEqualNumbersAreCompatibleWithoutAMessage) {
  expect_minors("camera_3-libptz_5", "driver_3-libptz_5", true, {});
}

TEST(Firmware, AnOlderDriverIsCompatibleWithAWarning) {
  for (const char *older : {"c_2-libptz_5", "c_3-libptz_4", "c_2-libptz_1", "c_-3-libptz_5"}) {
    expect_minors(
        "c_3-libptz_5", older, true,
        {{LOG_WARNING, "PTZ driver minor (" + std::string(older) + ") is older than system minor (c_3-libptz_5)"}});
  }
}

TEST(Firmware, ADriverThatIsNewerInEitherNumberIsNotCompatible) {
  for (const char *newer : {"c_3-libptz_6", "c_4-libptz_5", "c_4-libptz_1", "c_1-libptz_6", "c_4-libptz_6"}) {
    expect_minors(
        "c_3-libptz_5", newer, false,
        {{LOG_WARNING, "PTZ minor doesn't match: driver (" + std::string(newer) + "), system (c_3-libptz_5)"}});
  }
}

TEST(Firmware, MinorsThatDoNotParseAreNamed) {
  expect_minors("bad %s%n", "c_3-libptz_5", false, {{LOG_WARNING, "PTZ system minor invalid: bad %s%n"}});
  expect_minors("c_3-libptz_5", "bad %s%n", false, {{LOG_ERR, "PTZ driver minor invalid: bad %s%n"}});
  expect_minors("bad", "also bad", false, {{LOG_WARNING, "PTZ system minor invalid: bad"}});
}

// --- null arguments ---------------------------------------------------------------------------------------------

TEST(Firmware, NullArgumentsAreRefused) {
  const SyslogCapture log;
  const GlibLogCapture criticals;
  PTZFirmwareMajorTag major;
  PTZFirmwareMinorTag minor;
  GError *error = nullptr;
  EXPECT_FALSE(ptz_firmware_extract_majors(nullptr, &major));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_extract_majors", "buf != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_extract_majors("tag", nullptr));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_extract_majors", "tags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_extract_minors(nullptr, &minor));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_extract_minors", "buf != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_extract_minors("tag", nullptr));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_extract_minors", "tags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_majors(nullptr, "tag", &error));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_majors", "systemtags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_majors("tag", nullptr, &error));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_majors", "drivertags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_majors("tag", "tag", nullptr));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_majors", "err != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_minors(nullptr, "tag", &error));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_minors", "systemtags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_minors("tag", nullptr, &error));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_minors", "drivertags != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_validate_minors("tag", "tag", nullptr));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_validate_minors", "err != NULL"), 1U);
  EXPECT_EQ(ptz_firmware_get_file_string(nullptr), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_firmware_get_file_string", "file_path != NULL"), 1U);
  EXPECT_EQ(ptz_firmware_get_g_key_string(nullptr, nullptr, "key"), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_firmware_get_g_key_string", "group_name != NULL"), 1U);
  EXPECT_EQ(ptz_firmware_get_g_key_string(nullptr, "group", nullptr), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_firmware_get_g_key_string", "key != NULL"), 1U);
  EXPECT_EQ(ptz_firmware_get_key_file(nullptr), nullptr);
  EXPECT_EQ(criticals.failed_check("ptz_firmware_get_key_file", "driver_conf_file != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_driver_upgrade_validate(nullptr, &error));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_driver_upgrade_validate", "driver_conf_file != NULL"), 1U);
  EXPECT_FALSE(ptz_firmware_driver_upgrade_validate("path", nullptr));
  EXPECT_EQ(criticals.failed_check("ptz_firmware_driver_upgrade_validate", "err != NULL"), 1U);
  EXPECT_EQ(criticals.messages().size(), 16U);
  EXPECT_EQ(error, nullptr);
  EXPECT_TRUE(log.lines().empty());
}

// --- one-line files ---------------------------------------------------------------------------------------------

const SyslogCapture *last_log = nullptr;

void print_log(int) {
  std::signal(SIGABRT, SIG_DFL);
  for (const auto &[priority, text] : last_log->lines()) {
    const auto line = std::to_string(priority) + " " + text + "\n";
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) return;
  }
}

// What is logged until the process aborts stands in its standard error, too.
void print_log_when_aborted(const SyslogCapture &log) {
  last_log = &log;
  std::signal(SIGABRT, print_log);
}

struct FirmwareFile : testing::Test {
  TempDir dir;
  std::string path = dir.file("file");
  SyslogCapture log;
};

TEST_F(FirmwareFile, WhiteSpaceAtTheEndIsRemoved) {
  write_file(path, " tag \t\r\n\n");
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), " tag");
  write_file(path, "one\ntwo\n");
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), "one\ntwo");
  write_file(path, "");
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), "");
  write_file(path, "\n \n");
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), "");
  write_file(path, std::string("a\xFF\0b \n", 6));
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), "a\xFF");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(FirmwareFile, AnUnreadableOneIsLogged) {
  write_file(path, "tag\n");
  const FileFault fault(Failing::open, EACCES, {.path = path});
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), std::nullopt);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[0].text.rfind("Failed to read " + path + ": ", 0), 0U) << log.lines()[0].text;
  EXPECT_NE(log.lines()[0].text.find("Permission denied"), std::string::npos);
}

TEST_F(FirmwareFile, AFolderIsLogged) {
  EXPECT_EQ(owned(ptz_firmware_get_file_string(dir.path().c_str())), std::nullopt);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[0].text.rfind("Failed to read " + dir.path() + ": ", 0), 0U) << log.lines()[0].text;
}

TEST_F(FirmwareFile, AnEndlessDeviceIsLogged) {
  EXPECT_EQ(ptz_firmware_get_file_string("/dev/zero"), nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text, "Failed to read /dev/zero: Not a regular file");
}

TEST_F(FirmwareFile, APipeIsLoggedAndNoHang) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(owned(ptz_firmware_get_file_string(path.c_str())), std::nullopt);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].text.rfind("Failed to read " + path + ": ", 0), 0U) << log.lines()[0].text;
}

TEST(FirmwareFileDeathTest, AMissingOneEndsTheProcess) {
  const auto read = [](const char *path) {
    const SyslogCapture log;
    print_log_when_aborted(log);
    ptz_firmware_get_file_string(path);
  };
  EXPECT_EXIT(read("/nowhere/%s%n"), testing::KilledBySignal(SIGABRT),
              "ptz_firmware_get_file_string: code should not be reached.*\n"
              "3 ptz_firmware_get_file_string: File does not exist: /nowhere/%s%n");
}

// --- the driver's key file --------------------------------------------------------------------------------------

KeyFile key_file(const std::string &text) {
  KeyFile result(g_key_file_new());
  EXPECT_TRUE(g_key_file_load_from_data(result.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr));
  return result;
}

TEST(FirmwareKey, ValuesAreCleaned) {
  const auto file = key_file(
      "[general]\nPlain=tag\nQuoted=\"tag\"\nInside= a\"b\" \nSpaces=\"  tag  \"\nEmpty=\nQuotes=\"\"\n"
      "Single='tag'\n");
  const auto value = [&](const char *key) { return owned(ptz_firmware_get_g_key_string(file.get(), "general", key)); };
  EXPECT_EQ(value("Plain"), "tag");
  EXPECT_EQ(value("Quoted"), "tag");
  EXPECT_EQ(value("Inside"), "a b");
  EXPECT_EQ(value("Spaces"), "tag");
  EXPECT_EQ(value("Empty"), "");
  EXPECT_EQ(value("Quotes"), "");
  EXPECT_EQ(value("Single"), "'tag'");
}

TEST(FirmwareKey, UnknownEscapesAreKept) {
  const GlibLogCapture glib;
  const auto file = key_file("[general]\nUnknown=a\\qb\nOpen=C:\\dir\\\nKnown=a\\sb\n");
  const auto value = [&](const char *key) { return owned(ptz_firmware_get_g_key_string(file.get(), "general", key)); };
  EXPECT_EQ(value("Unknown"), "a\\qb");
  EXPECT_EQ(value("Open"), "C:\\dir");
  EXPECT_EQ(value("Known"), "a b");
  EXPECT_TRUE(glib.messages().empty());
}

TEST(FirmwareKey, WhatIsMissingIsNone) {
  const SyslogCapture log;
  const GlibLogCapture glib;
  const auto file = key_file("[general]\nKey=tag\n");
  EXPECT_EQ(owned(ptz_firmware_get_g_key_string(file.get(), "general", "Other")), "none");
  EXPECT_EQ(owned(ptz_firmware_get_g_key_string(file.get(), "Other", "Key")), "none");
  EXPECT_EQ(owned(ptz_firmware_get_g_key_string(nullptr, "general", "Key")), "none");
  EXPECT_EQ(owned(ptz_firmware_get_g_key_string(file.get(), "", "")), "none");
  EXPECT_TRUE(log.lines().empty());
  EXPECT_TRUE(glib.messages().empty());
}

TEST_F(FirmwareFile, ADriversKeyFileIsLoaded) {
  write_file(path, "[general]\nFirmwareMajor=tag\n");
  const KeyFile file(ptz_firmware_get_key_file(path.c_str()));
  ASSERT_TRUE(file);
  EXPECT_EQ(owned(ptz_firmware_get_g_key_string(file.get(), "general", "FirmwareMajor")), "tag");
}

TEST_F(FirmwareFile, AMissingKeyFileCostsNoLine) {
  EXPECT_EQ(ptz_firmware_get_key_file(path.c_str()), nullptr);
  EXPECT_TRUE(log.lines().empty());
}

struct BadKeyFile : FirmwareFile, testing::WithParamInterface<const char *> {};

TEST_P(BadKeyFile, IsLogged) {
  const std::string kind = GetParam();
  std::optional<FileFault> fault;
  if (kind == "folder") {
    std::filesystem::create_directory(path);
  } else if (kind == "pipe") {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  } else {
    write_file(path, kind == "text" ? "no key file\n" : "[general]\nFirmwareMajor=tag\n");
    if (kind == "unreadable") fault.emplace(Failing::open, EACCES, FileFault::Limits{.path = path});
  }
  EXPECT_EQ(ptz_firmware_get_key_file(path.c_str()), nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines()[0].text.rfind("Failed to read " + path + ": ", 0), 0U) << log.lines()[0].text;
}

INSTANTIATE_TEST_SUITE_P(, BadKeyFile, testing::Values("text", "unreadable", "folder", "pipe"));

// --- the whole check --------------------------------------------------------------------------------------------

struct FirmwareCheck : FirmwareFile {
  Redirect major{major_path, dir.file("major")};
  Redirect minor{minor_path, dir.file("minor")};
  Error error;

  FirmwareCheck() {
    write_file(dir.file("major"), "camera_7-libptz_2-a-b\n");
    write_file(dir.file("minor"), "camera_3-libptz_5\n");
  }
  bool check() {
    GError *raw = nullptr;
    const bool usable = ptz_firmware_driver_upgrade_validate(path.c_str(), &raw) != FALSE;
    error.reset(raw);
    return usable;
  }
  bool check(const std::string &driver) {
    write_file(path, driver);
    return check();
  }
};

TEST_F(FirmwareCheck, ADriverOfThisFrameworkMayBeUsed) {
  EXPECT_TRUE(check("[general]\nFirmwareMajor=\"camera_7-libptz_2-a-b\"\nFirmwareMinor=camera_3-libptz_5\n"));
  EXPECT_FALSE(error);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(FirmwareCheck, AnOlderDriverMayBeUsed) {
  EXPECT_TRUE(check("[general]\nFirmwareMajor=camera_7-libptz_2-a-b\nFirmwareMinor=\"camera_2-libptz_5\"\n"));
  EXPECT_FALSE(error);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING,
                                                "PTZ driver minor (camera_2-libptz_5) is older than system "
                                                "minor (camera_3-libptz_5)"}}));
}

TEST_F(FirmwareCheck, MinorsAreComparedOnlyWhereMajorsMatch) {
  EXPECT_FALSE(check("[general]\nFirmwareMajor=other\nFirmwareMinor=nonsense\n"));
  ASSERT_TRUE(error);
  EXPECT_TRUE(g_error_matches(error.get(), PTZ_FIRMWARE_ERROR, 118));
  EXPECT_EQ(
      log.lines(),
      (std::vector<LogLine>{{LOG_WARNING, "PTZ major doesn't match: driver (other), system (camera_7-libptz_2-a-b)"}}));
}

TEST_F(FirmwareCheck, ANewerDriverMayNotBeUsed) {
  EXPECT_FALSE(check("[general]\nFirmwareMajor=camera_7-libptz_2-a-b\nFirmwareMinor=camera_3-libptz_6\n"));
  ASSERT_TRUE(error);
  EXPECT_STREQ(error->message, "PTZ minor doesn't match: driver (camera_3-libptz_6), system (camera_3-libptz_5)");
}

TEST_F(FirmwareCheck, MissingKeysAreNoneWhichMatchesNothing) {
  EXPECT_FALSE(check("[other]\nKey=1\n"));
  ASSERT_TRUE(error);
  EXPECT_STREQ(error->message, "PTZ major doesn't match: driver (none), system (camera_7-libptz_2-a-b)");
  EXPECT_FALSE(check("[general]\nFirmwareMajor=camera_7-libptz_2-a-b\n"));
  ASSERT_TRUE(error);
  EXPECT_STREQ(error->message, "PTZ driver minor invalid: none");
}

TEST_F(FirmwareCheck, WithoutADriversKeyFileThereIsNoError) {
  EXPECT_FALSE(check());
  EXPECT_FALSE(error);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(check("no key file\n"));
  EXPECT_FALSE(error);
  EXPECT_EQ(log.lines().size(), 1U);
}

TEST_F(FirmwareCheck, WithoutASystemTextThereIsNoError) {
  for (const auto &fixed_path : {major_path, minor_path}) {
    const SyslogCapture lines;
    const FileFault fault(Failing::open, EACCES, {.path = fixed_path});
    EXPECT_FALSE(check("[general]\nFirmwareMajor=camera_7-libptz_2-a-b\nFirmwareMinor=camera_3-libptz_5\n"));
    EXPECT_FALSE(error);
    EXPECT_EQ(lines.lines().size(), 1U);
    EXPECT_EQ(lines.containing("Failed to read " + fixed_path + ": "), 1U);
  }
}

TEST_F(FirmwareCheck, BinaryFilesDoNoHarm) {
  const std::string bytes("\xFF\0\x01%s%n\xC3", 9);
  write_file(dir.file("major"), bytes);
  write_file(dir.file("minor"), bytes);
  EXPECT_FALSE(check("[general]\nFirmwareMajor=\xE9\nFirmwareMinor=\\q\n"));
  check(std::string("[general]\nFirmwareMajor=\xFF\nFirmwareMinor=a\0b\n", 44));
  EXPECT_FALSE(check(bytes));
}

TEST(FirmwareCheckDeathTest, AMissingSystemFileEndsTheProcessWithoutADriverToo) {
  const auto check = [] {
    const TempDir dir;
    const Redirect major(major_path, dir.file("missing"));
    const SyslogCapture log;
    print_log_when_aborted(log);
    GError *error = nullptr;
    ptz_firmware_driver_upgrade_validate("/nowhere/driver.conf", &error);
  };
  EXPECT_EXIT(check(), testing::KilledBySignal(SIGABRT),
              "3 ptz_firmware_get_file_string: File does not exist: /etc/ptz/firmware.major");
}

}  // namespace
