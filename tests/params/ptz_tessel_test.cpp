#include "ptz_tessel.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../config/file_calls.h"
#include "fixtures.h"
#include "handles.h"
#include "param_service_fake.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using Calls = FakeService::Calls;
using Lines = std::vector<LogLine>;

constexpr gint32 untouched = 7777;
constexpr gint32 group_exists = -4;

std::optional<std::string> text_of(gchar *value) {
  const Text owned(value);
  return owned ? std::optional<std::string>(owned.get()) : std::nullopt;
}

// Names that make a path of so many characters.
std::string padded(const std::string &start, std::size_t length) {
  return start + std::string(length - start.size(), 'x');
}

struct Tessel : testing::Test {
  FakeService service;
  SyslogCapture log;
  GlibLogCapture glib;

  ~Tessel() override { EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text; }

  void fail(const std::string &operation, gint32 error = service_failure) {
    service.error = [=](const std::string &call) { return call.starts_with(operation) ? error : 0; };
  }
};

// --- reading ----------------------------------------------------------------------------------------------------

TEST_F(Tessel, AParameterIsReadByItsFormattedPath) {
  service.tree["root.PTZ.Driver3.Name"] = "Simulated";
  EXPECT_EQ(text_of(ptz_tessel_get_vp("root.PTZ.%s%u.Name", "Driver", 3U)), "Simulated");
  EXPECT_EQ(service.calls(), (Calls{"get root.PTZ.Driver3.Name"}));
  EXPECT_EQ(text_of(ptz_tessel_get("root.PTZ.Driver3.Name")), "Simulated");
  EXPECT_EQ(service.calls(), (Calls{"get root.PTZ.Driver3.Name"}));
}

TEST_F(Tessel, WhatTheServiceCannotReadIsNothing) {
  EXPECT_EQ(text_of(ptz_tessel_get("root.Missing")), std::nullopt);
  service.answers_nothing = true;
  EXPECT_EQ(text_of(ptz_tessel_get("root.Missing")), std::nullopt);
  service.answers_nothing = false;
  service.tree["root.A"] = "1";
  fail("get");
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), std::nullopt);
  EXPECT_EQ(text_of(ptz_tessel_index_get("root", "A", 1, "B")), std::nullopt);
  EXPECT_EQ(text_of(ptz_tessel_dyn_index_get("Group", 1, "B")), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, AValueInLatin1ComesBackAsUtf8) {
  service.tree["root.A"] = "caf\xE9 \x80";
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), "caf\xC3\xA9 \xC2\x80");
  service.tree["root.A"] = "caf\xC3\xA9";
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), "caf\xC3\xA9");
  service.tree["root.A"] = "";
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), "");
}

TEST_F(Tessel, ValuesOfEveryByteAndOfAMegabyteAreRead) {
  std::string every_byte;
  for (int byte = 1; byte < 256; ++byte) every_byte.push_back(static_cast<char>(byte));
  service.tree["root.A"] = every_byte;
  const Text expected(g_convert(every_byte.c_str(), -1, "UTF-8", "ISO-8859-1", nullptr, nullptr, nullptr));
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), expected.get());
  service.tree["root.A"] = std::string(1U << 20U, 'v');
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), service.tree["root.A"]);
}

TEST_F(Tessel, AValueThatCannotBeConvertedIsLogged) {
  service.tree["root.A"] = "caf\xE9";
  const FileFault fault(Failing::convert);
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), std::nullopt);
  const auto expected = "Could not convert value 'caf\xE9' from ISO-8859-1: " + std::string(conversion_message);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, expected}}));
}

TEST_F(Tessel, AConversionThatFailsWithoutAReasonIsLoggedToo) {
  service.tree["root.A"] = "\xE9";
  const FileFault fault(Failing::convert_mute);
  EXPECT_EQ(text_of(ptz_tessel_get("root.A")), std::nullopt);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "Could not convert value '\xE9' from ISO-8859-1: "}}));
}

// "%lc" has no representation for this character in the C locale.
constexpr wint_t no_character = 0x20AC;

TEST_F(Tessel, APathThatCannotBeFormattedIsLogged) {
  EXPECT_EQ(text_of(ptz_tessel_get_vp("root.%lc", no_character)), std::nullopt);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_EQ(log.lines()[0].priority, LOG_ERR);
  EXPECT_TRUE(log.lines()[0].text.starts_with("Failed to assemble path: ")) << log.lines()[0].text;
  EXPECT_TRUE(log.lines()[0].text.ends_with(" from root.%lc")) << log.lines()[0].text;
  EXPECT_EQ(service.calls(), Calls{});
}

TEST_F(Tessel, OtherCallsFailWithoutAWordWhereAPathCannotBeFormatted) {
  gint32 number = untouched;
  gboolean flag = untouched;
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "v", "root.%lc", no_character), -1);
  EXPECT_EQ(ptz_tessel_create_group_vp(-1, 9, 1, "t", "root.%lc", no_character), nullptr);
  ptz_tessel_delete_group_vp(9, "root.%lc", no_character);
  EXPECT_FALSE(ptz_tessel_get_int(&number, "root.%lc", no_character));
  EXPECT_FALSE(ptz_tessel_get_bool(&flag, "root.%lc", no_character));
  EXPECT_EQ(number, untouched);
  EXPECT_EQ(flag, untouched);
  EXPECT_EQ(service.calls(), Calls{});
  EXPECT_TRUE(log.lines().empty());
}

struct PathLength : Tessel, testing::WithParamInterface<std::size_t> {
  std::string path = padded("root.A.", GetParam());
  std::string cut = path.substr(0, 127);
  bool fits = GetParam() <= 127;
  Calls if_it_fits(const std::string &call) const { return fits ? Calls{call} : Calls{}; }
};
INSTANTIATE_TEST_SUITE_P(Around128, PathLength, testing::Values(126, 127, 128, 1000));

TEST_P(PathLength, ReadsCutALongerPathShort) {
  service.tree[cut] = "12";
  gint32 number = untouched;
  EXPECT_EQ(text_of(ptz_tessel_get_vp("%s", path.c_str())), "12");
  EXPECT_EQ(text_of(ptz_tessel_get(path.c_str())), "12");
  EXPECT_TRUE(ptz_tessel_get_int(&number, "%s", path.c_str()));
  gboolean flag = untouched;
  EXPECT_TRUE(ptz_tessel_get_bool(&flag, "%s", path.c_str()));
  EXPECT_EQ(service.calls(), Calls(4, "get " + cut));
  EXPECT_TRUE(log.lines().empty());
}

TEST_P(PathLength, WritesTakeAnyLength) {
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "v", "%s", path.c_str()), 0);
  EXPECT_EQ(ptz_tessel_set(path.c_str(), "v", FALSE, FALSE, FALSE, 0), 0);
  EXPECT_EQ(service.calls(), Calls(2, "set " + path + "=v mode=9"));
}

