#include "driver/settings.h"

#include <glib/gstdio.h>
#include <ptz_settings.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "driver/format.h"
#include "handles.h"

namespace ptz_kit {

namespace {

#define BOUNDS "%" G_GINT64_FORMAT " to %" G_GINT64_FORMAT
constexpr char root_prefix[] = "root.";
constexpr std::size_t most_told = 20;
constexpr goffset most_bytes = 1 << 20;

std::optional<bool> parse_boolean(const std::string &text) {
  for (const char *word : {"yes", "true"}) {
    if (g_ascii_strcasecmp(text.c_str(), word) == 0) return true;
  }
  for (const char *word : {"no", "false"}) {
    if (g_ascii_strcasecmp(text.c_str(), word) == 0) return false;
  }
  return std::nullopt;
}

// Decimal, hexadecimal with 0x, octal with a leading zero, as the library's settings have it.
std::optional<gint64> parse_integer(const std::string &text) {
  char *end = nullptr;
  errno = 0;
  const gint64 number = g_ascii_strtoll(text.c_str(), &end, 0);
  if (end == text.c_str() || *end != '\0' || errno != 0) return std::nullopt;
  return number;
}

std::string_view stripped(std::string_view text) {
  constexpr char blanks[] = " \t\r";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Resolves the escapes of key files. One that is unknown stays, a lone backslash at the end is left out.
std::string without_key_file_escapes(std::string_view value) {
  constexpr std::string_view letters = "sntr\\";
  constexpr std::string_view meanings = " \n\t\r\\";
  std::string text;
  for (std::size_t index = 0; index < value.size(); ++index) {
    if (value[index] != '\\') {
      text += value[index];
    } else if (++index < value.size()) {
      const std::size_t known = letters.find(value[index]);
      if (known == std::string_view::npos) text += '\\';
      text += known == std::string_view::npos ? value[index] : meanings[known];
    }
  }
  return text;
}

// Whether a C escape stands for the byte 0, which would end the text.
bool holds_nul(std::string_view value) {
  const auto is_octal = [&](std::size_t index) {
    return index < value.size() && value[index] >= '0' && value[index] < '8';
  };
  for (std::size_t index = 0; index < value.size(); ++index) {
    if (value[index] != '\\') continue;
    unsigned number = 0;
    const std::size_t first = ++index;
    for (; index < first + 3 && is_octal(index); ++index)
      number = 8 * number + static_cast<unsigned>(value[index] - '0');
    if (index > first && (number & 0xff) == 0) return true;
    if (index > first) --index;
  }
  return false;
}

// As the library's settings have it: key-file escapes are resolved, a pair of quotes is taken off, C escapes are
// resolved.
std::string cleaned(std::string_view raw) {
  std::string value = without_key_file_escapes(raw);
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.front() == value.back()) {
    value = value.substr(1, value.size() - 2);
  }
  // GLib would complain of a lone backslash at the end.
  const std::size_t before = value.find_last_not_of('\\');
  if ((value.size() - 1 - before) % 2 == 1) value.pop_back();
  const Text resolved(g_strcompress(value.c_str()));
  return holds_nul(value) ? std::string(1, '\0') : resolved.get();
}

// Why the setting cannot have the value; empty if it can.
std::string objection(const Setting &setting, const std::string &value) {
  if (value.find('\0') != std::string::npos) return "the text holds the byte 0";
  switch (setting.kind) {
    case PTZ_KIT_SETTING_BOOLEAN:
      return parse_boolean(value) ? "" : format("\"%s\" is not yes, no, true or false", value.c_str());
    case PTZ_KIT_SETTING_INTEGER: {
      const auto number = parse_integer(value);
      if (!number) return format("\"%s\" is not a whole number", value.c_str());
      if (*number >= setting.least && *number <= setting.most) return "";
      return format("%" G_GINT64_FORMAT " is not within " BOUNDS, *number, setting.least, setting.most);
    }
    case PTZ_KIT_SETTING_STRING:
      if (g_utf8_validate(value.c_str(), -1, nullptr) == FALSE) return "the text is not UTF-8";
      if (std::cmp_greater_equal(value.size(), setting.least) && std::cmp_less_equal(value.size(), setting.most)) {
        return "";
      }
      return format("the text has %zu bytes, not " BOUNDS, value.size(), setting.least, setting.most);
  }
  return "";
}

std::string_view without_number(std::string_view group) {
  while (!group.empty() && g_ascii_isdigit(group.back())) group.remove_suffix(1);
  return group;
}

std::string contradiction(const Setting &setting) {
  if (setting.kind != PTZ_KIT_SETTING_BOOLEAN && setting.least > setting.most) {
    return format(BOUNDS " is no range", setting.least, setting.most);
  }
  // An empty text may stand for no value.
  if (setting.kind == PTZ_KIT_SETTING_STRING && setting.value.empty()) return "";
  return objection(setting, setting.value);
}

// Whether the two are the same setting of numbered groups, such as [Preset0] and [Preset1].
bool are_numbered_alike(const Setting &a, const Setting &b) {
  return a.key == b.key && a.doc == b.doc && a.value == b.value && without_number(a.group) == without_number(b.group);
}

std::string described(const Setting &setting, const std::string &last_group) {
  std::string text = format("\n  [%s]", setting.group.c_str());
  if (last_group != setting.group) text += format(" to [%s]", last_group.c_str());
  text += format(" %s=%s", setting.key.c_str(), setting.value.c_str());
  if (setting.kind == PTZ_KIT_SETTING_INTEGER) text += format(" (" BOUNDS ")", setting.least, setting.most);
  return text + format("  %s", setting.doc.c_str());
}

}  // namespace

void ProblemLines::add(std::string line) {
  if (lines_.size() < most_told) return lines_.push_back(std::move(line));
  ++more_;
}

std::vector<std::string> ProblemLines::lines() const {
  std::vector<std::string> all = lines_;
  if (more_ > 0) all.push_back(format("and %zu more", more_));
  return all;
}

Settings::Settings() {
  // The library reads it when counters are set up.
  add({"PTZDriverManager", "NbrOfDrivers", PTZ_KIT_SETTING_INTEGER, "1", 1, G_MAXINT32,
       "Number of drivers; with 2 or more, a second one has a request counter of its own"});
}

void Settings::add(Setting setting) {
  setting.value = cleaned(setting.initial);
  const std::string reason =
      look_up(setting.group, setting.key) != nullptr ? "it is declared already" : contradiction(setting);
  if (reason.empty()) return settings_.push_back(std::move(setting));
  g_critical("setting [%s] %s: %s", setting.group.c_str(), setting.key.c_str(), reason.c_str());
}

Setting *Settings::look_up(std::string_view group, std::string_view key) {
  const auto found = std::ranges::find_if(
      settings_, [&](const Setting &setting) { return setting.group == group && setting.key == key; });
  return found != settings_.end() ? std::to_address(found) : nullptr;
}

void Settings::read_value(std::string_view group, std::string_view key, std::string_view value, const Place &place,
                          Problems &problems) {
  const auto name = [&](const char *reason) {
    return format("%s:%u: [%.*s] %.*s: %s", place.file, place.line, static_cast<int>(group.size()), group.data(),
                  static_cast<int>(key.size()), key.data(), reason);
  };
  Setting *setting = look_up(group, key);
  if (setting == nullptr) return problems.unknown.add(name("there is no such setting"));
  std::string text = cleaned(value);
  const std::string reason = objection(*setting, text);
  if (reason.empty()) {
    setting->value = std::move(text);
  } else {
    problems.bad.add(name(reason.c_str()));
  }
}

void Settings::read_line(std::string_view line, std::string &group, const Place &place, Problems &problems) {
  line = stripped(line);
  if (line.empty() || line.front() == '#') return;
  if (line.front() == '[' && line.back() == ']') {
    group = line.substr(1, line.size() - 2);
    if (g_ascii_strncasecmp(group.c_str(), root_prefix, strlen(root_prefix)) == 0) group.erase(0, strlen(root_prefix));
    return;
  }
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos || equals == 0 || group.empty()) {
    return problems.bad.add(format("%s:%u: this is neither a group, nor a key in a group with its value, nor a comment",
                                   place.file, place.line));
  }
  read_value(group, stripped(line.substr(0, equals)), stripped(line.substr(equals + 1)), place, problems);
}

