// field_values.h - the fields of a message in one line of text and as members of an object.
#pragma once
#include <glib.h>

#include <string>
#include <string_view>

#include "json_line.h"
#include "message_description.h"

namespace ptzctl {

// Which values read "(hidden)": those of parameters with a secret's name, every text, or none.
enum class Hidden { secrets, all_texts, none };
constexpr char hidden_value[] = "(hidden)";

// Whether a parameter of this name may hold a secret: the name has pass, key, secret or token in it, in any case.
[[nodiscard]] bool is_name_of_secret(std::string_view name);

// A value of an enumeration as one word: "up-left". A number that has no name stays a number.
[[nodiscard]] std::string word_of(GType enumeration, gint64 number);

// The fields of a body, as ptz_kit_body_to_variant() returns them: "kind=absolute pan=10.00° tilt=-3.00° speed=50 %".
[[nodiscard]] std::string fields_line(GVariant *body, const FieldDescriptions &fields,
                                      const MessageDescription &description, Hidden hidden);
// The same as members of the open object: degrees, magnifications and per cent as numbers, enumerations as words, flags
// as lists of names. Fields per axis stand together: "axes":{"pan":{"position":10.0,"status":"idle"},...}.
void add_fields(const JsonLine &json, GVariant *body, const FieldDescriptions &fields,
                const MessageDescription &description, Hidden hidden);

}  // namespace ptzctl
