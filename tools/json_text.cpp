#include "json_text.h"

#include <charconv>
#include <cmath>
#include <memory>

namespace {

template <typename Number>
std::string shortest(Number value) {
  char digits[32];
  return {digits, std::to_chars(std::begin(digits), std::end(digits), value).ptr};
}

std::string number_text(double value) {
  if (!std::isfinite(value)) return "null";
  const std::string text = shortest(value);
  return text.find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

// Characters that a terminal obeys, and those that change the direction of the text around them.
bool needs_escape(gunichar character) {
  return (character >= 0x7F && character <= 0x9F) || (character >= 0x202A && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

std::string text_of_leaf(JsonNode *node) {
  const std::unique_ptr<char, decltype(&g_free)> raw(json_to_string(node, FALSE), g_free);
  const std::unique_ptr<char, decltype(&g_free)> json(g_utf8_make_valid(raw.get(), -1), g_free);
  std::string text;
  for (const char *at = json.get(); *at != '\0';) {
    const char *const next = g_utf8_next_char(at);
    const gunichar character = g_utf8_get_char(at);
    char escaped[8];
    if (needs_escape(character)) {
      g_snprintf(escaped, sizeof escaped, "\\u%04x", character);
      text += escaped;
    } else {
      text.append(at, next);
    }
    at = next;
  }
  return text;
}

std::string quoted(const char *text) {
  const std::unique_ptr<JsonNode, decltype(&json_node_unref)> node(json_node_init_string(json_node_alloc(), text),
                                                                   json_node_unref);
  return text_of_leaf(node.get());
}

std::string text_at(JsonNode *node, bool is_indented, std::size_t level) {
  const auto begin_line = [is_indented](std::size_t at) { return is_indented ? "\n" + std::string(2 * at, ' ') : ""; };
  std::string text;
  const auto add = [&](const std::string &element) {
    text += (text.empty() ? "" : ",") + begin_line(level + 1) + element;
  };
  const auto closed = [&](char opening, char closing) {
    return opening + text + (text.empty() ? "" : begin_line(level)) + closing;
  };
  switch (json_node_get_node_type(node)) {
    case JSON_NODE_OBJECT: {
      JsonObjectIter iterator;
      const char *name = nullptr;
      JsonNode *member = nullptr;
      json_object_iter_init_ordered(&iterator, json_node_get_object(node));
      while (json_object_iter_next_ordered(&iterator, &name, &member)) {
        add(quoted(name) + (is_indented ? " : " : ":") + text_at(member, is_indented, level + 1));
      }
      return closed('{', '}');
    }
    case JSON_NODE_ARRAY: {
      JsonArray *const array = json_node_get_array(node);
      for (guint i = 0; i < json_array_get_length(array); ++i) {
        add(text_at(json_array_get_element(array, i), is_indented, level + 1));
      }
      return closed('[', ']');
    }
    default:
      return json_node_get_value_type(node) == G_TYPE_DOUBLE ? number_text(json_node_get_double(node))
                                                             : text_of_leaf(node);
  }
}

}  // namespace

std::string json_text(JsonNode *node, bool is_indented) { return text_at(node, is_indented, 0); }

double widened(float value) {
  if (!std::isfinite(value)) return static_cast<double>(value);
  const std::string digits = shortest(value);
  double result = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), result);
  return result;
}
