/* ptz_socket_server_command.h - PTZSocketServerCommand, the answering end of the command channel. */
#pragma once

#include "ptz_socket_frame.h"
#include "ptz_socket_server.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_SERVER_COMMAND (ptz_socket_server_command_get_type ())
#define PTZ_SOCKET_SERVER_COMMAND(o) \
  (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_SERVER_COMMAND, PTZSocketServerCommand))
#define PTZ_SOCKET_SERVER_COMMAND_CLASS(k) \
  (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_SERVER_COMMAND, PTZSocketServerCommandClass))
#define PTZ_IS_SOCKET_SERVER_COMMAND(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_SERVER_COMMAND))
#define PTZ_IS_SOCKET_SERVER_COMMAND_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_SERVER_COMMAND))
#define PTZ_SOCKET_SERVER_COMMAND_GET_CLASS(o) \
  (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_SERVER_COMMAND, PTZSocketServerCommandClass))

typedef struct _PTZSocketServerCommand PTZSocketServerCommand;
typedef struct _PTZSocketServerCommandClass PTZSocketServerCommandClass;
typedef struct _PTZSocketServerCommandReplyContext PTZSocketServerCommandReplyContext;

/**
 * PTZSocketServerCommandReplyContext:
 * @fd: the descriptor of the client that sent the request
 * @server: the server that received it, not referenced
 * @message_id: the request's message id, which the reply carries too
 *
 * The reply context of a command server. It may be kept beyond the callback, and the reply sent later, while the server
 * exists. If the client has gone by then, the reply is not sent, even if another client has its descriptor number.
 *
 * A subclass that overrides get_reply_context may return a context of its own, allocated with g_malloc(). Its reply
 * goes to @fd unchecked.
 */
struct _PTZSocketServerCommandReplyContext {
  gint32 fd;
  PTZSocketServer *server;
  guint32 message_id;
};

/**
 * PTZSocketServerCommand:
 * @fill: bytes of the current frame received so far
 * @expected: length of the current frame, `PTZ_SOCKET_FRAME_UNKNOWN` until its header is there
 * @message_id: message id of the last complete frame
 * @buffer: the frame being assembled, `PTZ_SOCKET_FRAME_MAX` bytes, owned
 * @have_message: a complete frame was delivered and no reply context was made for it yet
 *
 * A server whose clients send frames (see ptz_socket_frame.h). Its callback receives only complete bodies; a frame
 * without a body is ignored.
 *
 * The assembly state is that of the client that was read last. When bytes of another client arrive, the partial frame
 * of the first is saved in the server, and restored with its next bytes. So frames of several clients do not mix, and a
 * partial frame delays no other client. A client that sends a malformed frame is closed.
 *
 * A client that half-closes stays connected and receives the replies that are still to come.
 */
struct _PTZSocketServerCommand {
  PTZSocketServer parent_instance;
  guint32 fill;
  guint32 expected;
  guint32 message_id;
  guint8 *buffer;
  gboolean have_message;
};

/**
 * PTZSocketServerCommandClass:
 *
 * Adds no operation to #PTZSocketServerClass.
 *
 * Its read receives at most one frame. The result is the length of the body of a completed frame, 0 while a frame is
 * incomplete and at an end of file, or -1 on an error and for a malformed frame.
 *
 * Its send makes one attempt each to write the header and the body, frees the reply context, and returns `TRUE` if both
 * were written. A reply of more than `PTZ_SOCKET_BODY_MAX` bytes fails a precondition. For a reply of 0 bytes the
 * header is sent and the result is `FALSE`. A client that took only a part of the frame is closed, because nothing may
 * follow it. A failure is the caller's to log.
 */
struct _PTZSocketServerCommandClass {
  PTZSocketServerClass parent_class;
};

/**
 * ptz_socket_server_command_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketServerCommand"
 */
PTZ_API GType ptz_socket_server_command_get_type (void);

/**
 * ptz_socket_server_command_new:
 * @path: (type filename): where to listen, shorter than 108 bytes
 * @type: the socket type for socket(2), `SOCK_STREAM`
 *
 * As ptz_socket_server_new(), for a command server.
 *
 * Thread: the one of the default main context.
 *
 * Returns: (transfer full) (nullable): the server, also when it could not listen; `NULL` only for a wrong argument
 */
PTZ_API PTZSocketServerCommand *ptz_socket_server_command_new (const gchar *path, gint type);

G_END_DECLS
