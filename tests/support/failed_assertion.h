// tests/support/failed_assertion.h - what ends a process whose invariant is broken.
#pragma once
#include <cctype>
#include <string>

namespace ptz_test {

// What a failed assertion prints, as a regular expression.
inline std::string failed_assertion(const std::string &module, const std::string &function,
                                    const std::string &expression) {
  std::string pattern = module + ":[0-9]+:" + function + ": assertion failed: \\(";
  for (const char letter : expression) {
    // Not by a backslash: that gives "<" and ">" a meaning of their own.
    const bool literal = std::ispunct(static_cast<unsigned char>(letter)) == 0;
    pattern += literal ? std::string(1, letter) : "[" + std::string(1, letter) + "]";
  }
  return pattern + "\\)";
}

}  // namespace ptz_test
