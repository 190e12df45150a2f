/* ptz_g_dbus_client.h - PTZGDBusClient: a proxy for a service on the system bus, and word of when the service leaves. */
#pragma once

#include "ptz_api.h"
#include <gio/gio.h>

G_BEGIN_DECLS

#define PTZ_TYPE_G_DBUS_CLIENT (ptz_g_dbus_client_get_type ())
/**
 * PTZ_G_DBUS_CLIENT: (skip)
 * @o: an object
 *
 * Casts @o, with a check, to #PTZGDBusClient.
 */
#define PTZ_G_DBUS_CLIENT(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_G_DBUS_CLIENT, PTZGDBusClient))
/**
 * PTZ_G_DBUS_CLIENT_CLASS: (skip)
 * @k: a class
 *
 * Casts @k, with a check, to #PTZGDBusClientClass.
 */
#define PTZ_G_DBUS_CLIENT_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_G_DBUS_CLIENT, PTZGDBusClientClass))
#define PTZ_IS_G_DBUS_CLIENT(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_G_DBUS_CLIENT))
#define PTZ_IS_G_DBUS_CLIENT_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_G_DBUS_CLIENT))
#define PTZ_G_DBUS_CLIENT_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_G_DBUS_CLIENT, PTZGDBusClientClass))

typedef struct _PTZGDBusClient PTZGDBusClient;
typedef struct _PTZGDBusClientClass PTZGDBusClientClass;

/**
 * PTZGDBusClientDestroyCallback:
 * @user_data: as given to ptz_g_dbus_client_connect_destroy_signal()
 *
 * The service has left the bus. The callback may drop the last reference of the client.
 */
typedef void (*PTZGDBusClientDestroyCallback) (gpointer user_data);

/**
 * PTZGDBusClient:
 * @proxy: (nullable): the service's proxy, owned by the client
 * @bus_name: (nullable): the service's name on the bus, owned by the client
 * @object_path: (nullable): the object's path, owned by the client
 * @interface_name: (nullable): the interface's name, owned by the client
 * @destroy_handler: the signal handler on @proxy, 0 while none is connected
 * @destroy_callback: (nullable): what to call when the service leaves
 * @user_data: (nullable): for @destroy_callback; borrowed
 *
 * A proxy and the names that it was made, or is to be made, from.
 */
struct _PTZGDBusClient {
  GObject parent_instance;
  GDBusProxy *proxy;
  gchar *bus_name;
  gchar *object_path;
  gchar *interface_name;
  gulong destroy_handler;
  PTZGDBusClientDestroyCallback destroy_callback;
  gpointer user_data;
};

/**
 * PTZGDBusClientClass:
 * @connection: the system bus, shared by all instances and never released
 * @set_proxy: see ptz_g_dbus_client_set_proxy()
 * @set_proxy_full: see ptz_g_dbus_client_set_proxy_full()
 * @get_proxy: see ptz_g_dbus_client_get_proxy()
 * @connect_destroy_signal: see ptz_g_dbus_client_connect_destroy_signal()
 * @disconnect_destroy_signal: see ptz_g_dbus_client_disconnect_destroy_signal(); also called when a client is disposed of
 *
 * The operations that subclasses may override. They are always called through the class of the instance.
 *
 * The class takes the process's shared connection to the system bus when its first instance is made: where that cannot
 * be reached, the process ends with status 42. When it is lost later the process lives on
 * (g_dbus_connection_set_exit_on_close()); every call then fails, no destroy callback tells of it, and the connection is
 * not made anew.
 */
struct _PTZGDBusClientClass {
  GObjectClass parent_class;
  GDBusConnection *connection;
  gboolean (*set_proxy) (PTZGDBusClient *self, const gchar *short_name, gint index);
  gboolean (*set_proxy_full) (PTZGDBusClient *self, const gchar *bus_name, const gchar *object_path,
                              const gchar *interface_name);
  GDBusProxy *(*get_proxy) (PTZGDBusClient *self);
  gboolean (*connect_destroy_signal) (PTZGDBusClient *self, PTZGDBusClientDestroyCallback callback, gpointer user_data);
  void (*disconnect_destroy_signal) (PTZGDBusClient *self);
};

