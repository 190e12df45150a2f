/* A platform library that has one service only. */
#include "platform/file_util.h"

gboolean
file_util_set_contents_synced (const gchar *path, const gchar *data, gsize length, GError **error)
{
  return g_file_set_contents (path, data, (gssize) length, error);
}