TEST_P(PathLength, CreationsAndDeletionsWantAPathThatFits) {
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(-1, 1, 2, "t", "%s", path.c_str())).has_value(), fits);
  EXPECT_EQ(service.calls(), if_it_fits("create " + path + " from t mode=1 number=2"));
  ptz_tessel_delete_group_vp(3, "%s", path.c_str());
  EXPECT_EQ(service.calls(), if_it_fits("delete " + path + " mode=3"));
  ptz_tessel_delete_group(path.c_str(), 3);
  EXPECT_EQ(service.calls(), if_it_fits("delete " + path + " mode=3"));
  EXPECT_TRUE(log.lines().empty());
}

// --- the paths that are built -----------------------------------------------------------------------------------

// A call that builds a path which ends in the text it is given.
struct BuiltPath {
  const char *name;
  std::function<bool(const std::string &end)> call;  // whether it worked
  std::string operation;                             // up to where the text stands
  std::string rest = "";
};
void PrintTo(const BuiltPath &path, std::ostream *out) { *out << path.name; }

const BuiltPath built_paths[] = {
    {"index_get",
     [](const auto &end) { return text_of(ptz_tessel_index_get("root.PTZ", "Source", 7, end.c_str())).has_value(); },
     "get root.PTZ.Source7."},
    {"index_set",
     [](const auto &end) { return ptz_tessel_index_set("root.A", "B", 4294967295U, end.c_str(), "v", 0, 0, 0) != 0; },
     "set root.A.B4294967295.", "=v mode=9"},
    {"dyn_index_get",
     [](const auto &end) { return text_of(ptz_tessel_dyn_index_get("Preset", 0, end.c_str())).has_value(); },
     "get root.PTZ.Preset.P0."},
    {"dyn_index_set",
     [](const auto &end) { return ptz_tessel_dyn_index_set("preset", 4294967295U, end.c_str(), "v", 0, 0, 0) != 0; },
     "set root.PTZ.preset.p4294967295.", "=v mode=9"},
    {"index_delete_group",
     [](const auto &end) { return ptz_tessel_index_delete_group(end.c_str(), 4294967295U, 3) != 0; },
     "delete root.PTZ.", "4294967295 mode=3"},
    {"delete_sub_group", [](const auto &end) { return ptz_tessel_delete_sub_group(end.c_str(), -1, 3) != 0; },
     "delete root.PTZ.", ".x-1 mode=3"},
    {"delete_subsub_group",
     [](const auto &end) { return ptz_tessel_delete_subsub_group("Cam", -1, end.c_str(), -2, 3) != 0; },
     "delete root.PTZ.Cam.C-1.", ".x-2 mode=3"},
};

struct Built : Tessel, testing::WithParamInterface<BuiltPath> {};
INSTANTIATE_TEST_SUITE_P(Paths, Built, testing::ValuesIn(built_paths),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(Built, HaveAtMost127Characters) {
  const auto &built = GetParam();
  const auto operation_end = built.operation.find(' ') + 1, rest_end = built.rest.find_first_of(" =");
  const std::size_t around =
      built.operation.size() - operation_end + (rest_end == std::string::npos ? built.rest.size() : rest_end);
  for (const std::size_t length : {126U, 127U, 128U, 1000U}) {
    const std::string end(length - around, 'x');
    const std::string call = built.operation + end + built.rest;
    service.tree[call.substr(operation_end)] = "v";
    EXPECT_EQ(built.call(end), length <= 127) << length;
    EXPECT_EQ(service.calls(), length <= 127 ? Calls{call} : Calls{}) << length;
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, ADynamicIndexedParameterIsNamedByTheFirstLetterOfItsGroup) {
  service.tree["root.PTZ.Preset.P0.Name"] = "Gate";
  EXPECT_EQ(text_of(ptz_tessel_dyn_index_get("Preset", 0, "Name")), "Gate");
  EXPECT_EQ(service.calls(), (Calls{"get root.PTZ.Preset.P0.Name"}));
  EXPECT_TRUE(ptz_tessel_dyn_index_set("preset", 2, "Name", "Door", TRUE, TRUE, 5));
  EXPECT_EQ(service.calls(), (Calls{"set root.PTZ.preset.p2.Name=Door mode=10 extra=5"}));
}

TEST_F(Tessel, AnEmptyGroupHasNoFirstLetter) {
  EXPECT_EQ(text_of(ptz_tessel_dyn_index_get("", 0, "Name")), std::nullopt);
  EXPECT_FALSE(ptz_tessel_dyn_index_set("", 0, "Name", "v", 0, 0, 0));
  EXPECT_FALSE(ptz_tessel_delete_sub_group("", 0, 0));
  EXPECT_FALSE(ptz_tessel_delete_subsub_group("", 0, "Sub", 0, 0));
  EXPECT_FALSE(ptz_tessel_delete_subsub_group("Group", 0, "", 0, 0));
  EXPECT_FALSE(ptz_tessel_create_sub_group(1, "", 0, "Sub", 0, 0));
  gint32 number = untouched;
  gboolean flag = untouched;
  EXPECT_FALSE(ptz_tessel_get_int_val(0, "", "Name", &number, nullptr));
  EXPECT_FALSE(ptz_tessel_get_bool_val(0, "", "Name", &flag));
  EXPECT_EQ(service.calls(), Calls{});
}

TEST_F(Tessel, EmptyComponentsAreLeftToTheService) {
  EXPECT_EQ(text_of(ptz_tessel_get("")), std::nullopt);
  EXPECT_EQ(text_of(ptz_tessel_index_get("", "", 1, "")), std::nullopt);
  EXPECT_EQ(text_of(ptz_tessel_dyn_index_get("A", 1, "")), std::nullopt);
  EXPECT_EQ(service.calls(), (Calls{"get ", "get .1.", "get root.PTZ.A.A1."}));
}

// A path that is taken for a format: only "%%" means something.
TEST_F(Tessel, PathsThatAreFormatsStandForThemselvesButForADoubledPercentSign) {
  const std::string path = "root.50%%.%s%n.%", read = "root.50%.%s%n.%";
  service.tree[read] = "v";
  EXPECT_EQ(text_of(ptz_tessel_get(path.c_str())), "v");
  EXPECT_EQ(ptz_tessel_set(path.c_str(), "%d", FALSE, FALSE, FALSE, 0), 0);
  ptz_tessel_delete_group(path.c_str(), 1);
  EXPECT_EQ(service.calls(), (Calls{"get " + read, "set " + read + "=%d mode=9", "delete " + read + " mode=1"}));
}

TEST_F(Tessel, PathsThatAreBuiltKeepEveryPercentSign) {
  EXPECT_TRUE(ptz_tessel_index_set("root.%d", "%%", 1, "%s", "v", 0, 0, 0));
  EXPECT_TRUE(ptz_tessel_dyn_index_set("%%A", 1, "50%%", "v", 0, 0, 0));
  EXPECT_EQ(service.value("root.%d.%%1.%s"), "v");
  EXPECT_EQ(text_of(ptz_tessel_index_get("root.%d", "%%", 1, "%s")), "v");
  EXPECT_EQ(text_of(ptz_tessel_dyn_index_get("%%A", 1, "50%%")), "v");
  service.calls();
  EXPECT_TRUE(ptz_tessel_index_delete_group("%%A", 1, 1));
  EXPECT_TRUE(ptz_tessel_delete_sub_group("%%A", 1, 1));
  EXPECT_TRUE(ptz_tessel_delete_subsub_group("A%%", 1, "%n%%", 2, 1));
  ptz_tessel_delete_group_vp(1, "root.%s", "%%A");
  EXPECT_EQ(service.calls(), (Calls{"delete root.PTZ.%%A1 mode=1", "delete root.PTZ.%%A.%1 mode=1",
                                    "delete root.PTZ.A%%.A1.%n%%.%2 mode=1", "delete root.%%A mode=1"}));
}

// --- writing ----------------------------------------------------------------------------------------------------

TEST_F(Tessel, AWriteTellsItsWords) {
  EXPECT_EQ(ptz_tessel_set_vp(5, 12, "Simulated", "root.%s", "A"), 0);
  EXPECT_EQ(ptz_tessel_set_vp(1, 0, "v", "root.A"), 0);
  EXPECT_EQ(ptz_tessel_set_vp(0, -3, "v", "root.A"), 0);
  EXPECT_EQ(ptz_tessel_set_vp(-1, 9, "v", "root.A"), 0);
  EXPECT_EQ(service.calls(), (Calls{"set root.A=Simulated mode=12 extra=5", "set root.A=v mode=0 extra=1",
                                    "set root.A=v mode=-3", "set root.A=v mode=9"}));
}

struct SetMode {
  bool first, second, third;
  int mode;
};
struct SetModes : Tessel, testing::WithParamInterface<SetMode> {};
INSTANTIATE_TEST_SUITE_P(All, SetModes,
                         testing::Values(SetMode{false, false, false, 9}, SetMode{false, false, true, 9},
                                         SetMode{false, true, false, 9}, SetMode{false, true, true, 9},
                                         SetMode{true, false, false, 9}, SetMode{true, false, true, 11},
                                         SetMode{true, true, true, 10}, SetMode{true, true, false, 12}));

TEST_P(SetModes, ComeFromThreeSwitches) {
  const auto [first, second, third, mode] = GetParam();
  // Any value but 0 is true.
  EXPECT_EQ(ptz_tessel_set("root.A", "v", first ? 2 : 0, second ? -1 : 0, third ? 4 : 0, 3), 0);
  EXPECT_EQ(service.calls(), (Calls{"set root.A=v mode=" + std::to_string(mode) + " extra=3"}));
}

TEST_F(Tessel, TheModesOfIndexedWritesComeFromTwoSwitches) {
  for (const auto [a, b, mode] : {std::array{0, 0, 9}, {0, 1, 9}, {1, 0, 12}, {1, 1, 10}}) {
    EXPECT_TRUE(ptz_tessel_index_set("root.G", "P", 1, "S", "v", a, b, 0));
    EXPECT_TRUE(ptz_tessel_dyn_index_set("G", 1, "S", "v", a, b, 7));
    EXPECT_EQ(service.calls(), (Calls{"set root.G.P1.S=v mode=" + std::to_string(mode),
                                      "set root.PTZ.G.G1.S=v mode=" + std::to_string(mode) + " extra=7"}));
  }
}

TEST_F(Tessel, AFailedWriteCountsWhereTheParameterHasAnotherValue) {
  service.tree = {{"root.A", "old"}, {"root.A.B1.C", "old"}, {"root.PTZ.G.G1.P", "old"}};
  fail("set", -9);
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "new", "root.%s", "A"), -9);
  EXPECT_EQ(service.calls(), (Calls{"set root.A=new mode=9", "get root.A"}));
  EXPECT_EQ(log.lines(), (Lines{{LOG_WARNING, "Could not set parameter root.A to \"new\", err = -9"}}));
  EXPECT_EQ(ptz_tessel_set("root.A", "new", FALSE, FALSE, FALSE, 0), -9);
  EXPECT_FALSE(ptz_tessel_index_set("root.A", "B", 1, "C", "new", 0, 0, 0));
  EXPECT_FALSE(ptz_tessel_dyn_index_set("G", 1, "P", "new", 0, 0, 0));
  EXPECT_EQ(log.lines().size(), 4U);
}

