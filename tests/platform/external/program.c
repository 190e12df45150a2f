/* Sees through the public interface whose platform services the library calls. */
#include <ptz.h>

int
main (void)
{
  const PTZSettingsFile files[] = { { "device:settings", TRUE }, { NULL, FALSE } };
  g_assert_true (ptz_settings_load_config (files, NULL));
  gchar *value = ptz_settings_get_custom_string ("root.Device", "OpenFile");
  g_assert_cmpstr (value, ==, "device:settings");
  g_free (value);

  GKeyFile *key_file = g_key_file_new ();
  g_key_file_set_integer (key_file, "A", "B", 1);
  GError *error = NULL;
  g_assert_false (ptz_config_store_key_file ("driver.conf", key_file, &error));
  g_assert_error (error, G_FILE_ERROR, G_FILE_ERROR_ROFS);
  g_assert_cmpstr (error->message, ==, "driver.conf: 8 bytes: [A]\nB=1\n");
  g_error_free (error);
  g_key_file_free (key_file);
  g_assert_false (g_file_test ("driver.conf", G_FILE_TEST_EXISTS));

  gint32 max_pan = 0;
  PTZStatusCacheGroup *limits = ptz_status_cache_setup_group (PTZ_SC_GROUP_LIMIT, 7, 1);
  g_assert_true (ptz_status_cache_add_param (limits, PTZ_SC_PARAM_LIMIT_MAX_PAN, &max_pan));
  g_assert_true (ptz_status_cache_fetch_group (limits));
  g_assert_cmpint (max_pan, ==, 4711);
  ptz_status_cache_free_group (limits);

  value = ptz_tessel_get ("root.Device");
  g_assert_cmpstr (value, ==, "device: root.Device, mode 0");
  g_free (value);
  g_assert_cmpint (ptz_tessel_set ("root.Device", "v", FALSE, FALSE, FALSE, 0), ==, -109);

  PTZLegacyConfigHandler handler = { NULL, (gchar *) "device", (gchar *) "/head", NULL };
  GHashTable *changes = g_hash_table_new (g_str_hash, g_str_equal);
  g_hash_table_insert (changes, (gpointer) "Speed", (gpointer) "3");
  g_assert_true (ptz_legacy_config_send_event (&handler, 7, 2, changes));
  g_hash_table_unref (changes);
  return 0;
}
