#include <gtest/gtest.h>
#include <ptz_string.h>

#include <csignal>
#include <string>

#include "failed_assertion.h"
#include "handles.h"

using ptz_test::Text;

namespace {

struct Case {
  const char *description;
  std::string name;
  std::string token;  // with "-" between words
};

class CamelCase : public testing::TestWithParam<Case> {};

std::string times(int count, const std::string &text) {
  std::string repeated;
  for (int i = 0; i < count; ++i) repeated += text;
  return repeated;
}

INSTANTIATE_TEST_SUITE_P(
    All, CamelCase,
    testing::Values(Case{"TwoWords", "PanTilt", "pan-tilt"}, Case{"AcronymStaysWhole", "PTZCommand", "ptzcommand"},
                    Case{"LetterAfterAnAcronymIsNotSplitOff", "getABCValue", "get-abcvalue"},
                    Case{"DigitStartsNoWordAndEndsTheOneBefore", "Zoom2Max", "zoom2max"},
                    Case{"SingleLetter", "A", "a"}, Case{"SingleLowerCaseLetter", "z", "z"}, Case{"EmptyName", "", ""},
                    Case{"CapitalLastIsAWord", "panT", "pan-t"},
                    Case{"CapitalAfterASeparatorIsNoBoundary", "pan_Tilt", "pan_tilt"},
                    Case{"BytesAboveAsciiAreNoLetters", "\xc3\xa9T\xc3\x89", "\xc3\xa9t\xc3\x89"},
                    Case{"SixtyLettersGiveFortyEight", times(60, "x"), times(48, "x")},
                    Case{"FortyEightLettersAreKept", times(48, "x"), times(48, "x")},
                    Case{"FortyNineLettersLoseOne", times(48, "x") + "y", times(48, "x")},
                    Case{"SeparatorAtTheEndLeadsToFortyNine", times(47, "x") + "Y" + "z", times(47, "x") + "-y"},
                    Case{"SeparatorBeforeTheLastLetterThatFits", times(46, "x") + "Y" + "z", times(46, "x") + "-y"},
                    Case{"AlternatingLettersEndWithinTheToken", times(40, "aB"), "a" + times(15, "-ba") + "-b"}),
    [](const auto &tested) { return tested.param.description; });

TEST_P(CamelCase, BecomesAHyphenatedToken) {
  EXPECT_EQ(std::string(Text(CamelCase2hyphen(GetParam().name.c_str())).get()), GetParam().token);
}

TEST_P(CamelCase, BecomesATokenWithAnySeparator) {
  std::string expected = GetParam().token;
  for (char &letter : expected) letter = letter == '-' ? '/' : letter;
  EXPECT_EQ(std::string(Text(CamelCase2token(GetParam().name.c_str(), '/')).get()), expected);
}

TEST(CamelCaseForms, UnderscoreStandsBetweenWords) {
  EXPECT_STREQ(Text(CamelCase2uscore("PanTilt")).get(), "pan_tilt");
}

TEST(CamelCaseDeathTest, NullAbortsInTheGeneralForm) {
  const std::string failure = ptz_test::failed_assertion("ptz_string", "CamelCase2token", "CamelCase != NULL");
  EXPECT_EXIT(CamelCase2token(nullptr, '-'), testing::KilledBySignal(SIGABRT), failure);
  EXPECT_EXIT(CamelCase2hyphen(nullptr), testing::KilledBySignal(SIGABRT), failure);
  EXPECT_EXIT(CamelCase2uscore(nullptr), testing::KilledBySignal(SIGABRT), failure);
}

}  // namespace