TEST_F(Tessel, AFailedWriteIsForgottenWhereTheParameterHasTheValue) {
  service.tree["root.A"] = "same";
  fail("set");
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "same", "root.A"), 0);
  EXPECT_EQ(service.calls(), (Calls{"set root.A=same mode=9", "get root.A"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, AFailedWriteIsForgottenWhereTheParameterCannotBeRead) {
  fail("set");
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "new", "root.A"), 0);
  EXPECT_TRUE(ptz_tessel_dyn_index_set("G", 1, "P", "new", 0, 0, 0));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, WriteThatIsRefusedForItsLongPathFailsWithoutReadBack) {
  constexpr gint32 bad_path = -5;
  const std::string longest = padded("root.A.", 127), longer = longest + "y";
  service.tree[longest] = "v";
  fail("set", bad_path);
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "v", "%s", longer.c_str()), bad_path);
  EXPECT_EQ(service.calls(), (Calls{"set " + longer + "=v mode=9"}));
  EXPECT_EQ(log.lines(), (Lines{{LOG_WARNING, "Could not set parameter " + longer + " to \"v\", err = -5"}}));
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "v", "%s", longest.c_str()), 0);
  EXPECT_EQ(service.calls(), (Calls{"set " + longest + "=v mode=9", "get " + longest}));
}

TEST_F(Tessel, AFailedWriteReadsBackTheSamePathWithItsPercentSigns) {
  service.tree = {{"root.A%%B%s", "old"}, {"root.A%B%s", "new"}};
  fail("set", -9);
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "new", "root.%s", "A%%B%s"), -9);
  EXPECT_EQ(service.calls(), (Calls{"set root.A%%B%s=new mode=9", "get root.A%%B%s"}));
}

TEST_F(Tessel, ValuesAreWrittenUnchanged) {
  std::string value;
  for (int byte = 1; byte < 256; ++byte) value.push_back(static_cast<char>(byte));
  value.append(1U << 20U, '%');
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, value.c_str(), "root.A"), 0);
  EXPECT_EQ(service.value("root.A"), value);
  EXPECT_EQ(ptz_tessel_set_vp(0, 9, "", "root.A"), 0);
  EXPECT_EQ(service.tree.at("root.A"), "");
}

TEST_F(Tessel, ASyncSaysWhetherItWorked) {
  EXPECT_TRUE(ptz_tessel_sync(4));
  EXPECT_TRUE(ptz_tessel_sync(0));
  EXPECT_EQ(service.calls(), (Calls{"sync mode=4", "sync mode=0"}));
  fail("sync");
  EXPECT_FALSE(ptz_tessel_sync(4));
  EXPECT_TRUE(log.lines().empty());
}

// --- typed reads ------------------------------------------------------------------------------------------------

struct IntegerText {
  const char *name;
  std::string text;
  std::optional<gint32> value;
};
void PrintTo(const IntegerText &text, std::ostream *out) { *out << text.name; }

