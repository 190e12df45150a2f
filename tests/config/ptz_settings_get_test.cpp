#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "file_calls.h"
#include "fixtures.h"
#include "kv_records.h"
#include "ptz_settings.h"
#include "settings.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;

constexpr gint32 untouched = 7777;

std::optional<gint32> number(const std::string &group, const std::string &key) {
  gint32 value = untouched;
  const bool found = ptz_settings_get_custom_int(group.c_str(), key.c_str(), &value);
  EXPECT_TRUE(found || value == untouched);
  return found ? std::optional(value) : std::nullopt;
}

std::optional<bool> flag(const std::string &group, const std::string &key) {
  gboolean value = untouched;
  const bool found = ptz_settings_get_custom_boolean(group.c_str(), key.c_str(), &value);
  EXPECT_TRUE(found ? value == TRUE || value == FALSE : value == untouched) << value;
  return found ? std::optional(value != FALSE) : std::nullopt;
}

struct SettingsGet : SettingsTest {
  SyslogCapture log;
  GlibLogCapture glib;

  ~SettingsGet() override {
    // Nothing that is missing is worth a line.
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
  }
};

// --- groups and keys --------------------------------------------------------------------------------------------

TEST_F(SettingsGet, StoresThatWereNeverLoadedAnswerNothing) {
  const auto path = file("a", "[Group]\nKey=one\n");
  {
    const FileFault fault(Failing::grow, ENOMEM);
    EXPECT_FALSE(
        ptz_settings_load_config(Plain(std::vector<PTZSettingsFile>(30, {path.c_str(), TRUE})).get(), nullptr));
  }
  log = SyslogCapture();  // without the line of the load that failed
  EXPECT_FALSE(ptz_settings_has_group("Group", 1));
  EXPECT_FALSE(ptz_settings_has_custom_group("Group"));
  EXPECT_EQ(ptz_settings_get_group("Group", 1), nullptr);
  EXPECT_EQ(ptz_settings_get_custom_group("Group"), nullptr);
  EXPECT_EQ(setting("Group", "Key"), std::nullopt);
  EXPECT_EQ(number("Group", "Key"), std::nullopt);
  EXPECT_EQ(flag("Group", "Key"), std::nullopt);
  EXPECT_EQ(text_of(ptz_settings_get_vp("Group.Key")), std::nullopt);
  EXPECT_FALSE(ptz_settings_iterate_group("Group", 1, nullptr,
                                          [](const gchar *, const gchar *, gpointer) -> gboolean { return TRUE; }));
}

