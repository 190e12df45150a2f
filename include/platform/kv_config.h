/* kv_config.h - the platform's reader of key-value configuration files; one file open at a time in a process. */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * KvConfigRecord:
 * @group: the group that the key belongs to
 * @key: the key
 * @value: (nullable): the value
 *
 * One setting. The texts belong to the reader and last until the next call of it.
 */
typedef struct {
  const gchar *group;
  const gchar *key;
  const gchar *value;
} KvConfigRecord;

/**
 * kv_config_open:
 * @path: (type filename): the file to read. Of a pipe the library reads a copy into memory itself: then this is a path
 *   below /proc/self/fd
 *
 * Thread: one at a time.
 *
 * Returns: non-zero on success; 0 with errno set when the file cannot be opened
 */
gint kv_config_open (const gchar *path);

/**
 * kv_config_get:
 *
 * Thread: the one that opened the file.
 *
 * Returns: (transfer none) (nullable): the next setting of the open file; `NULL` at its end
 */
const KvConfigRecord *kv_config_get (void);

/**
 * kv_config_close:
 *
 * Closes the open file. Has no effect if no file is open.
 *
 * Thread: the one that opened the file.
 */
void kv_config_close (void);

G_END_DECLS
