/* ptz_socket.h - PTZSocket, the endpoint under every local (AF_UNIX) connection of the library. */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET (ptz_socket_get_type ())
#define PTZ_SOCKET(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET, PTZSocket))
#define PTZ_SOCKET_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET, PTZSocketClass))
#define PTZ_IS_SOCKET(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET))
#define PTZ_IS_SOCKET_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET))
#define PTZ_SOCKET_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET, PTZSocketClass))

typedef struct _PTZSocket PTZSocket;
typedef struct _PTZSocketClass PTZSocketClass;

/**
 * PTZSocketMode:
 * @PTZ_SOCKET_MODE_CLIENT: connects to the path, and keeps trying once a second until it succeeds
 * @PTZ_SOCKET_MODE_SERVER: binds the path and listens on it
 *
 * What an endpoint does with its path.
 */
typedef enum {
  PTZ_SOCKET_MODE_CLIENT = 0,
  PTZ_SOCKET_MODE_SERVER = 1
} PTZSocketMode;

/**
 * PTZSocket:
 * @socket: (nullable): the path, owned by the endpoint; `NULL` when it was made from a descriptor
 * @fd: the descriptor, -1 while not open
 * @type: the socket type that was handed to socket(2)
 * @retry_source: id of the pending reconnection timer on the default main context, 0 when none is pending
 * @mode: a #PTZSocketMode
 *
 * An endpoint: one descriptor and the path that it is bound or connected to. Its property "socket" (write-only, a
 * string) is the path.
 *
 * If SIGPIPE still has its default disposition, the class ignores it in the process, so that writing to a peer that has
 * gone is an error result and does not end the process. Descriptors that the library opens are not inherited by child
 * programs.
 *
 * The sources and timers of an endpoint hold no reference to it. The last reference may be dropped in any thread, even
 * while a main loop runs. A callback that is running then completes first: the endpoint is finalized when the callback
 * returns, in the thread of the main loop.
 */
struct _PTZSocket {
  GObject parent_instance;
  gchar *socket;
  gint32 fd;
  gint32 type;
  guint32 retry_source;
  gint32 mode;
};

/**
 * PTZSocket:socket:
 *
 * The path that the endpoint was made with, set by its constructor.
 */

/**
 * PTZSocketClass:
 * @read: reads up to @length bytes from @fd; returns the count
 * @write: writes @length bytes to @fd; returns the count
 * @add_retry: closes the descriptor and starts the reconnection timer; returns the timer's id
 *
 * The operations that subclasses may override. They are always called through the class of the instance.
 *
 * @read of the base class: on an endpoint that is not open (@fd negative) and for a @length of 0 it returns 0. With a
 * @timeout_ms other than 0 it polls and reads until all @length bytes are there or the time is over, and returns the
 * count; a @timeout_ms below 0 returns 0, a failed poll or read -1. With a @timeout_ms of 0 it makes at most five
 * attempts, a millisecond apart where nothing is there, and returns the count, -1 on an error. An end of file counts
 * as nothing read: it is looked at again once a millisecond until the time is over.
 *
 * @write of the base class: on an endpoint that is not open it returns 0, which callers take for success. With a
 * @timeout_ms of 0 it makes one attempt. Otherwise it polls and writes until everything is sent or the time is over;
 * a peer that has gone ends it at once, without a message. It returns the count that was sent where that is above 0,
 * else -1: so a @length of 0 and a @timeout_ms below 0 give -1.
 *
 * @add_retry of the base class: aborts on an endpoint without a path. The timer tries once a second, without limit,
 * and always opens a client socket.
 */
struct _PTZSocketClass {
  GObjectClass parent_class;
  gssize (*read) (PTZSocket *self, gint fd, gpointer buffer, gsize length, gint timeout_ms);
  gssize (*write) (PTZSocket *self, gint fd, gconstpointer buffer, gsize length, gint timeout_ms);
  guint (*add_retry) (PTZSocket *self);
};

/**
 * ptz_socket_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocket"
 */
PTZ_API GType ptz_socket_get_type (void);

/**
 * ptz_socket_new:
 * @object_type: #PTZSocket or a subclass
 * @mode: a #PTZSocketMode; any other value aborts
 * @path: (nullable) (type filename): the socket's path, shorter than 108 bytes; `NULL` only for a client, which then
 *   opens nothing
 * @type: the socket type for socket(2), such as `SOCK_STREAM`
 *
 * Makes an endpoint and opens it. A server removes a stale file at @path, binds, makes the file world-writable and
 * listens. A client connects; if that fails, it removes the file at @path and tries again every second on the default
 * main context. Descriptors are non-blocking.
 *
 * A client that tries to connect before the server listens removes the path that the server has just bound. So a server
 * checks its path once it listens, and again after two milliseconds, which this call waits. If the path does not name
 * its socket any more, the server opens it again, at most 30 times.
 *
 * A failure is written to the system log and leaves the descriptor at -1; failed connections are logged once in 300.
 *
 * Thread: any; the reconnection timer runs on the default main context.
 *
 * Returns: (transfer full) (nullable): the endpoint, also when it could not be opened; `NULL` only for a wrong argument
 */
PTZ_API PTZSocket *ptz_socket_new (GType object_type, gint mode, const gchar *path, gint type);

/**
 * ptz_socket_fd_new:
 * @object_type: #PTZSocket or a subclass
 * @mode: a #PTZSocketMode
 * @fd: an open descriptor; the caller owns it, and closes it after the endpoint was finalized
 * @type: the socket type of @fd
 *
 * Makes an endpoint on a descriptor that exists. Opens nothing.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the endpoint; `NULL` only for a wrong argument
 */
PTZ_API PTZSocket *ptz_socket_fd_new (GType object_type, gint mode, gint fd, gint type);

/**
 * ptz_socket_finalize:
 * @object: the endpoint, whose last reference has gone
 *
 * The class's own `finalize`: stops reconnecting, closes the descriptor and, for a server, removes the file at its
 * path. Subclasses reach it by chaining up; nothing else may call it.
 *
 * If a callback of the server has dropped the last reference and then made another server on the same path, the file
 * stays.
 *
 * Thread: the one that drops the last reference.
 */
PTZ_API void ptz_socket_finalize (GObject *object);

G_END_DECLS
