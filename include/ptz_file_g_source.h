/* ptz_file_g_source.h - an event source that watches one descriptor for input and can be switched off and on. */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

typedef struct _PTZFileGSource PTZFileGSource;

/**
 * PTZFileGSource:
 * @tag: what the watch is known by; `NULL` while it is switched off
 * @fd: the watched descriptor, the same for the life of the source
 * @mutex: guards @tag
 *
 * The source watches for G_IO_IN, G_IO_ERR and G_IO_HUP, and calls its callback, a plain #GSourceFunc, when data can
 * be read. The callback runs without @mutex and returns `TRUE` to keep the source.
 *
 * A hang-up, an error and a descriptor that was closed under the watch never reach the callback: they switch the watch
 * off, so that a dead descriptor does not keep the main loop busy. ptz_file_g_source_add_poll() starts it again.
 */
struct _PTZFileGSource {
  GSource source;
  gpointer tag;
  gint32 fd;
  GMutex mutex;
};

/**
 * ptz_file_g_source_new: (skip)
 * @fd: the descriptor to watch; -1 watches nothing
 *
 * Thread: any.
 *
 * Returns: (transfer full): a new source, not attached, already watching @fd; release it with g_source_unref()
 */
PTZ_API GSource *ptz_file_g_source_new (gint fd);

/**
 * ptz_file_g_source_add: (skip)
 * @fd: the descriptor to watch
 * @callback: what to call when data can be read
 * @user_data: passed to @callback; borrowed for the life of the source
 *
 * Makes a source and attaches it to the default main context, which owns it.
 *
 * Thread: any; @callback runs on the default main context.
 *
 * Returns: the id of the source, for g_source_remove()
 */
PTZ_API guint ptz_file_g_source_add (gint fd, GSourceFunc callback, gpointer user_data);

/**
 * ptz_file_g_source_get_fd: (skip)
 * @source: a source of this module
 *
 * Thread: any.
 *
 * Returns: the watched descriptor, borrowed; -1 for a `NULL` @source
 */
PTZ_API gint ptz_file_g_source_get_fd (GSource *source);

/**
 * ptz_file_g_source_add_poll: (skip)
 * @source: a source of this module
 *
 * Switches the watch on. No effect where it is on, or where the source was destroyed.
 *
 * Thread: any.
 */
PTZ_API void ptz_file_g_source_add_poll (GSource *source);

/**
 * ptz_file_g_source_remove_poll: (skip)
 * @source: a source of this module
 *
 * Switches the watch off. No effect where it is off. A callback that is running on the main loop goes on.
 *
 * Thread: any.
 */
PTZ_API void ptz_file_g_source_remove_poll (GSource *source);

G_END_DECLS
