// json_line.h - an object of JSON, printed as one line.
#pragma once
#include <json-glib/json-glib.h>

#include <string>

#include "handles.h"

namespace ptzctl {

// One object of JSON, built member by member.
class JsonLine {
  tools::Object<JsonBuilder> builder_{json_builder_new()};

 public:
  JsonLine() { json_builder_begin_object(builder_.get()); }
  void member(const char *name, const std::string &value) const;
  void member(const char *name, gint64 value) const;
  void member(const char *name, double value) const;
  void member(const char *name, bool value) const;
  void member(const char *name, const char *value) const { member(name, std::string(value)); }
  void member(const char *name, JsonNode *value) const;  // takes it
  void begin_object(const char *name = nullptr) const;   // without a name in an array
  void end_object() const { json_builder_end_object(builder_.get()); }
  void begin_array(const char *name) const;
  void end_array() const { json_builder_end_array(builder_.get()); }
  void element(const std::string &value) const;
  // Ends the object, once.
  [[nodiscard]] std::string text() const;
  // As text(), on standard output.
  void print() const;
};

}  // namespace ptzctl
