/* ptz_config.h - the driver key file: what a driver keeps of its own on the device, with a version check. */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * ptz_config_init_key_file:
 * @path: (type filename): the driver's key file
 * @major: major version of the format that the driver writes
 * @minor: minor version of the format that the driver writes
 * @compatible: (out) (optional): whether the stored file can be used: its major version is @major and its minor
 *   version at least @minor. Set only with a result
 * @error: return location for an error, or `NULL`
 *
 * Opens the driver's key file. Where there is none yet, the result holds only the group "Header" with "VersionMajor"
 * and "VersionMinor", is compatible, and nothing is written. A file that is not compatible is returned too: the driver
 * decides what to do with it. Comments are not kept.
 *
 * Thread: any; blocks on the file.
 *
 * Returns: (transfer full) (nullable): the key file, to be released with g_key_file_free() or g_key_file_unref(); `NULL`
 *   with @error set when the file cannot be read or has no proper header. The file stays as it is
 */
PTZ_API GKeyFile *ptz_config_init_key_file (const gchar *path, gint major, gint minor, gboolean *compatible,
                                            GError **error);

/**
 * ptz_config_store_key_file:
 * @path: (type filename): the driver's key file
 * @key_file: what it is to hold; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Writes the key file, flushed to storage; where that fails the old file is whole. A missing directory is made with
 * its parents, mode 0775. A key file without any group removes the file.
 *
 * Thread: any; blocks on the file.
 *
 * Returns: `TRUE` on success; `FALSE` with @error set
 */
PTZ_API gboolean ptz_config_store_key_file (const gchar *path, GKeyFile *key_file, GError **error);

G_END_DECLS
