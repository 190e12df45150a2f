#include "conformance.h"

namespace {

using namespace conformance;

struct Boundary : testing::TestWithParam<const char *> {};

TEST_P(Boundary, SymbolIsDefined) {
  EXPECT_TRUE(is_defined(GetParam())) << "the platform library lacks " << GetParam();
}

INSTANTIATE_TEST_SUITE_P(, Boundary, testing::ValuesIn(required_functions().begin(), required_functions().end()),
                         [](const auto &info) { return std::string(info.param); });

}  // namespace
