/* ptz_socket_server.h - PTZSocketServer, which accepts any number of clients on one event source. */
#pragma once

#include "ptz_socket.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_SERVER (ptz_socket_server_get_type ())
#define PTZ_SOCKET_SERVER(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_SERVER, PTZSocketServer))
#define PTZ_SOCKET_SERVER_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_SERVER, PTZSocketServerClass))
#define PTZ_IS_SOCKET_SERVER(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_SERVER))
#define PTZ_IS_SOCKET_SERVER_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_SERVER))
#define PTZ_SOCKET_SERVER_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_SERVER, PTZSocketServerClass))

typedef struct _PTZSocketServer PTZSocketServer;
typedef struct _PTZSocketServerClass PTZSocketServerClass;
typedef struct _PTZSocketServerSource PTZSocketServerSource;
typedef struct _PTZSocketServerClient PTZSocketServerClient;
typedef struct _PTZSocketServerReplyContext PTZSocketServerReplyContext;

/**
 * PTZSocketServerClient:
 * @fd: the client's descriptor
 * @tag: what the watch on it is known by in the server's source
 *
 * One accepted connection. The server owns it.
 */
struct _PTZSocketServerClient {
  gint32 fd;
  gpointer tag;
};

/**
 * PTZSocketServerSource:
 * @fd: the listening descriptor
 * @tag: what the watch on it is known by; `NULL` once it is no longer watched
 * @clients: (element-type PTZSocketServerClient): the connections, newest first
 * @server: the owning server, not referenced
 *
 * The event source that watches the listening descriptor and every client. A dispatch delivers at most one message.
 * Clients are served in list order, and the listening descriptor after them. If another client, or a connection, has
 * been waiting for 16 messages in a row, clients and the listening descriptor take turns until nothing waits, so that a
 * client that sends without pause does not starve the others.
 */
struct _PTZSocketServerSource {
  GSource source;
  gint32 fd;
  gpointer tag;
  GList *clients;
  PTZSocketServer *server;
};

/**
 * PTZSocketServerReplyContext:
 * @client: who sent the message; `NULL` once that connection was closed
 * @server: the server that received it
 *
 * The reply context of a plain server. There is one such record in a process, overwritten by every message: it is
 * valid only during the callback that receives it. If the callback runs a main loop in which another server delivers a
 * message, the record has its values again when that server's callback returns. A reply to a client that was closed is
 * not sent.
 */
struct _PTZSocketServerReplyContext {
  PTZSocketServerClient *client;
  PTZSocketServer *server;
};

/**
 * PTZSocketServerCallback:
 * @user_data: what was given to ptz_socket_server_register_callback()
 * @reply_context: what to answer with, see ptz_socket_server_send()
 * @data: (array length=length) (element-type guint8): the message, followed by a NUL byte; valid during the call
 * @length: bytes in @data, the NUL not counted
 *
 * Receives one message on the default main context's thread.
 *
 * Returns: `TRUE` to go on serving; `FALSE` to have the main loop destroy the server's source
 */
typedef gboolean (*PTZSocketServerCallback) (gpointer user_data, gpointer reply_context, gpointer data, guint32 length);

/**
 * PTZSocketServer:
 * @source: watches the listening descriptor and all clients
 * @context: the default main context, referenced
 *
 * A server endpoint. It accepts clients, reads what they send and hands each message to one callback.
 *
 * A client is closed when it disconnects, when the class's read operation fails (for a plain server also at an end of
 * file), and when its descriptor reports an error or was closed by other code. Other clients are not affected. If a
 * client half-closes and the read operation returns 0, the client stays connected and is watched for a hang-up or an
 * error only: it may still receive replies.
 *
 * The listening descriptor is watched until an accept fails, which ends the whole source, or until it reports a hang-up
 * or an error, or was closed under the watch, which ends only the watch on it. Nothing starts either again: make a new
 * server. Peers cannot make accept fail by connecting too often: a connection whose descriptor number is among the last
 * eight below `RLIMIT_NOFILE` is closed at once, and at most one line a minute in the system log names the process id
 * and the user id of such a peer.
 *
 * While a dispatch runs, it holds a reference to the server. If a callback drops the last other one, the server is
 * finalized when the callback returns.
 */
struct _PTZSocketServer {
  PTZSocket parent_instance;
  PTZSocketServerSource *source;
  GMainContext *context;
};

