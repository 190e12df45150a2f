/* ptz_socket_client.h - PTZSocketClient, a connected endpoint that is watched on the default main context. */
#pragma once

#include "ptz_file_g_source.h"
#include "ptz_socket.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_CLIENT (ptz_socket_client_get_type ())
#define PTZ_SOCKET_CLIENT(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_CLIENT, PTZSocketClient))
#define PTZ_SOCKET_CLIENT_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_CLIENT, PTZSocketClientClass))
#define PTZ_IS_SOCKET_CLIENT(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_CLIENT))
#define PTZ_IS_SOCKET_CLIENT_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_CLIENT))
#define PTZ_SOCKET_CLIENT_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_CLIENT, PTZSocketClientClass))

typedef struct _PTZSocketClient PTZSocketClient;
typedef struct _PTZSocketClientClass PTZSocketClientClass;

/**
 * PTZSocketClientCallback:
 * @context: (type gsize): what was given to ptz_socket_client_register_callback(); for a #PTZSocketClientCommand the
 *   request's context
 * @data: (nullable) (array length=length) (element-type guint8): what arrived; valid during the call
 * @length: bytes in @data
 *
 * Receives incoming data on the default main context's thread. It may send on the client, and may drop it.
 */
typedef void (*PTZSocketClientCallback) (gpointer context, gpointer data, guint32 length);

/**
 * PTZSocketClient:
 * @source: watches the descriptor that the endpoint had at construction
 * @context: the default main context, referenced
 * @user_data: passed to @callback
 * @callback: the receiver of incoming data, or `NULL`
 *
 * A client endpoint whose descriptor is watched on the default main context: whenever data can be read, the class's
 * read operation runs once and passes what arrived to the callback.
 *
 * The watch stays on the descriptor that the client was created with. A client that was created before its server
 * listened therefore watches nothing, although the endpoint connects later; create clients once the server listens.
 *
 * What stops the watch: a hang-up, an error or a closing of the descriptor, an end of file of a stream, a send that
 * failed, and ptz_socket_client_remove_poll(). What starts it again: ptz_socket_client_add_poll() only.
 */
struct _PTZSocketClient {
  PTZSocket parent_instance;
  GSource *source;
  GMainContext *context;
  gpointer user_data;
  PTZSocketClientCallback callback;
};

/**
 * PTZSocketClientClass:
 *
 * Adds no operation to #PTZSocketClass; overrides its read with one that reads once and calls the callback. The
 * result is the count, or -1 at an end of file and on an error.
 */
struct _PTZSocketClientClass {
  PTZSocketClass parent_class;
};

/**
 * ptz_socket_client_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketClient"
 */
PTZ_API GType ptz_socket_client_get_type (void);

/**
 * ptz_socket_client_new:
 * @object_type: #PTZSocketClient or a subclass
 * @path: (nullable) (type filename): the server's socket; `NULL` to use @fd
 * @fd: with a `NULL` @path, an open descriptor (the caller keeps it and closes it after the client has gone) or -1
 * @type: the socket type for socket(2)
 *
 * Thread: any; incoming data are handled on the default main context.
 *
 * Returns: (transfer full) (nullable): a new client; `NULL` only for a wrong argument
 */
PTZ_API PTZSocketClient *ptz_socket_client_new (GType object_type, const gchar *path, gint fd, gint type);

/**
 * ptz_socket_client_register_callback:
 * @client: a client
 * @callback: (nullable) (scope notified): the receiver; `NULL` for none
 * @user_data: passed to @callback; borrowed
 *
 * Thread: the one of the default main context.
 */
PTZ_API void ptz_socket_client_register_callback (PTZSocketClient *client, PTZSocketClientCallback callback,
                                                  gpointer user_data);

/**
 * ptz_socket_client_add_poll:
 * @client: a client
 *
 * Starts watching the descriptor again. No effect while it is watched.
 *
 * Thread: any.
 */
PTZ_API void ptz_socket_client_add_poll (PTZSocketClient *client);

/**
 * ptz_socket_client_remove_poll:
 * @client: a client
 *
 * Stops watching the descriptor. No effect while it is not watched.
 *
 * Thread: any.
 */
PTZ_API void ptz_socket_client_remove_poll (PTZSocketClient *client);

/**
 * ptz_socket_client_async_send:
 * @client: a client
 * @data: (array length=length) (element-type guint8): what to send; borrowed
 * @length: bytes in @data, at least 1
 *
 * Sends @data as it is, waiting at most a second for a peer that does not read. On a client that is not connected it
 * does nothing and succeeds. When it fails the client stops watching its descriptor.
 *
 * Thread: any; two threads must not send at once.
 *
 * Returns: `TRUE` if anything was sent
 */
PTZ_API gboolean ptz_socket_client_async_send (PTZSocketClient *client, gconstpointer data, guint32 length);

G_END_DECLS
