#include "ptz_g_dbus_client.h"

#include <cstddef>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include "base/check.h"
#include "dbus/system_bus.h"

static_assert(std::is_standard_layout_v<PTZGDBusClient> && offsetof(PTZGDBusClient, proxy) == sizeof(GObject));
static_assert(std::is_standard_layout_v<PTZGDBusClientClass> &&
              offsetof(PTZGDBusClientClass, connection) == sizeof(GObjectClass));

G_DEFINE_TYPE(PTZGDBusClient, ptz_g_dbus_client, G_TYPE_OBJECT)

// What a client's process ends with when there is no bus: whoever started it tells that from other failures.
static constexpr int exit_without_bus = 42;

struct Names {
  ptz::Text bus_name, object_path, interface_name;
};

// Of copies made before: the caller's names may be those that go.
static void store(PTZGDBusClient *self, Names names) {
  const Names old{ptz::Text(self->bus_name), ptz::Text(self->object_path), ptz::Text(self->interface_name)};
  self->bus_name = names.bus_name.release();
  self->object_path = names.object_path.release();
  self->interface_name = names.interface_name.release();
}

static gboolean ptz_g_dbus_client_new_proxy(PTZGDBusClient *self) {
  g_return_val_if_fail(self->proxy == NULL, FALSE);
  ptz::Error error;
  const char *reason = "no names are set";
  if (self->bus_name != nullptr && self->object_path != nullptr && self->interface_name != nullptr) {
    self->proxy =
        g_dbus_proxy_new_sync(PTZ_G_DBUS_CLIENT_GET_CLASS(self)->connection, G_DBUS_PROXY_FLAGS_NONE, nullptr,
                              self->bus_name, self->object_path, self->interface_name, nullptr, ptz::out(error));
    reason = ptz::message_of(error);
  }
  if (self->proxy != nullptr) return TRUE;
  syslog(LOG_ERR, "%s: %s", "Failed to setup proxy", reason);
  return FALSE;
}

static gboolean ptz_g_dbus_client_real_set_proxy(PTZGDBusClient *self, const gchar *short_name, gint index) {
  g_return_val_if_fail(short_name != NULL, FALSE);
  store(self, {ptz::bus_name_of(short_name), ptz::object_path_of(short_name, index), ptz::bus_name_of(short_name)});
  return ptz_g_dbus_client_new_proxy(self);
}

static gboolean ptz_g_dbus_client_real_set_proxy_full(PTZGDBusClient *self, const gchar *bus_name,
                                                      const gchar *object_path, const gchar *interface_name) {
  store(self, {ptz::Text(g_strdup(bus_name)), ptz::Text(g_strdup(object_path)), ptz::Text(g_strdup(interface_name))});
  return ptz_g_dbus_client_new_proxy(self);
}

static GDBusProxy *ptz_g_dbus_client_real_get_proxy(PTZGDBusClient *self) {
  if (self->proxy == nullptr) ptz_g_dbus_client_new_proxy(self);
  return self->proxy;
}

static void on_name_owner(GDBusProxy *proxy, GParamSpec *, PTZGDBusClient *self) {
  const ptz::Text owner(g_dbus_proxy_get_name_owner(proxy));
  if (owner == nullptr && self->destroy_callback != nullptr) self->destroy_callback(self->user_data);
}

static gboolean ptz_g_dbus_client_real_connect_destroy_signal(PTZGDBusClient *self,
                                                              PTZGDBusClientDestroyCallback callback,
                                                              gpointer user_data) {
  if (self->destroy_handler != 0 || self->proxy == nullptr) return FALSE;
  self->destroy_callback = callback;
  self->user_data = user_data;
  // Of the object: the callback may drop the last reference, and the client lives until the handler has returned.
  self->destroy_handler =
      g_signal_connect_object(self->proxy, "notify::g-name-owner", G_CALLBACK(on_name_owner), self, GConnectFlags{});
  if (self->destroy_handler != 0) return TRUE;
  self->destroy_callback = nullptr;
  self->user_data = nullptr;
  return FALSE;
}

