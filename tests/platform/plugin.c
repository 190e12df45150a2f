/* A driver's plug-in, which uses the status store with a key of its own. The linker gives two of them, whose keys have
 * the same length, the same layout. */
#include "platform/status_store.h"

const gchar *
plugin_key (void)
{
  return KEY;
}

gint
plugin_set (gint32 value)
{
  StatusStoreParam param = { KEY, sizeof value, &value, 1 };
  StatusStoreParam *params[] = { &param, NULL };

  return status_store_set_group ("G", params, 2);
}
