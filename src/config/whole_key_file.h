// src/config/whole_key_file.h - files as the loaders of settings and key files read them, with errors as GLib words
// them.
#pragma once
#include <string>

#include "base/handles.h"
#include "base/whole_file.h"

namespace ptz {

inline constexpr char not_a_file[] = "Not a regular file";

inline void set_not_a_file(GError **error) { g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, not_a_file); }

inline void set_file_error(GError **error) {
  const int reason = errno;
  g_set_error_literal(error, G_FILE_ERROR, g_file_error_from_errno(reason), g_strerror(reason));
}

// Sockets and devices would keep their reader for ever: they are refused as files that cannot be opened.
[[nodiscard]] inline UniqueFd open_with_end(const gchar *path, struct stat &status, GError **error) {
  UniqueFd file = open_and_examine(path, status);
  if (!file) {
    set_file_error(error);
  } else if (!can_be_read_whole(status)) {
    set_not_a_file(error);
    file.reset();
  }
  return file;
}

// As g_key_file_load_from_file() with no flags, which opens a pipe only once somebody writes to it, to refuse it then.
[[nodiscard]] inline bool load_key_file(GKeyFile *key_file, const gchar *path, GError **error) {
  struct stat status = {};
  const UniqueFd file = open_with_end(path, status, error);
  if (!file) return false;
  if (!S_ISREG(status.st_mode)) {
    g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_PARSE, not_a_file);
    return false;
  }
  std::string text;
  PipeDeadline unused;
  if (!read_to_end(file.get(), status, text, unused)) {
    set_file_error(error);
    return false;
  }
  return g_key_file_load_from_data(key_file, text.data(), text.size(), G_KEY_FILE_NONE, error) != FALSE;
}

}  // namespace ptz
