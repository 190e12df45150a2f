/* ptz_socket_client_command.h - PTZSocketClientCommand, the requesting end of the command channel. */
#pragma once

#include "ptz_socket_client.h"
#include "ptz_socket_frame.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_CLIENT_COMMAND (ptz_socket_client_command_get_type ())
#define PTZ_SOCKET_CLIENT_COMMAND(o) \
  (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_CLIENT_COMMAND, PTZSocketClientCommand))
#define PTZ_SOCKET_CLIENT_COMMAND_CLASS(k) \
  (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_CLIENT_COMMAND, PTZSocketClientCommandClass))
#define PTZ_IS_SOCKET_CLIENT_COMMAND(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_CLIENT_COMMAND))
#define PTZ_IS_SOCKET_CLIENT_COMMAND_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_CLIENT_COMMAND))
#define PTZ_SOCKET_CLIENT_COMMAND_GET_CLASS(o) \
  (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_CLIENT_COMMAND, PTZSocketClientCommandClass))

typedef struct _PTZSocketClientCommand PTZSocketClientCommand;
typedef struct _PTZSocketClientCommandClass PTZSocketClientCommandClass;

/**
 * PTZSocketClientCommandFreeCallback:
 * @request_context: the context of a request that never got an answer
 * @free_user_data: what was given to ptz_socket_client_command_register_free_callback()
 *
 * Releases the context of an asynchronous request whose client is finalized before its reply came. It must not use the
 * client. It runs in the thread that finalizes the client. If a request times out while no reply callback is
 * registered, it runs on the default main context instead, with the client's @mutex held.
 */
typedef void (*PTZSocketClientCommandFreeCallback) (gpointer request_context, gpointer free_user_data);

/**
 * PTZSocketClientCommand:
 * @fill: bytes of the incoming frame received so far
 * @expected: length of the incoming frame, `PTZ_SOCKET_FRAME_UNKNOWN` until its header is there
 * @buffer: the incoming frame, `PTZ_SOCKET_FRAME_MAX` bytes, owned
 * @next_id: message id of the next request
 * @pending: asynchronous requests that await a reply, oldest first
 * @timeout_source: id of the running expiry timer, 0 if none
 * @mutex: guards @pending and @timeout_source
 * @free_user_data: passed to @free_callback
 * @free_callback: releases a request context that never got an answer, or `NULL`
 *
 * A client that sends requests in frames (see ptz_socket_frame.h) and matches the replies to them by message id.
 *
 * After a malformed frame (a length below 8 or above 2560) the stream is desynchronised: the frame is discarded, along
 * with the bytes received so far, and the client stops watching and reading its descriptor. Make a new client, or call
 * ptz_socket_client_add_poll() if the peer is known to begin a new frame. If a frame could be sent only in part, the
 * connection is shut down, so that nothing follows the fragment, and every later send fails. An end of file stops the
 * watch too. Requests that are pending then time out.
 *
 * The class's add_retry operation forgets a partial frame and the desynchronised state, and ends the synchronous calls
 * that are waiting.
 *
 * Several threads may send on one client. Several synchronous calls wait side by side: one of their threads reads, and
 * hands the others their replies by message id.
 *
 * Reply callbacks run only in a thread that has acquired the default main context: the thread that runs the main loop,
 * or a thread that sends while no thread runs it.
 */
struct _PTZSocketClientCommand {
  PTZSocketClient parent_instance;
  guint32 fill;
  guint32 expected;
  guint8 *buffer;
  guint32 next_id;
  GList *pending;
  guint32 timeout_source;
  GMutex mutex;
  gpointer free_user_data;
  PTZSocketClientCommandFreeCallback free_callback;
};

/**
 * PTZSocketClientCommandClass:
 *
 * Adds no operation to #PTZSocketClientClass. Overrides its read with one that receives at most one frame, copies as
 * much of it as fits to the given buffer (which may be `NULL`), and hands it to its request. The result is the number
 * of bytes copied, 0 while a frame is incomplete, at an end of file and while a synchronous call reads, or -1 on an
 * error. Overrides its add_retry, see #PTZSocketClientCommand.
 */
struct _PTZSocketClientCommandClass {
  PTZSocketClientClass parent_class;
};

/**
 * ptz_socket_client_command_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketClientCommand"
 */
PTZ_API GType ptz_socket_client_command_get_type (void);

