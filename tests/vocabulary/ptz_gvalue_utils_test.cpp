#include <gtest/gtest.h>
#include <ptz_gvalue_utils.h>
#include <syslog.h>

#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "fixtures.h"
#include "handles.h"
#include "syslog_capture.h"
#include "values.h"

using namespace ptz_test;

namespace {

constexpr char parse[] = "ptz_gvalue_utils_formatted_string_to_gvalue";
constexpr char empty_piece[] = "vector[0][0] != '\\0' && vector[1][0] != '\\0'";

// What a function that must not be reached logs, whatever its line.
bool unreachable_logged(const GlibLogCapture &log, const std::string &function) {
  const auto messages = log.messages();
  if (messages.size() != 1 || (messages[0].level & G_LOG_LEVEL_CRITICAL) == 0) return false;
  const std::string &text = messages[0].text;
  const std::string begin = "file ptz_gvalue_utils: line ", end = " (" + function + "): should not be reached";
  return text.starts_with(begin) && text.ends_with(end) &&
         text.find_first_not_of("0123456789", begin.size()) == text.size() - end.size();
}

struct Parsed {
  gboolean result = FALSE;
  Text name;
  Value value;
};

Parsed parsed(const char *string) {
  gchar *name = nullptr;
  GValue *value = nullptr;
  const gboolean result = ptz_gvalue_utils_formatted_string_to_gvalue(string, &name, &value);
  return {result, Text(name), Value(value)};
}

std::string contents(const GValue *value) {
  if (value == nullptr) return "no value";
  const std::string type = G_VALUE_TYPE_NAME(value);
  if (G_VALUE_HOLDS_INT(value)) return type + " " + std::to_string(g_value_get_int(value));
  if (G_VALUE_HOLDS_BOOLEAN(value)) return type + (g_value_get_boolean(value) ? " TRUE" : " FALSE");
  if (G_VALUE_HOLDS_DOUBLE(value)) return type + " " + std::to_string(g_value_get_double(value));
  if (!G_VALUE_HOLDS_STRING(value)) return type;
  const char *string = g_value_get_string(value);
  return type + (string != nullptr ? " '" + std::string(string) + "'" : " NULL");
}

}  // namespace

// ---- reading a formatted string

struct Readable {
  const char *description;
  const char *string;
  const char *name;
  const char *contents;
};

class FormattedString : public testing::TestWithParam<Readable> {};

