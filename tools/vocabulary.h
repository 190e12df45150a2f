// vocabulary.h - the registered types of the library, their values and names.
#pragma once
#include <glib-object.h>

#include <optional>
#include <string>
#include <vector>

namespace ptzctl {

[[nodiscard]] std::vector<GType> all_types();
// G_TYPE_INVALID if there is no such type.
[[nodiscard]] GType type_named(const char *name);
// The value of an enumeration by its nick or its name, in any case.
[[nodiscard]] std::optional<gint> value_of(GType type, const std::string &text);
// Null if no value of the enumeration has this number.
[[nodiscard]] const GEnumValue *enum_value(GType type, gint64 number);
// The names live as long as the type does.
[[nodiscard]] std::vector<const char *> names_of_bits(GType type, guint32 bits);

}  // namespace ptzctl
