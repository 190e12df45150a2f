#include "platform/kv_config.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/handles.h"
#include "base/whole_file.h"

namespace {

// The open file. Allocated while there is one: the library may be unloaded after main() has returned.
struct OpenFile {
  std::string text;
  std::size_t next = 0;  // where the next line begins
  std::string section;   // of the last "[Group]" line
  bool in_section = false;
  std::string group, key, value;
  KvConfigRecord record = {};
};
OpenFile *open_file = nullptr;

constexpr std::string_view root_prefix = "root.";

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

// What is between the brackets of a "[Group]" line, which a comment may follow.
std::optional<std::string_view> section_of(std::string_view line) {
  const auto end = line.find(']');
  if (line.front() != '[' || end == std::string_view::npos) return std::nullopt;
  const auto rest = trimmed(line.substr(end + 1));
  if (!rest.empty() && rest.front() != '#' && rest.front() != ';') return std::nullopt;
  return trimmed(line.substr(1, end - 1));
}

// A key before any group names its group itself: "root.Group.Key" or "Group.Key".
void split_path(OpenFile &file, std::string_view path) {
  const auto dot = path.rfind('.');
  auto group = dot == std::string_view::npos ? std::string_view() : path.substr(0, dot);
  if (group.starts_with(root_prefix)) group.remove_prefix(root_prefix.size());
  file.group = group;
  file.key = dot == std::string_view::npos ? path : path.substr(dot + 1);
}

bool parse_line(OpenFile &file, std::string_view line) {
  line = trimmed(line);
  if (line.empty() || line.front() == '#' || line.front() == ';') return false;
  if (const auto section = section_of(line)) {
    file.section = *section;
    file.in_section = true;
    return false;
  }
  const auto equals = line.find('=');
  const auto name = trimmed(line.substr(0, equals));
  if (file.in_section) {
    file.group = file.section;
    file.key = name;
  } else {
    split_path(file, name);
  }
  const bool has_value = equals != std::string_view::npos;
  if (has_value) file.value = trimmed(line.substr(equals + 1));
  file.record = {file.group.c_str(), file.key.c_str(), has_value ? file.value.c_str() : nullptr};
  return true;
}

}  // namespace

gint kv_config_open(const gchar *path) {
  kv_config_close();
  struct stat status = {};
  const ptz::UniqueFd fd = ptz::open_and_examine(path, status);
  if (!fd) return 0;
  if (!ptz::can_be_read_whole(status)) {
    errno = EINVAL;
    return 0;
  }
  std::string text;
  ptz::PipeDeadline deadline;
  if (!ptz::read_to_end(fd.get(), status, text, deadline)) return 0;
  open_file = new OpenFile;
  open_file->text = std::move(text);
  return 1;
}

const KvConfigRecord *kv_config_get(void) {
  if (open_file == nullptr) return nullptr;
  auto &file = *open_file;
  while (file.next < file.text.size()) {
    const auto end = std::min(file.text.find('\n', file.next), file.text.size());
    const auto line = std::string_view(file.text).substr(file.next, end - file.next);
    file.next = end + 1;
    if (parse_line(file, line)) return &file.record;
  }
  return nullptr;
}

void kv_config_close(void) { delete std::exchange(open_file, nullptr); }
