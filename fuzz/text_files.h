// fuzz/text_files.h - what the targets of text readers share: inputs as files, and the log as a witness.
#pragma once
#include <glib.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ptz_fuzz {

template <auto free_function>
struct FreeWith {
  template <typename T>
  void operator()(T *pointer) const {
    free_function(pointer);
  }
};
using Text = std::unique_ptr<gchar, FreeWith<g_free>>;
using TextList = std::unique_ptr<gchar *, FreeWith<g_strfreev>>;
using KeyFile = std::unique_ptr<GKeyFile, FreeWith<g_key_file_unref>>;
using Error = std::unique_ptr<GError, FreeWith<g_error_free>>;

// A file in memory, which is reached by its path as any other.
class MemoryFile {
  int fd_;
  std::string path_;

 public:
  MemoryFile();
  MemoryFile(const MemoryFile &) = delete;
  ~MemoryFile();
  void hold(std::string_view bytes) const;
  [[nodiscard]] const char *path() const { return path_.c_str(); }
};

// An input that stands for several files has a record separator (1E) between them.
std::vector<std::string_view> parts_of(const std::uint8_t *data, std::size_t size, std::size_t count);

// What was written to the system log since the last call. Anything that is logged through GLib is a finding.
std::vector<std::string> take_log();

// The key file that GLib makes of a text, if it does.
struct Parsed {
  KeyFile key_file;
  bool complete;
};
Parsed parse(std::string_view text);

// A load of settings succeeded where GLib's did, or said in one line that it did not.
void require_same_load(bool loaded, const Parsed &expected);

std::optional<std::string> owned(gchar *text);
std::vector<std::string> owned(gchar **texts);

// A key file's value as an accessor of the settings returns it.
std::optional<std::string> cleaned_value(GKeyFile *key_file, const std::string &group, const std::string &key);

std::string latin1_as_utf8(std::string_view text);

std::optional<std::string> value_in(GKeyFile *key_file, const std::string &group, const std::string &key);

}  // namespace ptz_fuzz