struct Integers : Tessel, testing::WithParamInterface<IntegerText> {};
INSTANTIATE_TEST_SUITE_P(
    Texts, Integers,
    testing::Values(IntegerText{"plain", "42", 42}, IntegerText{"spaced", " \t\r\n\v\f42 \t\r\n\v\f", 42},
                    IntegerText{"negative", "-42", -42}, IntegerText{"plus", "+42", 42},
                    IntegerText{"zeros", "0042", 42}, IntegerText{"zero", "0", 0}, IntegerText{"minus_zero", "-0", 0},
                    IntegerText{"largest", "2147483647", 2147483647},
                    IntegerText{"smallest", "-2147483648", std::numeric_limits<gint32>::min()},
                    IntegerText{"too_large", "2147483648", {}}, IntegerText{"too_small", "-2147483649", {}},
                    IntegerText{"far_too_large", "4294967338", {}}, IntegerText{"endless", std::string(5000, '9'), {}},
                    IntegerText{"letter_after", "42x", {}}, IntegerText{"space_within", "4 2", {}},
                    IntegerText{"word", "true", {}}, IntegerText{"empty", "", {}}, IntegerText{"blank", "  ", {}},
                    IntegerText{"sign_only", "-", {}}, IntegerText{"two_signs", "+-1", {}},
                    IntegerText{"space_after_sign", "- 1", {}}, IntegerText{"hexadecimal", "0x10", {}},
                    IntegerText{"fraction", "1.0", {}}, IntegerText{"word_after", "1 \t x", {}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_P(Integers, AreReadByTheirPath) {
  const auto &[name, text, expected] = GetParam();
  service.tree["root.PTZ.A"] = text;
  gint32 value = untouched;
  EXPECT_EQ(ptz_tessel_get_int(&value, "root.%s.A", "PTZ") != FALSE, expected.has_value());
  EXPECT_EQ(value, expected.value_or(untouched));
  EXPECT_EQ(service.calls(), (Calls{"get root.PTZ.A"}));
  const auto line = ("Value " + text + " of root.PTZ.A invalid").substr(0, 4095);
  EXPECT_EQ(log.lines(), expected ? Lines{} : (Lines{{LOG_ERR, line}}));
}

TEST_P(Integers, AreReadOfDynamicGroups) {
  const auto &[name, text, expected] = GetParam();
  service.tree["root.PTZ.Limit.L3.Pan"] = text;
  gint32 value = untouched;
  gchar *string = nullptr;
  EXPECT_EQ(ptz_tessel_get_int_val(3, "Limit", "Pan", &value, &string) != FALSE, expected.has_value());
  EXPECT_EQ(value, expected.value_or(untouched));
  EXPECT_EQ(text_of(string), text) << "it is handed over, a number or not";
  const auto line = "Invalid Limit parameter Pan for camera 3: " + text;
  EXPECT_EQ(log.lines(), expected ? Lines{} : (Lines{{LOG_ERR, line.substr(0, 4095)}}));
  EXPECT_EQ(ptz_tessel_get_int_val(3, "Limit", "Pan", &value, nullptr) != FALSE, expected.has_value());
  EXPECT_EQ(service.calls(), Calls(2, "get root.PTZ.Limit.L3.Pan"));
}

TEST_F(Tessel, AMissingIntegerIsNoneWithoutAWord) {
  gint32 value = untouched;
  gchar *string = nullptr;
  EXPECT_FALSE(ptz_tessel_get_int(&value, "root.Missing"));
  EXPECT_FALSE(ptz_tessel_get_int_val(0, "Limit", "Pan", &value, &string));
  EXPECT_FALSE(ptz_tessel_get_int_val(0, "Limit", "Pan", &value, nullptr));
  EXPECT_EQ(value, untouched);
  EXPECT_EQ(string, nullptr);
  EXPECT_TRUE(log.lines().empty());
}

struct BooleanText {
  std::string text;
  bool value;
};
struct Booleans : Tessel, testing::WithParamInterface<BooleanText> {};
INSTANTIATE_TEST_SUITE_P(Texts, Booleans,
                         testing::Values(BooleanText{"true", true}, BooleanText{"yes", true},
                                         BooleanText{"True", false}, BooleanText{"1", false}, BooleanText{"YES", false},
                                         BooleanText{"y", false}, BooleanText{"", false}, BooleanText{" true", false},
                                         BooleanText{"true ", false}, BooleanText{"false", false}));

TEST_P(Booleans, AreTrueForTwoTextsOnly) {
  const auto &[text, expected] = GetParam();
  service.tree = {{"root.PTZ.A", text}, {"root.PTZ.Limit.L3.Pan", text}};
  gboolean value = untouched;
  EXPECT_TRUE(ptz_tessel_get_bool(&value, "root.%s.A", "PTZ"));
  EXPECT_EQ(value, expected ? TRUE : FALSE);
  value = untouched;
  EXPECT_TRUE(ptz_tessel_get_bool_val(3, "Limit", "Pan", &value));
  EXPECT_EQ(value, expected ? TRUE : FALSE);
  EXPECT_EQ(service.calls(), (Calls{"get root.PTZ.A", "get root.PTZ.Limit.L3.Pan"}));
}

TEST_F(Tessel, AMissingBooleanIsFalseInDynamicGroupsOnly) {
  gboolean value = untouched;
  EXPECT_FALSE(ptz_tessel_get_bool(&value, "root.Missing"));
  EXPECT_EQ(value, untouched);
  EXPECT_FALSE(ptz_tessel_get_bool_val(0, "Limit", "Pan", &value));
  EXPECT_EQ(value, FALSE);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, TypedReadsWantAPath) {
  gint32 number = untouched;
  gboolean flag = untouched;
  EXPECT_FALSE(ptz_tessel_get_int(&number, "%s", ""));
  EXPECT_FALSE(ptz_tessel_get_bool(&flag, "%s", ""));
  EXPECT_EQ(number, untouched);
  EXPECT_EQ(flag, untouched);
  EXPECT_EQ(service.calls(), Calls{});
}

// --- creating groups --------------------------------------------------------------------------------------------

TEST_F(Tessel, ACreationTellsItsWordsAndReturnsWhatTheServiceDoes) {
  service.created = "root.PTZ.Preset.P7";
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(5, 12, 7, "sim1_preset", "root.PTZ.%s", "Preset")),
            "root.PTZ.Preset.P7");
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(-1, 0, -1, "t", "root")), "root.PTZ.Preset.P7");
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(0, 1, 0, "t", "root")), "root.PTZ.Preset.P7");
  EXPECT_EQ(service.calls(),
            (Calls{"create root.PTZ.Preset from sim1_preset mode=12 number=7 extra=5",
                   "create root from t mode=0 number=-1", "create root from t mode=1 number=0 extra=0"}));
}

TEST_F(Tessel, AGroupThatExistsIsReturnedLikeANewOne) {
  fail("create", group_exists);
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(-1, 12, 7, "t", "root.A")), "created");
  service.answers_nothing = true;
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(-1, 12, 7, "t", "root.A")), std::nullopt);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, AnyOtherFailureOfACreationIsAWarning) {
  fail("create", -3);
  EXPECT_EQ(text_of(ptz_tessel_create_group_vp(-1, 12, 7, "sim1_preset", "root.%s", "A")), std::nullopt);
  EXPECT_EQ(log.lines(), (Lines{{LOG_WARNING, "Failed to create root.A from sim1_preset err -3"}}));
}

