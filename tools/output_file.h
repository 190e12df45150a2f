// output_file.h - a file that a tool writes whole, or not at all.
#pragma once
#include <sys/types.h>

#include <string>

namespace tools {

enum class Existing { keep, replace };

// Why the file cannot be written, as far as that is known before there is anything to write; empty if it can. What is
// no regular file is never replaced.
[[nodiscard]] std::string problem_with_output(const std::string &path, Existing existing);
// Writes a new file beside the path and moves it there. The problem, or empty.
[[nodiscard]] std::string write_output(const std::string &path, const std::string &text, Existing existing,
                                       mode_t mode);

}  // namespace tools
