// src/config/endless_file.h - files that would keep their reader for ever, perhaps with a lock held: pipes, sockets and
// devices. They are refused as files that cannot be opened.
#pragma once
#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>

#include "base/file_kind.h"
#include "base/handles.h"

namespace ptz {

inline constexpr char not_a_file[] = "Not a regular file";

inline void set_not_a_file(GError **error) { g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_INVAL, not_a_file); }

inline void set_file_error(GError **error) {
  const int reason = errno;
  g_set_error_literal(error, G_FILE_ERROR, g_file_error_from_errno(reason), g_strerror(reason));
}

// What is opened is what is examined: the path may name something else a moment later.
[[nodiscard]] inline UniqueFd open_with_end(const gchar *path, struct stat &status, GError **error) {
  // Opening a pipe that nobody writes to would wait.
  UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file || fstat(file.get(), &status) < 0) {
    set_file_error(error);
    return UniqueFd();
  }
  if (!has_end(status)) {
    set_not_a_file(error);
    return UniqueFd();
  }
  return file;
}

// As g_key_file_load_from_file() with no flags, which waits for whatever the path names.
[[nodiscard]] inline bool load_key_file(GKeyFile *key_file, const gchar *path, GError **error) {
  struct stat status = {};
  const UniqueFd file = open_with_end(path, status, error);
  if (!file) return false;
  if (!S_ISREG(status.st_mode)) {
    g_set_error_literal(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_PARSE, not_a_file);
    return false;
  }
  const StringBuffer text(g_string_sized_new(static_cast<gsize>(status.st_size) + 1));
  char chunk[16384];
  while (true) {
    const ssize_t count = read(file.get(), chunk, sizeof chunk);
    if (count == 0) break;
    if (count > 0) {
      g_string_append_len(text.get(), chunk, count);
    } else if (errno != EINTR) {
      set_file_error(error);
      return false;
    }
  }
  return g_key_file_load_from_data(key_file, text->str, text->len, G_KEY_FILE_NONE, error) != FALSE;
}

}  // namespace ptz
