/* ptz_socket_signal.h - PTZSocketSignal, a one-way sender of short text notifications. */
#pragma once

#include "ptz_socket.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_SIGNAL (ptz_socket_signal_get_type ())
#define PTZ_SOCKET_SIGNAL(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_SIGNAL, PTZSocketSignal))
#define PTZ_SOCKET_SIGNAL_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_SIGNAL, PTZSocketSignalClass))
#define PTZ_IS_SOCKET_SIGNAL(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_SIGNAL))
#define PTZ_IS_SOCKET_SIGNAL_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_SIGNAL))
#define PTZ_SOCKET_SIGNAL_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_SIGNAL, PTZSocketSignalClass))

typedef struct _PTZSocketSignal PTZSocketSignal;
typedef struct _PTZSocketSignalClass PTZSocketSignalClass;

/**
 * PTZSocketSignal:
 *
 * A client endpoint that only sends. It adds no field to #PTZSocket.
 */
struct _PTZSocketSignal {
  PTZSocket parent_instance;
};

/**
 * PTZSocketSignalClass:
 *
 * Adds no operation to #PTZSocketClass.
 */
struct _PTZSocketSignalClass {
  PTZSocketClass parent_class;
};

/**
 * ptz_socket_signal_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketSignal"
 */
PTZ_API GType ptz_socket_signal_get_type (void);

/**
 * ptz_socket_signal_new:
 * @path: (nullable) (type filename): the receiver's socket
 * @type: the socket type for socket(2)
 *
 * Connects to the receiver; where nobody listens yet, the endpoint tries again every second.
 *
 * Thread: any; the reconnection timer runs on the default main context.
 *
 * Returns: (transfer full): a new sender
 */
PTZ_API PTZSocketSignal *ptz_socket_signal_new (const gchar *path, gint type);

/**
 * ptz_socket_signal_emit:
 * @self: (nullable): a sender
 * @text: the notification; borrowed
 *
 * Sends @text with its terminating NUL byte, waiting at most 100 ms for a receiver that does not read. While the
 * sender is not connected the notification is dropped silently. When it cannot be delivered it is lost, and the
 * connection is closed and made anew in the background.
 *
 * Thread: the one of the default main context, or any while no other uses @self.
 */
PTZ_API void ptz_socket_signal_emit (PTZSocketSignal *self, const gchar *text);

G_END_DECLS