void ask_stores_that_were_never_loaded() {
  EXPECT_FALSE(ptz_settings_has_group("Group", 0));
  EXPECT_EQ(setting("Group", "Key"), std::nullopt);
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group")), std::nullopt);
  EXPECT_EQ(shell_setting("KEY"), std::nullopt);
  gboolean value = untouched;
  EXPECT_FALSE(ptz_settings_shell_get_boolean(&value, "KEY"));
  EXPECT_EQ(value, untouched);
  std::exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(SettingsOfAFreshProcessDeathTest, AnswerNothing) {
  // The program is started anew, and has loaded nothing.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ask_stores_that_were_never_loaded(), testing::ExitedWithCode(0), "");
}

TEST_F(SettingsGet, GroupsOfBothStoresAreFound) {
  ASSERT_TRUE(load_key_file("[KeyFile]\nKey=one\n"));
  ASSERT_TRUE(load_parsed("[Parsed]\nKey=two\n"));
  EXPECT_TRUE(ptz_settings_has_custom_group("KeyFile"));
  EXPECT_TRUE(ptz_settings_has_custom_group("Parsed"));
  EXPECT_FALSE(ptz_settings_has_custom_group("Other"));
  EXPECT_EQ(setting("KeyFile", "Key"), "one");
  EXPECT_EQ(setting("Parsed", "Key"), "two");
}

TEST_F(SettingsGet, AGroupOfBothStoresAnswersFromTheKeyFileStoreOnly) {
  ASSERT_TRUE(load_key_file("[Group]\nShared=key file\nOwn=1\n"));
  ASSERT_TRUE(load_parsed("[Group]\nShared=parsed\nHidden=yes\n[Other]\nHidden=yes\n"));
  EXPECT_EQ(setting("Group", "Shared"), "key file");
  EXPECT_EQ(setting("Group", "Hidden"), std::nullopt);
  EXPECT_EQ(flag("Group", "Hidden"), std::nullopt);
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Group")), (Names{"Shared", "Own"}));
  EXPECT_EQ(setting("Other", "Hidden"), "yes");
}

TEST_F(SettingsGet, TheRootPrefixIsLeftOutInTwoSpellings) {
  ASSERT_TRUE(
      load_key_file("[Foo]\nKey=plain\n[Root.Foo]\nKey=mixed\n[root.Bar]\nKey=below\n[ROOT.Bar]\nKey=beside\n"));
  EXPECT_EQ(setting("root.Foo", "Key"), "plain");
  EXPECT_EQ(setting("ROOT.Foo", "Key"), "plain");
  EXPECT_EQ(setting("Root.Foo", "Key"), "mixed");
  EXPECT_EQ(setting("rOOT.Foo", "Key"), std::nullopt);
  EXPECT_EQ(setting("root.root.Bar", "Key"), "below") << "removed once";
  EXPECT_EQ(setting("root.ROOT.Bar", "Key"), "beside");
  EXPECT_EQ(setting("root.Bar", "Key"), std::nullopt);
  EXPECT_TRUE(ptz_settings_has_custom_group("root.Foo"));
  EXPECT_TRUE(ptz_settings_has_group("ROOT.Foo", -1));
  EXPECT_EQ(names_of(ptz_settings_get_group("root.Foo", -1)), Names{"Key"});
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("ROOT.Foo")), Names{"Key"});
  EXPECT_FALSE(ptz_settings_has_custom_group("root."));
  EXPECT_FALSE(ptz_settings_has_custom_group("root"));
  EXPECT_EQ(setting("root.", "Key"), std::nullopt);
  EXPECT_EQ(setting("", "Key"), std::nullopt);
}

TEST_F(SettingsGet, AnIndexIsPartOfTheNameUnlessItIsNegative) {
  ASSERT_TRUE(
      load_key_file("[Preset]\nKey=none\n[Preset0]\nKey=zero\n[Preset3]\nKey=three\nInt=3\nFlag=y\n"
                    "[Preset2147483647]\nKey=last\n[Preset-1]\nKey=minus\n"));
  const auto indexed = [](gint index) { return text_of(ptz_settings_get_string("Preset", index, "Key")); };
  EXPECT_EQ(indexed(0), "zero");
  EXPECT_EQ(indexed(3), "three");
  EXPECT_EQ(indexed(std::numeric_limits<gint>::max()), "last");
  EXPECT_EQ(indexed(-1), "none");
  EXPECT_EQ(indexed(std::numeric_limits<gint>::min()), "none");
  EXPECT_EQ(indexed(4), std::nullopt);
  EXPECT_EQ(setting("Preset-1", "Key"), "minus");
  EXPECT_TRUE(ptz_settings_has_group("root.Preset", 3));
  EXPECT_FALSE(ptz_settings_has_group("Preset", 4));
  EXPECT_EQ(names_of(ptz_settings_get_group("Preset", 3)), (Names{"Key", "Int", "Flag"}));
  EXPECT_EQ(ptz_settings_get_group("Preset", 4), nullptr);
  gint32 value = 0;
  gint64 wide = 0;
  gboolean set = FALSE;
  EXPECT_TRUE(ptz_settings_get_int("ROOT.Preset", 3, "Int", &value));
  EXPECT_TRUE(ptz_settings_get_int64("Preset", 3, "Int", &wide));
  EXPECT_TRUE(ptz_settings_get_boolean("Preset", 3, "Flag", &set));
  EXPECT_EQ(value, 3);
  EXPECT_EQ(wide, 3);
  EXPECT_TRUE(set);
  EXPECT_FALSE(ptz_settings_get_int("Preset", 0, "Int", &value));
  EXPECT_FALSE(ptz_settings_get_int64("Preset", 0, "Int", &wide));
  EXPECT_FALSE(ptz_settings_get_boolean("Preset", 0, "Flag", &set));
}

