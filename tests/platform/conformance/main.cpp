// Usage: platform-conformance [GOOGLETEST OPTION]... LIBRARY...
//        platform-conformance --action NAME ARGUMENT... -- LIBRARY...   (in another process; see conformance.h)
//
// Tests what the headers of the platform boundary promise. scripts/test-platform runs it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "conformance.h"

namespace {

int run_action(const conformance::Strings &arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), "--");
  if (end == arguments.end()) return 2;
  conformance::load({end + 1, arguments.end()});
  return conformance::act({arguments.begin() + 1, end});
}

}  // namespace

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  const conformance::Strings arguments(argv + 1, argv + argc);
  if (!arguments.empty() && arguments.front() == "--action") return run_action(arguments);
  if (arguments.empty() && !testing::GTEST_FLAG(list_tests)) {
    std::fprintf(stderr, "%s: name the platform library\n", argv[0]);
    return 2;
  }
  conformance::load(arguments);
  return RUN_ALL_TESTS();
}
