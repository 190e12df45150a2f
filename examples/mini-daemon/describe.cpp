#include "describe.h"

#include <algorithm>
#include <span>

#include "terminal.h"

namespace example {

bool is_disconnected(const Problem &problem) {
  return problem.is(PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED) || problem.is(PTZ_KIT_ERROR, PTZ_KIT_ERROR_LOST);
}

std::string describe_failure(const Problem &problem) {
  if (is_disconnected(problem)) return "the connection to the driver is lost";
  if (problem.is(PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT)) return "the driver did not answer in time";
  if (problem.get() == nullptr) return "unknown error";
  const std::string text = problem.get()->message;
  const std::size_t name_end = text.find(": ");  // a message begins with the name of the command
  return name_end != std::string::npos ? text.substr(name_end + 2) : text;
}

std::string flag_names(GType type, guint32 flags) {
  const auto *const flags_class = static_cast<GFlagsClass *>(g_type_class_ref(type));
  std::string names;
  for (const GFlagsValue &value : std::span(flags_class->values, flags_class->n_values)) {
    if (value.value != 0 && (flags & value.value) != 0)
      names += std::string(names.empty() ? "" : " ") + value.value_name;
  }
  return names;
}

std::string seconds_since(gint64 start_us) {
  const Text text(g_strdup_printf("%.1f s", static_cast<double>(g_get_monotonic_time() - start_us) / G_USEC_PER_SEC));
  return text.get();
}

std::string table_row(std::string name, const std::string &from, const std::string &to, const std::string &speed) {
  name.resize(4, ' ');
  return name + right_aligned(from, 12) + right_aligned(to, 12) + right_aligned(speed, 14);
}

std::string in_words(const PTZKitParameter &parameter) {
  const GEnumValue *const group = g_enum_get_value(
      static_cast<GEnumClass *>(g_type_class_ref(PTZ_TYPE_PARAMETER_GROUP)), static_cast<gint>(parameter.group));
  std::string words = group != nullptr ? group->value_name : std::to_string(parameter.group);
  words.resize(std::max<std::size_t>(words.size(), 12), ' ');
  words += std::string(parameter.label) + " (" + parameter.name + "): " + parameter.value;
  return *parameter.range == '\0' ? words : words + ", of " + parameter.range;
}

}  // namespace example
