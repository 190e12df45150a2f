/* ptz_queue.h - hands items from any thread to a main context, one by one and in order. */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

typedef struct _PTZQueue PTZQueue;

/**
 * PTZQueue:
 * @context: the context that receives the items, referenced
 * @source: the event source that holds the items, referenced
 *
 * The handle of a queue.
 */
struct _PTZQueue {
  GMainContext *context;
  GSource *source;
};

/**
 * PTZQueueCallback:
 * @user_data: what was given to ptz_queue_set_callback()
 * @item: the item; it is released with the queue's free function after the callback has returned
 *
 * Receives one item, on the thread of the queue's context and with no lock held. All items that are queued are
 * delivered in one go; the result for the last of them counts.
 *
 * Returns: `TRUE` to go on receiving; `FALSE` to take the source off its context
 */
typedef gboolean (*PTZQueueCallback) (gpointer user_data, gpointer item);

/**
 * ptz_queue_setup: (skip)
 * @context: the context that is to receive the items, borrowed: the queue takes a reference of its own. `NULL`
 *   aborts
 * @free_function: (nullable): releases an item after its delivery, or when the queue ends before it. At the queue's
 *   end it is called once more with `NULL`, after the last item
 * @priority: the priority of the source on @context
 *
 * Thread: any.
 *
 * Returns: (transfer full): a new queue, attached to @context; release it with ptz_queue_free()
 */
PTZ_API PTZQueue *ptz_queue_setup (GMainContext *context, GDestroyNotify free_function, gint priority);

/**
 * ptz_queue_set_callback: (skip)
 * @queue: a queue
 * @callback: the receiver
 * @user_data: passed to @callback; borrowed
 *
 * Until a callback is set, items that are pushed while the context runs are discarded without the free function, and
 * the source leaves its context: set the callback before the first push.
 *
 * Thread: any, before the first push.
 */
PTZ_API void ptz_queue_set_callback (PTZQueue *queue, PTZQueueCallback callback, gpointer user_data);

/**
 * ptz_queue_push: (skip)
 * @queue: a queue
 * @item: the item; the queue owns it from now on
 *
 * Appends @item and wakes the context.
 *
 * Thread: any.
 *
 * Returns: `TRUE`; `FALSE` only for a `NULL` @queue
 */
PTZ_API gboolean ptz_queue_push (PTZQueue *queue, gpointer item);

/**
 * ptz_queue_pop: (skip)
 * @queue: a queue
 *
 * Who takes the last item just after the context has seen it leaves a delivery without any, which takes the source off
 * the context: pop within the callback, or where nothing is to be delivered any more.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the oldest item, taken out of the queue; `NULL` when it is empty
 */
PTZ_API gpointer ptz_queue_pop (PTZQueue *queue);

/**
 * ptz_queue_free: (skip)
 * @queue: (nullable): a queue
 *
 * Releases the handle. The source stays on its context and goes on delivering what is queued, until its callback
 * returns `FALSE` or the context goes.
 *
 * Thread: any, once nobody pushes any more.
 */
PTZ_API void ptz_queue_free (PTZQueue *queue);

G_END_DECLS
