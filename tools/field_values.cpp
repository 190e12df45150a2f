#include "field_values.h"

#include <ptz_enum_types.h>

#include <algorithm>
#include <array>
#include <optional>
#include <vector>

#include "driver_axes.h"
#include "plain_text.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

constexpr guint32 all_axes = (1U << axis_count) - 1;

struct Unit {
  const char *name;
  double divisor;
  std::array<const char *, axis_count> shown;
};
constexpr Unit units[] = {{"axis", 100, {"°", "°", "×"}},        {"axis/s", 100, {"°/s", "°/s", "×/s"}},
                          {"degrees/100", 100, {"°", "°", "°"}}, {"magnification/100", 100, {"×", "×", "×"}},
                          {"percent", 1, {" %", " %", " %"}},    {"permyriad", 100, {" %", " %", " %"}}};

const Unit *unit_named(const char *name) {
  const auto *const found =
      std::ranges::find_if(units, [name](const Unit &unit) { return g_str_equal(unit.name, name); });
  return found != std::end(units) ? found : nullptr;
}

bool is_of_axes(const FieldDescription &field) {
  return field.flags() != nullptr && g_str_equal(field.flags(), "axes");
}

std::vector<std::string> names_of_flags(const FieldDescription &field, guint32 bits) {
  std::vector<std::string> names;
  guint32 unnamed = bits;
  if (is_of_axes(field)) {
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      if ((bits >> axis & 1) != 0) names.emplace_back(axis_names[axis]);
    }
    unnamed &= ~all_axes;
  } else if (const GType type = type_named(field.flags()); type != G_TYPE_INVALID) {
    for (const char *name : names_of_bits(type, bits)) names.emplace_back(name);
    unnamed &= ~static_cast<GFlagsClass *>(g_type_class_ref(type))->mask;
  }
  if (unnamed == 0) return names;
  const tools::Text text(g_strdup_printf("0x%x", unnamed));
  names.emplace_back(text.get());
  return names;
}

std::string joined(const std::vector<std::string> &parts, const char *joint) {
  std::string text;
  for (const std::string &part : parts) text += (text.empty() ? "" : joint) + part;
  return text;
}

// One message, or one record of a list. Its fields per axis are shown for the axes that its field of axes names.
class Message {
  GVariant *values_;
  const FieldDescriptions &fields_;
  const MessageDescription &description_;
  Hidden hidden_;
  bool is_pair_of_secret_ = false;  // a record {name, value} with the name of a secret
  bool is_continuous_ = false;      // a move by speeds
  std::optional<guint32> axes_;

  [[nodiscard]] tools::Variant value_of(const char *name) const {
    return tools::Variant(g_variant_lookup_value(values_, name, nullptr));
  }
  [[nodiscard]] static gint64 number_of(GVariant *value) {
    return g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) ? gint64{g_variant_get_uint32(value)}
                                                              : gint64{g_variant_get_int32(value)};
  }
  [[nodiscard]] static gint64 axis_value(GVariant *values, std::size_t axis) {
    gint32 value = 0;
    g_variant_get_child(values, axis, "i", &value);
    return value;
  }
  [[nodiscard]] bool has_fields_per_axis() const {
    return std::ranges::any_of(fields_, &FieldDescription::is_per_axis);
  }
  [[nodiscard]] bool shows_axis(std::size_t axis) const { return (axes_.value_or(all_axes) >> axis & 1) != 0; }
  [[nodiscard]] bool is_hidden(const FieldDescription &field) const {
    if (hidden_ == Hidden::none) return false;
    if (hidden_ == Hidden::all_texts && field.is_text()) return true;
    return is_name_of_secret(field.name()) || (is_pair_of_secret_ && g_str_equal(field.name(), "value"));
  }
  [[nodiscard]] Message record_at(const FieldDescriptions &record, GVariant *element) const {
    return {element, record, description_, hidden_};
  }
  [[nodiscard]] std::string number_text(const FieldDescription &field, gint64 number, std::size_t axis) const;
  [[nodiscard]] std::string axes_text() const;
  [[nodiscard]] std::string list_text(const FieldDescription &field, GVariant *list) const;
  void add_number(const JsonLine &json, const FieldDescription &field, gint64 number) const;
  void add_axes(const JsonLine &json) const;
  void add_list(const JsonLine &json, const FieldDescription &field, GVariant *list) const;

 public:
  Message(GVariant *values, const FieldDescriptions &fields, const MessageDescription &description, Hidden hidden);
  [[nodiscard]] std::string text() const;
  void add_to(const JsonLine &json) const;
};

