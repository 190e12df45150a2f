// reply_fields.h - the fields of a reply as a flat list of paths and values.
#pragma once
#include <glib.h>

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ptzctl {

struct ReplyField {
  std::string path;  // "position.pan", "presets[0].name"
  std::string text;  // as people read it; "(hidden)" for a value that may be a password
  std::string value;
  std::optional<gint64> number;
};

struct ReplyFields {
  std::string command;
  std::vector<ReplyField> fields;
  [[nodiscard]] const ReplyField *find(const std::string &path) const;
};

// Nothing if the body cannot be decoded.
[[nodiscard]] std::optional<ReplyFields> fields_of_reply(std::span<const guint8> body);
// Whether the request asks for a value whose name is that of a password.
[[nodiscard]] bool asks_for_secret(std::span<const guint8> request);
// "presets.name" for "presets[0].name".
[[nodiscard]] std::string without_indices(const std::string &path);

}  // namespace ptzctl