INSTANTIATE_TEST_SUITE_P(
    All, FormattedString,
    testing::Values(Readable{"Int32", "zoom:int32:42", "zoom", "gint 42"},
                    Readable{"GInt", "zoom:gint:42", "zoom", "gint 42"},
                    Readable{"Int", "zoom:int:-42", "zoom", "gint -42"},
                    Readable{"NumberWithTextBehindIt", "zoom:int32:42x", "zoom", "gint 42"},
                    Readable{"NumberThatIsNone", "zoom:int32:far", "zoom", "gint 0"},
                    Readable{"NumberThatIsEmpty", "zoom:int32:", "zoom", "gint 0"},
                    Readable{"NumberThatIsMissing", "zoom:int32", "zoom", "gint 0"},
                    Readable{"NumberInBaseTenOnly", "zoom:int32:0x10", "zoom", "gint 0"},
                    Readable{"NumberWrapsToThirtyTwoBits", "zoom:int32:4294967338", "zoom", "gint 42"},
                    Readable{"NumberAboveTheSignedRangeTurnsNegative", "z:int:2147483648", "z", "gint -2147483648"},
                    Readable{"NumberBeyondSixtyFourBits", "zoom:int32:99999999999999999999", "zoom", "gint -1"},
                    Readable{"Double", "d:double:1.5", "d", "gdouble 1.500000"},
                    Readable{"GDouble", "d:gdouble:-2e3", "d", "gdouble -2000.000000"},
                    Readable{"DoubleThatIsNone", "d:double:x", "d", "gdouble 0.000000"},
                    Readable{"DoubleThatIsMissing", "d:double", "d", "gdouble 0.000000"},
                    Readable{"String", "title:string:a", "title", "gchararray 'a'"},
                    Readable{"GCharArray", "title:gchararray:a", "title", "gchararray 'a'"},
                    Readable{"StringWithColons", "title:string:a:b", "title", "gchararray 'a:b'"},
                    Readable{"StringOfColons", "title:string:::", "title", "gchararray '::'"},
                    Readable{"StringThatIsEmpty", "title:string:", "title", "gchararray ''"},
                    Readable{"StringThatIsMissing", "title:string", "title", "gchararray NULL"},
                    Readable{"BoolInCapitals", "flag:bool:TRUE", "flag", "gboolean TRUE"},
                    Readable{"Boolean", "flag:boolean:true", "flag", "gboolean TRUE"},
                    Readable{"GBoolean", "flag:gboolean:True", "flag", "gboolean TRUE"},
                    Readable{"False", "flag:bool:fALSE", "flag", "gboolean FALSE"}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(FormattedString, GivesItsNameAndItsValueQuietly) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  const Parsed result = parsed(GetParam().string);
  ASSERT_TRUE(result.result);
  EXPECT_STREQ(result.name.get(), GetParam().name);
  EXPECT_EQ(contents(result.value.get()), GetParam().contents);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_TRUE(system_log.lines().empty());
}

struct NoBoolean {
  const char *description;
  const char *string;
  const char *line;
};

class FormattedNoBoolean : public testing::TestWithParam<NoBoolean> {};

INSTANTIATE_TEST_SUITE_P(
    All, FormattedNoBoolean,
    testing::Values(NoBoolean{"OtherWord", "flag:boolean:yes", "should be boolean value, was \"yes\""},
                    NoBoolean{"Number", "flag:bool:1", "should be boolean value, was \"1\""},
                    NoBoolean{"WordWithMore", "flag:gboolean:true:", "should be boolean value, was \"true:\""},
                    NoBoolean{"Empty", "flag:bool:", "should be boolean value, was \"\""},
                    NoBoolean{"Missing", "flag:bool", "should be boolean value, was \"(null)\""}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(FormattedNoBoolean, IsLoggedAndFalse) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  const Parsed result = parsed(GetParam().string);
  ASSERT_TRUE(result.result);
  EXPECT_STREQ(result.name.get(), "flag");
  EXPECT_EQ(contents(result.value.get()), "gboolean FALSE");
  EXPECT_EQ(system_log.lines(), (std::vector<LogLine>{{LOG_ERR, GetParam().line}}));
  EXPECT_TRUE(log.messages().empty());
}

struct Unreadable {
  const char *description;
  const char *string;
  const char *expression;
};

class UnreadableString : public testing::TestWithParam<Unreadable> {};

INSTANTIATE_TEST_SUITE_P(All, UnreadableString,
                         testing::Values(Unreadable{"Null", nullptr, "string"}, Unreadable{"Empty", "", empty_piece},
                                         Unreadable{"NoColon", "x", empty_piece},
                                         Unreadable{"NoName", ":int32:1", empty_piece},
                                         Unreadable{"NoTypeWord", "x::1", empty_piece},
                                         Unreadable{"EndsAfterOneColon", "x:", empty_piece},
                                         Unreadable{"UnknownTypeWord", "x:float32:1", "type != G_TYPE_NONE"},
                                         Unreadable{"TypeWordInCapitals", "x:INT32:1", "type != G_TYPE_NONE"},
                                         Unreadable{"Void", "x:void:1", "type != G_TYPE_NONE"}),
                         [](const auto &tested) { return tested.param.description; });

TEST_P(UnreadableString, IsACriticalAndChangesNothing) {
  const GlibLogCapture log;
  gchar untouched_name[] = "untouched";
  gchar *name = untouched_name;
  GValue untouched_value = G_VALUE_INIT;
  GValue *value = &untouched_value;
  EXPECT_EQ(ptz_gvalue_utils_formatted_string_to_gvalue(GetParam().string, &name, &value), FALSE);
  EXPECT_EQ(log.failed_check(parse, GetParam().expression), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_EQ(name, untouched_name);
  EXPECT_EQ(value, &untouched_value);
}

class UnsupportedType : public testing::TestWithParam<const char *> {};

INSTANTIATE_TEST_SUITE_P(All, UnsupportedType, testing::Values("guint", "gfloat", "gint64", "GObject", "GVariant"),
                         [](const auto &tested) { return std::string(tested.param); });

TEST_P(UnsupportedType, IsNotReadAndLeavesAnEmptyValueOfIt) {
  const GlibLogCapture log;
  gchar untouched_name[] = "untouched";
  gchar *name = untouched_name;
  GValue *value = nullptr;
  const std::string string = std::string("x:") + GetParam() + ":1";
  EXPECT_EQ(ptz_gvalue_utils_formatted_string_to_gvalue(string.c_str(), &name, &value), FALSE);
  const Value owned(value);
  EXPECT_TRUE(unreachable_logged(log, parse));
  EXPECT_EQ(name, untouched_name);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(G_VALUE_TYPE_NAME(value), GetParam());
}

TEST(FormattedString, TypeThatHasNoValuesIsNotReadEither) {
  const GlibLogCapture log;  // GLib itself has something to say too
  Parsed result = parsed("x:GBoxed:1");
  EXPECT_EQ(result.result, FALSE);
  EXPECT_EQ(result.name, nullptr);
  ASSERT_NE(result.value, nullptr);
  EXPECT_EQ(G_VALUE_TYPE(result.value.get()), G_TYPE_INVALID);
}

TEST(FormattedString, NullValuePointerIsACritical) {
  const GlibLogCapture log;
  gchar *name = nullptr;
  EXPECT_EQ(ptz_gvalue_utils_formatted_string_to_gvalue("x:int:1", &name, nullptr), FALSE);
  EXPECT_EQ(log.failed_check(parse, "value"), 1u);
  EXPECT_EQ(name, nullptr);
}

TEST(FormattedString, NullStringIsToldBeforeNullValue) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_gvalue_utils_formatted_string_to_gvalue(nullptr, nullptr, nullptr), FALSE);
  EXPECT_EQ(log.failed_check(parse, "string"), 1u);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST(FormattedString, NameNeedNotBeTaken) {
  GValue *value = nullptr;
  EXPECT_EQ(ptz_gvalue_utils_formatted_string_to_gvalue("x:int:1", nullptr, &value), TRUE);
  EXPECT_EQ(contents(Value(value).get()), "gint 1");
}

// ---- writing one

TEST(FormattedString, IsWrittenByType) {
  const auto written = [](const char *name, const Value &value) {
    return std::string(Text(ptz_gvalue_utils_gvalue_to_formatted_string(name, value.get())).get());
  };
  EXPECT_EQ(written("zoom", integer(-42)), "zoom:int32:-42");
  EXPECT_EQ(written("on", boolean(true)), "on:boolean:true");
  EXPECT_EQ(written("on", boolean(false)), "on:boolean:false");
  EXPECT_EQ(written("d", real(1.5)), "d:double:1.500000");
  EXPECT_EQ(written("title", text("a:b")), "title:string:a:b");
  EXPECT_EQ(written("title", text("")), "title:string:");
  EXPECT_EQ(written("title", text(nullptr)), "title:string:(null)");
}

TEST(FormattedString, IsNotWrittenForATypeWithoutTextForm) {
  GValue zeroed = G_VALUE_INIT;
  const Value unsigned_value = empty_value(G_TYPE_UINT);
  for (const GValue *value : {static_cast<const GValue *>(unsigned_value.get()), static_cast<const GValue *>(&zeroed),
                              static_cast<const GValue *>(nullptr)}) {
    const GlibLogCapture log;
    EXPECT_EQ(ptz_gvalue_utils_gvalue_to_formatted_string("x", value), nullptr);
    EXPECT_TRUE(unreachable_logged(log, "ptz_gvalue_utils_gvalue_to_formatted_string"));
  }
}

TEST(FormattedString, ReadsBackWhatWasWritten) {
  for (const Value &value : {integer(INT_MIN), boolean(true), real(-0.25), text("a::b:")}) {
    const Text string(ptz_gvalue_utils_gvalue_to_formatted_string("name", value.get()));
    const Parsed result = parsed(string.get());
    EXPECT_STREQ(result.name.get(), "name");
    EXPECT_EQ(contents(result.value.get()), contents(value.get()));
  }
}

// ---- plain text

TEST(StringFromValue, IsTheTextOfIntegersBooleansAndStrings) {
  const auto string = [](const Value &value) { return Text(ptz_gvalue_utils_string_from_gvalue(value.get())); };
  EXPECT_STREQ(string(integer(-7)).get(), "-7");
  EXPECT_STREQ(string(boolean(true)).get(), "true");
  EXPECT_STREQ(string(boolean(false)).get(), "false");
  EXPECT_STREQ(string(text("a:b")).get(), "a:b");
  EXPECT_EQ(string(text(nullptr)), nullptr);
}

TEST(StringFromValue, IsNullAndQuietForEverythingElse) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  GValue zeroed = G_VALUE_INIT;
  EXPECT_EQ(ptz_gvalue_utils_string_from_gvalue(nullptr), nullptr);
  EXPECT_EQ(ptz_gvalue_utils_string_from_gvalue(&zeroed), nullptr);
  EXPECT_EQ(ptz_gvalue_utils_string_from_gvalue(real(1.5).get()), nullptr);
  EXPECT_EQ(ptz_gvalue_utils_string_from_gvalue(empty_value(G_TYPE_UINT).get()), nullptr);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_TRUE(system_log.lines().empty());
}

struct Conversion {
  const char *description;
  const char *text;
  gint kind;
  const char *contents;
};

class ValueFromString : public testing::TestWithParam<Conversion> {};

INSTANTIATE_TEST_SUITE_P(
    All, ValueFromString,
    testing::Values(Conversion{"Boolean", "true", PTZ_PARAMETER_BOOLEAN, "gboolean TRUE"},
                    Conversion{"BooleanInCapitals", "TRUE", PTZ_PARAMETER_BOOLEAN, "gboolean TRUE"},
                    Conversion{"BooleanOfAnotherWord", "yes", PTZ_PARAMETER_BOOLEAN, "gboolean FALSE"},
                    Conversion{"BooleanOfNoText", nullptr, PTZ_PARAMETER_BOOLEAN, "gboolean FALSE"},
                    Conversion{"Integer", "-12", PTZ_PARAMETER_INTEGER, "gint -12"},
                    Conversion{"IntegerOfAWord", "far", PTZ_PARAMETER_INTEGER, "gint 0"},
                    Conversion{"IntegerWraps", "4294967297", PTZ_PARAMETER_INTEGER, "gint 1"},
                    Conversion{"IntegerOfNoText", nullptr, PTZ_PARAMETER_INTEGER, "gint 0"},
                    Conversion{"Constant", "9600", PTZ_PARAMETER_CONSTANT, "gchararray '9600'"},
                    Conversion{"Text", "a:b", PTZ_PARAMETER_TEXT, "gchararray 'a:b'"},
                    Conversion{"TextOfNoText", nullptr, PTZ_PARAMETER_TEXT, "gchararray NULL"}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(ValueFromString, HasTheTypeOfTheKind) {
  const GlibLogCapture log;
  const SyslogCapture system_log;
  GValue value;
  memset(&value, 0xa5, sizeof value);  // whatever it held is not looked at
  EXPECT_EQ(ptz_gvalue_utils_gvalue_from_string(GetParam().text, GetParam().kind, &value), TRUE);
  EXPECT_EQ(contents(&value), GetParam().contents);
  g_value_unset(&value);
  EXPECT_TRUE(log.messages().empty());
  EXPECT_TRUE(system_log.lines().empty());
}

class KindWithoutConversion : public testing::TestWithParam<gint> {};

INSTANTIATE_TEST_SUITE_P(All, KindWithoutConversion,
                         testing::Values(PTZ_PARAMETER_NONE, PTZ_PARAMETER_CONSTANTINTEGER,
                                         PTZ_PARAMETER_CONSTANTBOOLEAN, 7, -1, INT_MAX));

TEST_P(KindWithoutConversion, LeavesTheValueZeroed) {
  GValue value;
  memset(&value, 0xa5, sizeof value);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_from_string("true", GetParam(), &value), FALSE);
  const GValue zeroed = G_VALUE_INIT;
  EXPECT_EQ(memcmp(&value, &zeroed, sizeof value), 0);
}

TEST(ValueFromString, NullValueIsACritical) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_gvalue_utils_gvalue_from_string("1", PTZ_PARAMETER_INTEGER, nullptr), FALSE);
  EXPECT_EQ(log.failed_check("ptz_gvalue_utils_gvalue_from_string", "value"), 1u);
}