Message::Message(GVariant *values, const FieldDescriptions &fields, const MessageDescription &description,
                 Hidden hidden)
    : values_(values), fields_(fields), description_(description), hidden_(hidden) {
  for (const FieldDescription &field : fields_) {
    const tools::Variant value = value_of(field.name());
    if (value == nullptr) continue;
    if (is_of_axes(field)) axes_ = static_cast<guint32>(number_of(value.get()));
    if (field.is_text() && g_str_equal(field.name(), "name")) {
      is_pair_of_secret_ = is_name_of_secret(g_variant_get_string(value.get(), nullptr));
    }
    const bool is_kind = field.enumeration() != nullptr && g_str_equal(field.enumeration(), "PTZMove");
    is_continuous_ |= is_kind && number_of(value.get()) == PTZ_MOVE_CONTINUOUS;
  }
}

std::string Message::number_text(const FieldDescription &field, gint64 number, std::size_t axis) const {
  if (field.flags() != nullptr) {
    const std::string names = joined(names_of_flags(field, static_cast<guint32>(number)), ",");
    return names.empty() ? "none" : names;
  }
  if (field.enumeration() != nullptr) return word_of(type_named(field.enumeration()), number);
  const Unit *unit = field.unit() != nullptr ? unit_named(field.unit()) : nullptr;
  if (unit == nullptr) return std::to_string(number);
  if (is_continuous_ && g_str_equal(unit->name, "axis")) unit = unit_named("axis/s");
  const tools::Text text(g_strdup_printf("%.*f%s", unit->divisor > 1 ? 2 : 0,
                                         static_cast<double>(number) / unit->divisor, unit->shown[axis]));
  return text.get();
}

// "pan=10.00° tilt=-3.00° status=moving,idle": the value that a message is about goes by the names of the axes.
std::string Message::axes_text() const {
  std::vector<std::string> parts;
  for (const FieldDescription &field : fields_) {
    const tools::Variant values = field.is_per_axis() ? value_of(field.name()) : nullptr;
    if (values == nullptr) continue;
    const bool is_main = g_str_equal(field.name(), "position") || g_str_equal(field.name(), "value");
    std::vector<std::string> of_axes;
    for (std::size_t axis = 0; axis < axis_count; ++axis) {
      if (!shows_axis(axis)) continue;
      const std::string name = is_main ? std::string(axis_names[axis]) + "=" : "";
      of_axes.push_back(name + number_text(field, axis_value(values.get(), axis), axis));
    }
    if (!of_axes.empty()) parts.push_back(is_main ? joined(of_axes, " ") : field.name() + ("=" + joined(of_axes, ",")));
  }
  return joined(parts, " ");
}

std::string Message::list_text(const FieldDescription &field, GVariant *list) const {
  const FieldDescriptions record = description_.record(field.element_type());
  std::vector<std::string> elements;
  for (gsize i = 0; i < g_variant_n_children(list); ++i) {
    const tools::Variant element(g_variant_get_child_value(list, i));
    elements.push_back(record.empty() ? tools::quoted_text(g_variant_get_string(element.get(), nullptr))
                                      : "{" + record_at(record, element.get()).text() + "}");
  }
  return "[" + joined(elements, ", ") + "]";
}

std::string Message::text() const {
  std::vector<std::string> parts;
  bool are_axes_shown = false;
  for (const FieldDescription &field : fields_) {
    const tools::Variant value = value_of(field.name());
    if (value == nullptr) continue;
    if (field.is_per_axis() || (is_of_axes(field) && has_fields_per_axis())) {
      const std::string axes = are_axes_shown ? "" : axes_text();
      if (!axes.empty()) parts.push_back(axes);
      are_axes_shown = true;
      continue;
    }
    const std::string before = std::string(field.name()) + "=";
    if (is_hidden(field)) {
      parts.push_back(before + hidden_value);
    } else if (field.is_list()) {
      parts.push_back(before + list_text(field, value.get()));
    } else if (field.is_text()) {
      parts.push_back(before + tools::quoted_text(g_variant_get_string(value.get(), nullptr)));
    } else {
      parts.push_back(before + number_text(field, number_of(value.get()), 0));
    }
  }
  return joined(parts, " ");
}