/**
 * ptz_g_dbus_client_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZGDBusClient"
 */
PTZ_API GType ptz_g_dbus_client_get_type (void);

/**
 * ptz_g_dbus_client_new:
 *
 * Ends the process with status 42 where the system bus cannot be reached.
 *
 * Thread: any.
 *
 * Returns: (transfer full): a new client, without a proxy
 */
PTZ_API PTZGDBusClient *ptz_g_dbus_client_new (void);

/**
 * ptz_g_dbus_client_set_proxy:
 * @self: a client without a proxy; with one this is a failed check
 * @short_name: the module's name, such as "ptz"
 * @index: the object's number, or -1 for none
 *
 * Makes the proxy for the interface "com.velk.PTZ.NAME" of the service of the same name, at "/com/velk/PTZ/NAME" or
 * "/com/velk/PTZ/NAME/INDEX". Dots of the name stay dots in the path, unlike in ptz_g_dbus_server_dbus_register(): for
 * such a service use ptz_g_dbus_client_set_proxy_full(). The names are kept, also when it fails: ptz_g_dbus_client_get_proxy()
 * tries again.
 *
 * Succeeds also where no such service is on the bus; the proxy notices when it comes. Blocks until the bus and the
 * service have answered, 25 seconds each at most, so do not call it in the thread of the service itself. A failure is
 * written to the system log.
 *
 * Thread: the one whose thread-default main context is to run the destroy callback.
 *
 * Returns: `TRUE` when there is a new proxy
 */
PTZ_API gboolean ptz_g_dbus_client_set_proxy (PTZGDBusClient *self, const gchar *short_name, gint index);

/**
 * ptz_g_dbus_client_set_proxy_full:
 * @self: a client without a proxy; with one this is a failed check
 * @bus_name: the service's name; copied
 * @object_path: the object's path; copied
 * @interface_name: the interface's name; copied
 *
 * As ptz_g_dbus_client_set_proxy(), with names of the caller's own.
 *
 * Thread: the one whose thread-default main context is to run the destroy callback.
 *
 * Returns: `TRUE` when there is a new proxy
 */
PTZ_API gboolean ptz_g_dbus_client_set_proxy_full (PTZGDBusClient *self, const gchar *bus_name, const gchar *object_path,
                                                   const gchar *interface_name);

/**
 * ptz_g_dbus_client_get_proxy:
 * @self: a client
 *
 * Makes the proxy from the names that were set before, where there is none yet.
 *
 * Thread: the one whose thread-default main context is to run the destroy callback.
 *
 * Returns: (transfer none) (nullable): the proxy, the client's own; `NULL` where it cannot be made
 */
PTZ_API GDBusProxy *ptz_g_dbus_client_get_proxy (PTZGDBusClient *self);

/**
 * ptz_g_dbus_client_connect_destroy_signal:
 * @self: a client with a proxy
 * @callback: (nullable) (scope notified): called each time the service leaves the bus
 * @user_data: for @callback; borrowed
 *
 * Thread: that of the proxy. @callback runs on the main context that the proxy was made in.
 *
 * Returns: `TRUE` when connected; `FALSE`, and nothing changed, where one is connected already or there is no proxy
 */
PTZ_API gboolean ptz_g_dbus_client_connect_destroy_signal (PTZGDBusClient *self, PTZGDBusClientDestroyCallback callback,
                                                           gpointer user_data);

/**
 * ptz_g_dbus_client_disconnect_destroy_signal:
 * @self: a client
 *
 * Forgets the callback; harmless where none is connected.
 *
 * Thread: that of the proxy.
 */
PTZ_API void ptz_g_dbus_client_disconnect_destroy_signal (PTZGDBusClient *self);

G_END_DECLS
