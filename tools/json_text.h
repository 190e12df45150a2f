// json_text.h - JSON as the tools print it: json-glib writes 17 digits of every number.
#pragma once
#include <json-glib/json-glib.h>

#include <string>

// A number has the fewest digits that are read back as the same number; what is none is null. On one line, or indented.
[[nodiscard]] std::string json_text(JsonNode *node, bool is_indented = false);

// The number that has the same decimal digits: 4.98F is 4.98, and not 4.980000019073486.
[[nodiscard]] double widened(float value);