TEST_F(Tessel, AGroupIsCreatedFromTheTemplateOfItsDriver) {
  EXPECT_TRUE(ptz_tessel_create_group(-3, "Sim", "PreSet", 2, 12));
  EXPECT_EQ(service.calls(), (Calls{"create root.PTZ.PreSet from Sim-3_preset mode=12 number=2"}));
}

TEST_F(Tessel, ACreationThatFailsIsTriedAgainOnAClearedPlace) {
  int creations = 0;
  service.error = [&](const std::string &call) {
    return call.starts_with("create") && ++creations == 1 ? group_exists : 0;
  };
  EXPECT_TRUE(ptz_tessel_create_group(1, "sim", "Preset", 2, 12));
  const std::string create = "create root.PTZ.Preset from sim1_preset mode=12 number=2";
  EXPECT_EQ(service.calls(), (Calls{create, "delete root.PTZ.Preset.P2 mode=12", create}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Tessel, ACreationThatFailsTwiceIsLogged) {
  int creations = 0;
  service.error = [&](const std::string &call) { return call.starts_with("create") ? -10 - ++creations : -1; };
  EXPECT_FALSE(ptz_tessel_create_group(1, "sim", "Preset", 2, 12));
  EXPECT_EQ(service.calls().size(), 3U);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR,
                                 "Could not create dynamic group root.PTZ.Preset from template sim1_preset, "
                                 "err = -12"}}));
}

TEST_F(Tessel, ACreationIsNotTriedAgainWhereThePathOfTheOldGroupIsTooLong) {
  const std::string group = std::string(127 - 9, 'g'), path = "root.PTZ." + group;
  EXPECT_TRUE(ptz_tessel_create_group(1, "sim", group.c_str(), 2, 12));
  service.calls();
  fail("create", -6);
  EXPECT_FALSE(ptz_tessel_create_group(1, "sim", group.c_str(), 2, 12));
  EXPECT_EQ(service.calls().size(), 1U);
  EXPECT_EQ(
      log.lines(),
      (Lines{{LOG_ERR, "Could not create dynamic group " + path + " from template sim1_" + group + ", err = -6"}}));
  EXPECT_FALSE(ptz_tessel_create_group(1, "sim", (group + "g").c_str(), 2, 12));
  EXPECT_EQ(service.calls(), Calls{});
  EXPECT_EQ(log.lines().size(), 1U);
}

struct SubGroup : Tessel {
  TempDir dir;

  // The file exists for the library.
  Redirect provide(const std::string &templ) const {
    write_file(dir.file("template"), "");
    return {"/etc/sysconfig/template/" + templ + "_grp.conf", dir.file("template")};
  }
};

TEST_F(SubGroup, IsCreatedFromTheTemplateOfItsDriverAndNumber) {
  const auto file = provide("driver-2_osdmenu4294967295");
  EXPECT_TRUE(ptz_tessel_create_sub_group(-2, "cam", -1, "OsdMenu", 4294967295U, 12));
  EXPECT_EQ(service.calls(), (Calls{"create root.PTZ.cam.c-1.OsdMenu from driver-2_osdmenu4294967295 mode=12 "
                                    "number=-1"}));
  fail("create", group_exists);
  EXPECT_FALSE(ptz_tessel_create_sub_group(-2, "cam", -1, "OsdMenu", 4294967295U, 12));
  EXPECT_EQ(service.calls().size(), 1U) << "tried once";
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SubGroup, IsNotCreatedWithoutATemplateFile) {
  const Redirect no_file("/etc/sysconfig/template/driver2_osdmenu3_grp.conf", dir.file("missing"));
  EXPECT_FALSE(ptz_tessel_create_sub_group(2, "Cam", 1, "OsdMenu", 3, 12));
  EXPECT_EQ(service.calls(), Calls{});
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(SubGroup, HasATemplateOfAtMost98Characters) {
  const std::string start = "driver2_", name(98 - start.size() - 1, 'n');
  const auto file = provide(start + name + "3"), longer_file = provide(start + name + "n3");
  EXPECT_TRUE(ptz_tessel_create_sub_group(2, "C", 1, name.c_str(), 3, 12));
  service.calls();
  EXPECT_FALSE(ptz_tessel_create_sub_group(2, "C", 1, (name + "n").c_str(), 3, 12));
  EXPECT_FALSE(ptz_tessel_create_sub_group(2, "C", 1, std::string(105, 'n').c_str(), 3, 12));
  EXPECT_EQ(service.calls(), Calls{});
}

TEST_F(SubGroup, HasAPathOfAtMost127Characters) {
  const auto file = provide("driver2_n3");
  const std::string group(127 - std::string("root.PTZ..g1.n").size(), 'g');
  EXPECT_TRUE(ptz_tessel_create_sub_group(2, group.c_str(), 1, "n", 3, 12));
  service.calls();
  EXPECT_FALSE(ptz_tessel_create_sub_group(2, (group + "g").c_str(), 1, "n", 3, 12));
  EXPECT_EQ(service.calls(), Calls{});
}

// --- deleting groups --------------------------------------------------------------------------------------------

TEST_F(Tessel, DeletionsNeverFailForTheService) {
  fail("delete");
  EXPECT_TRUE(ptz_tessel_index_delete_group("Driver", 3, 1));
  EXPECT_TRUE(ptz_tessel_delete_sub_group("Preset", 3, 0));
  EXPECT_TRUE(ptz_tessel_delete_subsub_group("Cam", 1, "preset", 2, -1));
  ptz_tessel_delete_group("root.A", 4);
  ptz_tessel_delete_group_vp(4, "root.%s", "B");
  EXPECT_EQ(service.calls(),
            (Calls{"delete root.PTZ.Driver3 mode=1", "delete root.PTZ.Preset.P3 mode=0",
                   "delete root.PTZ.Cam.C1.preset.p2 mode=-1", "delete root.A mode=4", "delete root.B mode=4"}));
  EXPECT_TRUE(log.lines().empty());
}

// --- walking the parameters of a group --------------------------------------------------------------------------

struct Visit {
  std::string name, value;
  guint position;
  bool operator==(const Visit &) const = default;
};
void PrintTo(const Visit &visit, std::ostream *out) {
  *out << visit.position << ' ' << visit.name << '=' << visit.value;
}

struct Walk : Tessel {
  std::vector<Visit> visits;
  std::size_t visits_wanted = 100;
  const std::string failure = "Could not complete iteration of parameter group root.A";

  Walk() {
    service.parameters["root.A"] = {{"root.A.X", "X"}, {"root.A.Y", "Y"}, {"root.A.Z", "Z"}};
    service.tree = {{"root.A.X", "1"}, {"root.A.Y", ""}, {"root.A.Z", "caf\xE9"}};
  }
  static gboolean visit(const gchar *name, const gchar *value, gpointer user_data, guint position) {
    auto &self = *static_cast<Walk *>(user_data);
    self.visits.push_back({name, value, position});
    return self.visits.size() < self.visits_wanted ? TRUE : FALSE;
  }
  bool walk(const char *stop_name = nullptr, const std::string &group = "root.A") {
    return ptz_tessel_iterate_group(group.c_str(), stop_name, this, visit) != FALSE;
  }
  // Every walk that was begun was released, whatever became of it.
  ~Walk() override {
    const auto calls = service.calls();
    EXPECT_TRUE(calls.empty() || calls.back() == "cleanup root.A") << calls.back();
  }
};

TEST_F(Walk, VisitsEveryParameterInOrder) {
  EXPECT_TRUE(walk());
  EXPECT_EQ(visits, (std::vector<Visit>{{"root.A.X", "1", 1}, {"root.A.Y", "", 2}, {"root.A.Z", "caf\xC3\xA9", 3}}));
  EXPECT_EQ(service.calls(), (Calls{"params root.A", "param root.A", "get root.A.X", "param root.A", "get root.A.Y",
                                    "param root.A", "get root.A.Z", "param root.A", "cleanup root.A"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Walk, VisitsParametersWithPercentSignsInTheirNames) {
  service.parameters["root.A"] = {{"root.A.50%%", "50%%"}, {"root.A.%d%s%n%", "%d%s%n%"}};
  service.tree = {{"root.A.50%%", "1"}, {"root.A.%d%s%n%", "2"}};
  EXPECT_TRUE(walk());
  EXPECT_EQ(visits, (std::vector<Visit>{{"root.A.50%%", "1", 1}, {"root.A.%d%s%n%", "2", 2}}));
  EXPECT_TRUE(walk("50%%"));
  EXPECT_EQ(visits.size(), 2U);
}

TEST_F(Walk, OfAnEmptyGroupVisitsNothing) {
  service.parameters["root.A"] = {};
  EXPECT_TRUE(walk());
  EXPECT_TRUE(visits.empty());
  EXPECT_EQ(service.calls(), (Calls{"params root.A", "param root.A", "cleanup root.A"}));
}

TEST_F(Walk, EndsBeforeTheStopNameWhoseValueIsReadAllTheSame) {
  EXPECT_TRUE(walk("Y"));
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_EQ(service.calls(),
            (Calls{"params root.A", "param root.A", "get root.A.X", "param root.A", "get root.A.Y", "cleanup root.A"}));
  service.tree.erase("root.A.Y");
  EXPECT_FALSE(walk("Y"));
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, failure}}));
}