void Settings::read_file(const char *path, Problems &problems) {
  Text text;
  Error error;
  gsize length = 0;
  GStatBuf status;
  // The library reads the file once more, so a pipe is of no use. Other files may have no end.
  if (g_stat(path, &status) == 0) {
    if (!S_ISREG(status.st_mode)) return problems.bad.add(format("%s: this is no regular file", path));
    if (status.st_size > most_bytes) return problems.bad.add(format("%s: the file has more than 1 MiB", path));
  }
  if (g_file_get_contents(path, out(text), &length, out(error)) == FALSE) return problems.bad.add(error->message);
  read_text(path, {text.get(), length}, problems);
}

void Settings::read_text(const char *path, std::string_view text, Problems &problems) {
  if (g_utf8_validate_len(text.data(), text.size(), nullptr) == FALSE) {
    return problems.bad.add(format("%s: the file is not UTF-8", path));
  }
  if (text.starts_with("\xef\xbb\xbf"))
    return problems.bad.add(format("%s: the file begins with a byte order mark", path));
  std::string_view left = text;
  std::string group;
  for (guint number = 1; !left.empty(); ++number) {
    const std::size_t end = left.find('\n');
    read_line(left.substr(0, end), group, {path, number}, problems);
    left.remove_prefix(end == std::string_view::npos ? left.size() : end + 1);
  }
}

