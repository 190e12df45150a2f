#include "ptz_g_dbus_server.h"

#include <cstddef>
#include <type_traits>
#include <utility>

#include "base/check.h"
#include "dbus/system_bus.h"

static_assert(std::is_standard_layout_v<PTZGDBusServer> && offsetof(PTZGDBusServer, skeleton) == sizeof(GObject));
static_assert(std::is_standard_layout_v<PTZGDBusServerClass> &&
              offsetof(PTZGDBusServerClass, connection) == sizeof(GObjectClass));

// contract: the public field `skeleton` is a plain pointer that the owner of the skeleton and subclasses may write.
// What it holds is unexported when the server ends. Its validity is up to its writer, except while it is the watched
// one.
struct PTZGDBusServerPrivate {
  GDBusInterfaceSkeleton *watched;  // the one exported last, with a weak reference: its owner may destroy it first
};

G_DEFINE_TYPE_WITH_PRIVATE(PTZGDBusServer, ptz_g_dbus_server, G_TYPE_OBJECT)

static constexpr guint32 no_flags = 0;       // of RequestName: wait in the queue, let nobody replace us
static constexpr guint32 primary_owner = 1;  // its answers
static constexpr guint32 already_owner = 4;

static GDBusInterfaceSkeleton *&watched_by(PTZGDBusServer *self) {
  return static_cast<PTZGDBusServerPrivate *>(ptz_g_dbus_server_get_instance_private(self))->watched;
}

static void watched_has_gone(gpointer server, GObject *) {
  auto *self = static_cast<PTZGDBusServer *>(server);
  const auto *gone = std::exchange(watched_by(self), nullptr);
  if (self->skeleton == gone) self->skeleton = nullptr;
}

static void watch(PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton) {
  GDBusInterfaceSkeleton *former = std::exchange(watched_by(self), skeleton);
  if (former != nullptr) g_object_weak_unref(G_OBJECT(former), watched_has_gone, self);
  if (skeleton != nullptr) g_object_weak_ref(G_OBJECT(skeleton), watched_has_gone, self);
}

static void forget_skeleton(PTZGDBusServer *self) {
  watch(self, nullptr);
  GDBusInterfaceSkeleton *skeleton = std::exchange(self->skeleton, nullptr);
  // The caller, whose skeleton it is, may have unexported it.
  if (skeleton != nullptr && g_dbus_interface_skeleton_get_connection(skeleton) != nullptr) {
    g_dbus_interface_skeleton_unexport(skeleton);
  }
}

// Without a bus it fails without an error, as where GLib refuses an argument.
static gboolean export_skeleton(PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton, const gchar *object_path,
                                ptz::Error &error) {
  GDBusConnection *connection = PTZ_G_DBUS_SERVER_GET_CLASS(self)->connection;
  if (connection == nullptr || !g_dbus_interface_skeleton_export(skeleton, connection, object_path, ptz::out(error))) {
    return FALSE;
  }
  watch(self, skeleton);
  self->skeleton = skeleton;
  return TRUE;
}

static gboolean ptz_g_dbus_server_real_dbus_register(PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton,
                                                     const gchar *short_name, gint index) {
  g_return_val_if_fail(short_name != NULL, FALSE);
  const ptz::Text path_part(g_strdelimit(g_strdup(short_name), ".", '/'));
  const auto object_path = ptz::object_path_of(path_part.get(), index);
  ptz::Error error;
  if (export_skeleton(self, skeleton, object_path.get(), error)) return TRUE;
  syslog(LOG_ERR, "%s: Failed to get name fo %s. %s", "_ptz_g_dbus_server_register", object_path.get(),
         ptz::message_of(error, "(no err"));
  forget_skeleton(self);
  return FALSE;
}

static gboolean ptz_g_dbus_server_real_dbus_register_obj_full_path(PTZGDBusServer *self,
                                                                   GDBusInterfaceSkeleton *skeleton,
                                                                   const gchar *object_path) {
  ptz::Error error;
  if (export_skeleton(self, skeleton, object_path, error)) return TRUE;
  syslog(LOG_ERR, "%s: %s", "Failed to get name", ptz::message_of(error));
  forget_skeleton(self);
  return FALSE;
}

static gboolean ptz_g_dbus_server_real_dbus_request_name_full_path(PTZGDBusServer *self, const gchar *bus_name) {
  g_return_val_if_fail(bus_name != NULL && g_utf8_validate(bus_name, -1, NULL), FALSE);
  GDBusConnection *connection = PTZ_G_DBUS_SERVER_GET_CLASS(self)->connection;
  ptz::Error error;
  ptz::Variant reply;
  if (connection != nullptr) {
    reply.reset(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                            "org.freedesktop.DBus", "RequestName",
                                            g_variant_new("(su)", bus_name, no_flags), G_VARIANT_TYPE("(u)"),
                                            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, ptz::out(error)));
  }
  if (reply == nullptr) {
    syslog(LOG_ERR, "%s: %s", "Failed to get name", ptz::message_of(error));
    return FALSE;
  }
  guint32 result = 0;
  g_variant_get(reply.get(), "(u)", &result);
  if (result == primary_owner || result == already_owner) return TRUE;
  syslog(LOG_WARNING, "Got result code %u from requesting name", result);
  return FALSE;
}

static gboolean ptz_g_dbus_server_real_dbus_request_name(PTZGDBusServer *self, const gchar *short_name) {
  g_return_val_if_fail(short_name != NULL, FALSE);
  return ptz_g_dbus_server_real_dbus_request_name_full_path(self, ptz::bus_name_of(short_name).get());
}

static void ptz_g_dbus_server_finalize(GObject *object) {
  forget_skeleton(PTZ_G_DBUS_SERVER(object));
  G_OBJECT_CLASS(ptz_g_dbus_server_parent_class)->finalize(object);
}

static void ptz_g_dbus_server_init(PTZGDBusServer *) {}

static void ptz_g_dbus_server_class_init(PTZGDBusServerClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_g_dbus_server_finalize;
  klass->connection = ptz::connect_to_system_bus().release();
  klass->dbus_register = ptz_g_dbus_server_real_dbus_register;
  klass->dbus_request_name = ptz_g_dbus_server_real_dbus_request_name;
  klass->dbus_register_obj_full_path = ptz_g_dbus_server_real_dbus_register_obj_full_path;
  klass->dbus_request_name_full_path = ptz_g_dbus_server_real_dbus_request_name_full_path;
}

gboolean ptz_g_dbus_server_dbus_register(PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton,
                                         const gchar *short_name, gint index) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_SERVER(self), FALSE);
  return PTZ_G_DBUS_SERVER_GET_CLASS(self)->dbus_register(self, skeleton, short_name, index);
}

gboolean ptz_g_dbus_server_dbus_request_name(PTZGDBusServer *self, const gchar *short_name) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_SERVER(self), FALSE);
  return PTZ_G_DBUS_SERVER_GET_CLASS(self)->dbus_request_name(self, short_name);
}

gboolean ptz_g_dbus_server_dbus_register_obj_full_path(PTZGDBusServer *self, GDBusInterfaceSkeleton *skeleton,
                                                       const gchar *object_path) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_SERVER(self), FALSE);
  return PTZ_G_DBUS_SERVER_GET_CLASS(self)->dbus_register_obj_full_path(self, skeleton, object_path);
}

gboolean ptz_g_dbus_server_dbus_request_name_full_path(PTZGDBusServer *self, const gchar *bus_name) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_SERVER(self), FALSE);
  return PTZ_G_DBUS_SERVER_GET_CLASS(self)->dbus_request_name_full_path(self, bus_name);
}
