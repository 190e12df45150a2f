/* status_store.h - the platform's status store: named groups of small values that the processes of a device share.
 *
 * A group has a size, which bounds the sum of its keys' bytes (with the NUL of each) and its values' bytes. A group
 * exists until the device restarts, even if the process that created it ends.
 *
 * Readers and writers do not wait for each other. Writers wait for each other, for at most 100 ms. If a writer is
 * killed, the group keeps its last complete state, and the next writer proceeds as soon as the kernel has released the
 * memory of the killed process.
 *
 * The stand-alone platform keeps each group in a file of the folder `/run/ptz`, which the environment variable
 * `PTZ_PLATFORM_RUNTIME_DIR` replaces. The variable may be read as rarely as once a second. A file has the access of
 * its folder: the folder's group shares it, whatever the umask of the process that created it. A missing folder is
 * created with the mode 2770. A user who may read a file can hold new writers off by locking it, so keep strangers out of
 * the folder. The store refuses to write to a file that belongs neither to root, nor to the caller, nor to the folder's
 * group. A group that was removed and created anew is noticed within a second.
 *
 * Errors. Each function lists the error numbers of the stand-alone platform. Another implementation must report EEXIST,
 * ENOENT and ENOSPC under the same conditions, because callers act on them. Any call may also fail with an error of the
 * operating system, such as ENOMEM or EMFILE. The stand-alone platform logs the cause of a failed
 * status_store_set_group() itself, once a minute for each group, except for ENOENT and EINVAL. The other functions log
 * nothing.
 *
 * A process that writes groups keeps a descriptor for each of them. If the program closes all its descriptors, the next
 * second's updates are not protected against other writers: they may get lost, or damage the values until the next
 * update. A child made by fork() may use the store at once. A child made by clone() or _Fork() must call exec. A fork
 * handler of the program must not wait for a thread that calls the store.
 */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * StatusStoreParam:
 * @key: the name of the value in its group
 * @size: the size of the value in bytes
 * @value: the variable from which the value is read, or to which it is written
 * @type: the type of the value; the store only compares it
 *
 * One value of a group, in a variable of the caller.
 *
 * The store may recognise a key by its address if the key lies in read-only memory, as string literals do, of the main
 * program or of a library that is never unloaded (linked with -z nodelete). Any other key is compared as text: its
 * library may be unloaded, and a key in writable memory may change between two calls.
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
 * Creates a group without values. A group in the format of an older release is replaced.
 *
 * Thread: any.
 *
 * Returns: not negative on success; negative with errno set on failure: EEXIST if the group exists already; ENOSPC if
 *   the file system is full; EFBIG if @size is above 32768; EINVAL if @name is `NULL`, empty, longer than 200 bytes,
 *   begins with a dot or has a slash; EACCES if the caller may not create files in the folder; ENOENT if the parent of
 *   the folder does not exist; ENOTDIR if the folder is not one
 */
gint status_store_create_group (const gchar *name, guint32 size, gint mode);

/**
 * status_store_set_group:
 * @name: the group
 * @params: (array zero-terminated=1): the values to write
 * @mode: a mode word of the platform
 *
 * Adds or replaces the given values, all of them or none. If the current values are damaged, the stand-alone platform
 * adds the given ones to the newest values that are whole.
 *
 * Thread: any.
 *
 * Returns: not negative on success; negative with errno set on failure: ENOENT if there is no such group; ENOSPC if the
 *   values do not fit; EBUSY if another writer holds the group for 100 ms, for example because it was stopped in the
 *   middle of an update; EACCES if the caller may not write to the group; EBADMSG if the group has no whole values, is
 *   of another release, writable for every user, or belongs to a foreign user; ENOTDIR if the folder is not one; EINVAL
 *   if the name is not valid, @params is `NULL`, or a parameter has no key, no size or no variable
 */
gint status_store_set_group (const gchar *name, StatusStoreParam **params, gint mode);

/**
 * status_store_get_group:
 * @name: the group
 * @params: (array zero-terminated=1): the values to read
 * @mode: a mode word of the platform
 *
 * Reads those of the given values that the group holds with the same size and type, all from one moment. The variables
 * of the others keep their values.
 *
 * Thread: any.
 *
 * Returns: the number of values read; negative with errno set on failure: ENOENT if there is no such group or it was
 *   never written; EACCES if the caller may not read the group; EBADMSG if the group is damaged, of another release, or
 *   writable for every user; EBUSY if writers replaced the values 10,000 times during the call; ENOTDIR if the folder is
 *   not one; EINVAL if the name is not valid, @params is `NULL`, or a parameter has no key, no size or no variable
 */
gint status_store_get_group (const gchar *name, StatusStoreParam **params, gint mode);

G_END_DECLS
