// src/config/blocking_file.h - files that would keep their reader waiting, perhaps with a lock held.
#pragma once
#include <glib.h>
#include <sys/stat.h>

namespace ptz {

// Opening a pipe waits for a writer that may never come.
[[nodiscard]] inline bool is_pipe(const gchar *path) {
  struct stat status = {};
  return stat(path, &status) == 0 && S_ISFIFO(status.st_mode);
}

inline void set_pipe_error(GError **error) {
  g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, "Not a regular file");
}

// As g_key_file_load_from_file() with no flags.
[[nodiscard]] inline bool load_key_file(GKeyFile *key_file, const gchar *path, GError **error) {
  if (is_pipe(path)) {
    set_pipe_error(error);
    return false;
  }
  return g_key_file_load_from_file(key_file, path, G_KEY_FILE_NONE, error) != FALSE;
}

}  // namespace ptz
