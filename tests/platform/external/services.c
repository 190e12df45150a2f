/* A device's platform services, as little of them as the library calls: no file is touched. */
#include "platform/config_event.h"
#include "platform/file_util.h"
#include "platform/kv_config.h"
#include "platform/param_service.h"
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

void
param_service_reset_options (ParamServiceOptions *options)
{
  *options = (ParamServiceOptions) { 0 };
}

gchar *
param_service_get_custom (const gchar *path, ParamServiceOptions *options, gint32 *error)
{
  return g_strdup_printf ("device: %s, mode %d", path, options->mode);
}

void
param_service_set_custom (const gchar *path, const gchar *value, ParamServiceOptions *options, gint32 *error)
{
  *error = -100 - options->mode;
}

gchar *
param_service_create_dynamic_group (const gchar *group_path, const gchar *template_name, ParamServiceOptions *options, gint32 *error)
{
  return NULL;
}

void
param_service_delete_group (const gchar *group_path, ParamServiceOptions *options, gint32 *error)
{
}

void
param_service_sync (ParamServiceOptions *options, gint32 *error)
{
}

ParamServiceGroupContext *
param_service_get_params (const gchar *group_path, ParamServiceOptions *options, gint32 *error)
{
  return NULL;
}

void
param_service_get_param (ParamServiceGroupContext *context, ParamServiceOptions *options, gint32 *error)
{
}

ParamServiceGroupContext *
param_service_get_child_groups (const gchar *group_path, ParamServiceOptions *options, gint32 *error)
{
  return NULL;
}

void
param_service_get_child_group (ParamServiceGroupContext *context, ParamServiceOptions *options, gint32 *error)
{
}

void
param_service_cleanup_group_context (ParamServiceGroupContext *context)
{
}

static gchar *changes;

ConfigEvent *
config_event_new (const gchar *event_name, gint first, gint second)
{
  return NULL;
}

gboolean
config_event_declare (ConfigEvent *event, const gchar *owner, const gchar *object_path, const gchar *interface_name, GError **error)
{
  return FALSE;
}

gboolean
config_event_undeclare (ConfigEvent *event, const gchar *owner, const gchar *object_path, const gchar *interface_name, GError **error)
{
  return config_event_declare (event, owner, object_path, interface_name, error);
}

void
config_event_init_change_string (ConfigEvent *event)
{
  g_clear_pointer (&changes, g_free);
}

void
config_event_append_escaped_pair (ConfigEvent *event, const gchar *key, const gchar *value)
{
  changes = g_strdup_printf ("<%s><%s>", key, value);
}

gboolean
config_event_send (ConfigEvent *event, const gchar *owner, const gchar *object_path, const gchar *interface_name,
                   const gchar *event_key, gint event_kind, GError **error)
{
  gchar *sent = g_strdup_printf ("%s %s %s %d %s", owner, object_path, event_key, event_kind, changes);
  gboolean expected = g_strcmp0 (sent, "device /head /head/2 7 <Speed><3>") == 0;
  g_free (sent);
  return expected;
}

void
config_event_free (ConfigEvent *event)
{
  g_clear_pointer (&changes, g_free);
}
