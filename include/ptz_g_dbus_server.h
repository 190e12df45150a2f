/* ptz_g_dbus_server.h - PTZGDBusServer: claims a name on the system bus and exports an object there. */
#pragma once

#include "ptz_api.h"
#include <gio/gio.h>

G_BEGIN_DECLS

#define PTZ_TYPE_G_DBUS_SERVER (ptz_g_dbus_server_get_type ())
/**
 * PTZ_G_DBUS_SERVER: (skip)
 * @o: an object
 *
 * Casts @o, with a check, to #PTZGDBusServer.
 */
#define PTZ_G_DBUS_SERVER(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_G_DBUS_SERVER, PTZGDBusServer))
/**
 * PTZ_G_DBUS_SERVER_CLASS: (skip)
 * @k: a class
 *
 * Casts @k, with a check, to #PTZGDBusServerClass.
 */
#define PTZ_G_DBUS_SERVER_CLASS(k) (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_G_DBUS_SERVER, PTZGDBusServerClass))
#define PTZ_IS_G_DBUS_SERVER(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_G_DBUS_SERVER))
#define PTZ_IS_G_DBUS_SERVER_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_G_DBUS_SERVER))
#define PTZ_G_DBUS_SERVER_GET_CLASS(o) (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_G_DBUS_SERVER, PTZGDBusServerClass))

typedef struct _PTZGDBusServer PTZGDBusServer;
typedef struct _PTZGDBusServerClass PTZGDBusServerClass;

/**
 * PTZGDBusServer:
 * @skeleton: (nullable): the interface that was exported last; no reference is held, the caller owns it. `NULL` until an
 *   export succeeds, after one has failed, and when the skeleton has been destroyed
 *
 * Made with g_object_new() and %PTZ_TYPE_G_DBUS_SERVER. When the last reference goes, @skeleton is unexported; a name
 * stays claimed for as long as the process is connected to the bus.
 *
 * The owner of a skeleton and subclasses may write @skeleton, in the thread that uses the server. With `NULL` the server
 * leaves the skeleton exported. A subclass that exports a skeleton itself may store it there, and takes it out before
 * the skeleton is destroyed.
 */
struct _PTZGDBusServer {
  GObject parent_instance;
  GDBusInterfaceSkeleton *skeleton;
};

/**
 * PTZGDBusServerClass:
 * @connection: (nullable): the system bus, shared by all instances and never released; `NULL` where it could not be
 *   reached when the class was made: every operation of such a process fails
 * @dbus_register: see ptz_g_dbus_server_dbus_register()
 * @dbus_request_name: see ptz_g_dbus_server_dbus_request_name()
 * @dbus_register_obj_full_path: see ptz_g_dbus_server_dbus_register_obj_full_path()
 * @dbus_request_name_full_path: see ptz_g_dbus_server_dbus_request_name_full_path()
 *
 * The operations that subclasses may override. They are always called through the class of the instance.
 *
 * The class takes the process's shared connection to the system bus when its first instance is made, and lets the
 * process live on when that is lost (g_dbus_connection_set_exit_on_close()). The connection is not made anew: a process
 * that has to serve a restarted bus is started anew.
 */
struct _PTZGDBusServerClass {
  GObjectClass parent_class;
  GDBusConnection *connection;
  gboolean (*dbus_register) (PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton, const gchar *short_name, gint index);
  gboolean (*dbus_request_name) (PTZGDBusServer *self, const gchar *short_name);
  gboolean (*dbus_register_obj_full_path) (PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton, const gchar *object_path);
  gboolean (*dbus_request_name_full_path) (PTZGDBusServer *self, const gchar *bus_name);
};

/**
 * ptz_g_dbus_server_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZGDBusServer"
 */
PTZ_API GType ptz_g_dbus_server_get_type (void);

/**
 * ptz_g_dbus_server_dbus_register:
 * @self: a server
 * @skeleton: what to export; borrowed: it stays exported as long as it and @self live
 * @short_name: the module's name, such as "ptz"; dots in it separate parts of the path
 * @index: the object's number, or -1 for none
 *
 * Exports @skeleton at "/com/velk/PTZ/NAME" or "/com/velk/PTZ/NAME/INDEX". One that was exported before stays exported;
 * @self forgets it. A failure is written to the system log, and what @self had exported before is unexported.
 *
 * Thread: the one whose thread-default main context is to run the handlers.
 *
 * Returns: `TRUE` when it is exported
 */
PTZ_API gboolean ptz_g_dbus_server_dbus_register (PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton,
                                                  const gchar *short_name, gint index);

/**
 * ptz_g_dbus_server_dbus_request_name:
 * @self: a server
 * @short_name: the module's name
 *
 * Claims the name "com.velk.PTZ.NAME". Export first: who waits for the name may call at once. Blocks until the bus has
 * answered, so keep it off the main loop of a process that is busy.
 *
 * Where another process has the name, this is written to the system log as a warning, and the bus hands the name to
 * this process when the other lets it go.
 *
 * Thread: any.
 *
 * Returns: `TRUE` when this process owns the name, also when it did so before
 */
PTZ_API gboolean ptz_g_dbus_server_dbus_request_name (PTZGDBusServer *self, const gchar *short_name);

/**
 * ptz_g_dbus_server_dbus_register_obj_full_path:
 * @self: a server
 * @skeleton: what to export; borrowed
 * @object_path: where, unchanged
 *
 * As ptz_g_dbus_server_dbus_register(), with a path of the caller's own.
 *
 * Thread: the one whose thread-default main context is to run the handlers.
 *
 * Returns: `TRUE` when it is exported
 */
PTZ_API gboolean ptz_g_dbus_server_dbus_register_obj_full_path (PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton,
                                                                const gchar *object_path);

/**
 * ptz_g_dbus_server_dbus_request_name_full_path:
 * @self: a server
 * @bus_name: the name, unchanged
 *
 * As ptz_g_dbus_server_dbus_request_name(), with a name of the caller's own.
 *
 * Thread: any.
 *
 * Returns: `TRUE` when this process owns the name, also when it did so before
 */
PTZ_API gboolean ptz_g_dbus_server_dbus_request_name_full_path (PTZGDBusServer *self, const gchar *bus_name);

G_END_DECLS
