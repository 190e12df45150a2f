/* ptz_socket_client_signal_data_ready.h - a client that only tells its callback that data are waiting. */
#pragma once

#include "ptz_socket_client.h"

G_BEGIN_DECLS

#define PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY (ptz_socket_client_signal_data_ready_get_type ())
#define PTZ_SOCKET_CLIENT_SIGNAL_DATA_READY(o) \
  (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY, PTZSocketClientSignalDataReady))
#define PTZ_SOCKET_CLIENT_SIGNAL_DATA_READY_CLASS(k) \
  (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY, PTZSocketClientSignalDataReadyClass))
#define PTZ_IS_SOCKET_CLIENT_SIGNAL_DATA_READY(o) \
  (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY))
#define PTZ_IS_SOCKET_CLIENT_SIGNAL_DATA_READY_CLASS(k) \
  (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY))
#define PTZ_SOCKET_CLIENT_SIGNAL_DATA_READY_GET_CLASS(o) \
  (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY, PTZSocketClientSignalDataReadyClass))

typedef struct _PTZSocketClientSignalDataReady PTZSocketClientSignalDataReady;
typedef struct _PTZSocketClientSignalDataReadyClass PTZSocketClientSignalDataReadyClass;

/**
 * PTZSocketClientSignalDataReady:
 *
 * A client that reads nothing itself. Its callback is called as (user data, `NULL`, 2560) when data are waiting, and
 * must drain the descriptor, or it is called again at once. If the peer half-closes, the callback is called once more
 * after the data that came before; it reads the end of file, and the watch stops. If no callback is registered, waiting
 * data stop the watch: ptz_socket_client_add_poll() starts it again.
 */
struct _PTZSocketClientSignalDataReady {
  PTZSocketClient parent_instance;
};

/**
 * PTZSocketClientSignalDataReadyClass:
 *
 * Adds no operation to #PTZSocketClientClass.
 */
struct _PTZSocketClientSignalDataReadyClass {
  PTZSocketClientClass parent_class;
};

/**
 * ptz_socket_client_signal_data_ready_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZSocketClientSignalDataReady"
 */
PTZ_API GType ptz_socket_client_signal_data_ready_get_type (void);

/**
 * ptz_socket_client_signal_data_ready_new:
 * @object_type: #PTZSocketClientSignalDataReady or a subclass
 * @path: (nullable) (type filename): the server's socket; `NULL` to use @fd
 * @fd: with a `NULL` @path, an open descriptor, borrowed for the life of the client
 * @type: the socket type for socket(2)
 *
 * Thread: any; the callback runs on the default main context.
 *
 * Returns: (transfer full) (nullable): a new client; `NULL` only for a wrong argument
 */
PTZ_API PTZSocketClientSignalDataReady *ptz_socket_client_signal_data_ready_new (GType object_type, const gchar *path,
                                                                                 gint fd, gint type);

G_END_DECLS