static void ptz_g_dbus_client_real_disconnect_destroy_signal(PTZGDBusClient *self) {
  if (self->destroy_handler == 0) return;
  g_signal_handler_disconnect(self->proxy, std::exchange(self->destroy_handler, 0));
  self->destroy_callback = nullptr;
  self->user_data = nullptr;
}

static void ptz_g_dbus_client_dispose(GObject *object) {
  PTZGDBusClient *self = PTZ_G_DBUS_CLIENT(object);
  PTZ_G_DBUS_CLIENT_GET_CLASS(self)->disconnect_destroy_signal(self);
  g_clear_object(&self->proxy);
  G_OBJECT_CLASS(ptz_g_dbus_client_parent_class)->dispose(object);
}

static void ptz_g_dbus_client_finalize(GObject *object) {
  store(PTZ_G_DBUS_CLIENT(object), {});
  G_OBJECT_CLASS(ptz_g_dbus_client_parent_class)->finalize(object);
}

static void ptz_g_dbus_client_init(PTZGDBusClient *) {}

static void ptz_g_dbus_client_class_init(PTZGDBusClientClass *klass) {
  G_OBJECT_CLASS(klass)->dispose = ptz_g_dbus_client_dispose;
  G_OBJECT_CLASS(klass)->finalize = ptz_g_dbus_client_finalize;
  klass->connection = ptz::connect_to_system_bus().release();
  if (klass->connection == nullptr) exit(exit_without_bus);
  klass->set_proxy = ptz_g_dbus_client_real_set_proxy;
  klass->set_proxy_full = ptz_g_dbus_client_real_set_proxy_full;
  klass->get_proxy = ptz_g_dbus_client_real_get_proxy;
  klass->connect_destroy_signal = ptz_g_dbus_client_real_connect_destroy_signal;
  klass->disconnect_destroy_signal = ptz_g_dbus_client_real_disconnect_destroy_signal;
}

PTZGDBusClient *ptz_g_dbus_client_new(void) { return PTZ_G_DBUS_CLIENT(g_object_new(PTZ_TYPE_G_DBUS_CLIENT, nullptr)); }

gboolean ptz_g_dbus_client_set_proxy(PTZGDBusClient *self, const gchar *short_name, gint index) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_CLIENT(self), FALSE);
  return PTZ_G_DBUS_CLIENT_GET_CLASS(self)->set_proxy(self, short_name, index);
}

gboolean ptz_g_dbus_client_set_proxy_full(PTZGDBusClient *self, const gchar *bus_name, const gchar *object_path,
                                          const gchar *interface_name) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_CLIENT(self), FALSE);
  return PTZ_G_DBUS_CLIENT_GET_CLASS(self)->set_proxy_full(self, bus_name, object_path, interface_name);
}

GDBusProxy *ptz_g_dbus_client_get_proxy(PTZGDBusClient *self) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_CLIENT(self), NULL);
  return PTZ_G_DBUS_CLIENT_GET_CLASS(self)->get_proxy(self);
}

gboolean ptz_g_dbus_client_connect_destroy_signal(PTZGDBusClient *self, PTZGDBusClientDestroyCallback callback,
                                                  gpointer user_data) {
  g_return_val_if_fail(PTZ_IS_G_DBUS_CLIENT(self), FALSE);
  return PTZ_G_DBUS_CLIENT_GET_CLASS(self)->connect_destroy_signal(self, callback, user_data);
}

void ptz_g_dbus_client_disconnect_destroy_signal(PTZGDBusClient *self) {
  g_return_if_fail(PTZ_IS_G_DBUS_CLIENT(self));
  PTZ_G_DBUS_CLIENT_GET_CLASS(self)->disconnect_destroy_signal(self);
}