TEST_F(Walk, ComparesTheStopNameWithShortNames) {
  EXPECT_TRUE(walk("root.A.Y"));
  EXPECT_TRUE(walk(""));
  EXPECT_EQ(visits.size(), 6U);
  service.parameters["root.A"] = {{"root.A.X"}};
  EXPECT_TRUE(walk("X")) << "a parameter without a short name";
  EXPECT_EQ(visits.size(), 7U);
}

TEST_F(Walk, EndsWhereTheActionSaysSo) {
  visits_wanted = 2;
  EXPECT_TRUE(walk());
  EXPECT_EQ(visits.size(), 2U);
  EXPECT_EQ(service.calls().back(), "cleanup root.A");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Walk, FailsWhereItCannotBegin) {
  fail("params");
  EXPECT_FALSE(walk());
  service.error = {};
  EXPECT_FALSE(walk(nullptr, ""));
  service.answers_nothing = true;
  EXPECT_FALSE(walk());
  EXPECT_EQ(
      log.lines(),
      (Lines{{LOG_ERR, failure}, {LOG_ERR, "Could not complete iteration of parameter group "}, {LOG_ERR, failure}}));
  EXPECT_EQ(service.calls(), (Calls{"params root.A", "cleanup root.A", "params ", "params root.A"}));
}

TEST_F(Walk, FailsWhereAParameterCannotBeRead) {
  service.tree.erase("root.A.Y");
  EXPECT_FALSE(walk());
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, failure}}));
}

TEST_F(Walk, EndsAtAnErrorThatTheServiceWouldReportForEver) {
  fail("param ");
  EXPECT_FALSE(walk());
  EXPECT_EQ(service.calls(), (Calls{"params root.A", "param root.A", "cleanup root.A"}));
  int moves = 0;
  service.error = [&](const std::string &call) { return call == "param root.A" && ++moves > 1 ? service_failure : 0; };
  EXPECT_FALSE(walk());
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_EQ(log.lines(), Lines(2, {LOG_ERR, failure}));
}

TEST_F(Walk, FailsAtAParameterWithoutAName) {
  service.parameters["root.A"] = {{"root.A.X", "X"}, {"", "Y"}};
  EXPECT_FALSE(walk());
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, failure}}));
}

TEST_F(Walk, ReadsALongPathCutShort) {
  const std::string longest = padded("root.A.", 127), longer = longest + "y";
  service.parameters["root.A"] = {{longer, "y"}};
  EXPECT_FALSE(walk());
  service.tree[longest] = "1";
  EXPECT_TRUE(walk());
  EXPECT_EQ(visits, (std::vector<Visit>{{longer, "1", 1}}));
}

// --- walking the groups of a group ------------------------------------------------------------------------------

struct Children : Tessel {
  std::vector<std::string> visits;
  std::map<std::string, std::string> answers;  // of the action, by group

  Children() {
    service.children["root.A"] = {{"root.A.B0"}, {"root.A.B1"}, {"root.A.B2"}};
    service.tree = {{"root.A.B0.Name", "zero"}, {"root.A.B1.Name", "caf\xE9"}, {"root.A.B2.Name", ""}};
  }
  static gchar *visit(const gchar *group, const gchar *value, gpointer user_data) {
    auto &self = *static_cast<Children *>(user_data);
    self.visits.push_back(std::string(group) + "=" + value);
    const auto answer = self.answers.find(group);
    return answer != self.answers.end() ? g_strdup(answer->second.c_str()) : nullptr;
  }
  std::optional<std::string> walk(bool recurse = false, const std::string &group = "root.A") {
    return text_of(ptz_tessel_iterate_sub_groups(group.c_str(), "Name", recurse ? 2 : 0, this, visit));
  }
  // Walks that were begun and released are balanced, whatever became of them.
  std::ptrdiff_t open_walks(const std::string &without = "") {
    std::ptrdiff_t count = 0;
    for (const auto &call : service.calls()) {
      count += call.starts_with("groups ") && call != without ? 1 : 0;
      count -= call.starts_with("cleanup ") ? 1 : 0;
    }
    return count;
  }
};

TEST_F(Children, AreVisitedInOrder) {
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits, (std::vector<std::string>{"root.A.B0=zero", "root.A.B1=caf\xC3\xA9", "root.A.B2="}));
  EXPECT_EQ(service.calls(),
            (Calls{"groups root.A", "group root.A", "get root.A.B0.Name", "group root.A", "get root.A.B1.Name",
                   "group root.A", "get root.A.B2.Name", "group root.A", "cleanup root.A"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Children, WithPercentSignsInTheirNamesAreVisited) {
  service.children["root.A"] = {{"root.A.B%%"}, {"root.A.%s"}};
  service.tree = {{"root.A.B%%.Name", "1"}, {"root.A.%s.Name", "2"}};
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits, (std::vector<std::string>{"root.A.B%%=1", "root.A.%s=2"}));
}

TEST_F(Children, EndWithATextThatIsReturnedUnlessItIsEmpty) {
  answers["root.A.B1"] = "found";
  EXPECT_EQ(walk(), "found");
  EXPECT_EQ(visits.size(), 2U);
  answers["root.A.B0"] = "";
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits.size(), 3U);
  EXPECT_EQ(open_walks(), 0);
}

