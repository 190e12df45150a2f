/* ptz_settings.h - static configuration from text files: three stores, their loaders and their typed accessors.
 *
 *   store            loaded by                                              files
 *   key-file store   ptz_settings_load_config_gkf()                         GLib key files, read raw
 *   parsed store     ptz_settings_load_config(), ..._load_config_ext()      what the platform's key-value reader reads
 *   shell store      ptz_settings_shell_load_config()                       KEY=value lines, no groups
 *
 * The group accessors ask the key-file store first, then the parsed store: the first that has the group answers, also
 * where the key is missing there and present in the other. The shell accessors ask the shell store only.
 *
 * Each load throws away what its store held, also where it fails. Loaders hold their store's lock for the whole load,
 * including the listing of patterns and every read, so readers in other threads wait and never see half of it. A record
 * without a proper group or key is left out.
 *
 * A pipe is read until its last writer has gone. One load waits at most 10 seconds for the pipes among all its files
 * together, counted from the first wait; opening and reading share this deadline. A pipe that has brought nothing by
 * then cannot be opened. One that has a writer still, or brings more than 16 MiB, cannot be read. A device or a socket,
 * which may have no end, cannot be opened; /dev/null is an empty file. The files of the parsed store are read by the
 * platform, which gets a copy of a pipe in memory; one of its files that cannot be read cannot be opened either.
 *
 * A group that begins with "root." or "ROOT." is looked up without these five characters. An index of 0 or more is
 * appended to the group's name in decimal; a negative one is not.
 *
 * Every string result is cleaned up: a pair of equal quotes around it is removed, and escape sequences that are left
 * are resolved. Values of the key-file and shell stores had their key-file escapes resolved before that; a value of the
 * parsed store reaches the clean-up as the file has it.
 *
 * All results are new and the caller's to free. What goes wrong is written to the system log.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * PTZSettingsFile:
 * @path: (type filename): a path, or a pattern for the shell; `NULL` ends an array
 * @mandatory: whether a file that cannot be opened makes the load fail; for a pattern also whether it is logged when
 *   no file matches
 *
 * A file to load, or a pattern of such.
 */
typedef struct {
  const gchar *path;
  gboolean mandatory;
} PTZSettingsFile;

/**
 * PTZSettingsFileExt:
 * @path: (type filename): as in #PTZSettingsFile
 * @mandatory: as in #PTZSettingsFile
 * @convert: whether values that are not UTF-8 are taken for ISO-8859-1 and converted
 *
 * A file to load into the parsed store, or a pattern of such.
 */
typedef struct {
  const gchar *path;
  gboolean mandatory;
  gboolean convert;
} PTZSettingsFileExt;

/**
 * PTZSettingsIterateCallback:
 * @name: the full name of the parameter: the group as it was asked for, the index, a dot and the key
 * @value: (nullable): its value; `NULL` where it cannot be read as text
 * @user_data: what was given to ptz_settings_iterate_group()
 *
 * Receives one parameter, with no lock held. Both texts are valid during the call.
 *
 * Returns: `FALSE` to stop
 */
typedef gboolean (*PTZSettingsIterateCallback) (const gchar *name, const gchar *value, gpointer user_data);

/**
 * ptz_settings_find_config_files:
 * @files: one or several patterns, expanded by the shell: trusted text only
 * @report: whether to log when a file is not found
 *
 * Where one of several patterns matches nothing, the matches of the others are discarded too. Names of 199 characters
 * and more are not returned properly.
 *
 * Thread: any; waits for a child process.
 *
 * Returns: (transfer full) (array zero-terminated=1) (nullable): the names, in the order of a listing, to be released
 *   with g_strfreev()
 */
PTZ_API gchar **ptz_settings_find_config_files (const gchar *files, gboolean report);