/**
 * ptz_socket_client_command_new:
 * @path: (nullable) (type filename): the server's socket; `NULL` to use @fd
 * @fd: with a `NULL` @path, an open descriptor; the caller keeps it and closes it after the client has gone. It is made
 *   non-blocking
 * @type: the socket type for socket(2), `SOCK_STREAM`
 *
 * Makes a client. Its replies go to the callback of ptz_socket_client_register_callback(), called as (request context,
 * body, body length) when the reply has come and as (request context, `NULL`, 0) when the request timed out.
 *
 * Thread: any; replies and time-outs are handled on the default main context.
 *
 * Returns: (transfer full): a new client
 */
PTZ_API PTZSocketClientCommand *ptz_socket_client_command_new (const gchar *path, gint fd, gint type);

/**
 * ptz_socket_client_command_register_free_callback:
 * @client: a client
 * @free_callback: (nullable) (scope notified): releases the context of a request that never got an answer
 * @free_user_data: passed to @free_callback; borrowed
 *
 * Thread: the one of the default main context.
 */
PTZ_API void ptz_socket_client_command_register_free_callback (PTZSocketClientCommand *client,
                                                               PTZSocketClientCommandFreeCallback free_callback,
                                                               gpointer free_user_data);

/**
 * ptz_socket_client_command_async_send:
 * @client: a client
 * @body: (array length=length) (element-type guint8): the body of the request; borrowed
 * @length: bytes in @body, 1 to `PTZ_SOCKET_BODY_MAX`. More is refused; 0 sends a frame that servers do not answer, and
 *   is reported as a failure
 * @request_context: (nullable): passed to the reply callback, which owns it from then on; `NULL` for a request whose
 *   reply, if any, is dropped
 *
 * Sends a request, waiting at most a second each for its header and its body to be taken, and returns. Up to eleven
 * replies that have already arrived are read first, so that the peer has room for the next one. They are delivered in
 * the calling thread if it can acquire the default main context, and otherwise, and inside a reply callback of this
 * client, through an idle source on that context.
 *
 * The reply callback is called once for each request with a context: with the reply, or after 360 seconds without it,
 * give or take one. If the client goes first, the free callback is called instead; so it is for a request that times
 * out while no reply callback is registered.
 *
 * On a client that is not connected the request is dropped, and times out. A failed send leaves the watch of the
 * descriptor off; @request_context then stays the caller's.
 *
 * Thread: any; the callback runs with the default main context acquired, see #PTZSocketClientCommand. A thread that
 * sends while no main loop runs may be the one that runs it.
 *
 * Returns: `TRUE` if the request was sent
 */
PTZ_API gboolean ptz_socket_client_command_async_send (PTZSocketClientCommand *client, gconstpointer body,
                                                       guint32 length, gpointer request_context);

/**
 * ptz_socket_client_command_sync_send: (skip)
 * @client: a client
 * @body: the body of the request; borrowed
 * @length: bytes in @body, 1 to `PTZ_SOCKET_BODY_MAX`
 * @reply_buffer: where the body of the reply goes: at least `PTZ_SOCKET_BODY_MAX` bytes of the caller's
 * @reply_length_out: where its length goes
 *
 * Sends a request and waits for its reply, at most ten seconds; the calls of several threads wait side by side. If
 * other threads are sending, the ten seconds include the wait for them. On a client that is not connected it fails at
 * once. On failure @reply_length_out keeps its value. Meanwhile the main loop does not watch the
 * descriptor; replies to asynchronous requests that arrive are handed to it. A peer that closes the connection, and a
 * malformed frame, end the wait at once, with the message of a time-out. A signal to the thread does not end the wait;
 * the first one is logged.
 *
 * Thread: any but the one of the default main context, which it would block.
 *
 * Returns: `TRUE` with the reply; `FALSE` if the request could not be sent or was not answered
 */
PTZ_API gboolean ptz_socket_client_command_sync_send (PTZSocketClientCommand *client, gconstpointer body,
                                                      guint32 length, gpointer reply_buffer,
                                                      guint32 *reply_length_out);

/**
 * cleanup_table_entry: (skip)
 * @entry: an entry of the client's list of pending requests; released by this call
 * @client: the #PTZSocketClientCommand, borrowed
 *
 * Releases one pending request that will not be answered any more, its context with the client's free callback. The
 * client calls it for each request that is pending when it ends; a #GFunc, for g_list_foreach().
 *
 * Thread: the one that ends the client.
 */
PTZ_API void cleanup_table_entry (gpointer entry, gpointer client);

G_END_DECLS
