#include "json_line.h"

#include <cstdio>

#include "json_text.h"

namespace ptzctl {

void JsonLine::member(const char *name, const std::string &value) const {
  json_builder_set_member_name(builder_.get(), name);
  element(value);
}

void JsonLine::member(const char *name, gint64 value) const {
  json_builder_set_member_name(builder_.get(), name);
  json_builder_add_int_value(builder_.get(), value);
}

void JsonLine::member(const char *name, double value) const {
  json_builder_set_member_name(builder_.get(), name);
  json_builder_add_double_value(builder_.get(), value);
}

void JsonLine::member(const char *name, bool value) const {
  json_builder_set_member_name(builder_.get(), name);
  json_builder_add_boolean_value(builder_.get(), value ? TRUE : FALSE);
}

void JsonLine::member(const char *name, JsonNode *value) const {
  json_builder_set_member_name(builder_.get(), name);
  json_builder_add_value(builder_.get(), value);
}

void JsonLine::begin_object(const char *name) const {
  if (name != nullptr) json_builder_set_member_name(builder_.get(), name);
  json_builder_begin_object(builder_.get());
}

void JsonLine::begin_array(const char *name) const {
  json_builder_set_member_name(builder_.get(), name);
  json_builder_begin_array(builder_.get());
}

void JsonLine::element(const std::string &value) const {
  const tools::Text valid(g_utf8_make_valid(value.data(), static_cast<gssize>(value.size())));
  json_builder_add_string_value(builder_.get(), valid.get());
}

std::string JsonLine::text() const {
  json_builder_end_object(builder_.get());
  const tools::Handle<JsonNode, json_node_unref> root(json_builder_get_root(builder_.get()));
  return json_text(root.get());
}

void JsonLine::print() const {
  std::printf("%s\n", text().c_str());
  std::fflush(stdout);
}

}  // namespace ptzctl