// ---- comparison

TEST(CompareValues, IntegersAreOrdered) {
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(integer(2).get(), integer(1).get()), 1);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(integer(1).get(), integer(2).get()), -1);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(integer(2).get(), integer(2).get()), 0);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(integer(INT_MIN).get(), integer(INT_MAX).get()), -1);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(integer(INT_MAX).get(), integer(INT_MIN).get()), 1);
}

TEST(CompareValues, BooleansOnlyDifferOrNot) {
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(boolean(true).get(), boolean(true).get()), 0);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(boolean(true).get(), boolean(false).get()), 1);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(boolean(false).get(), boolean(true).get()), 1);
}

TEST(CompareValues, StringsAreOrderedByBytesAndNullComesFirst) {
  const GlibLogCapture log;
  EXPECT_LT(ptz_gvalue_utils_gvalue_cmp0(text("ABC").get(), text("abc").get()), 0);
  EXPECT_GT(ptz_gvalue_utils_gvalue_cmp0(text("b").get(), text("a").get()), 0);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(text("a").get(), text("a").get()), 0);
  EXPECT_LT(ptz_gvalue_utils_gvalue_cmp0(text(nullptr).get(), text("").get()), 0);
  EXPECT_GT(ptz_gvalue_utils_gvalue_cmp0(text("a").get(), text(nullptr).get()), 0);
  EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(text(nullptr).get(), text(nullptr).get()), 0);
  EXPECT_TRUE(log.messages().empty());
}

