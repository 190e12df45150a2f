/* file_util.h - the platform's file utility. */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * file_util_set_contents_synced:
 * @path: (type filename): the file to write
 * @data: (array length=length): what it is to hold; borrowed
 * @length: bytes in @data
 * @error: return location for an error, or `NULL`
 *
 * Replaces the file as a whole and flushes it to storage before it returns. If that fails, the old file is unchanged.
 * Readers see the old content or the new one, never a part.
 *
 * The new file has the permissions (with an access control list), the owner and the group of the old one. If the caller may not set the owner or the
 * group, no user may read the new content that could not read the old one, except for the caller. A new file has the
 * mode 0644 less the umask. If @path is a symbolic link, the file that it leads to is replaced or created, and the link
 * stays. A path to anything but a regular file is an error.
 *
 * Thread: any.
 *
 * Returns: `TRUE` on success; `FALSE` with @error set
 */
gboolean file_util_set_contents_synced (const gchar *path, const gchar *data, gsize length, GError **error);

G_END_DECLS