Problems Settings::load(const char *const *files) {
  Problems problems;
  std::vector<Setting> before = settings_;
  settings_.swap(before);  // the texts that are kept if the load fails stay where they are
  for (Setting &setting : settings_) setting.value = cleaned(setting.initial);
  const Handle<PTZSettingsFile, g_free> records(
      g_new0(PTZSettingsFile, g_strv_length(const_cast<gchar **>(files)) + 1));
  for (PTZSettingsFile *record = records.get(); *files != nullptr; ++files, ++record) {
    read_file(*files, problems);
    *record = {*files, TRUE};
  }
  if (records->path != nullptr && problems.bad.empty() &&
      ptz_settings_load_config_gkf(records.get(), nullptr) == FALSE) {
    problems.bad.add("the settings cannot be loaded; the log says why");
  }
  if (!problems.bad.empty()) settings_.swap(before);
  return problems;
}

const Setting *Settings::find(const char *group, const char *key, PTZKitSettingKind kind) {
  const Setting *setting = look_up(group, key);
  if (setting != nullptr && setting->kind == kind) return setting;
  g_critical("no setting [%s] %s of this kind is declared", group, key);
  return nullptr;
}

// A setting that several numbered groups have is described once, for all of them.
std::string Settings::describe() const {
  std::string text = "Settings of --config:";
  std::vector<bool> is_described(settings_.size());
  for (std::size_t first = 0; first < settings_.size(); ++first) {
    if (is_described[first]) continue;
    std::size_t last = first;
    for (std::size_t index = first + 1; index < settings_.size(); ++index) {
      if (is_described[index] || !are_numbered_alike(settings_[first], settings_[index])) continue;
      is_described[index] = true;
      last = index;
    }
    text += described(settings_[first], settings_[last].group);
  }
  return text;
}

bool boolean_of(const Setting &setting) { return parse_boolean(setting.value).value_or(false); }
gint64 integer_of(const Setting &setting) { return parse_integer(setting.value).value_or(0); }

}  // namespace ptz_kit
