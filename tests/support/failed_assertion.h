// tests/support/failed_assertion.h - what ends a process whose invariant is broken.
#pragma once
#include <cctype>
#include <string>

namespace ptz_test {

// Takes every letter for itself.
inline std::string literally(const std::string &text) {
  std::string pattern;
  for (const char letter : text) {
    // Not by a backslash: that gives "<" and ">" a meaning of their own.
    const bool literal = std::ispunct(static_cast<unsigned char>(letter)) == 0;
    pattern += literal ? std::string(1, letter) : "[" + std::string(1, letter) + "]";
  }
  return pattern;
}

// What a failed assertion prints, as a regular expression.
inline std::string failed_assertion(const std::string &module, const std::string &function,
                                    const std::string &expression) {
  return module + ":[0-9]+:" + function + ": assertion failed: " + literally("(" + expression + ")");
}

// The same for one that the C library reports.
inline std::string failed_c_assertion(const std::string &module, const std::string &function,
                                      const std::string &expression) {
  return module + ":[0-9]+: " + function + ": Assertion " + literally("`" + expression + "'") + " failed[.]";
}

}  // namespace ptz_test
