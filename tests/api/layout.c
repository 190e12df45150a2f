/* The layout of every public structure where long and pointers have 64 bits: programs that were built with it, and
 * classes derived from ours, go on working only as long as no line here has to change.
 * Nothing to run: what does not hold does not compile. */
#include <ptz.h>
#include <stddef.h>

#ifdef __LP64__

#define SIZE(Type, size) _Static_assert (sizeof (Type) == (size), #Type)
#define FIELD(Type, offset, FieldType, field) \
  _Static_assert (offsetof (Type, field) == (offset), #Type " " #field " is elsewhere"); \
  _Static_assert (_Generic (&((Type *) NULL)->field, FieldType *: 1, default: 0), #Type " " #field " has another type")

/* What ours begin with. */
SIZE (GObject, 24);
SIZE (GObjectClass, 136);
SIZE (GSource, 96);
SIZE (GMutex, 8);

typedef gssize (*ReadSlot) (PTZSocket *, gint, gpointer, gsize, gint);
typedef gssize (*WriteSlot) (PTZSocket *, gint, gconstpointer, gsize, gint);
typedef guint (*AddRetrySlot) (PTZSocket *);
typedef gboolean (*SendSlot) (gpointer, gconstpointer, guint32);
typedef gpointer (*GetReplyContextSlot) (PTZSocketServer *, PTZSocketServerClient *);
typedef gchar *(*SetFromStringSlot) (PTZDynamicalProperties *, const gchar *);
typedef gchar *(*StringToGValueSlot) (PTZDynamicalProperties *, GValue **, const gchar *);
typedef gchar *(*GValueToStringSlot) (PTZDynamicalProperties *, const gchar *, const GValue *);
typedef void (*SetSlot) (PTZDynamicalProperties *, const gchar *, GValue *);
typedef GValue *(*GetSlot) (PTZDynamicalProperties *, const gchar *);
typedef gint (*CompareSlot) (PTZDynamicalProperties *, const gchar *, const GValue *);
typedef void (*ClearSlot) (PTZDynamicalProperties *);
typedef gchar Text32[32];
typedef gchar Text64[64];
typedef gboolean (*RegisterSlot) (PTZGDBusServer *, GDBusInterfaceSkeleton *, const gchar *, gint);
typedef gboolean (*RequestNameSlot) (PTZGDBusServer *, const gchar *);
typedef gboolean (*RegisterFullPathSlot) (PTZGDBusServer *, GDBusInterfaceSkeleton *, const gchar *);
typedef gboolean (*SetProxySlot) (PTZGDBusClient *, const gchar *, gint);
typedef gboolean (*SetProxyFullSlot) (PTZGDBusClient *, const gchar *, const gchar *, const gchar *);
typedef GDBusProxy *(*GetProxySlot) (PTZGDBusClient *);
typedef gboolean (*ConnectDestroySignalSlot) (PTZGDBusClient *, PTZGDBusClientDestroyCallback, gpointer);
typedef void (*DisconnectDestroySignalSlot) (PTZGDBusClient *);
typedef struct ConfigEvent *ConfigEventPointer;

FIELD (PTZSocket, 0, GObject, parent_instance);
FIELD (PTZSocket, 24, gchar *, socket);
FIELD (PTZSocket, 32, gint32, fd);
FIELD (PTZSocket, 36, gint32, type);
FIELD (PTZSocket, 40, guint32, retry_source);
FIELD (PTZSocket, 44, gint32, mode);
SIZE (PTZSocket, 48);
FIELD (PTZSocketClass, 0, GObjectClass, parent_class);
FIELD (PTZSocketClass, 136, ReadSlot, read);
FIELD (PTZSocketClass, 144, WriteSlot, write);
FIELD (PTZSocketClass, 152, AddRetrySlot, add_retry);
SIZE (PTZSocketClass, 160);

FIELD (PTZFileGSource, 0, GSource, source);
FIELD (PTZFileGSource, 96, gpointer, tag);
FIELD (PTZFileGSource, 104, gint32, fd);
FIELD (PTZFileGSource, 112, GMutex, mutex);
SIZE (PTZFileGSource, 120);

FIELD (PTZSocketSignal, 0, PTZSocket, parent_instance);
SIZE (PTZSocketSignal, 48);
FIELD (PTZSocketSignalClass, 0, PTZSocketClass, parent_class);
SIZE (PTZSocketSignalClass, 160);

FIELD (PTZSocketServerClient, 0, gint32, fd);
FIELD (PTZSocketServerClient, 8, gpointer, tag);
SIZE (PTZSocketServerClient, 16);
FIELD (PTZSocketServerSource, 0, GSource, source);
FIELD (PTZSocketServerSource, 96, gint32, fd);
FIELD (PTZSocketServerSource, 104, gpointer, tag);
FIELD (PTZSocketServerSource, 112, GList *, clients);
FIELD (PTZSocketServerSource, 120, PTZSocketServer *, server);
SIZE (PTZSocketServerSource, 128);
FIELD (PTZSocketServerReplyContext, 0, PTZSocketServerClient *, client);
FIELD (PTZSocketServerReplyContext, 8, PTZSocketServer *, server);
SIZE (PTZSocketServerReplyContext, 16);
FIELD (PTZSocketServer, 0, PTZSocket, parent_instance);
FIELD (PTZSocketServer, 48, PTZSocketServerSource *, source);
FIELD (PTZSocketServer, 56, GMainContext *, context);
SIZE (PTZSocketServer, 64);
FIELD (PTZSocketServerClass, 0, PTZSocketClass, parent_class);
FIELD (PTZSocketServerClass, 160, SendSlot, send);
FIELD (PTZSocketServerClass, 168, GetReplyContextSlot, get_reply_context);
SIZE (PTZSocketServerClass, 176);

FIELD (PTZSocketServerCommandReplyContext, 0, gint32, fd);
FIELD (PTZSocketServerCommandReplyContext, 8, PTZSocketServer *, server);
FIELD (PTZSocketServerCommandReplyContext, 16, guint32, message_id);
SIZE (PTZSocketServerCommandReplyContext, 24);
FIELD (PTZSocketServerCommand, 0, PTZSocketServer, parent_instance);
FIELD (PTZSocketServerCommand, 64, guint32, fill);
FIELD (PTZSocketServerCommand, 68, guint32, expected);
FIELD (PTZSocketServerCommand, 72, guint32, message_id);
FIELD (PTZSocketServerCommand, 80, guint8 *, buffer);
FIELD (PTZSocketServerCommand, 88, gboolean, have_message);
SIZE (PTZSocketServerCommand, 96);
FIELD (PTZSocketServerCommandClass, 0, PTZSocketServerClass, parent_class);
SIZE (PTZSocketServerCommandClass, 176);

FIELD (PTZSocketClient, 0, PTZSocket, parent_instance);
FIELD (PTZSocketClient, 48, GSource *, source);
FIELD (PTZSocketClient, 56, GMainContext *, context);
FIELD (PTZSocketClient, 64, gpointer, user_data);
FIELD (PTZSocketClient, 72, PTZSocketClientCallback, callback);
SIZE (PTZSocketClient, 80);
FIELD (PTZSocketClientClass, 0, PTZSocketClass, parent_class);
SIZE (PTZSocketClientClass, 160);

FIELD (PTZSocketClientSignalDataReady, 0, PTZSocketClient, parent_instance);
SIZE (PTZSocketClientSignalDataReady, 80);
FIELD (PTZSocketClientSignalDataReadyClass, 0, PTZSocketClientClass, parent_class);
SIZE (PTZSocketClientSignalDataReadyClass, 160);

FIELD (PTZSocketClientCommand, 0, PTZSocketClient, parent_instance);
FIELD (PTZSocketClientCommand, 80, guint32, fill);
FIELD (PTZSocketClientCommand, 84, guint32, expected);
FIELD (PTZSocketClientCommand, 88, guint8 *, buffer);
FIELD (PTZSocketClientCommand, 96, guint32, next_id);
FIELD (PTZSocketClientCommand, 104, GList *, pending);
FIELD (PTZSocketClientCommand, 112, guint32, timeout_source);
FIELD (PTZSocketClientCommand, 120, GMutex, mutex);
FIELD (PTZSocketClientCommand, 128, gpointer, free_user_data);
FIELD (PTZSocketClientCommand, 136, PTZSocketClientCommandFreeCallback, free_callback);
SIZE (PTZSocketClientCommand, 144);
FIELD (PTZSocketClientCommandClass, 0, PTZSocketClientClass, parent_class);
SIZE (PTZSocketClientCommandClass, 160);

FIELD (PTZQueue, 0, GMainContext *, context);
FIELD (PTZQueue, 8, GSource *, source);
SIZE (PTZQueue, 16);

FIELD (PTZDriverCapabilities, 0, guint32, move);
FIELD (PTZDriverCapabilities, 4, guint32, extra);
SIZE (PTZDriverCapabilities, 8);

FIELD (PTZSerializePair, 0, gpointer, key);
FIELD (PTZSerializePair, 8, gpointer, value);
SIZE (PTZSerializePair, 16);

FIELD (PTZParameterItem, 0, guint32, code);
FIELD (PTZParameterItem, 8, gchar *, name);
FIELD (PTZParameterItem, 16, gchar *, text);
FIELD (PTZParameterItem, 24, Text64, value);
FIELD (PTZParameterItem, 88, gchar *, info);
FIELD (PTZParameterItem, 96, guint32, info_code);
FIELD (PTZParameterItem, 104, gchar *, range);
FIELD (PTZParameterItem, 112, guint32, range_code);
SIZE (PTZParameterItem, 120);
FIELD (PTZParameterItemNode, 0, PTZParameterItemNode *, next);
FIELD (PTZParameterItemNode, 8, PTZParameterItem *, item);
SIZE (PTZParameterItemNode, 16);
FIELD (PTZParameterItemArray, 0, GObject, parent_instance);
FIELD (PTZParameterItemArray, 24, gchar *, name);
FIELD (PTZParameterItemArray, 32, PTZParameterItemNode *, items);
FIELD (PTZParameterItemArray, 40, guint32, count);
SIZE (PTZParameterItemArray, 48);
FIELD (PTZParameterItemArrayClass, 0, GObjectClass, parent_class);
FIELD (PTZParameterItemArrayClass, 136, GMutex, mutex);
SIZE (PTZParameterItemArrayClass, 144);

FIELD (PTZDynamicalPropertiesQueue, 0, GSList *, pending);
FIELD (PTZDynamicalPropertiesQueue, 8, guint16, freeze_count);
SIZE (PTZDynamicalPropertiesQueue, 16);
FIELD (PTZDynamicalProperties, 0, GObject, parent_instance);
FIELD (PTZDynamicalProperties, 24, GHashTable *, properties);
FIELD (PTZDynamicalProperties, 32, PTZDynamicalPropertiesQueue, nqueue);
SIZE (PTZDynamicalProperties, 48);
FIELD (PTZDynamicalPropertiesClass, 0, GObjectClass, parent_class);
FIELD (PTZDynamicalPropertiesClass, 136, SetFromStringSlot, set_from_string);
FIELD (PTZDynamicalPropertiesClass, 144, StringToGValueSlot, string_to_gvalue);
FIELD (PTZDynamicalPropertiesClass, 152, GValueToStringSlot, gvalue_to_string);
FIELD (PTZDynamicalPropertiesClass, 160, SetSlot, set);
FIELD (PTZDynamicalPropertiesClass, 168, GetSlot, get);
FIELD (PTZDynamicalPropertiesClass, 176, CompareSlot, compare);
FIELD (PTZDynamicalPropertiesClass, 184, ClearSlot, clear);
FIELD (PTZDynamicalPropertiesClass, 192, guint, notify_change);
SIZE (PTZDynamicalPropertiesClass, 200);

FIELD (PTZDriverParameterItem, 0, guint32, code);
FIELD (PTZDriverParameterItem, 8, gchar *, string1);
FIELD (PTZDriverParameterItem, 16, gchar *, string2);
FIELD (PTZDriverParameterItem, 24, gchar *, string3);
FIELD (PTZDriverParameterItem, 32, guint32, number1);
FIELD (PTZDriverParameterItem, 36, guint32, number2);
FIELD (PTZDriverParameterItem, 40, gchar *, string4);
SIZE (PTZDriverParameterItem, 48);

FIELD (PTZSettingsFile, 0, const gchar *, path);
FIELD (PTZSettingsFile, 8, gboolean, mandatory);
SIZE (PTZSettingsFile, 16);
FIELD (PTZSettingsFileExt, 0, const gchar *, path);
FIELD (PTZSettingsFileExt, 8, gboolean, mandatory);
FIELD (PTZSettingsFileExt, 12, gboolean, convert);
SIZE (PTZSettingsFileExt, 16);

FIELD (PTZFirmwareMajorTag, 0, Text32, name);
FIELD (PTZFirmwareMajorTag, 32, gint32, first);
FIELD (PTZFirmwareMajorTag, 36, gint32, second);
FIELD (PTZFirmwareMajorTag, 40, Text32, third);
FIELD (PTZFirmwareMajorTag, 72, Text32, fourth);
SIZE (PTZFirmwareMajorTag, 104);
FIELD (PTZFirmwareMinorTag, 0, gint32, first);
FIELD (PTZFirmwareMinorTag, 4, gint32, second);
FIELD (PTZFirmwareMinorTag, 8, gint32, third);
SIZE (PTZFirmwareMinorTag, 12);

FIELD (PTZStatusCacheTime, 0, guint32, seconds);
FIELD (PTZStatusCacheTime, 4, guint32, fraction);
SIZE (PTZStatusCacheTime, 8);
FIELD (PTZStatusCacheParam, 0, const gchar *, key);
FIELD (PTZStatusCacheParam, 8, guint32, size);
FIELD (PTZStatusCacheParam, 16, gpointer, value);
FIELD (PTZStatusCacheParam, 24, guint32, type);
SIZE (PTZStatusCacheParam, 32);
FIELD (PTZStatusCacheGroup, 0, gint32, group);
FIELD (PTZStatusCacheGroup, 8, gchar *, name);
FIELD (PTZStatusCacheGroup, 16, guint32, size);
FIELD (PTZStatusCacheGroup, 20, guint32, instance);
FIELD (PTZStatusCacheGroup, 24, gint32, count);
FIELD (PTZStatusCacheGroup, 28, gint32, capacity);
FIELD (PTZStatusCacheGroup, 32, PTZStatusCacheParam **, params);
SIZE (PTZStatusCacheGroup, 40);

FIELD (PTZGDBusServer, 0, GObject, parent_instance);
FIELD (PTZGDBusServer, 24, GDBusInterfaceSkeleton *, skeleton);
SIZE (PTZGDBusServer, 32);
FIELD (PTZGDBusServerClass, 0, GObjectClass, parent_class);
FIELD (PTZGDBusServerClass, 136, GDBusConnection *, connection);
FIELD (PTZGDBusServerClass, 144, RegisterSlot, dbus_register);
FIELD (PTZGDBusServerClass, 152, RequestNameSlot, dbus_request_name);
FIELD (PTZGDBusServerClass, 160, RegisterFullPathSlot, dbus_register_obj_full_path);
FIELD (PTZGDBusServerClass, 168, RequestNameSlot, dbus_request_name_full_path);
SIZE (PTZGDBusServerClass, 176);

FIELD (PTZGDBusClient, 0, GObject, parent_instance);
FIELD (PTZGDBusClient, 24, GDBusProxy *, proxy);
FIELD (PTZGDBusClient, 32, gchar *, bus_name);
FIELD (PTZGDBusClient, 40, gchar *, object_path);
FIELD (PTZGDBusClient, 48, gchar *, interface_name);
FIELD (PTZGDBusClient, 56, gulong, destroy_handler);
FIELD (PTZGDBusClient, 64, PTZGDBusClientDestroyCallback, destroy_callback);
FIELD (PTZGDBusClient, 72, gpointer, user_data);
SIZE (PTZGDBusClient, 80);
FIELD (PTZGDBusClientClass, 0, GObjectClass, parent_class);
FIELD (PTZGDBusClientClass, 136, GDBusConnection *, connection);
FIELD (PTZGDBusClientClass, 144, SetProxySlot, set_proxy);
FIELD (PTZGDBusClientClass, 152, SetProxyFullSlot, set_proxy_full);
FIELD (PTZGDBusClientClass, 160, GetProxySlot, get_proxy);
FIELD (PTZGDBusClientClass, 168, ConnectDestroySignalSlot, connect_destroy_signal);
FIELD (PTZGDBusClientClass, 176, DisconnectDestroySignalSlot, disconnect_destroy_signal);
SIZE (PTZGDBusClientClass, 184);

FIELD (PTZLegacyConfigHandler, 0, PTZGDBusServer *, server);
FIELD (PTZLegacyConfigHandler, 8, gchar *, owner_name);
FIELD (PTZLegacyConfigHandler, 16, gchar *, object_path);
FIELD (PTZLegacyConfigHandler, 24, ConfigEventPointer, event);
SIZE (PTZLegacyConfigHandler, 32);

#endif

int
main (void)
{
  return 0;
}
