/* ptz_kit_monitor.h - PTZKitMonitor, which sees what a driver of the kit is asked and answers. */
#pragma once

#include <ptz_kit_types.h>

G_BEGIN_DECLS

/**
 * PTZKitFrameDirection:
 * @PTZ_KIT_FRAME_REQUEST: from a client to the driver
 * @PTZ_KIT_FRAME_REPLY: from the driver to a client
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_FRAME_REQUEST = 0,
  PTZ_KIT_FRAME_REPLY = 1
} PTZKitFrameDirection;

#define PTZ_KIT_TYPE_FRAME_DIRECTION (ptz_kit_frame_direction_get_type ())

/**
 * ptz_kit_frame_direction_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type of #PTZKitFrameDirection
 */
PTZ_KIT_API GType ptz_kit_frame_direction_get_type (void);

#define PTZ_KIT_TYPE_MONITOR_FRAME (ptz_kit_monitor_frame_get_type ())

/**
 * PTZKitMonitorFrame:
 * @time_ns: when the driver received the request or sent the reply; nanoseconds of the real-time clock since 1970
 * @latency_ns: of a reply: nanoseconds since its request arrived; 0 for a request
 * @lost: frames that this monitor has lost since the frame before, because it did not read in time
 * @client: number of the client's connection; the driver counts them from 1
 * @pid: process that made the connection; 0 if unknown
 * @uid: user of that process; `G_MAXUINT32` if unknown
 * @direction: whether it is a request or a reply
 * @message_id: of the frame
 * @past: whether the frame is older than the subscription (see ptz_kit_monitor_subscribe())
 * @unsent: whether a reply could not be sent
 * @program: path of the client's program, its name if the driver may not read the path, empty if unknown; owned
 * @body: body of the frame, command word included, without the eight bytes of the frame's header; owned
 *
 * A copy of one frame. The other end is the driver.
 *
 * Since: 0.1
 */
typedef struct {
  gint64 time_ns;
  gint64 latency_ns;
  guint64 lost;
  guint32 client;
  gint32 pid;
  guint32 uid;
  PTZKitFrameDirection direction;
  guint32 message_id;
  gboolean past;
  gboolean unsent;
  gchar *program;
  GBytes *body;
} PTZKitMonitorFrame;

/**
 * ptz_kit_monitor_frame_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitMonitorFrame"
 */
PTZ_KIT_API GType ptz_kit_monitor_frame_get_type (void);

/**
 * ptz_kit_monitor_frame_copy:
 * @frame: a frame; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a copy; the body's bytes are shared
 */
PTZ_KIT_API PTZKitMonitorFrame *ptz_kit_monitor_frame_copy (const PTZKitMonitorFrame *frame);

/**
 * ptz_kit_monitor_frame_free:
 * @frame: (transfer full) (nullable): a frame
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_monitor_frame_free (PTZKitMonitorFrame *frame);

#define PTZ_KIT_TYPE_MONITOR (ptz_kit_monitor_get_type ())
#define PTZ_KIT_MONITOR(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_KIT_TYPE_MONITOR, PTZKitMonitor))
#define PTZ_KIT_IS_MONITOR(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_KIT_TYPE_MONITOR))

/**
 * PTZKitMonitor:
 *
 * A connection to the monitor socket of a #PTZKitDriver. The socket lies beside the driver's own: its path is that of
 * the driver's socket with ".monitor" at the end. Members of the folder's group may connect. A driver never waits for a
 * monitor: a monitor that does not read in time loses frames, which are counted.
 *
 * Signals are emitted in the thread-default main context of the thread that made the object; all other calls are made
 * in the same thread. If another thread runs the default main context, the thread needs a thread-default main context
 * of its own (g_main_context_push_thread_default()).
 *
 * Since: 0.1
 */
typedef struct _PTZKitMonitor PTZKitMonitor;
typedef struct _PTZKitMonitorClass PTZKitMonitorClass;

/**
 * PTZKitMonitor:socket-path:
 *
 * The driver's socket.
 *
 * Since: 0.1
 */
/**
 * PTZKitMonitor::frame:
 * @self: the monitor
 * @frame: (type PTZKitMonitorFrame): a frame; borrowed for the call
 *
 * A frame that the driver received or sent after ptz_kit_monitor_subscribe().
 *
 * Since: 0.1
 */
/**
 * PTZKitMonitor::closed:
 * @self: the monitor
 *
 * The connection is closed: the driver has ended or has closed it, the driver had no place for another monitor, or it
 * sent a malformed packet. ptz_kit_monitor_open() connects again.
 *
 * Since: 0.1
 */

/**
 * ptz_kit_monitor_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitMonitor"
 */
PTZ_KIT_API GType ptz_kit_monitor_get_type (void);

/**
 * ptz_kit_monitor_new:
 * @socket_path: (type filename): the driver's socket, not the monitor socket
 *
 * Makes a monitor for the calling thread: its signals are emitted in the thread-default main context that the thread has
 * now.
 *
 * Thread: any; all further calls are made in the same thread.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a monitor, not connected
 */
