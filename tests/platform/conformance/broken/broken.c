/* Our platform library with mistakes that an implementation may have. test_platform_test.sh expects each to be found. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "platform/file_util.h"
#include "platform/kv_config.h"
#include "platform/param_service.h"
#include "platform/status_store.h"

/* Without a reference the linker would leave our library out. */
void (*const reference_to_ours) (ParamServiceOptions *options, gint32 *error) = param_service_sync;
#define OURS(function) ((__typeof__ (&(function))) dlsym (RTLD_NEXT, #function))

/* Writes the file in place, with the permissions of a new one, and follows no link. */
gboolean
file_util_set_contents_synced (const gchar *path, const gchar *data, gsize length, GError **error)
{
  if (g_file_test (path, G_FILE_TEST_IS_DIR))
    return OURS (file_util_set_contents_synced) (path, data, length, error);
  return g_file_set_contents_full (path, data, (gssize) length, G_FILE_SET_CONTENTS_CONSISTENT, 0666, error);
}

static gboolean is_open;

/* Aborts if the file does not exist. */
gint
kv_config_open (const gchar *path)
{
  if (!g_file_test (path, G_FILE_TEST_EXISTS))
    abort ();
  is_open = TRUE; /* ours closes the former file */
  is_open = OURS (kv_config_open) (path) != 0;
  return is_open;
}

/* Ends the process with status 0 if no file is open. */
void
kv_config_close (void)
{
  if (!is_open)
    exit (0);
  is_open = FALSE;
  OURS (kv_config_close) ();
}

/* Keeps only the first line of a value. */
gchar *
param_service_get_custom (const gchar *path, ParamServiceOptions *options, gint32 *error)
{
  gchar *value = OURS (param_service_get_custom) (path, options, error);
  if (value != NULL)
    value[strcspn (value, "\n")] = '\0';
  return value;
}

/* Reports success for a group that exists. */
gint
status_store_create_group (const gchar *name, guint32 size, gint mode)
{
  gint result = OURS (status_store_create_group) (name, size, mode);
  return result < 0 && errno == EEXIST ? 0 : result;
}