/**
 * ptz_settings_load_config: (skip)
 * @files: (nullable): the paths to load, ended by a record with a `NULL` path; borrowed
 * @patterns: (nullable): the patterns to load after them, ended likewise; borrowed
 *
 * As ptz_settings_load_config_ext(), converting every file.
 *
 * Thread: any; blocks on the files.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_settings_load_config (const PTZSettingsFile *files, const PTZSettingsFile *patterns);

/**
 * ptz_settings_load_config_ext: (skip)
 * @files: (nullable): the paths to load, ended by a record with a `NULL` path; borrowed
 * @patterns: (nullable): the patterns to load after them, ended likewise; borrowed
 *
 * Loads the parsed store. A later file overrides an earlier one. After a failure the store holds what was loaded
 * before it.
 *
 * Thread: any; blocks on the files.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_settings_load_config_ext (const PTZSettingsFileExt *files, const PTZSettingsFileExt *patterns);

/**
 * ptz_settings_load_config_gkf: (skip)
 * @files: (nullable): the paths to load, ended by a record with a `NULL` path; borrowed
 * @patterns: (nullable): the patterns to load after them, ended likewise; borrowed
 *
 * Loads the key-file store. All files are parsed as one text, so a group may go on in a later file, and a key there
 * overrides an earlier one. After a text that does not parse the store is empty; after another failure, and where no
 * file was read at all, it is absent.
 *
 * Thread: any; blocks on the files.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_settings_load_config_gkf (const PTZSettingsFile *files, const PTZSettingsFile *patterns);

/**
 * ptz_settings_shell_load_config: (skip)
 * @files: (nullable): the paths to load, ended by a record with a `NULL` path; borrowed
 *
 * Loads the shell store. A later file's key overrides an earlier one's. A file that is not UTF-8 is taken for
 * ISO-8859-1 as a whole. A line that is neither a comment nor KEY=value makes the load fail and leaves the store empty.
 *
 * Thread: any; blocks on the files.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_settings_shell_load_config (const PTZSettingsFile *files);

/**
 * ptz_settings_has_group:
 * @group_name: a group
 * @index: its index, or negative
 *
 * Thread: any.
 *
 * Returns: whether either group store has the group
 */
PTZ_API gboolean ptz_settings_has_group (const gchar *group_name, gint index);

/**
 * ptz_settings_has_custom_group:
 * @group_name: a group
 *
 * Thread: any.
 *
 * Returns: whether either group store has the group
 */
PTZ_API gboolean ptz_settings_has_custom_group (const gchar *group_name);

/**
 * ptz_settings_get_group:
 * @group_name: a group
 * @index: its index, or negative
 *
 * Thread: any.
 *
 * Returns: (transfer full) (array zero-terminated=1) (nullable): the names of its keys, to be released with
 *   g_strfreev(); `NULL` for no such group
 */
PTZ_API gchar **ptz_settings_get_group (const gchar *group_name, gint index);

/**
 * ptz_settings_get_custom_group:
 * @group_name: a group
 *
 * Thread: any.
 *
 * Returns: (transfer full) (array zero-terminated=1) (nullable): the names of its keys, to be released with
 *   g_strfreev(); `NULL` for no such group
 */
PTZ_API gchar **ptz_settings_get_custom_group (const gchar *group_name);

/**
 * ptz_settings_get_string:
 * @group_name: a group
 * @index: its index, or negative
 * @key: a key
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value
 */
PTZ_API gchar *ptz_settings_get_string (const gchar *group_name, gint index, const gchar *key);

/**
 * ptz_settings_get_custom_string:
 * @group_name: a group
 * @key: a key
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value
 */
PTZ_API gchar *ptz_settings_get_custom_string (const gchar *group_name, const gchar *key);

/**
 * ptz_settings_get_boolean:
 * @group_name: a group
 * @index: its index, or negative
 * @key: a key
 * @value: (out): whether the value begins with "Y", "y", "T" or "t"; untouched where nothing was found
 *
 * Thread: any.
 *
 * Returns: whether there is a value that is not empty
 */
PTZ_API gboolean ptz_settings_get_boolean (const gchar *group_name, gint index, const gchar *key, gboolean *value);

