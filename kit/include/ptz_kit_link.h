/* ptz_kit_link.h - PTZKitLink, a daemon's connection to one driver, through the driver's restarts. */
#pragma once

#include <gio/gio.h>
#include <ptz_kit_messages.h>
#include <ptz_kit_types.h>

G_BEGIN_DECLS

/**
 * PTZ_KIT_REFUSAL:
 *
 * The error domain of requests that the driver has refused. The code is the #PTZKitErrorCode of the driver's error reply,
 * or a code that this release does not know; the message ends with the driver's text.
 *
 * Since: 0.1
 */
#define PTZ_KIT_REFUSAL (ptz_kit_refusal_quark ())

/**
 * ptz_kit_refusal_quark:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the quark of `PTZ_KIT_REFUSAL`
 */
PTZ_KIT_API GQuark ptz_kit_refusal_quark (void);

/**
 * PTZKitLinkState:
 * @PTZ_KIT_LINK_STATE_DISCONNECTED: the link is closed
 * @PTZ_KIT_LINK_STATE_CONNECTING: no driver listens yet, or the handshake is running
 * @PTZ_KIT_LINK_STATE_READY: the handshake is over; requests are sent
 * @PTZ_KIT_LINK_STATE_FAILED: the last attempt failed: the driver did not complete the handshake, or the path cannot be
 *   used. The link tries again
 *
 * The state of a link.
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_LINK_STATE_DISCONNECTED = 0,
  PTZ_KIT_LINK_STATE_CONNECTING = 1,
  PTZ_KIT_LINK_STATE_READY = 2,
  PTZ_KIT_LINK_STATE_FAILED = 3
} PTZKitLinkState;

/**
 * ptz_kit_link_state_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitLinkState"
 */
PTZ_KIT_API GType ptz_kit_link_state_get_type (void);

#define PTZ_KIT_TYPE_LINK_STATE (ptz_kit_link_state_get_type ())

#define PTZ_KIT_TYPE_LINK (ptz_kit_link_get_type ())
#define PTZ_KIT_LINK(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_KIT_TYPE_LINK, PTZKitLink))
#define PTZ_KIT_IS_LINK(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_KIT_TYPE_LINK))

/**
 * PTZKitLink:
 *
 * A daemon's connection to one driver. An open link connects to the driver's socket and asks for the driver's name,
 * capabilities and protocol version; then its state is ready. When the driver goes, the link connects again: at once,
 * then after 0.1 s, and each time after twice as long, at most after 5 s. If the link was ready for less than a second,
 * this counts as one more failed attempt. When a socket appears at the path, the link connects to it a few milliseconds
 * later. A link never creates or removes a file.
 *
 * Requests are sent with the functions of ptz_kit_link_calls.h, or with ptz_kit_link_call() for any body. Each has a
 * deadline and may be cancelled; a reply that comes later is dropped. At most #PTZKitLink:max-pending requests are at the
 * driver at once; up to 1024 more wait in the order of the calls, and any further one fails with `PTZ_KIT_ERROR_BUSY`. The
 * link does not tell callers apart: if one of them makes many calls at once, the calls of the others wait behind them, or
 * are busy, too. If the driver goes, all requests fail at once. A request that was given up counts as pending until its
 * reply comes, at most ten seconds.
 *
 * Threads: a link connects, keeps its timers and emits its signals on the main context that is the thread-default one
 * when ptz_kit_link_open() is called, so a thread must run that context. Every function may be called in any thread. The
 * callback of an asynchronous call runs in the thread-default main context of its caller, never before the call returns.
 * A blocking call needs no running main context once the link is ready; its thread reads the reply itself. In the thread
 * that runs the link's main context it works, too, but blocks everything else there. In a forked child a link may be
 * dropped, and nothing else; the parent keeps the connection.
 *
 * Nothing is polled: a link that waits for a driver has one timer, a connected one none but those of deadlines.
 *
 * Since: 0.1
 */
