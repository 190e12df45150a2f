#include "message_description.h"

#include <ptz_kit_body.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>

#include "commands_json.h"
#include "driver_axes.h"
#include "vocabulary.h"

namespace ptzctl {

namespace {

FieldDescriptions fields_of(JsonObject *object, const char *member) {
  FieldDescriptions fields;
  if (!json_object_has_member(object, member)) return fields;
  JsonArray *const array = json_object_get_array_member(object, member);
  for (guint i = 0; i < json_array_get_length(array); ++i) {
    fields.emplace_back(json_array_get_object_element(array, i));
  }
  return fields;
}

// "Goto device preset", "goto-device-preset"
std::string canonical(std::string name) {
  for (char &letter : name) letter = letter == ' ' || letter == '-' ? '_' : g_ascii_tolower(letter);
  return name;
}

std::optional<gint64> number_from(const std::string &text) {
  gchar *end = nullptr;
  errno = 0;
  const gint64 number = g_ascii_strtoll(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0) return std::nullopt;
  return number;
}

std::vector<std::string> split(const std::string &text, const char *at) {
  const tools::TextList parts(g_strsplit(text.c_str(), at, -1));
  return {parts.get(), parts.get() + g_strv_length(parts.get())};
}

// "pan,tilt"
std::optional<gint64> bits_from(const FieldDescription &field, const std::string &text) {
  gint64 bits = 0;
  for (const std::string &name : split(text, ",")) {
    std::optional<gint64> bit;
    if (g_str_equal(field.flags(), "axes")) {
      const auto axis = std::ranges::find(axis_names, name);
      if (axis != axis_names.end()) bit = gint64{1} << (axis - axis_names.begin());
    } else if (const GType type = type_named(field.flags()); type != G_TYPE_INVALID) {
      const auto *const flags = static_cast<GFlagsClass *>(g_type_class_ref(type));
      for (guint i = 0; i < flags->n_values; ++i) {
        if (g_ascii_strcasecmp(flags->values[i].value_name, name.c_str()) == 0) bit = flags->values[i].value;
      }
    }
    if (!bit) return std::nullopt;
    bits |= *bit;
  }
  return bits;
}

std::optional<gint64> value_from(const FieldDescription &field, const std::string &text) {
  if (const auto number = number_from(text)) return number;
  if (field.flags() != nullptr) return bits_from(field, text);
  const GType type = field.enumeration() != nullptr ? type_named(field.enumeration()) : G_TYPE_INVALID;
  if (type == G_TYPE_INVALID) return std::nullopt;
  std::string spaced = text;  // "up-left" is one word of a command line
  std::ranges::replace(spaced, '-', ' ');
  const auto value = value_of(type, text);
  return value ? value : value_of(type, spaced);
}

// The values of a request by the names of their fields, then the dictionary that the kit writes.
class RequestValues {
  const FieldDescriptions &fields_;
  std::map<std::string, std::string> texts_;
  std::map<std::string, gint64> numbers_;
  std::map<std::string, std::array<gint64, axis_count>> axes_;
  std::string &problem_;

  bool fail(const std::string &problem) {
    problem_ = problem;
    return false;
  }
  bool set_axes(const FieldDescription &field, const std::string &axis, const std::string &text);
  [[nodiscard]] bool has(const FieldDescription &field) const;

 public:
  RequestValues(const FieldDescriptions &fields, std::string &problem) : fields_(fields), problem_(problem) {}
  bool set(const std::string &word);
  bool is_complete();
  [[nodiscard]] GVariant *dictionary(const char *command) const;
};

bool RequestValues::set_axes(const FieldDescription &field, const std::string &axis, const std::string &text) {
  auto &values = axes_[field.name()];
  if (!axis.empty()) {
    const auto found = std::ranges::find(axis_names, axis);
    const auto number = number_from(text);
    if (found == axis_names.end()) return fail("there is no axis '" + axis + "'");
    if (!number) return fail("'" + text + "' is no value of " + field.name());
    values[static_cast<std::size_t>(found - axis_names.begin())] = *number;
    return true;
  }
  const auto parts = split(text, ",");
  if (parts.size() != axis_count) return fail(std::string(field.name()) + " takes three numbers, PAN,TILT,ZOOM");
  for (std::size_t i = 0; i < axis_count; ++i) {
    const auto number = number_from(parts[i]);
    if (!number) return fail("'" + parts[i] + "' is no value of " + field.name());
    values[i] = *number;
  }
  return true;
}

bool RequestValues::set(const std::string &word) {
  const auto equals = word.find('=');
  if (equals == std::string::npos) return fail("'" + word + "' is no FIELD=VALUE");
  const std::string before = word.substr(0, equals), text = word.substr(equals + 1);
  const auto dot = before.find('.');
  const std::string name = canonical(before.substr(0, dot));
  const auto field = std::ranges::find_if(fields_, [&](const auto &each) { return name == each.name(); });
  if (field == fields_.end()) return fail("there is no field '" + before + "'");
  if (field->is_per_axis()) return set_axes(*field, dot == std::string::npos ? "" : before.substr(dot + 1), text);
  if (dot != std::string::npos) return fail(std::string("the field ") + field->name() + " has no axes");
  if (field->is_list()) return fail(std::string("the field ") + field->name() + " is a list: give the body's bytes");
  if (field->is_text()) {
    texts_[name] = text;
    return true;
  }
  const auto value = value_from(*field, text);
  if (!value) return fail("'" + text + "' is no value of " + field->name() + " (" + field->bounds() + ")");
  numbers_[name] = *value;
  return true;
}

bool RequestValues::has(const FieldDescription &field) const {
  return texts_.contains(field.name()) || numbers_.contains(field.name()) || axes_.contains(field.name());
}

bool RequestValues::is_complete() {
  for (const FieldDescription &field : fields_) {
    if (!has(field)) {
      return fail(std::string("the field ") + field.name() + " is missing (" + field.bounds() + ": " + field.doc() +
                  ")");
    }
  }
  return true;
}

GVariant *RequestValues::dictionary(const char *command) const {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
  g_variant_builder_add(&builder, "{sv}", "command", g_variant_new_string(command));
  for (const auto &[name, text] : texts_) {
    g_variant_builder_add(&builder, "{sv}", name.c_str(), g_variant_new_string(text.c_str()));
  }
  for (const auto &[name, number] : numbers_) {
    g_variant_builder_add(&builder, "{sv}", name.c_str(), g_variant_new_int64(number));
  }
  for (const auto &[name, values] : axes_) {
    g_variant_builder_add(
        &builder, "{sv}", name.c_str(),
        g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, values.data(), values.size(), sizeof(gint64)));
  }
  return g_variant_builder_end(&builder);
}

}  // namespace

