// tests/platform/conformance/boundary.h - the platform library under test.
//
// The program is linked with no platform library. It defines the functions of the boundary itself; each calls the
// function of that name in the libraries that the command line names.
#pragma once
#include <span>
#include <string>
#include <vector>

namespace conformance {

using Strings = std::vector<std::string>;

// Opens the libraries. Ends the program with a message if one cannot be loaded.
void load(const Strings &paths);
[[nodiscard]] const Strings &libraries();

// The functions that a platform library must define.
[[nodiscard]] std::span<const char *const> required_functions();
[[nodiscard]] bool is_defined(const char *function);
// Those of one service that the libraries lack, separated by spaces.
[[nodiscard]] std::string missing_of(const std::string &service);

}  // namespace conformance