typedef struct _PTZKitLink PTZKitLink;
typedef struct _PTZKitLinkClass PTZKitLinkClass;

/**
 * ptz_kit_link_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitLink"
 */
PTZ_KIT_API GType ptz_kit_link_get_type (void);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitLink, g_object_unref)

/**
 * PTZKitLink:socket-path: (type filename)
 *
 * The path of the driver's socket.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:max-pending:
 *
 * The number of requests that may be at the driver at once.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:handshake-deadline:
 *
 * How long the driver may take for the handshake, in milliseconds.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:state:
 *
 * The state of the link. "notify::state" is emitted on the link's main context, and by ptz_kit_link_close() in the thread
 * that calls it.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:driver-name: (getter dup_driver_name)
 *
 * The name of the driver, as the last handshake told; `NULL` before the first one.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:move-capabilities:
 *
 * The motions of the driver, bits of #PTZDriverMoveCapabilities, as the last handshake told.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:extra-capabilities:
 *
 * The other functions of the driver, bits of #PTZDriverExtraCapabilities, as the last handshake told.
 *
 * Since: 0.1
 */

/**
 * PTZKitLink:protocol-version:
 *
 * The protocol version of the driver, as the last handshake told; 0 before the first one.
 *
 * Since: 0.1
 */

/**
 * ptz_kit_link_new:
 * @socket_path: (type filename): the path of the driver's socket; copied
 *
 * Makes a link, which is closed.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a new link
 */
PTZ_KIT_API PTZKitLink *ptz_kit_link_new (const gchar *socket_path);

/**
 * ptz_kit_link_open:
 * @link: a link; borrowed
 *
 * Begins to connect, on the thread-default main context of the caller. No effect on an open link.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_link_open (PTZKitLink *link);

/**
 * ptz_kit_link_close:
 * @link: a link; borrowed
 *
 * Closes the connection and fails all calls. "notify::state" is emitted in the calling thread before it returns. The
 * link may be opened again. A link without references closes by itself.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_link_close (PTZKitLink *link);

/**
 * ptz_kit_link_wait_ready:
 * @link: an open link; borrowed
 * @deadline_ms: how long to wait, in milliseconds; 0 for ten seconds
 * @error: return location for an error, or `NULL`
 *
 * Waits until the link is ready. If no other thread runs the link's main context, this call runs it meanwhile.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if the link is ready; `FALSE` with @error set to `PTZ_KIT_ERROR_TIMED_OUT`, whose message tells why the
 *   last attempt failed, or to `PTZ_KIT_ERROR_NOT_CONNECTED` if the link is closed
 */
PTZ_KIT_API gboolean ptz_kit_link_wait_ready (PTZKitLink *link, guint deadline_ms, GError **error);

/**
 * ptz_kit_link_wait_ready_async:
 * @link: an open link; borrowed
 * @deadline_ms: how long to wait, in milliseconds; 0 for ten seconds
 * @cancellable: (nullable): cancels the wait; borrowed
 * @callback: (scope async) (nullable): called when the wait is over
 * @user_data: passed to @callback; borrowed
 *
 * Waits until the link is ready. The wait counts as a waiting request: see #PTZKitLink.
 *
 * Thread: any; @callback runs in the caller's thread-default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_link_wait_ready_async (PTZKitLink *link, guint deadline_ms, GCancellable *cancellable,
                                                GAsyncReadyCallback callback, gpointer user_data);

/**
 * ptz_kit_link_wait_ready_finish:
 * @link: the link of the wait; borrowed
 * @result: what the callback was given; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if the link became ready; `FALSE` with @error set as for ptz_kit_link_wait_ready(), or to
 *   `PTZ_KIT_ERROR_BUSY` or `G_IO_ERROR_CANCELLED`
 */
PTZ_KIT_API gboolean ptz_kit_link_wait_ready_finish (PTZKitLink *link, GAsyncResult *result, GError **error);

