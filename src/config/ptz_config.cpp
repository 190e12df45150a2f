#include "ptz_config.h"

#include <glib/gstdio.h>
#include <unistd.h>

#include "base/check.h"
#include "base/handles.h"
#include "config/whole_key_file.h"
#include "platform/file_util.h"

namespace {

constexpr char header_group[] = "Header";
constexpr char major_key[] = "VersionMajor";
constexpr char minor_key[] = "VersionMinor";
constexpr int directory_mode = 0775;

bool read_version(GKeyFile *key_file, const char *key, gint &number, GError **error) {
  ptz::Error failure;
  number = g_key_file_get_integer(key_file, header_group, key, ptz::out(failure));
  if (failure == nullptr) return true;
  g_propagate_error(error, failure.release());
  return false;
}

}  // namespace

GKeyFile *ptz_config_init_key_file(const gchar *path, gint major, gint minor, gboolean *compatible, GError **error) {
  g_return_val_if_fail(path != NULL, NULL);
  ptz::KeyFile key_file(g_key_file_new());
  bool usable = true;
  if (!g_file_test(path, G_FILE_TEST_EXISTS)) {
    g_key_file_set_integer(key_file.get(), header_group, major_key, major);
    g_key_file_set_integer(key_file.get(), header_group, minor_key, minor);
  } else {
    gint stored_major = 0, stored_minor = 0;
    if (!ptz::load_key_file(key_file.get(), path, error) ||
        !read_version(key_file.get(), major_key, stored_major, error) ||
        !read_version(key_file.get(), minor_key, stored_minor, error)) {
      return nullptr;
    }
    usable = stored_major == major && stored_minor >= minor;
  }
  if (compatible != nullptr) *compatible = usable ? TRUE : FALSE;
  return key_file.release();
}

gboolean ptz_config_store_key_file(const gchar *path, GKeyFile *key_file, GError **error) {
  g_return_val_if_fail(path != NULL, FALSE);
  g_return_val_if_fail(key_file != NULL, FALSE);
  gsize length = 0;
  const ptz::Text text(g_key_file_to_data(key_file, &length, error));
  if (text == nullptr) return FALSE;
  const ptz::Text directory(g_path_get_dirname(path));
  if (!g_file_test(directory.get(), G_FILE_TEST_IS_DIR)) g_mkdir_with_parents(directory.get(), directory_mode);
  if (length == 0) {
    g_unlink(path);
    return TRUE;
  }
  return file_util_set_contents_synced(path, text.get(), length, error);
}
