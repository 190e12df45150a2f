#include "reply_comparison.h"

#include <ptz_enum_types.h>

#include <algorithm>
#include <cstdlib>

#include "driver_axes.h"
#include "reply_fields.h"

namespace ptzctl {

namespace {

// The state of the head by the words of ptzctl status.
struct Alias {
  const char *name, *means;
};
constexpr Alias aliases[] = {{"status.position", "query_position.position"},
                             {"status.motion", "query_position.status"},
                             {"status.speed", "query_speed.current"}};

bool begins_with_words(const std::string &path, const std::string &words) {
  if (!path.starts_with(words)) return false;
  return path.size() == words.size() || path[words.size()] == '.' || path[words.size()] == '[';
}

bool is_covered(const std::string &path, const std::string &words) {
  return begins_with_words(path, words) || begins_with_words(without_indices(path), words);
}

void add_paths(Words &paths, const std::string &before, const FieldDescriptions &fields,
               const MessageDescription &description) {
  for (const FieldDescription &field : fields) {
    const std::string path = before + field.name();
    paths.push_back(path);
    if (field.is_per_axis()) {
      for (const char *axis : axis_names) paths.push_back(path + "." + axis);
    }
    if (!field.is_list()) continue;
    paths.push_back(path + ".length");
    add_paths(paths, path + ".", description.record(field.element_type()), description);
  }
}

Words possible_paths(const MessageDescription &description) {
  Words paths = {"body", "error", "code", "text", "error.code", "error.text"};
  for (const Alias &alias : aliases) paths.emplace_back(alias.name);
  for (const CommandDescription &command : description.commands()) {
    paths.emplace_back(command.name());
    for (const std::string &before : {std::string(), std::string(command.name()) + "."}) {
      add_paths(paths, before, command.reply(), description);
    }
  }
  return paths;
}

// What a head says of itself while it moves depends on the moment.
bool is_of_moving_head(const ReplyFields &recorded, const std::string &path) {
  const auto dot = path.find('.');
  if (dot == std::string::npos) return false;
  const std::string axis = path.substr(dot), field = path.substr(0, dot);
  const auto is = [&](const std::string &of, auto condition) {
    const ReplyField *const found = recorded.find(of + axis);
    return found != nullptr && found->number && condition(*found->number);
  };
  if (recorded.command == "query_position" && (field == "position" || field == "status")) {
    return is("status", [](gint64 status) { return status == PTZ_MOVE_STATUS_MOVING; });
  }
  return recorded.command == "query_speed" && field == "current" && is(field, [](gint64 speed) { return speed != 0; });
}

std::string summary_of(const ReplyFields &reply) {
  if (reply.command != "error") return "a reply to " + reply.command;
  const ReplyField *const code = reply.find("code"), *const text = reply.find("text");
  return "error " + (code != nullptr ? code->text : "") + ": " + (text != nullptr ? text->text : "");
}

std::string summary_of(const std::optional<ReplyFields> &reply, BodyBytes body) {
  return reply ? summary_of(*reply) : std::to_string(body.size()) + " bytes that cannot be decoded";
}

std::string byte_text(BodyBytes body, std::size_t at) {
  if (at >= body.size()) return "absent";
  const tools::Text text(g_strdup_printf("%02x", body[at]));
  return text.get();
}

Differences differences_of_bytes(BodyBytes recorded, BodyBytes received) {
  if (std::ranges::equal(recorded, received)) return {};
  if (recorded.size() != received.size()) {
    return {{"body", std::to_string(recorded.size()) + " bytes", std::to_string(received.size()) + " bytes"}};
  }
  const auto at = static_cast<std::size_t>(std::ranges::mismatch(recorded, received).in1 - recorded.begin());
  return {{"body", "byte " + std::to_string(at) + " " + byte_text(recorded, at), byte_text(received, at)}};
}

}  // namespace

std::string Difference::text() const { return (field.empty() ? "" : field + " ") + recorded + " became " + received; }

bool ReplyComparison::ignore(const std::string &field, Words &possible) {
  possible = possible_paths(description_);
  if (std::ranges::find(possible, field) == possible.end()) return false;
  const auto *const alias = std::ranges::find(aliases, field, &Alias::name);
  ignored_.push_back(alias != std::end(aliases) ? alias->means : field);
  return true;
}

bool ReplyComparison::is_ignored(const std::string &command, const std::string &path) const {
  return std::ranges::any_of(ignored_, [&](const std::string &words) {
    return is_covered(path, words) || is_covered(command + "." + path, words);
  });
}

bool ReplyComparison::has_axis_unit(const std::string &command, const std::string &path) const {
  const auto described = description_.command(command);
  if (!described) return false;
  for (const FieldDescription &field : described->reply()) {
    if (field.unit() != nullptr && begins_with_words(path, field.name())) return g_str_has_prefix(field.unit(), "axis");
  }
  return false;
}

Differences ReplyComparison::differences(BodyBytes recorded, BodyBytes received) const {
  const auto before = fields_of_reply(recorded), after = fields_of_reply(received);
  const std::string command = before ? before->command : "body";
  if (!before && !after) return is_ignored(command, "") ? Differences{} : differences_of_bytes(recorded, received);
  if (!before || !after || before->command != after->command) {
    if (is_ignored(command, "")) return {};
    return {{"", summary_of(before, recorded), summary_of(after, received)}};
  }
  Differences differences;
  for (const ReplyField &field : before->fields) {
    const ReplyField *const now = after->find(field.path);
    if (now != nullptr && now->value == field.value) continue;
    if (is_ignored(before->command, field.path)) continue;
    if (!is_exact_ && is_of_moving_head(*before, field.path)) continue;
    const bool are_numbers = now != nullptr && field.number && now->number;
    if (are_numbers && std::abs(*now->number - *field.number) <= tolerance_ &&
        has_axis_unit(before->command, field.path)) {
      continue;
    }
    differences.push_back({field.path, field.text, now != nullptr ? now->text : "absent"});
  }
  for (const ReplyField &field : after->fields) {
    if (before->find(field.path) != nullptr || is_ignored(before->command, field.path)) continue;
    differences.push_back({field.path, "absent", field.text});
  }
  return differences;
}

bool ReplyComparison::is_rest_due(BodyBytes recorded, BodyBytes received) const {
  if (is_exact_) return false;
  const auto before = fields_of_reply(recorded), after = fields_of_reply(received);
  if (!before || !after || before->command != after->command) return false;
  return std::ranges::any_of(after->fields, [&](const ReplyField &field) {
    return is_of_moving_head(*after, field.path) && !is_of_moving_head(*before, field.path) &&
           !is_ignored(before->command, field.path);
  });
}

}  // namespace ptzctl
