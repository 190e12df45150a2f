#include "ptz_g_dbus_error.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>

#include "bus.h"

namespace {

using namespace ptz_test;

// As it arrives from another process.
gint code_of(const std::string &error_name) {
  const Error error(g_dbus_error_new_for_dbus_error(error_name.c_str(), "it failed"));
  return ptz_g_dbus_error_get_remote_error_code(error.get());
}

struct Name {
  const char *label;
  std::string name;
  gint code;
};

void PrintTo(const Name &name, std::ostream *out) { *out << name.name.substr(0, 80); }

struct RemoteErrorName : testing::TestWithParam<Name> {};

TEST_P(RemoteErrorName, HasACode) { EXPECT_EQ(code_of(GetParam().name), GetParam().code); }

INSTANTIATE_TEST_SUITE_P(
    All, RemoteErrorName,
    testing::Values(Name{"Positive", "com.velk.PTZ.Error.Code17", 17}, Name{"Negative", "com.velk.Error.Code-3", -3},
                    Name{"Zero", "x.y.Code0", 0}, Name{"LeadingZeros", "x.y.Code007", 7},
                    Name{"PlusSign", "x.y.Code+5", 5}, Name{"BlankBefore", "x.y.Code 5", 5},
                    Name{"TheLastOne", "x.y.Code5.Code7", 7}, Name{"TheLastOneWithoutNumber", "x.y.Code5.Code", -1},
                    Name{"TextBehind", "x.y.Code12abc", 12}, Name{"PartsBehind", "x.y.Code12.Reason", 12},
                    Name{"NoNumber", "x.y.CodeName", -1}, Name{"NothingBehind", "x.y.Code", -1},
                    Name{"OnlyASign", "x.y.Code-", -1}, Name{"NoMark", "x.y.Failed17", -1},
                    Name{"MarkWithoutDot", "x.yCode17", -1}, Name{"OtherCase", "x.y.code17", -1},
                    Name{"Largest", "x.y.Code2147483647", INT_MAX}, Name{"Smallest", "x.y.Code-2147483648", INT_MIN},
                    Name{"OneTooLarge", "x.y.Code2147483648", -1}, Name{"OneTooSmall", "x.y.Code-2147483649", -1},
                    Name{"WrapsIn32Bits", "x.y.Code4294967297", -1},
                    Name{"TooLargeForAnything", "x.y.Code" + std::string(5000, '9'), -1},
                    Name{"LongName", "x." + std::string(1'000'000, 'y') + ".Code17", 17},
                    Name{"LongZeros", "x.y.Code" + std::string(1'000'000, '0') + "8", 8},
                    Name{"ManyMarks",
                         [] {
                           std::string name = "x";
                           for (int i = 0; i < 100'000; ++i) name += ".Code1";
                           return name + ".Code2";
                         }(),
                         2}),
    [](const auto &info) { return info.param.label; });

TEST(RemoteErrorCode, OfNothingIsMinusOne) { EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(nullptr), -1); }

TEST(RemoteErrorCode, OfALocalErrorIsMinusOne) {
  const Error local(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_FAILED, "x.y.Code17"));
  EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(local.get()), -1);
}

TEST(RemoteErrorCode, OfAStrippedErrorIsMinusOne) {
  const Error error(g_dbus_error_new_for_dbus_error("x.y.Code17", "it failed"));
  ASSERT_TRUE(g_dbus_error_strip_remote_error(error.get()));
  EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(error.get()), -1);
}

TEST(RemoteErrorCode, OfAnErrorWhoseNameDoesNotEndIsMinusOne) {
  const Error error(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_DBUS_ERROR, "GDBus.Error:x.y.Code17"));
  EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(error.get()), -1);
}

TEST(RemoteErrorCode, OfARegisteredErrorIsInItsName) {
  EXPECT_EQ(code_of("org.freedesktop.DBus.Error.UnknownMethod"), -1);
}

// "Code" in the text of the error is no part of its name.
TEST(RemoteErrorCode, LooksOnlyAtTheName) {
  const Error error(g_dbus_error_new_for_dbus_error("x.y.Failed", "see z.Code17"));
  EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(error.get()), -1);
}

TEST(RemoteErrorCode, LeavesTheErrorAsItIs) {
  const Error error(g_dbus_error_new_for_dbus_error("x.y.Code17", "it failed"));
  EXPECT_EQ(ptz_g_dbus_error_get_remote_error_code(error.get()), 17);
  EXPECT_STREQ(error->message, "GDBus.Error:x.y.Code17: it failed");
}

}  // namespace