/**
 * PTZSocketServerClass:
 * @send: delivers a reply; returns whether it could be sent. The base writes @data as it is, waiting at most a second,
 *   and closes the client on an error other than EAGAIN and EINTR
 * @get_reply_context: makes the reply context for a message that was read from @client, or `NULL` for no callback
 *
 * The operations that subclasses may override, besides those of #PTZSocketClass. The read of this class reads once;
 * its result is the count, or -1 at an end of file and on an error.
 */
struct _PTZSocketServerClass {
  PTZSocketClass parent_class;
  gboolean (*send) (gpointer reply_context, gconstpointer data, guint32 length);
  gpointer (*get_reply_context) (PTZSocketServer *server, PTZSocketServerClient *client);
};

/**
 * ptz_socket_server_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketServer"
 */
PTZ_API GType ptz_socket_server_get_type (void);

/**
 * ptz_socket_server_new:
 * @object_type: #PTZSocketServer or a subclass
 * @path: (type filename): where to listen, shorter than 108 bytes; a stale file there is removed
 * @type: the socket type for socket(2)
 *
 * Listens on @path with mode 0666, and serves on the default main context. When the server is finalized, it removes the
 * file and closes its clients.
 *
 * Thread: the one of the default main context.
 *
 * Returns: (transfer full) (nullable): the server, also when it could not listen (its descriptor is -1 then and the
 *   reason in the system log); `NULL` only for a wrong argument
 */
PTZ_API PTZSocketServer *ptz_socket_server_new (GType object_type, const gchar *path, gint type);

/**
 * ptz_socket_server_fd_new:
 * @object_type: #PTZSocketServer or a subclass
 * @fd: an open descriptor
 * @type: the socket type of @fd
 *
 * Serves on a descriptor that exists. Nothing is accepted on it: when it becomes readable the server takes it as a
 * client connection of its own, unless it has it as one already, and makes it non-blocking.
 *
 * @fd is the caller's until then. From then on it is closed with its client record, at the latest when the server
 * ends, and the endpoint's descriptor is -1.
 *
 * Thread: the one of the default main context.
 *
 * Returns: (transfer full) (nullable): the server; `NULL` only for a wrong argument
 */
PTZ_API PTZSocketServer *ptz_socket_server_fd_new (GType object_type, gint fd, gint type);

/**
 * ptz_socket_server_register_callback:
 * @server: a server
 * @callback: (scope notified): the receiver of messages; until one is set, messages are read and dropped
 * @user_data: passed to @callback; borrowed
 *
 * Thread: the one of the default main context.
 */
PTZ_API void ptz_socket_server_register_callback (PTZSocketServer *server, PTZSocketServerCallback callback,
                                                  gpointer user_data);

/**
 * ptz_socket_server_send:
 * @reply_context: (nullable): what the callback received: freed by this call on a command server, borrowed on a plain
 *   one; `NULL` answers nobody, successfully
 * @data: (array length=length) (element-type guint8): the answer; borrowed
 * @length: bytes in @data, at least 1; on a command server at most `PTZ_SOCKET_BODY_MAX`
 *
 * Answers a message, through the class of the server that the context names.
 *
 * On a command server this must be called exactly once for each context, at any time while the server lives: it frees
 * the context. On a plain server it may be called only during the callback.
 *
 * Thread: the one of the default main context.
 *
 * Returns: `TRUE` if the answer was sent
 */
PTZ_API gboolean ptz_socket_server_send (gpointer reply_context, gconstpointer data, guint32 length);

/**
 * ptz_socket_server_close: (skip)
 * @server: a server
 * @client: one of its connections, in its source's list; freed
 *
 * Stops watching the client, closes its descriptor and forgets it.
 *
 * Thread: the one of the default main context.
 */
PTZ_API void ptz_socket_server_close (PTZSocketServer *server, PTZSocketServerClient *client);

/**
 * ptz_socket_server_unref: (skip)
 * @reply_context: what the callback received; borrowed
 *
 * Drops one reference of the server that the context names, such as one that was added to keep the server until a
 * later answer. Call it before that answer frees the context, or use g_object_unref() on the server.
 *
 * Thread: the one of the default main context.
 */
PTZ_API void ptz_socket_server_unref (gpointer reply_context);

G_END_DECLS
