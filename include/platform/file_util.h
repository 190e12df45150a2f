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
 * Replaces the file as a whole and flushes it to storage before it returns. Where that fails, the old file is whole.
 *
 * Thread: any.
 *
 * Returns: `TRUE` on success; `FALSE` with @error set
 */
gboolean file_util_set_contents_synced (const gchar *path, const gchar *data, gsize length, GError **error);

G_END_DECLS