std::string FieldDescription::bounds() const {
  std::string text = type();
  const char *const of = enumeration() != nullptr ? enumeration() : flags();
  for (const char *each : {of, unit()}) {
    if (each != nullptr) text += std::string(", ") + each;
  }
  const bool has_least = json_object_has_member(object_, "min"), has_most = json_object_has_member(object_, "max");
  const auto bound = [this](const char *member) { return std::to_string(json_object_get_int_member(object_, member)); };
  if (has_least && has_most) return text + ", " + bound("min") + " to " + bound("max");
  if (has_most) return text + ", at most " + bound("max");
  return has_least ? text + ", at least " + bound("min") : text;
}

FieldDescriptions CommandDescription::request() const { return fields_of(object_, "request"); }
FieldDescriptions CommandDescription::reply() const { return fields_of(object_, "reply"); }

tools::Bytes CommandDescription::body_from(std::span<const std::string> words, std::string &problem) const {
  const FieldDescriptions fields = request();
  RequestValues values(fields, problem);
  for (const std::string &word : words) {
    if (!values.set(word)) return nullptr;
  }
  if (!values.is_complete()) return nullptr;
  tools::Error error;
  tools::Bytes body(ptz_kit_body_from_variant(PTZ_KIT_BODY_REQUEST, values.dictionary(name()), tools::out(error)));
  if (error != nullptr) problem = error->message;
  return body;
}

MessageDescription::MessageDescription() : parser_(json_parser_new()) {
  tools::Error error;
  json_parser_load_from_data(parser_.get(), embedded_text, -1, tools::out(error));
  if (error != nullptr) g_error("%s", error->message);  // it was made together with the kit
}

JsonArray *MessageDescription::array(const char *name) const {
  return json_object_get_array_member(json_node_get_object(json_parser_get_root(parser_.get())), name);
}

std::vector<CommandDescription> MessageDescription::commands() const {
  std::vector<CommandDescription> all;
  JsonArray *const described = array("commands");
  for (guint i = 0; i < json_array_get_length(described); ++i) {
    const CommandDescription command(json_array_get_object_element(described, i));
    if (!g_str_equal(command.name(), "error")) all.push_back(command);
  }
  return all;
}

std::optional<CommandDescription> MessageDescription::command(const std::string &name) const {
  for (const CommandDescription &each : commands()) {
    if (canonical(name) == each.name()) return each;
  }
  return std::nullopt;
}

std::optional<CommandDescription> MessageDescription::command(gint32 number) const {
  const gchar *const name = ptz_kit_command_name(number);
  JsonArray *const described = array("commands");
  for (guint i = 0; name != nullptr && i < json_array_get_length(described); ++i) {
    const CommandDescription command(json_array_get_object_element(described, i));
    if (g_str_equal(command.name(), name)) return command;
  }
  return std::nullopt;
}

const char *MessageDescription::error_name(guint32 code) const {
  JsonArray *const errors = array("errors");
  for (guint i = 0; i < json_array_get_length(errors); ++i) {
    JsonObject *const error = json_array_get_object_element(errors, i);
    if (json_object_get_int_member(error, "code") == code) return json_object_get_string_member(error, "name");
  }
  return nullptr;
}

FieldDescriptions MessageDescription::record(const char *name) const {
  JsonArray *const records = array("records");
  for (guint i = 0; i < json_array_get_length(records); ++i) {
    JsonObject *const record = json_array_get_object_element(records, i);
    if (g_str_equal(json_object_get_string_member(record, "name"), name)) return fields_of(record, "fields");
  }
  return {};
}

}  // namespace ptzctl
