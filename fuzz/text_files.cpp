#include "text_files.h"

#include <sys/mman.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "fuzz_target.h"
#include "interpose.h"

namespace {

std::vector<std::string> lines;

// A check that fails on any text at all is a programming error of the reader.
[[maybe_unused]] const GLogLevelFlags fatal =
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING));

std::string without_lone_backslash(std::string text) {
  const auto last = text.find_last_not_of('\\');
  const auto backslashes = text.size() - (last == std::string::npos ? 0 : last + 1);
  if (backslashes % 2 == 1) text.pop_back();
  return text;
}

}  // namespace

INTERPOSE(void, syslog, (int, const char *format, ...)) {
  char text[8192];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  lines.emplace_back(text);
}

namespace ptz_fuzz {

MemoryFile::MemoryFile() : fd_(memfd_create("input", MFD_CLOEXEC)), path_("/proc/self/fd/" + std::to_string(fd_)) {
  REQUIRE(fd_ >= 0);
}

MemoryFile::~MemoryFile() { close(fd_); }

void MemoryFile::hold(std::string_view bytes) const {
  REQUIRE(ftruncate(fd_, 0) == 0);
  REQUIRE(pwrite(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
}

std::vector<std::string_view> parts_of(const std::uint8_t *data, std::size_t size, std::size_t count) {
  std::string_view rest(reinterpret_cast<const char *>(data), size);
  std::vector<std::string_view> parts;
  while (parts.size() + 1 < count) {
    const auto part = rest.substr(0, rest.find('\x1E'));
    parts.push_back(part);
    rest.remove_prefix(std::min(rest.size(), part.size() + 1));
  }
  parts.push_back(rest);
  return parts;
}

std::vector<std::string> take_log() { return std::exchange(lines, {}); }

Parsed parse(std::string_view text) {
  Parsed parsed{KeyFile(g_key_file_new()), false};
  parsed.complete =
      g_key_file_load_from_data(parsed.key_file.get(), text.data(), text.size(), G_KEY_FILE_NONE, nullptr) != FALSE;
  return parsed;
}

void require_same_load(bool loaded, const Parsed &expected) {
  const auto log = take_log();
  REQUIRE(loaded == expected.complete);
  REQUIRE(log.size() == (loaded ? 0 : 1));
  REQUIRE(loaded || log[0].starts_with("could not load settings: "));
}

std::optional<std::string> owned(gchar *text) {
  const Text handle(text);
  return handle ? std::optional<std::string>(handle.get()) : std::nullopt;
}

std::vector<std::string> owned(gchar **texts) {
  const TextList handle(texts);
  return handle ? std::vector<std::string>(handle.get(), handle.get() + g_strv_length(handle.get()))
                : std::vector<std::string>();
}

std::string latin1_as_utf8(std::string_view text) {
  std::string converted;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x80) converted.push_back(static_cast<char>(0xC0 | byte >> 6));
    converted.push_back(byte >= 0x80 ? static_cast<char>(0x80 | (byte & 0x3F)) : c);
  }
  return converted;
}

std::optional<std::string> value_in(GKeyFile *key_file, const std::string &group, const std::string &key) {
  const auto raw = owned(g_key_file_get_value(key_file, group.c_str(), key.c_str(), nullptr));
  if (!raw) return raw;
  // A lone backslash at the end is nothing, but GLib would warn of it after an unknown escape.
  const auto whole = without_lone_backslash(*raw);
  if (whole != *raw) g_key_file_set_value(key_file, group.c_str(), key.c_str(), whole.c_str());
  return owned(g_key_file_get_string(key_file, group.c_str(), key.c_str(), nullptr));
}

std::optional<std::string> cleaned_value(GKeyFile *key_file, const std::string &group, const std::string &key) {
  auto value = value_in(key_file, group, key);
  if (!value) return value;
  if (value->size() >= 2 && value->front() == value->back() && (value->front() == '"' || value->front() == '\'')) {
    value = value->substr(1, value->size() - 2);
  }
  return owned(g_strcompress(without_lone_backslash(*value).c_str()));
}

}  // namespace ptz_fuzz