void Message::add_number(const JsonLine &json, const FieldDescription &field, gint64 number) const {
  if (field.flags() != nullptr) {
    json.begin_array(field.name());
    for (const std::string &name : names_of_flags(field, static_cast<guint32>(number))) json.element(name);
    json.end_array();
    return;
  }
  const GType type = field.enumeration() != nullptr ? type_named(field.enumeration()) : G_TYPE_INVALID;
  if (type != G_TYPE_INVALID && enum_value(type, number) != nullptr) {
    json.member(field.name(), word_of(type, number));
    return;
  }
  const Unit *const unit = field.unit() != nullptr ? unit_named(field.unit()) : nullptr;
  if (unit != nullptr && unit->divisor > 1) {
    json.member(field.name(), static_cast<double>(number) / unit->divisor);
  } else {
    json.member(field.name(), number);
  }
}

void Message::add_axes(const JsonLine &json) const {
  json.begin_object("axes");
  for (std::size_t axis = 0; axis < axis_count; ++axis) {
    if (!shows_axis(axis)) continue;
    json.begin_object(axis_names[axis]);
    for (const FieldDescription &field : fields_) {
      const tools::Variant values = field.is_per_axis() ? value_of(field.name()) : nullptr;
      if (values != nullptr) add_number(json, field, axis_value(values.get(), axis));
    }
    json.end_object();
  }
  json.end_object();
}

void Message::add_list(const JsonLine &json, const FieldDescription &field, GVariant *list) const {
  const FieldDescriptions record = description_.record(field.element_type());
  json.begin_array(field.name());
  for (gsize i = 0; i < g_variant_n_children(list); ++i) {
    const tools::Variant element(g_variant_get_child_value(list, i));
    if (record.empty()) {
      json.element(g_variant_get_string(element.get(), nullptr));
      continue;
    }
    json.begin_object();
    record_at(record, element.get()).add_to(json);
    json.end_object();
  }
  json.end_array();
}

void Message::add_to(const JsonLine &json) const {
  bool are_axes_added = false;
  for (const FieldDescription &field : fields_) {
    const tools::Variant value = value_of(field.name());
    if (value == nullptr) continue;
    if (field.is_per_axis() || (is_of_axes(field) && has_fields_per_axis())) {
      if (!are_axes_added) add_axes(json);
      are_axes_added = true;
    } else if (is_hidden(field)) {
      json.member(field.name(), hidden_value);
    } else if (field.is_list()) {
      add_list(json, field, value.get());
    } else if (field.is_text()) {
      json.member(field.name(), g_variant_get_string(value.get(), nullptr));
    } else {
      add_number(json, field, number_of(value.get()));
    }
  }
}

}  // namespace

bool is_name_of_secret(std::string_view name) {
  std::string lower(name);
  std::ranges::transform(lower, lower.begin(), g_ascii_tolower);
  return std::ranges::any_of(std::array{"pass", "key", "secret", "token"},
                             [&lower](const char *part) { return lower.find(part) != std::string::npos; });
}

std::string word_of(GType enumeration, gint64 number) {
  const GEnumValue *const value = enumeration != G_TYPE_INVALID ? enum_value(enumeration, number) : nullptr;
  if (value == nullptr) return std::to_string(number);
  std::string word = value->value_nick;
  std::ranges::replace(word, ' ', '-');
  return word;
}

std::string fields_line(GVariant *body, const FieldDescriptions &fields, const MessageDescription &description,
                        Hidden hidden) {
  return Message(body, fields, description, hidden).text();
}

void add_fields(const JsonLine &json, GVariant *body, const FieldDescriptions &fields,
                const MessageDescription &description, Hidden hidden) {
  Message(body, fields, description, hidden).add_to(json);
}

}  // namespace ptzctl
