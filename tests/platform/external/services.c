/* A device's platform services, as little of them as the library calls: no file is touched. */
#include "platform/file_util.h"
#include "platform/kv_config.h"
#include "platform/status_store.h"
#include <errno.h>

static gchar *open_path;
static KvConfigRecord record;

gint
kv_config_open (const gchar *path)
{
  if (!g_str_has_prefix (path, "device:")) {
    errno = EXDEV;
    return 0;
  }
  open_path = g_strdup (path);
  record = (KvConfigRecord) { "Device", "OpenFile", open_path };
  return 1;
}

const KvConfigRecord *
kv_config_get (void)
{
  static KvConfigRecord current;
  current = record;
  record.group = NULL;
  return current.group != NULL ? &current : NULL;
}

void
kv_config_close (void)
{
  g_clear_pointer (&open_path, g_free);
}

gboolean
file_util_set_contents_synced (const gchar *path, const gchar *data, gsize length, GError **error)
{
  g_set_error (error, G_FILE_ERROR, G_FILE_ERROR_ROFS, "%s: %" G_GSIZE_FORMAT " bytes: %.*s", path, length, (int) length, data);
  return FALSE;
}

gint
status_store_create_group (const gchar *name, guint32 size, gint mode)
{
  (void) name, (void) size, (void) mode;
  errno = EROFS;
  return -1;
}

gint
status_store_set_group (const gchar *name, StatusStoreParam **params, gint mode)
{
  (void) name, (void) params, (void) mode;
  errno = EROFS;
  return -1;
}

gint
status_store_get_group (const gchar *name, StatusStoreParam **params, gint mode)
{
  (void) mode;
  if (!g_str_equal (name, "PTZ_LIMIT_IS7") || params[0] == NULL || !g_str_equal (params[0]->key, "MAX_PAN")) {
    errno = ENOENT;
    return -1;
  }
  *(gint32 *) params[0]->value = 4711;
  return 1;
}