PTZ_KIT_API PTZKitMonitor *ptz_kit_monitor_new (const gchar *socket_path);

/**
 * ptz_kit_monitor_open:
 * @self: a monitor
 * @error: return location for an error, or `NULL`
 *
 * Connects, unless the monitor is connected. Does not wait.
 *
 * Thread: the one of the object.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if it is connected; `FALSE` with @error of `G_IO_ERROR` set: `G_IO_ERROR_NOT_FOUND` if the driver has
 *   no monitor socket, `G_IO_ERROR_CONNECTION_REFUSED` if nothing listens, `G_IO_ERROR_PERMISSION_DENIED`,
 *   `G_IO_ERROR_BUSY` if too many connections wait, `G_IO_ERROR_TOO_MANY_OPEN_FILES`, or any other code of
 *   g_io_error_from_errno() for socket() and connect(). A driver that has as many monitors as it serves, eight, closes
 *   the connection at once: the next call then fails with `G_IO_ERROR_BUSY`
 */
PTZ_KIT_API gboolean ptz_kit_monitor_open (PTZKitMonitor *self, GError **error);

/**
 * ptz_kit_monitor_get_figures:
 * @self: a monitor that is connected
 * @timeout_ms: how long to wait at most, in milliseconds
 * @cancellable: (nullable): a cancellable; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Asks the driver for what it has counted since it started, and waits for the answer. Frames that arrive meanwhile are
 * emitted later by the main context. The dictionary has
 *
 * - "name" (s), "program" (s), "pid" (i), "uid" (u), "instance" (u), "since" (x: microseconds since 1970), "socket" (s)
 * - "library-version" (s), "protocol-version" (u)
 * - "now" (x: microseconds since 1970, when the answer was made)
 * - the counters below, of all clients, those that have gone included
 * - "clients" (aa{sv}): for each client that is connected "client" (u: its number), "pid" (i), "uid" (u),
 *   "program" (s), "since" (x: when the driver noticed it, at its first request at the latest), "last-request" (x; 0 if
 *   none), "last-command" (i; present if there was a request), and the counters
 *
 * - "lost" (t): frames that this monitor has lost since the last one that it received; its next frame tells them, too
 *
 * Counters: "requests", "errors" (error replies), "bytes-received", "bytes-sent", "unsent-replies", "timeouts"
 * (deferred replies that met their deadline) (each t), "pending" (u: requests without an answer yet), and "latency"
 * (au): a histogram of the time from a request's arrival to its reply, see ptz_kit_latency_bucket_limit().
 *
 * Later versions may add keys.
 *
 * Thread: the one of the object.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): a dictionary of type `a{sv}`; `NULL` with @error set on failure:
 *   `PTZ_KIT_ERROR_TIMED_OUT`, `PTZ_KIT_ERROR_LOST`, `PTZ_KIT_ERROR_NOT_CONNECTED`, `PTZ_KIT_ERROR_MALFORMED`,
 *   `G_IO_ERROR_CANCELLED`, `G_IO_ERROR_BUSY`, or `G_IO_ERROR_WOULD_BLOCK` if the driver has not read the requests before
 */
PTZ_KIT_API GVariant *ptz_kit_monitor_get_figures (PTZKitMonitor *self, guint timeout_ms, GCancellable *cancellable,
                                                   GError **error);

/**
 * ptz_kit_monitor_subscribe:
 * @self: a monitor that is connected
 * @with_past: whether to begin with the frames that the driver has kept: the last ones, as many as fit into
 *   #PTZKitDriver:monitor-history bytes
 * @error: return location for an error, or `NULL`
 *
 * Asks for a copy of every frame, from the answer to the next request on, until the connection ends.
 *
 * Thread: the one of the object.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set: `PTZ_KIT_ERROR_NOT_CONNECTED`, `G_IO_ERROR_BUSY`, or
 *   `G_IO_ERROR_WOULD_BLOCK` if the driver has not read the requests before
 */
PTZ_KIT_API gboolean ptz_kit_monitor_subscribe (PTZKitMonitor *self, gboolean with_past, GError **error);

/**
 * ptz_kit_latency_bucket_limit:
 * @index: index of a bucket
 *
 * Bucket @index counts the latencies below this limit and not below that of the bucket before. There is one bucket for
 * each microsecond below 4, then four for each power of two, and one for everything from 2^26 microseconds on.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the limit in microseconds; `G_MAXUINT64` for the last bucket and beyond
 */
PTZ_KIT_API guint64 ptz_kit_latency_bucket_limit (guint index);

/**
 * ptz_kit_latency_quantile:
 * @histogram: a histogram of type `au`, as "latency" of the figures; borrowed
 * @quantile: from 0 to 1, such as 0.99
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the latency in microseconds that this share of the requests did not exceed, to within the width of a bucket;
 *   -1 if the histogram counts nothing
 */
PTZ_KIT_API gdouble ptz_kit_latency_quantile (GVariant *histogram, gdouble quantile);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitMonitor, g_object_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitMonitorFrame, ptz_kit_monitor_frame_free)

G_END_DECLS