TEST_F(SettingsGet, NullGroupsAndKeysAreNotFound) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=1\n"));
  gint32 value = untouched;
  gint64 wide = untouched;
  gboolean set = untouched;
  EXPECT_EQ(ptz_settings_get_string(nullptr, 0, "Key"), nullptr);
  EXPECT_EQ(ptz_settings_get_string(nullptr, -1, "Key"), nullptr);
  EXPECT_EQ(ptz_settings_get_string("Group", -1, nullptr), nullptr);
  EXPECT_EQ(ptz_settings_get_custom_string(nullptr, "Key"), nullptr);
  EXPECT_EQ(ptz_settings_get_custom_string("Group", nullptr), nullptr);
  EXPECT_EQ(ptz_settings_get_custom_string(nullptr, nullptr), nullptr);
  EXPECT_FALSE(ptz_settings_get_boolean(nullptr, 0, "Key", &set));
  EXPECT_FALSE(ptz_settings_get_custom_boolean("Group", nullptr, &set));
  EXPECT_FALSE(ptz_settings_get_int64(nullptr, 0, "Key", &wide));
  EXPECT_FALSE(ptz_settings_get_custom_int64("Group", nullptr, &wide));
  EXPECT_FALSE(ptz_settings_get_int(nullptr, 0, "Key", &value));
  EXPECT_FALSE(ptz_settings_get_custom_int("Group", nullptr, &value));
  EXPECT_EQ(value, untouched);
  EXPECT_EQ(wide, untouched);
  EXPECT_EQ(set, untouched);
  EXPECT_FALSE(ptz_settings_has_group(nullptr, 0));
  EXPECT_FALSE(ptz_settings_has_custom_group(nullptr));
  EXPECT_EQ(ptz_settings_get_group(nullptr, 0), nullptr);
  EXPECT_EQ(ptz_settings_get_custom_group(nullptr), nullptr);
}

TEST_F(SettingsGet, OddGroupsAndKeysAreNotFoundAndCostNoCritical) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=1\n[%s%n]\n%d%s=2\n"));
  for (const char *odd : {"", "[", "]", "a]b", "=", " ", "\n", "\x01", "\xE9", "Key[de]", "[de]", "%s%n%d"}) {
    EXPECT_EQ(setting(odd, "Key"), std::nullopt);
    EXPECT_EQ(setting("Group", odd), std::nullopt);
    EXPECT_EQ(number("Group", odd), std::nullopt);
    EXPECT_EQ(flag(odd, odd), std::nullopt);
    EXPECT_FALSE(ptz_settings_has_custom_group(odd));
    EXPECT_EQ(ptz_settings_get_custom_group(odd), nullptr);
  }
  EXPECT_EQ(setting("%s%n", "%d%s"), "2");
}

TEST_F(SettingsGet, AGroupWithoutKeysHasAnEmptyListOfThem) {
  ASSERT_TRUE(load_key_file("[Empty]\n"));
  EXPECT_TRUE(ptz_settings_has_custom_group("Empty"));
  EXPECT_EQ(names_of(ptz_settings_get_custom_group("Empty")), Names{});
}