/**
 * ptz_settings_get_custom_boolean:
 * @group_name: a group
 * @key: a key
 * @value: (out): as in ptz_settings_get_boolean()
 *
 * Thread: any.
 *
 * Returns: whether there is a value that is not empty
 */
PTZ_API gboolean ptz_settings_get_custom_boolean (const gchar *group_name, const gchar *key, gboolean *value);

/**
 * ptz_settings_get_int64:
 * @group_name: a group
 * @index: its index, or negative
 * @key: a key
 * @value: (out): the number: decimal, hexadecimal with "0x" or octal with a leading zero; text after it is ignored. 0
 *   for a value that is no number; untouched where nothing was found
 *
 * Thread: any.
 *
 * Returns: whether there is a number
 */
PTZ_API gboolean ptz_settings_get_int64 (const gchar *group_name, gint index, const gchar *key, gint64 *value);

/**
 * ptz_settings_get_custom_int64:
 * @group_name: a group
 * @key: a key
 * @value: (out): as in ptz_settings_get_int64()
 *
 * Thread: any.
 *
 * Returns: whether there is a number
 */
PTZ_API gboolean ptz_settings_get_custom_int64 (const gchar *group_name, const gchar *key, gint64 *value);

/**
 * ptz_settings_get_int:
 * @group_name: a group
 * @index: its index, or negative
 * @key: a key
 * @value: (out): the number, untouched unless the result is `TRUE`
 *
 * Thread: any.
 *
 * Returns: whether there is a number of 32 bits
 */
PTZ_API gboolean ptz_settings_get_int (const gchar *group_name, gint index, const gchar *key, gint32 *value);

/**
 * ptz_settings_get_custom_int:
 * @group_name: a group
 * @key: a key
 * @value: (out): the number, untouched unless the result is `TRUE`
 *
 * Thread: any.
 *
 * Returns: whether there is a number of 32 bits
 */
PTZ_API gboolean ptz_settings_get_custom_int (const gchar *group_name, const gchar *key, gint32 *value);

/**
 * ptz_settings_get_vp:
 * @path_format: printf-like format of a path: the group, the last dot, the key; `NULL` aborts
 * @...: its arguments
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value; `NULL` also for a path without a dot
 */
PTZ_API gchar *ptz_settings_get_vp (const gchar *path_format, ...) G_GNUC_PRINTF (1, 2);

/**
 * ptz_settings_get_int_vp:
 * @value: (out): the number, untouched unless the result is `TRUE`
 * @path_format: printf-like format of a path: the group, the last dot, the key; `NULL` aborts
 * @...: its arguments
 *
 * Thread: any.
 *
 * Returns: whether there is a number of 32 bits
 */
PTZ_API gboolean ptz_settings_get_int_vp (gint32 *value, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_settings_iterate_group: (skip)
 * @group_name: a group
 * @index: its index, or negative
 * @user_data: passed to @callback; borrowed
 * @callback: (scope call): receives each parameter, in the order of the store
 *
 * Thread: any; @callback runs in the calling thread.
 *
 * Returns: `TRUE` when there is such a group and every call of @callback returned `TRUE`
 */
PTZ_API gboolean ptz_settings_iterate_group (const gchar *group_name, gint index, gpointer user_data,
                                             PTZSettingsIterateCallback callback);

/**
 * ptz_settings_shell_get_string:
 * @key_format: printf-like format of a key
 * @...: its arguments
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value
 */
PTZ_API gchar *ptz_settings_shell_get_string (const gchar *key_format, ...) G_GNUC_PRINTF (1, 2);

/**
 * ptz_settings_shell_get_boolean:
 * @value: (out): as in ptz_settings_get_boolean()
 * @key_format: printf-like format of a key
 * @...: its arguments
 *
 * Thread: any.
 *
 * Returns: whether there is a value that is not empty
 */
PTZ_API gboolean ptz_settings_shell_get_boolean (gboolean *value, const gchar *key_format, ...) G_GNUC_PRINTF (2, 3);

G_END_DECLS
