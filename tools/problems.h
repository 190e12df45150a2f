// problems.h - what went wrong, on standard error: as a line of text, or as an object of JSON.
#pragma once
#include <glib.h>

#include <string>

namespace tools {

// Whether the command line has --json. It is asked before the options are read, because their errors are JSON, too.
[[nodiscard]] bool asks_for_json(int argc, char **argv);
void print_problems_as_json();

// "ptzctl: TEXT", or {"error":{"text":"TEXT"}}.
void print_problem(const char *program, const std::string &text);
// A driver's error reply: "ptzctl: refused with code 4: TEXT", or
// {"error":{"text":"TEXT","code":4,"name":"out_of_range"}}. The name may be null.
void print_refusal(const char *program, guint32 code, const char *name, const std::string &text);

}  // namespace tools
