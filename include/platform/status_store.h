/* status_store.h - the platform's status store: named groups of small values that the processes of a device share.
 *
 * A group has a size, which bounds the sum of its keys' bytes (with the NUL of each) and its values' bytes. It lives
 * until the device is restarted, whoever made it.
 */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * StatusStoreParam:
 * @key: the value's name in its group
 * @size: bytes of the value
 * @value: where the value is read from, or written to
 * @type: what the value is; the store compares it and knows no more of it
 *
 * One value of a group, in a variable of the caller.
 */
typedef struct {
  const gchar *key;
  guint32 size;
  gpointer value;
  guint32 type;
} StatusStoreParam;

/**
 * status_store_create_group:
 * @name: the group
 * @size: its size in bytes
 * @mode: a mode word of the platform
 *
 * Makes a group without values.
 *
 * Thread: any.
 *
 * Returns: not negative on success; negative with errno set, EEXIST where there is such a group already
 */
gint status_store_create_group (const gchar *name, guint32 size, gint mode);

/**
 * status_store_set_group:
 * @name: the group
 * @params: (array zero-terminated=1): the values to write
 * @mode: a mode word of the platform
 *
 * Adds or replaces the given values, all of them or none.
 *
 * Thread: any.
 *
 * Returns: not negative on success; negative with errno set, ENOENT where there is no such group
 */
gint status_store_set_group (const gchar *name, StatusStoreParam **params, gint mode);

/**
 * status_store_get_group:
 * @name: the group
 * @params: (array zero-terminated=1): the values to read
 * @mode: a mode word of the platform
 *
 * Reads those of the given values that the group holds with the same size and type, all from one moment. The others
 * are left as they are.
 *
 * Thread: any.
 *
 * Returns: how many were read; negative with errno set, ENOENT where there is no such group
 */
gint status_store_get_group (const gchar *name, StatusStoreParam **params, gint mode);

G_END_DECLS
