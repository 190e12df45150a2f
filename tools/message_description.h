// message_description.h - the description of every command's messages that ptzctl was built with: requests are made
// from it, and replies are shown by it.
#pragma once
#include <json-glib/json-glib.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "handles.h"

namespace ptzctl {

// One field of a message. The texts belong to the description.
class FieldDescription {
  JsonObject *object_;

  [[nodiscard]] const char *text(const char *member) const {
    return json_object_get_string_member_with_default(object_, member, nullptr);
  }

 public:
  explicit FieldDescription(JsonObject *object) : object_(object) {}
  [[nodiscard]] const char *name() const { return text("name"); }
  [[nodiscard]] const char *type() const { return text("type"); }
  [[nodiscard]] const char *doc() const { return text("doc"); }
  [[nodiscard]] const char *unit() const { return text("unit"); }  // null if it has none
  [[nodiscard]] const char *enumeration() const { return text("enum"); }
  [[nodiscard]] const char *flags() const { return text("flags"); }
  [[nodiscard]] bool is_per_axis() const { return text("per_axis") != nullptr; }
  [[nodiscard]] bool is_text() const { return g_str_equal(type(), "text"); }
  [[nodiscard]] bool is_list() const { return g_str_has_prefix(type(), "list:"); }
  [[nodiscard]] const char *element_type() const { return type() + sizeof "list:" - 1; }
  // "u16, percent, 1 to 100"
  [[nodiscard]] std::string bounds() const;
};
using FieldDescriptions = std::vector<FieldDescription>;

class CommandDescription {
  JsonObject *object_;

 public:
  explicit CommandDescription(JsonObject *object) : object_(object) {}
  [[nodiscard]] const char *name() const { return json_object_get_string_member(object_, "name"); }
  [[nodiscard]] const char *doc() const { return json_object_get_string_member(object_, "doc"); }
  [[nodiscard]] FieldDescriptions request() const;
  [[nodiscard]] FieldDescriptions reply() const;
  // The body of a request. Each word is FIELD=VALUE, or FIELD.AXIS=VALUE. Null with the problem told.
  [[nodiscard]] tools::Bytes body_from(std::span<const std::string> words, std::string &problem) const;
};

class MessageDescription {
  tools::Object<JsonParser> parser_;

  [[nodiscard]] JsonArray *array(const char *name) const;

 public:
  MessageDescription();
  // What a driver serves, in the order of the description.
  [[nodiscard]] std::vector<CommandDescription> commands() const;
  // By its name, with underscores, hyphens or spaces, in any case.
  [[nodiscard]] std::optional<CommandDescription> command(const std::string &name) const;
  // By the number in a body. The error reply is one, too.
  [[nodiscard]] std::optional<CommandDescription> command(gint32 number) const;
  // The name of an error code, such as "out_of_range"; null if the description has none.
  [[nodiscard]] const char *error_name(guint32 code) const;
  // The fields of an element of a list; empty for a list of texts.
  [[nodiscard]] FieldDescriptions record(const char *name) const;
};

}  // namespace ptzctl
