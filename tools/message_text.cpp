#include "message_text.h"

#include <cstdio>

#include "driver_axes.h"
#include "field_values.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

constexpr int name_width = 26;

gint64 number_of(GVariant *value) {
  return g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) ? gint64{g_variant_get_uint32(value)}
                                                            : gint64{g_variant_get_int32(value)};
}

gint32 axis_value(GVariant *values, std::size_t axis) {
  gint32 value = 0;
  g_variant_get_child(values, axis, "i", &value);
  return value;
}

tools::Variant value_of_field(GVariant *dictionary, const FieldDescription &field) {
  return tools::Variant(g_variant_lookup_value(dictionary, field.name(), nullptr));
}

std::string names_of(const FieldDescription &field, guint32 bits) {
  std::string names;
  const auto add = [&names](const char *name) { names += std::string(names.empty() ? "" : " ") + name; };
  if (g_str_equal(field.flags(), "axes")) {
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      if ((bits >> axis & 1) != 0) add(axis_names[axis]);
    }
  } else if (const GType type = type_named(field.flags()); type != G_TYPE_INVALID) {
    for (const char *name : names_of_bits(type, bits)) add(name);
  }
  return names;
}

struct Unit {
  const char *name;
  double divisor;
  const char *shown;  // null: that of the axis
  const char *after = "";
};
constexpr Unit units[] = {
    {"axis", 100, nullptr},     {"axis/s", 100, nullptr, " a second"},       {"degrees/100", 100, "degrees"},
    {"percent", 1, "per cent"}, {"permyriad", 100, "per cent of the image"}, {"magnification/100", 100, "times"}};

// What the number means, for people; empty for a plain number.
std::string meaning(const FieldDescription &field, gint64 number, std::size_t axis) {
  if (field.flags() != nullptr) return names_of(field, static_cast<guint32>(number));
  const GType type = field.enumeration() != nullptr ? type_named(field.enumeration()) : G_TYPE_INVALID;
  if (type != G_TYPE_INVALID) {
    const GEnumValue *const value = enum_value(type, number);
    return value != nullptr ? value->value_name : "unknown";
  }
  if (field.unit() == nullptr) return "";
  for (const Unit &unit : units) {
    if (!g_str_equal(unit.name, field.unit())) continue;
    const char *const shown_unit = unit.shown != nullptr ? unit.shown : axis_units[axis];
    const tools::Text text(g_strdup_printf("%.*f %s%s", unit.divisor > 1 ? 2 : 0,
                                           static_cast<double>(number) / unit.divisor, shown_unit, unit.after));
    return text.get();
  }
  return field.unit();
}

std::string line(const std::string &name, const std::string &value) {
  const tools::Text text(g_strdup_printf("%-*s %s\n", name_width, name.c_str(), value.c_str()));
  return text.get();
}

std::string number_line(const std::string &name, const FieldDescription &field, gint64 number, std::size_t axis) {
  const bool is_bits = field.flags() != nullptr && !g_str_equal(field.flags(), "axes");
  const tools::Text digits(is_bits ? g_strdup_printf("0x%08x", static_cast<guint32>(number))
                                   : g_strdup_printf("%" G_GINT64_FORMAT, number));
  const std::string means = meaning(field, number, axis);
  return line(name, means.empty() ? digits.get() : std::string(digits.get()) + "  (" + means + ")");
}

std::string fields_text(GVariant *dictionary, const FieldDescriptions &fields, const MessageDescription &description,
                        const std::string &before);

std::string list_text(const FieldDescription &field, GVariant *list, const MessageDescription &description,
                      const std::string &name) {
  const FieldDescriptions record = description.record(field.element_type());
  std::string text;
  for (gsize i = 0; i < g_variant_n_children(list); ++i) {
    const tools::Variant element(g_variant_get_child_value(list, i));
    const std::string numbered = name + "[" + std::to_string(i) + "]";
    text += record.empty() ? line(numbered, g_variant_get_string(element.get(), nullptr))
                           : fields_text(element.get(), record, description, numbered + ".");
  }
  return text.empty() ? line(name, "(none)") : text;
}

std::string fields_text(GVariant *dictionary, const FieldDescriptions &fields, const MessageDescription &description,
                        const std::string &before) {
  std::string text;
  for (const FieldDescription &field : fields) {
    const tools::Variant value = value_of_field(dictionary, field);
    const std::string name = before + field.name();
    if (field.is_list()) {
      text += list_text(field, value.get(), description, name);
    } else if (field.is_text()) {
      text += line(name, g_variant_get_string(value.get(), nullptr));
    } else if (!field.is_per_axis()) {
      text += number_line(name, field, number_of(value.get()), 0);
    } else {
      for (std::size_t axis = 0; axis < axis_count; ++axis) {
        text += number_line(name + "." + axis_names[axis], field, axis_value(value.get(), axis), axis);
      }
    }
  }
  return text;
}

}  // namespace

std::string text_of(GVariant *reply, const FieldDescriptions &fields, const MessageDescription &description) {
  return fields_text(reply, fields, description, "");
}

void print_as_json(GVariant *reply, const CommandDescription &command, const MessageDescription &description) {
  const JsonLine json;
  json.member("command", command.name());
  json.begin_object("fields");
  add_fields(json, reply, command.reply(), description, Hidden::none);
  json.end_object();
  json.print();
}

}  // namespace ptzctl
