#include "ptz_legacy_config.h"

#include <cstddef>
#include <type_traits>

#include "base/check.h"
#include "dbus/system_bus.h"
#include "platform/config_event.h"

static_assert(std::is_standard_layout_v<PTZLegacyConfigHandler> &&
              offsetof(PTZLegacyConfigHandler, event) == 3 * sizeof(gpointer));

namespace {

constexpr char module_name[] = "ptz_legacy_config";
constexpr char interface_name[] = "com.velk.Configuration.Legacy";

void free_handler(PTZLegacyConfigHandler *handler) {
  if (handler->event != nullptr) config_event_free(handler->event);
  g_clear_object(&handler->server);
  g_free(handler->owner_name);
  g_free(handler->object_path);
  g_free(handler);
}

using Handler = ptz::Handle<PTZLegacyConfigHandler, free_handler>;

// Floating; none for a type that the interface does not carry.
GVariant *to_variant(const GValue *value) {
  if (G_VALUE_HOLDS_INT(value)) return g_variant_new_int32(g_value_get_int(value));
  if (G_VALUE_HOLDS_BOOLEAN(value)) return g_variant_new_boolean(g_value_get_boolean(value));
  if (G_VALUE_HOLDS_STRING(value)) {
    const char *text = g_value_get_string(value);
    // Bytes, whatever their encoding; receivers rely on it.
    return g_variant_new_bytestring(text != nullptr ? text : "");
  }
  return nullptr;
}

bool broadcast(const PTZLegacyConfigHandler *handler, const char *key, GVariant *value, ptz::Error &error) {
  if (!g_utf8_validate(key, -1, nullptr)) {
    error.reset(g_error_new_literal(G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "the key is not UTF-8"));
    return false;
  }
  GVariantBuilder changed;
  g_variant_builder_init(&changed, G_VARIANT_TYPE("a{sv}"));
  g_variant_builder_add(&changed, "{sv}", key, value);
  // Sunk: GLib does not take it where it refuses the path.
  const ptz::Variant body(g_variant_ref_sink(g_variant_new("(sa{sv}as)", interface_name, &changed, nullptr)));
  return g_dbus_connection_emit_signal(PTZ_G_DBUS_SERVER_GET_CLASS(handler->server)->connection, nullptr,
                                       handler->object_path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                       body.get(), ptz::out(error)) == TRUE;
}

}  // namespace

PTZLegacyConfigHandler *ptz_legacy_config_setup(GDBusInterfaceSkeleton *skeleton, const gchar *event_name,
                                                const gchar *owner_name, const gchar *short_name) {
  g_return_val_if_fail(event_name != NULL, NULL);
  g_return_val_if_fail(short_name != NULL, NULL);
  Handler handler(g_new0(PTZLegacyConfigHandler, 1));
  handler->owner_name = g_strdup(owner_name);
  handler->object_path = ptz::object_path_of(short_name).release();
  handler->server = static_cast<PTZGDBusServer *>(g_object_new(PTZ_TYPE_G_DBUS_SERVER, nullptr));
  if (handler->server == nullptr) {
    log_func(LOG_ERR, "Failed to create DBus server %s!", handler->object_path);
    return nullptr;
  }
  if (!ptz_g_dbus_server_dbus_register(handler->server, skeleton, short_name, ptz::no_index)) {
    log_func(LOG_ERR, "Failed to register DBus object %s!", short_name);
    return nullptr;
  }
  handler->event = config_event_new(event_name, 0, 0);
  if (handler->event == nullptr) {
    log_func(LOG_ERR, "Failed to create configuration event for %s!", event_name);
    return nullptr;
  }
  ptz::Error error;
  if (!config_event_declare(handler->event, handler->owner_name, handler->object_path, interface_name,
                            ptz::out(error))) {
    log_func(LOG_ERR, "Could not declare configuration event for %s: %s", handler->object_path,
             ptz::message_of(error, ""));
    return nullptr;
  }
  return handler.release();
}

void ptz_legacy_config_cleanup(PTZLegacyConfigHandler *handler) {
  if (handler == nullptr) return;
  if (handler->event != nullptr) {
    ptz::Error error;
    if (!config_event_undeclare(handler->event, handler->owner_name, handler->object_path, interface_name,
                                ptz::out(error))) {
      syslog(LOG_WARNING, "Could not undeclare %s", ptz::message_of(error));
    }
  }
  free_handler(handler);
}

void ptz_legacy_config_prop_changed(PTZLegacyConfigHandler *handler, const gchar *key, const GValue *value) {
  assert_in(module_name, handler != NULL);
  assert_in(module_name, key != NULL);
  assert_in(module_name, value != NULL);
  GVariant *variant = to_variant(value);
  if (variant == nullptr) {
    const char *type = G_VALUE_TYPE_NAME(value);
    log_func(LOG_ERR, "Can not convert key %s type %s to GVariant!", key, type != nullptr ? type : "(null)");
    return;
  }
  const ptz::Variant converted(g_variant_ref_sink(variant));
  ptz::Error error;
  if (!broadcast(handler, key, converted.get(), error)) {
    syslog(LOG_WARNING, "Failed to emit property changed signal: %s", ptz::message_of(error));
  }
}

gboolean ptz_legacy_config_send_event(PTZLegacyConfigHandler *handler, gint event_kind, gint index,
                                      GHashTable *changes) {
  assert_in(module_name, handler != NULL);
  config_event_init_change_string(handler->event);
  if (changes != nullptr) {
    GHashTableIter pairs;
    gpointer key = nullptr, value = nullptr;
    g_hash_table_iter_init(&pairs, changes);
    while (g_hash_table_iter_next(&pairs, &key, &value)) {
      config_event_append_escaped_pair(handler->event, static_cast<const char *>(key),
                                       value != nullptr ? static_cast<const char *>(value) : "");
    }
  }
  const ptz::Text numbered(index >= 0 ? g_strdup_printf("%s/%d", handler->object_path, index) : nullptr);
  const char *event_key = numbered != nullptr ? numbered.get() : handler->object_path;
  ptz::Error error;
  if (config_event_send(handler->event, handler->owner_name, handler->object_path, interface_name, event_key,
                        event_kind, ptz::out(error))) {
    return TRUE;
  }
  syslog(LOG_WARNING, "Failed to send configuration event, message = %s", ptz::message_of(error));
  return FALSE;
}