TEST_F(Children, EndAtOneWithoutTheParameter) {
  service.tree.erase("root.A.B1.Name");
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_EQ(open_walks(), 0);
}

TEST_F(Children, AreLookedIntoWithRecursion) {
  service.children["root.A.B0"] = {{"root.A.B0.C"}};
  service.children["root.A.B0.C"] = {{"root.A.B0.C.D"}};
  service.children["root.A.B2"] = {};
  service.tree["root.A.B0.C.D.Name"] = "deep";
  service.tree.erase("root.A.B1.Name");
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits, (std::vector<std::string>{"root.A.B0=zero"}));
  visits.clear();
  EXPECT_EQ(walk(true), std::nullopt);
  EXPECT_EQ(visits, (std::vector<std::string>{"root.A.B0=zero", "root.A.B0.C.D=deep", "root.A.B2="}));
}

TEST_F(Children, OfChildrenEndTheirOwnWalkOnly) {
  service.children["root.A.B0"] = {{"root.A.B0.C0"}, {"root.A.B0.C1"}};
  service.tree["root.A.B0.C0.Name"] = service.tree["root.A.B0.C1.Name"] = "inner";
  answers = {{"root.A.B0.C0", "not passed on"}, {"root.A.B2", "found"}};
  EXPECT_EQ(walk(true), "found");
  EXPECT_EQ(visits,
            (std::vector<std::string>{"root.A.B0=zero", "root.A.B0.C0=inner", "root.A.B1=caf\xC3\xA9", "root.A.B2="}));
  EXPECT_EQ(open_walks("groups root.A.B1"), 0);
}

TEST_F(Children, AreNotLookedIntoAfterAText) {
  answers["root.A.B0"] = "found";
  EXPECT_EQ(walk(true), "found");
  EXPECT_EQ(service.calls(), (Calls{"groups root.A", "group root.A", "get root.A.B0.Name", "cleanup root.A"}));
}

TEST_F(Children, FailWithoutAWord) {
  fail("groups");
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(service.calls(), (Calls{"groups root.A", "cleanup root.A"}));
  fail("group ");
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(service.calls(), (Calls{"groups root.A", "group root.A", "cleanup root.A"}));
  service.error = {};
  EXPECT_EQ(walk(false, ""), std::nullopt);
  service.answers_nothing = true;
  EXPECT_EQ(walk(), std::nullopt);
  service.answers_nothing = false;
  service.children["root.A"] = {{"root.A.B0"}, {""}};
  EXPECT_EQ(walk(), std::nullopt) << "a child without a name";
  EXPECT_EQ(visits.size(), 1U);
  service.children["root.A"] = {};
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits.size(), 1U);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(Children, EndAtAnErrorThatTheServiceWouldReportForEver) {
  int moves = 0;
  service.error = [&](const std::string &call) { return call == "group root.A" && ++moves > 1 ? service_failure : 0; };
  EXPECT_EQ(walk(true), std::nullopt);
  EXPECT_EQ(visits.size(), 1U);
}

TEST_F(Children, EndAtOneWhosePathIsTooLong) {
  const std::string longest = padded("root.A.", 127 - 5), longer = longest + "x";
  service.children["root.A"] = {{longest}, {longer}, {"root.A.B0"}};
  service.tree[longest + ".Name"] = service.tree[(longer + ".Name").substr(0, 127)] = "v";
  EXPECT_EQ(walk(), std::nullopt);
  EXPECT_EQ(visits, (std::vector<std::string>{longest + "=v"}));
  EXPECT_EQ(open_walks(), 0);
}

TEST_F(Children, ThatAreNestedWithoutAnEndAreLeft) {
  service.children["root.A"] = {{"root.A"}};
  service.tree["root.A.Name"] = "again";
  EXPECT_EQ(walk(true), std::nullopt);
  EXPECT_EQ(visits.size(), 127U);
  EXPECT_EQ(open_walks(), 0);
}

TEST_F(Children, ThatAreNestedTenThousandDeepAreLeft) {
  std::string group = "root.A";
  for (int depth = 0; depth < 10'000; ++depth) {
    const std::string child = "g" + std::to_string(depth);
    service.children[group] = {{child}};
    group = child;
  }
  EXPECT_EQ(walk(true), std::nullopt);
  EXPECT_EQ(open_walks(), 0);
}

// --- arguments --------------------------------------------------------------------------------------------------

struct Abort {
  const char *name;
  std::function<void()> call;
  std::string message;  // of the failed assertion
};
void PrintTo(const Abort &abort, std::ostream *out) { *out << abort.name; }

const gchar *volatile no_text = nullptr;
gint32 number;
gboolean flag;
gboolean visit_parameter(const gchar *, const gchar *, gpointer, guint) { return TRUE; }
gchar *visit_child(const gchar *, const gchar *, gpointer) { return nullptr; }