/**
 * ptz_kit_link_get_state:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the state
 */
PTZ_KIT_API PTZKitLinkState ptz_kit_link_get_state (PTZKitLink *link);

/**
 * ptz_kit_link_get_socket_path:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer none) (type filename): the path of the driver's socket
 */
PTZ_KIT_API const gchar *ptz_kit_link_get_socket_path (PTZKitLink *link);

/**
 * ptz_kit_link_dup_driver_name:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the name of the driver, for g_free(); `NULL` before the first handshake
 */
PTZ_KIT_API gchar *ptz_kit_link_dup_driver_name (PTZKitLink *link);

/**
 * ptz_kit_link_get_move_capabilities:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: bits of #PTZDriverMoveCapabilities
 */
PTZ_KIT_API guint ptz_kit_link_get_move_capabilities (PTZKitLink *link);

/**
 * ptz_kit_link_get_extra_capabilities:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: bits of #PTZDriverExtraCapabilities
 */
PTZ_KIT_API guint ptz_kit_link_get_extra_capabilities (PTZKitLink *link);

/**
 * ptz_kit_link_get_protocol_version:
 * @link: a link; borrowed
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the protocol version of the driver; 0 before the first handshake
 */
PTZ_KIT_API guint ptz_kit_link_get_protocol_version (PTZKitLink *link);

/**
 * ptz_kit_link_call_async:
 * @link: a link; borrowed
 * @body: the whole body of a request, command word included; borrowed
 * @deadline_ms: how long the reply may take, in milliseconds; 0 for ten seconds
 * @cancellable: (nullable): cancels the call; borrowed
 * @callback: (scope async) (nullable): called when the call is over
 * @user_data: passed to @callback; borrowed
 *
 * Sends a request of any command. There is a typed function for each command of the kit: see ptz_kit_link_calls.h.
 *
 * Thread: any; @callback runs in the caller's thread-default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_link_call_async (PTZKitLink *link, GBytes *body, guint deadline_ms, GCancellable *cancellable,
                                          GAsyncReadyCallback callback, gpointer user_data);

/**
 * ptz_kit_link_call_finish:
 * @link: the link of the call; borrowed
 * @result: what the callback was given; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the body of the reply; `NULL` with @error set, see ptz_kit_link_call()
 */
PTZ_KIT_API GBytes *ptz_kit_link_call_finish (PTZKitLink *link, GAsyncResult *result, GError **error);

/**
 * ptz_kit_link_call:
 * @link: a link; borrowed
 * @body: the whole body of a request, command word included; borrowed
 * @deadline_ms: how long the reply may take, in milliseconds; 0 for ten seconds
 * @cancellable: (nullable): cancels the call; borrowed
 * @error: return location for an error, or `NULL`
 *
 * As ptz_kit_link_call_async(), and waits for the reply. The errors of every call are:
 *
 * - in `PTZ_KIT_REFUSAL`: the driver has answered with an error reply
 * - in `PTZ_KIT_ERROR`, the request was not sent: `NOT_CONNECTED`, `BUSY`, `TOO_LONG`, `BAD_TEXT` (of a typed request), or
 *   `MALFORMED` for a body without a command word
 * - in `PTZ_KIT_ERROR`, the driver may have obeyed: `LOST`, `TIMED_OUT`, or `MALFORMED` for a reply that is not one to
 *   this command
 * - `G_IO_ERROR_CANCELLED`: the driver may have obeyed, too
 *
 * The values of a request are not checked here, but by the driver. Nor are those of a reply: an enumeration of a newer
 * driver may have a value that this release does not know, and limits are the driver's own. A typed reply has the length
 * and the texts that its command describes; check a value before it is used as an index.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the body of the reply; `NULL` with @error set
 */
PTZ_KIT_API GBytes *ptz_kit_link_call (PTZKitLink *link, GBytes *body, guint deadline_ms, GCancellable *cancellable,
                                       GError **error);

G_END_DECLS