TEST_F(SettingsGet, EveryResultIsACopyOfItsOwn) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=one\n"));
  const Text first(ptz_settings_get_custom_string("Group", "Key"));
  const Text second(ptz_settings_get_custom_string("Group", "Key"));
  first.get()[0] = 'X';
  EXPECT_STREQ(second.get(), "one");
  EXPECT_EQ(setting("Group", "Key"), "one");
}

// --- the clean-up of values -------------------------------------------------------------------------------------

struct CleanUp {
  const char *line;                           // as it stands in the file
  std::string expected;                       // what an accessor returns
  std::optional<std::string> parsed_as = {};  // from the parsed store, if it differs: records have no key-file escapes
};
void PrintTo(const CleanUp &clean_up, std::ostream *out) { *out << clean_up.line; }

struct SettingsCleanUp : SettingsGet, testing::WithParamInterface<CleanUp> {};

TEST_P(SettingsCleanUp, InTheKeyFileStore) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=" + std::string(GetParam().line) + "\n"));
  EXPECT_EQ(setting("Group", "Key"), GetParam().expected);
}

TEST_P(SettingsCleanUp, InTheParsedStore) {
  ASSERT_TRUE(load_parsed("[Group]\nKey=" + std::string(GetParam().line) + "\n"));
  EXPECT_EQ(setting("Group", "Key"), GetParam().parsed_as.value_or(GetParam().expected));
}

TEST_P(SettingsCleanUp, InTheShellStore) {
  ASSERT_TRUE(load_shell("KEY=" + std::string(GetParam().line) + "\n"));
  EXPECT_EQ(shell_setting("KEY"), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    , SettingsCleanUp,
    testing::Values(CleanUp{"plain", "plain"}, CleanUp{"", ""}, CleanUp{"\"double\"", "double"},
                    CleanUp{"'single'", "single"}, CleanUp{"\"mixed'", "\"mixed'"}, CleanUp{"'open", "'open"},
                    CleanUp{"close\"", "close\""}, CleanUp{"\"", "\""}, CleanUp{"'", "'"}, CleanUp{"\"\"", ""},
                    CleanUp{"''", ""}, CleanUp{"\"\"\"", "\""}, CleanUp{"\"'both'\"", "'both'"},
                    CleanUp{"''twice''", "'twice'"}, CleanUp{"in\"side", "in\"side"}, CleanUp{"100%s%n", "100%s%n"},
                    // One backslash is the key file's own escape, two leave one for the clean-up. In a record one
                    // backslash is the clean-up's escape.
                    CleanUp{R"("a\tb")", "a\tb"}, CleanUp{R"("a\\tb")", "a\tb", R"(a\tb)"},
                    CleanUp{R"(a\\nb)", "a\nb", R"(a\nb)"}, CleanUp{R"(\\101\\102)", "AB", R"(\101\102)"},
                    CleanUp{R"(\\\\)", "\\", R"(\\)"}, CleanUp{R"(\\q)", "q", R"(\q)"},
                    CleanUp{R"(a\sb)", "a b", "asb"}, CleanUp{R"('\\'')", "'", R"(\')"},
                    CleanUp{R"(C:\\temp)", "C:\temp", R"(C:\temp)"},
                    // Escapes that a key file does not know: what it makes of the value is kept.
                    CleanUp{R"(\101)", "A"}, CleanUp{R"(C:\dir)", "C:dir"}, CleanUp{R"("say \"yes\"")", "say \"yes\""},
                    CleanUp{R"(C:\dir\)", "C:dir"}, CleanUp{R"(\q\r\)", "q\r"}, CleanUp{R"(end\)", "end"},
                    CleanUp{R"(end\\)", "end", R"(end\)"}, CleanUp{R"("end\\")", "end", R"(end\)"}, CleanUp{R"(\)", ""},
                    CleanUp{"caf\xC3\xA9", "caf\xC3\xA9"}, CleanUp{R"(\\351)", "\xE9", R"(\351)"}));

// --- truth ------------------------------------------------------------------------------------------------------

