/* param_service_backup.h - copies of the parameter tree.
 *
 * An optional part of the platform boundary: the library does not call these functions. ptzctl uses them if the platform
 * library has them.
 */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * param_service_backup:
 * @file: (type filename): the file to write
 * @error: return location for an error, or `NULL`
 *
 * Writes one consistent snapshot of the parameter tree to a file. The file is replaced as a whole and is durable when the
 * function returns; if it fails, an existing file is unchanged. Other processes may read and write the tree meanwhile.
 * Only the user can read the file. A file of the tree itself is no valid @file (%G_IO_ERROR_INVALID_ARGUMENT). Reads of
 * other threads go on; the copy is held in memory.
 *
 * Thread: any; blocks on the storage.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set, in `G_FILE_ERROR` or `G_IO_ERROR`
 */
gboolean param_service_backup (const gchar *file, GError **error);

/**
 * param_service_restore:
 * @file: (type filename): a file that param_service_backup() wrote, or a copy of a parameter database
 * @error: return location for an error, or `NULL`
 *
 * Replaces the whole parameter tree by the content of a file, as a whole. Other processes see the old tree or the new one,
 * never a mixture, and follow within two seconds. Reads of other threads go on; writes wait until the new tree is on the
 * storage, and a fork() waits until @file is checked. If it fails, the tree is unchanged, unless the message says that it
 * is restored and may not survive a power failure.
 *
 * Thread: any; blocks on the storage.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set, in `G_FILE_ERROR` or `G_IO_ERROR`
 */
gboolean param_service_restore (const gchar *file, GError **error);

G_END_DECLS
