// message_text.h - shows the fields of a reply by their names and units.
#pragma once
#include <string>

#include "message_description.h"
#include "subcommand.h"

namespace ptzctl {

// A line for each field: "position.pan   -4500  (-45.00 degrees)", "status.pan   1  (Moving)".
[[nodiscard]] std::string text_of(GVariant *reply, const FieldDescriptions &fields,
                                  const MessageDescription &description);
// {"command":...,"fields":{"axes":{"pan":{"position":-45.0,...},...}}}, see add_fields().
void print_as_json(GVariant *reply, const CommandDescription &command, const MessageDescription &description);

}  // namespace ptzctl