struct Truth {
  const char *line;
  std::optional<bool> expected;
};
void PrintTo(const Truth &truth, std::ostream *out) { *out << truth.line; }
gboolean output(const Truth &truth) { return truth.expected ? static_cast<gboolean>(*truth.expected) : untouched; }

struct SettingsTruth : SettingsGet, testing::WithParamInterface<Truth> {};

TEST_P(SettingsTruth, OfAGroup) {
  ASSERT_TRUE(load_key_file("[Group0]\nKey=" + std::string(GetParam().line) + "\n"));
  EXPECT_EQ(flag("root.Group0", "Key"), GetParam().expected);
  gboolean value = untouched;
  EXPECT_EQ(ptz_settings_get_boolean("Group", 0, "Key", &value) != FALSE, GetParam().expected.has_value());
  EXPECT_EQ(value, output(GetParam()));
}

TEST_P(SettingsTruth, OfTheShellStore) {
  ASSERT_TRUE(load_shell("KEY3=" + std::string(GetParam().line) + "\n"));
  gboolean value = untouched;
  EXPECT_EQ(ptz_settings_shell_get_boolean(&value, "KEY%d", 3) != FALSE, GetParam().expected.has_value());
  EXPECT_EQ(value, output(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(, SettingsTruth,
                         testing::Values(Truth{"yes", true}, Truth{"True", true}, Truth{"t", true}, Truth{"Y", true},
                                         Truth{"y", true}, Truth{"Txyz", true}, Truth{"no", false}, Truth{"1", false},
                                         Truth{"0", false}, Truth{"on", false}, Truth{"enable", false},
                                         Truth{"false", false}, Truth{"\"yes\"", true}, Truth{"'t'", true},
                                         Truth{"\"no\"", false}, Truth{"\"yes", false}, Truth{"", std::nullopt},
                                         Truth{"\"\"", std::nullopt}, Truth{"''", std::nullopt},
                                         Truth{R"(\\171es)", true}));

TEST_F(SettingsGet, MissingTruthIsNotFound) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=yes\n"));
  EXPECT_EQ(flag("Group", "Other"), std::nullopt);
  EXPECT_EQ(flag("Other", "Key"), std::nullopt);
}

// --- numbers ----------------------------------------------------------------------------------------------------

struct Number {
  const char *line;
  std::optional<gint64> wide;
  std::optional<gint32> narrow;
  gint64 written = untouched;  // by the wide accessor where it finds no number
};
void PrintTo(const Number &number, std::ostream *out) { *out << number.line; }

struct SettingsNumber : SettingsGet, testing::WithParamInterface<Number> {};

TEST_P(SettingsNumber, IsReadAtBothWidths) {
  const auto &[line, wide, narrow, written] = GetParam();
  ASSERT_TRUE(load_key_file("[Group5]\nKey=" + std::string(line) + "\n"));
  gint64 wide_value = untouched;
  EXPECT_EQ(ptz_settings_get_int64("Group", 5, "Key", &wide_value) != FALSE, wide.has_value());
  EXPECT_EQ(wide_value, wide.value_or(written));
  wide_value = untouched;
  EXPECT_EQ(ptz_settings_get_custom_int64("ROOT.Group5", "Key", &wide_value) != FALSE, wide.has_value());
  EXPECT_EQ(wide_value, wide.value_or(written));
  EXPECT_EQ(number("Group5", "Key"), narrow);
  gint32 narrow_value = untouched;
  EXPECT_EQ(ptz_settings_get_int("Group", 5, "Key", &narrow_value) != FALSE, narrow.has_value());
  EXPECT_EQ(narrow_value, narrow.value_or(untouched));
}

INSTANTIATE_TEST_SUITE_P(
    , SettingsNumber,
    testing::Values(
        Number{"0", 0, 0}, Number{"42", 42, 42}, Number{"-5", -5, -5}, Number{"+5", 5, 5}, Number{"0x10", 16, 16},
        Number{"0XfF", 255, 255}, Number{"-0x10", -16, -16}, Number{"010", 8, 8}, Number{"-010", -8, -8},
        Number{"12ms", 12, 12}, Number{"08", 0, 0}, Number{"\"17\"", 17, 17}, Number{"1.9", 1, 1},
        Number{"2147483647", 2147483647, 2147483647}, Number{"2147483648", 2147483648, std::nullopt},
        Number{"-2147483648", -2147483648, std::numeric_limits<gint32>::min()},
        Number{"-2147483649", -2147483649, std::nullopt}, Number{"3000000000", 3'000'000'000, std::nullopt},
        Number{"4294967296", 4'294'967'296, std::nullopt}, Number{"9223372036854775807", G_MAXINT64, std::nullopt},
        Number{"9223372036854775808", G_MAXINT64, std::nullopt},
        Number{"18446744073709551621", G_MAXINT64, std::nullopt},
        Number{"-9223372036854775808", G_MININT64, std::nullopt}, Number{"fast", std::nullopt, std::nullopt, 0},
        Number{"-", std::nullopt, std::nullopt, 0}, Number{"x10", std::nullopt, std::nullopt, 0},
        Number{"%d", std::nullopt, std::nullopt, 0}, Number{"\"17", std::nullopt, std::nullopt, 0},
        Number{"", std::nullopt, std::nullopt}, Number{"\"\"", std::nullopt, std::nullopt}));

TEST_F(SettingsGet, MissingNumbersLeaveTheOutputUntouched) {
  ASSERT_TRUE(load_key_file("[Group]\nKey=1\n"));
  gint64 wide = untouched;
  EXPECT_FALSE(ptz_settings_get_custom_int64("Group", "Other", &wide));
  EXPECT_FALSE(ptz_settings_get_int64("Other", 1, "Key", &wide));
  EXPECT_EQ(wide, untouched);
  EXPECT_EQ(number("Group", "Other"), std::nullopt);
}

// --- paths ------------------------------------------------------------------------------------------------------

TEST_F(SettingsGet, APathIsSplitAtItsLastDot) {
  ASSERT_TRUE(load_key_file("[PTZ.Limit]\nSpeed=\"100\"\n[PTZ]\nLimit=200\nBig=3000000000\n"));
  EXPECT_EQ(text_of(ptz_settings_get_vp("root.PTZ.Limit.Speed")), "100");
  EXPECT_EQ(text_of(ptz_settings_get_vp("ROOT.PTZ.%s.%s", "Limit", "Speed")), "100");
  EXPECT_EQ(text_of(ptz_settings_get_vp("PTZ.Limit")), "200");
  EXPECT_EQ(text_of(ptz_settings_get_vp("PTZ.Missing")), std::nullopt);
  gint32 value = untouched;
  EXPECT_TRUE(ptz_settings_get_int_vp(&value, "root.PTZ.%s", "Limit.Speed"));
  EXPECT_EQ(value, 100);
  EXPECT_FALSE(ptz_settings_get_int_vp(&value, "PTZ.Missing"));
  EXPECT_FALSE(ptz_settings_get_int_vp(&value, "PTZ.%s", "Big"));
  EXPECT_EQ(value, 100);
}

TEST_F(SettingsGet, APathWithoutTwoHalvesIsNotFound) {
  ASSERT_TRUE(load_key_file("[PTZ]\nLimit=200\n"));
  gint32 value = untouched;
  for (const char *path : {"PTZ", "", ".", "PTZ.", ".Limit", "..", "root.", "root.Limit"}) {
    EXPECT_EQ(text_of(ptz_settings_get_vp("%s", path)), std::nullopt) << path;
    EXPECT_FALSE(ptz_settings_get_int_vp(&value, "%s", path)) << path;
  }
  EXPECT_EQ(value, untouched);
}

TEST_F(SettingsGet, AFormattedPathIsNoFormat) {
  ASSERT_TRUE(load_key_file("[100%s%n]\n%d%n=12\n"));
  EXPECT_EQ(text_of(ptz_settings_get_vp("%s.%s", "100%s%n", "%d%n")), "12");
  gint32 value = untouched;
  EXPECT_TRUE(ptz_settings_get_int_vp(&value, "%s.%%d%%n", "100%s%n"));
  EXPECT_EQ(value, 12);
}

TEST_F(SettingsGet, ALongPathIsWhole) {
  const std::string group(5'000, 'g');
  ASSERT_TRUE(load_key_file("[" + group + "]\nKey=12\n"));
  EXPECT_EQ(text_of(ptz_settings_get_vp("root.%s.Key", group.c_str())), "12");
  EXPECT_EQ(setting("root." + group, "Key"), "12");
}

TEST(SettingsPathDeathTest, AMissingFormatEndsTheProcess) {
  const char *volatile no_format = nullptr;
  EXPECT_DEATH(ptz_settings_get_vp(no_format), "ptz_settings_get_vp: assertion failed: \\(path_format");
  gint32 value = 0;
  EXPECT_DEATH(ptz_settings_get_int_vp(&value, no_format), "ptz_settings_get_int_vp: assertion failed: \\(path_format");
}

// --- walking a group --------------------------------------------------------------------------------------------

struct Walk {
  std::vector<std::pair<std::string, std::optional<std::string>>> seen = {};
  std::size_t stop_after = std::numeric_limits<std::size_t>::max();
  std::function<void()> between = [] {};

  static gboolean callback(const gchar *name, const gchar *value, gpointer data) {
    auto &walk = *static_cast<Walk *>(data);
    walk.seen.emplace_back(name, value != nullptr ? std::optional<std::string>(value) : std::nullopt);
    walk.between();
    return walk.seen.size() < walk.stop_after;
  }
  bool over(const char *group, gint index) { return ptz_settings_iterate_group(group, index, this, callback) != FALSE; }
};
using Seen = decltype(Walk::seen);

TEST_F(SettingsGet, AWalkGivesEveryKeyInOrder) {
  ASSERT_TRUE(load_key_file("[Preset3]\nZoom=\"5\"\nName=door\nEmpty=\n"));
  Walk walk;
  EXPECT_TRUE(walk.over("Preset", 3));
  EXPECT_EQ(walk.seen, (Seen{{"Preset3.Zoom", "5"}, {"Preset3.Name", "door"}, {"Preset3.Empty", ""}}));
}

TEST_F(SettingsGet, AWalksNamesShowANegativeIndexToo) {
  ASSERT_TRUE(load_key_file("[Preset]\nName=door\n"));
  Walk walk;
  EXPECT_TRUE(walk.over("Preset", -1));
  EXPECT_EQ(walk.seen, (Seen{{"Preset-1.Name", "door"}}));
}

TEST_F(SettingsGet, AWalksNamesKeepThePrefix) {
  ASSERT_TRUE(load_parsed("[Preset0]\nName=door\n"));
  Walk walk;
  EXPECT_TRUE(walk.over("root.Preset", 0));
  EXPECT_TRUE(walk.over("ROOT.Preset", 0));
  EXPECT_EQ(walk.seen, (Seen{{"root.Preset0.Name", "door"}, {"ROOT.Preset0.Name", "door"}}));
}

TEST_F(SettingsGet, AWalkOverNothing) {
  ASSERT_TRUE(load_key_file("[Empty]\n"));
  Walk walk;
  EXPECT_TRUE(walk.over("Empty", -1));
  EXPECT_FALSE(walk.over("Missing", -1));
  EXPECT_FALSE(walk.over("Empty", 0));
  EXPECT_TRUE(walk.seen.empty());
}

TEST_F(SettingsGet, AWalksCallbackMayUseTheSettings) {
  ASSERT_TRUE(load_key_file("[Group]\nA=1\nB=2\nC=3\n"));
  Walk walk;
  walk.between = [&] {
    EXPECT_NE(setting("Group", "A").has_value(), walk.seen.size() > 1);
    EXPECT_TRUE(load_key_file("[Group]\nC=4\n"));
  };
  EXPECT_TRUE(walk.over("Group", -1));
  EXPECT_EQ(walk.seen, (Seen{{"Group-1.A", "1"}, {"Group-1.B", std::nullopt}, {"Group-1.C", "4"}}));
}

struct SettingsWalk : SettingsTest {};

TEST_F(SettingsWalk, EndsWhereItsCallbackSaysSo) {
  ASSERT_TRUE(load_key_file("[%s3]\nA=1\nB=2\nC=3\n[Group]\nA=1\n"));
  const SyslogCapture log;
  Walk walk{.seen = {}, .stop_after = 2};
  EXPECT_FALSE(walk.over("root.%s", 3));
  EXPECT_EQ(walk.seen.size(), 2U);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_ERR, "ptz_settings_iterate_group: Error iterating parameter group root.%s3"}}));
  Walk other{.stop_after = 1};
  EXPECT_FALSE(other.over("Group", -1)) << "also after the last key";
  EXPECT_EQ(log.count(LOG_ERR, "ptz_settings_iterate_group: Error iterating parameter group Group-1"), 1U);
}

TEST_F(SettingsWalk, OfNoGroupIsRefused) {
  const GlibLogCapture criticals;
  Walk walk;
  EXPECT_FALSE(walk.over(nullptr, 0));
  EXPECT_EQ(criticals.failed_check("ptz_settings_iterate_group", "group_name != NULL"), 1U);
  EXPECT_TRUE(walk.seen.empty());
}

// --- the shell store --------------------------------------------------------------------------------------------

TEST_F(SettingsGet, AShellKeyIsFormatted) {
  ASSERT_TRUE(load_shell("PORT_3=\"ttyS3\"\nroot.KEY=prefixed\n100%s%n=percent\n"));
  EXPECT_EQ(text_of(ptz_settings_shell_get_string("PORT_%d", 3)), "ttyS3");
  EXPECT_EQ(text_of(ptz_settings_shell_get_string("root.KEY")), "prefixed");
  EXPECT_EQ(text_of(ptz_settings_shell_get_string("KEY")), std::nullopt);
  EXPECT_EQ(text_of(ptz_settings_shell_get_string("%s", "100%s%n")), "percent");
  gboolean value = untouched;
  EXPECT_TRUE(ptz_settings_shell_get_boolean(&value, "%s", "100%s%n"));
  EXPECT_EQ(value, FALSE);
}

TEST_F(SettingsGet, OddShellKeysAreNotFound) {
  ASSERT_TRUE(load_shell("KEY=one\n"));
  for (const char *odd : {"", "=", "[", "[de]", " ", "\n", "KEY[de]", "\xE9"})
    EXPECT_EQ(shell_setting(odd), std::nullopt);
}

// --- values that are no text ------------------------------------------------------------------------------------

TEST_F(SettingsGet, BinaryValuesCostNothing) {
  const FakeReader reader({{"Group", "Key", "\xE9\xFF\x01"}, {"Group", "Other", "\xC3"}, {"Group", "Text", "1"}});
  EXPECT_TRUE(ptz_settings_load_config_ext(Extended{{"any", TRUE, FALSE}}.get(), nullptr));
  for (const char *key : {"Key", "Other"}) {
    setting("Group", key);
    EXPECT_EQ(number("Group", key), std::nullopt);
  }
  Walk walk;
  EXPECT_TRUE(walk.over("Group", -1));
  ASSERT_EQ(walk.seen.size(), 3U);
  EXPECT_EQ(walk.seen[2].second, "1");
}

}  // namespace