TEST(CompareValues, DifferentTypesAreACritical) {
  const Value number = integer(1), string = text("1");
  for (const auto &[left, right] :
       {std::pair(number.get(), string.get()), std::pair(string.get(), number.get()),
        std::pair<GValue *, GValue *>(number.get(), nullptr), std::pair<GValue *, GValue *>(nullptr, number.get())}) {
    const GlibLogCapture log;
    const SyslogCapture system_log;
    EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(left, right), -1);
    EXPECT_EQ(log.failed_check("ptz_gvalue_utils_gvalue_cmp0", "G_VALUE_TYPE (val2) == type"), 1u);
    EXPECT_TRUE(system_log.lines().empty());
  }
}

TEST(CompareValues, OtherTypesAreLogged) {
  const auto expect_line = [](const GValue *value, GType type) {
    const GlibLogCapture log;
    const SyslogCapture system_log;
    EXPECT_EQ(ptz_gvalue_utils_gvalue_cmp0(value, value), -1);
    const std::string line =
        "ptz_gvalue_utils_gvalue_cmp0: Tried to compare unhandled type: " + std::to_string(static_cast<guint>(type));
    EXPECT_EQ(system_log.lines(), (std::vector<LogLine>{{LOG_ERR, line}}));
    EXPECT_TRUE(log.messages().empty());
  };
  expect_line(real(1.5).get(), G_TYPE_DOUBLE);
  expect_line(empty_value(G_TYPE_UINT).get(), G_TYPE_UINT);
  expect_line(nullptr, 0);
}