const Abort aborts[] = {
    {"get_vp", [] { ptz_tessel_get_vp(no_text); }, "ptz_tessel_get_vp: assertion failed: (path_format)"},
    {"get", [] { ptz_tessel_get(no_text); }, "ptz_tessel_get_vp: assertion failed: (path_format)"},
    {"set_vp", [] { ptz_tessel_set_vp(0, 0, "v", no_text); }, "ptz_tessel_set_vp: assertion failed: (path_format)"},
    {"set_vp_value", [] { ptz_tessel_set_vp(0, 0, no_text, "p"); }, "ptz_tessel_set_vp: assertion failed: (val)"},
    {"set", [] { ptz_tessel_set(no_text, "v", 0, 0, 0, 0); }, "ptz_tessel_set_vp: assertion failed: (path_format)"},
    {"set_value", [] { ptz_tessel_set("p", no_text, 0, 0, 0, 0); }, "ptz_tessel_set_vp: assertion failed: (val)"},
    {"index_get_group", [] { ptz_tessel_index_get(no_text, "p", 0, "s"); },
     "ptz_tessel_index_get: assertion failed: (grp_name != NULL)"},
    {"index_get_prefix", [] { ptz_tessel_index_get("g", no_text, 0, "s"); },
     "ptz_tessel_index_get: assertion failed: (par_prefix != NULL)"},
    {"index_get_suffix", [] { ptz_tessel_index_get("g", "p", 0, no_text); },
     "ptz_tessel_index_get: assertion failed: (par_suffix != NULL)"},
    {"index_set_group", [] { ptz_tessel_index_set(no_text, "p", 0, "s", "v", 0, 0, 0); },
     "ptz_tessel_index_set: assertion failed: (grp_name != NULL)"},
    {"index_set_prefix", [] { ptz_tessel_index_set("g", no_text, 0, "s", "v", 0, 0, 0); },
     "ptz_tessel_index_set: assertion failed: (par_prefix != NULL)"},
    {"index_set_suffix", [] { ptz_tessel_index_set("g", "p", 0, no_text, "v", 0, 0, 0); },
     "ptz_tessel_index_set: assertion failed: (par_suffix != NULL)"},
    {"index_set_value", [] { ptz_tessel_index_set("g", "p", 0, "s", no_text, 0, 0, 0); },
     "ptz_tessel_index_set: assertion failed: (val != NULL)"},
    {"dyn_index_get_group", [] { ptz_tessel_dyn_index_get(no_text, 0, "p"); },
     "ptz_tessel_dyn_index_get: assertion failed: (grp_name != NULL)"},
    {"dyn_index_get_name", [] { ptz_tessel_dyn_index_get("g", 0, no_text); },
     "ptz_tessel_dyn_index_get: assertion failed: (par_name != NULL)"},
    {"dyn_index_set_group", [] { ptz_tessel_dyn_index_set(no_text, 0, "p", "v", 0, 0, 0); },
     "ptz_tessel_dyn_index_set: assertion failed: (grp_name != NULL)"},
    {"dyn_index_set_name", [] { ptz_tessel_dyn_index_set("g", 0, no_text, "v", 0, 0, 0); },
     "ptz_tessel_dyn_index_set: assertion failed: (par_name != NULL)"},
    {"dyn_index_set_value", [] { ptz_tessel_dyn_index_set("g", 0, "p", no_text, 0, 0, 0); },
     "ptz_tessel_dyn_index_set: assertion failed: (val != NULL)"},
    {"create_group_vp", [] { ptz_tessel_create_group_vp(0, 0, 0, "t", no_text); },
     "ptz_tessel_create_group_vp: assertion failed: (path_format)"},
    {"create_group_vp_template", [] { ptz_tessel_create_group_vp(0, 0, 0, no_text, "p"); },
     "ptz_tessel_create_group_vp: assertion failed: (templ)"},
    {"create_group_prefix", [] { ptz_tessel_create_group(0, no_text, "g", 0, 0); },
     "ptz_tessel_create_group: assertion failed: (template_prefix != NULL)"},
    {"create_group", [] { ptz_tessel_create_group(0, "t", no_text, 0, 0); },
     "ptz_tessel_create_group: assertion failed: (group != NULL)"},
    {"create_sub_group", [] { ptz_tessel_create_sub_group(0, no_text, 0, "n", 0, 0); },
     "ptz_tessel_create_sub_group: assertion failed: (group != NULL)"},
    {"create_sub_group_name", [] { ptz_tessel_create_sub_group(0, "g", 0, no_text, 0, 0); },
     "ptz_tessel_create_sub_group: assertion failed: (name != NULL)"},
    {"delete_group_vp", [] { ptz_tessel_delete_group_vp(0, no_text); },
     "ptz_tessel_delete_group_vp: assertion failed: (path_format)"},
    {"delete_group", [] { ptz_tessel_delete_group(no_text, 0); }, "ptz_tessel_delete_group: assertion failed: (path)"},
    {"index_delete_group", [] { ptz_tessel_index_delete_group(no_text, 0, 0); },
     "ptz_tessel_index_delete_group: assertion failed: (group != NULL)"},
    {"delete_sub_group", [] { ptz_tessel_delete_sub_group(no_text, 0, 0); },
     "ptz_tessel_delete_sub_group: assertion failed: (group != NULL)"},
    {"delete_subsub_group", [] { ptz_tessel_delete_subsub_group(no_text, 0, "s", 0, 0); },
     "ptz_tessel_delete_subsub_group: assertion failed: (group != NULL)"},
    {"delete_subsub_group_sub", [] { ptz_tessel_delete_subsub_group("g", 0, no_text, 0, 0); },
     "ptz_tessel_delete_subsub_group: assertion failed: (sub_group != NULL)"},
    {"get_int_val_group", [] { ptz_tessel_get_int_val(0, no_text, "p", &number, nullptr); },
     "ptz_tessel_get_int_val: assertion failed: (group != NULL)"},
    {"get_int_val_param", [] { ptz_tessel_get_int_val(0, "g", no_text, &number, nullptr); },
     "ptz_tessel_get_int_val: assertion failed: (param != NULL)"},
    {"get_int_val", [] { ptz_tessel_get_int_val(0, "g", "p", nullptr, nullptr); },
     "ptz_tessel_get_int_val: assertion failed: (valp != NULL)"},
    {"get_int_format", [] { ptz_tessel_get_int(&number, no_text); },
     "ptz_tessel_get_int: assertion failed: (path_format)"},
    {"get_int", [] { ptz_tessel_get_int(nullptr, "p"); }, "ptz_tessel_get_int: assertion failed: (valp)"},
    {"get_bool_val_group", [] { ptz_tessel_get_bool_val(0, no_text, "p", &flag); },
     "ptz_tessel_get_bool_val: assertion failed: (group != NULL)"},
    {"get_bool_val_param", [] { ptz_tessel_get_bool_val(0, "g", no_text, &flag); },
     "ptz_tessel_get_bool_val: assertion failed: (param != NULL)"},
    {"get_bool_val", [] { ptz_tessel_get_bool_val(0, "g", "p", nullptr); },
     "ptz_tessel_get_bool_val: assertion failed: (valp != NULL)"},
    {"get_bool_format", [] { ptz_tessel_get_bool(&flag, no_text); },
     "ptz_tessel_get_bool: assertion failed: (path_format)"},
    {"get_bool", [] { ptz_tessel_get_bool(nullptr, "p"); }, "ptz_tessel_get_bool: assertion failed: (valp)"},
    {"iterate_group", [] { ptz_tessel_iterate_group(no_text, nullptr, nullptr, visit_parameter); },
     "ptz_tessel_iterate_group: assertion failed: (group != NULL)"},
    {"iterate_group_action", [] { ptz_tessel_iterate_group("g", nullptr, nullptr, nullptr); },
     "ptz_tessel_iterate_group: assertion failed: (action != NULL)"},
    {"iterate_sub_groups", [] { ptz_tessel_iterate_sub_groups(no_text, "p", 0, nullptr, visit_child); },
     "ptz_tessel_iterate_sub_groups: assertion failed: (group != NULL)"},
    {"iterate_sub_groups_param", [] { ptz_tessel_iterate_sub_groups("g", no_text, 0, nullptr, visit_child); },
     "ptz_tessel_iterate_sub_groups: assertion failed: (param != NULL)"},
    {"iterate_sub_groups_action", [] { ptz_tessel_iterate_sub_groups("g", "p", 0, nullptr, nullptr); },
     "ptz_tessel_iterate_sub_groups: assertion failed: (action != NULL)"},
};

struct TesselDeathTest : testing::TestWithParam<Abort> {};
INSTANTIATE_TEST_SUITE_P(NullArguments, TesselDeathTest, testing::ValuesIn(aborts),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_P(TesselDeathTest, EndTheProcess) {
  std::string pattern = "ptz_tessel:.*";
  for (const char c : GetParam().message) pattern += c == '(' || c == ')' ? std::string("\\") + c : std::string(1, c);
  EXPECT_DEATH(GetParam().call(), pattern);
}

}  // namespace
