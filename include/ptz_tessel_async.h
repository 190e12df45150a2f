/* ptz_tessel_async.h - changes of the parameter tree that are carried out in the background, one after another.
 *
 * A push returns at once, whatever the parameter service does. One worker thread carries the changes out in the order
 * of the pushes, as ptz_tessel_set_vp(), ptz_tessel_create_group_vp() and ptz_tessel_delete_group_vp() do. A write that
 * the service refuses is tried ten times, with 0, 1, 2 ... 9 seconds after each, and then dropped; every later change
 * waits for it. A write to a path of more than 127 bytes, which the service refuses, is dropped at once.
 *
 * A path is formatted once, by the push: per cent signs of its arguments stand for themselves. The path of a write, and
 * the path and the template of a creation, must have no ":".
 *
 * What is queued when the process ends is lost: nothing waits for it. ptz_tessel_async_get_waiting_threads() does not
 * count the change that is being carried out. To see everything carried out before the process ends, push a last write
 * whose value the tree does not hold yet, and read it back with ptz_tessel_get() until it is there, or until waiting
 * longer makes no sense. ptz_tessel_sync() then makes it durable.
 *
 * The worker does not follow into a child process: fork before the first push, or push in one of the two only.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * ptz_tessel_async_push_set_param:
 * @value: the value; may have any characters
 * @path_format: printf-like format of a parameter's path
 * @...: its arguments
 *
 * Queues the write of a parameter. A `NULL` argument, and a path that cannot be formatted, are logged and nothing is
 * queued; so it is with every push.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_async_push_set_param (const gchar *value, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_async_push_set_boolean:
 * @value: written as "true" or "false"
 * @path_format: printf-like format of a parameter's path
 * @...: its arguments
 *
 * Queues the write of a parameter.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_async_push_set_boolean (gboolean value, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_async_push_set_int:
 * @value: written in decimal
 * @path_format: printf-like format of a parameter's path
 * @...: its arguments
 *
 * Queues the write of a parameter.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_async_push_set_int (gint value, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_async_push_add_param_group:
 * @number: the number in the new group's name
 * @templ: the template of the new group
 * @path_format: printf-like format of the path of the group to create it in
 * @...: its arguments
 *
 * Queues the creation of a dynamic group, which is tried once.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_async_push_add_param_group (gint number, const gchar *templ, const gchar *path_format, ...)
  G_GNUC_PRINTF (3, 4);

/**
 * ptz_tessel_async_delete_group:
 * @path_format: printf-like format of a group's path
 * @...: its arguments
 *
 * Queues the deletion of a group, which is tried once.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_async_delete_group (const gchar *path_format, ...) G_GNUC_PRINTF (1, 2);

/**
 * ptz_tessel_async_get_waiting_threads:
 *
 * Thread: any.
 *
 * Returns: how many changes are queued, without the one that is being carried out
 */
PTZ_API guint ptz_tessel_async_get_waiting_threads (void);

G_END_DECLS
