/* ptz_legacy_config.h - serves "com.velk.Configuration.Legacy" and tells the device when configuration changes. */
#pragma once

#include "ptz_g_dbus_server.h"

G_BEGIN_DECLS

struct ConfigEvent;

/**
 * PTZLegacyConfigHandler: (skip)
 * @server: what exports the interface; owned
 * @owner_name: who declares and sends configuration events; owned
 * @object_path: "/com/velk/PTZ/NAME"; owned
 * @event: the platform's configuration event; owned
 *
 * One service's configuration on the bus. It belongs to the thread that runs the service's main loop.
 */
typedef struct {
  PTZGDBusServer *server;
  gchar *owner_name;
  gchar *object_path;
  struct ConfigEvent *event;
} PTZLegacyConfigHandler;

/**
 * ptz_legacy_config_setup: (skip)
 * @skeleton: the caller's skeleton of the interface (ptz_legacy_config_dynamic_configuration_legacy_skeleton_new()),
 *   with its handlers; borrowed until the clean-up
 * @event_name: the name of the configuration event; borrowed
 * @owner_name: who declares and sends it; copied
 * @short_name: the module's name, such as "ptz"; without dots, or the object and its events have different paths
 *
 * Exports @skeleton at "/com/velk/PTZ/NAME" on the system bus and declares the object to the platform's
 * configuration-event service. It claims no name: see ptz_g_dbus_server_dbus_request_name(). A failure is written to the
 * system log and leaves nothing behind.
 *
 * Thread: that of the service's main loop; blocks on the platform's service.
 *
 * Returns: (transfer full) (nullable): the handler, for ptz_legacy_config_cleanup()
 */
PTZ_API PTZLegacyConfigHandler *ptz_legacy_config_setup (GDBusInterfaceSkeleton *skeleton, const gchar *event_name,
                                                         const gchar *owner_name, const gchar *short_name);

/**
 * ptz_legacy_config_cleanup: (skip)
 * @handler: (nullable) (transfer full): a handler
 *
 * Takes back the declaration, unexports the skeleton and frees @handler.
 *
 * Thread: that of the service's main loop; blocks on the platform's service.
 */
PTZ_API void ptz_legacy_config_cleanup (PTZLegacyConfigHandler *handler);

/**
 * ptz_legacy_config_prop_changed: (skip)
 * @handler: a handler; `NULL` aborts
 * @key: the name of the entry that has changed, in UTF-8; `NULL` aborts
 * @value: its new value: an int, a boolean or a string; borrowed; `NULL` aborts
 *
 * Broadcasts org.freedesktop.DBus.Properties.PropertiesChanged from the handler's object path. A string travels as a
 * byte string (D-Bus type "ay", with its terminating NUL), a string that is `NULL` as an empty one. A value of another
 * type, and a failure, are written to the system log.
 *
 * Thread: that of the service's main loop.
 */
PTZ_API void ptz_legacy_config_prop_changed (PTZLegacyConfigHandler *handler, const gchar *key, const GValue *value);

/**
 * ptz_legacy_config_send_event: (skip)
 * @handler: a handler; `NULL` aborts
 * @event_kind: the kind of change, for the platform's configuration-event service
 * @index: the number of the set that has changed, or a negative number for all
 * @changes: (nullable) (element-type utf8 utf8): what has changed, from name to value, which may be `NULL`; borrowed
 *
 * Sends one configuration event, with the key "PATH/INDEX" or "PATH". A failure is written to the system log.
 *
 * Thread: that of the service's main loop; blocks on the platform's service.
 *
 * Returns: `TRUE` when it was sent
 */
PTZ_API gboolean ptz_legacy_config_send_event (PTZLegacyConfigHandler *handler, gint event_kind, gint index,
                                               GHashTable *changes);

G_END_DECLS
