#include "directories.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using ptz::platform::DirectorySetting;

constexpr char variable[] = "PTZ_TEST_DIRECTORY";
constexpr std::int64_t second_ns = 1'000'000'000;

struct Directories : testing::Test {
  // A setting is a global object, which never frees a path.
  static inline DirectorySetting settings[3] = {
      {variable, "/fallback"}, {variable, "/fallback"}, {variable, "/fallback"}};
  static inline int used = 0;
  DirectorySetting &setting = settings[used++];
  ~Directories() override { unsetenv(variable); }
};

TEST_F(Directories, ReadReturnsTheValueOrTheFallback) {
  EXPECT_EQ(setting.read(0), "/fallback");
  setenv(variable, "", 1);
  EXPECT_EQ(setting.read(0), "/fallback");
  setenv(variable, "/one", 1);
  EXPECT_EQ(setting.read(0), "/one");
}

TEST_F(Directories, EqualPathsAreOneObject) {
  setenv(variable, "/one", 1);
  const auto *one = &setting.read(0);
  setenv(variable, "/two", 1);
  EXPECT_NE(&setting.read(0), one);
  setenv(variable, "/one", 1);
  EXPECT_EQ(&setting.read(0), one);
}

TEST_F(Directories, RecentReturnsNothingUntilReadAndOneSecondLater) {
  EXPECT_EQ(setting.recent(5 * second_ns), nullptr);
  setenv(variable, "/one", 1);
  const auto &one = setting.read(5 * second_ns);
  setenv(variable, "/two", 1);
  EXPECT_EQ(setting.recent(5 * second_ns), &one);
  EXPECT_EQ(setting.recent(5 * second_ns + 900'000'000), &one);
  EXPECT_EQ(setting.recent(6 * second_ns), nullptr);
}

}  // namespace
