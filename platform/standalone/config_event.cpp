// Configuration events as D-Bus signals of the interface com.velk.PTZ.ConfigEvent, broadcast from the object they are
// about on the system bus:
//
//   Declared    (event name s, owner s, interface s)
//   Undeclared  (event name s, owner s, interface s)
//   Changed     (event name s, owner s, interface s, event key s, kind i, change string s)
//
// A change string is "key=value" pairs joined by "&", with keys and values escaped as in URIs.
#include "platform/config_event.h"

#include <gio/gio.h>

#include <string>

#include "base/handles.h"

using Connection = ptz::Object<GDBusConnection>;

struct ConfigEvent {
  std::string name;
  std::string changes;
  Connection bus;  // from the first use on: a connection that nobody holds is closed, and made anew each time
};

namespace {

using Variant = ptz::Handle<GVariant, g_variant_unref>;

constexpr char events_interface[] = "com.velk.PTZ.ConfigEvent";

// What cannot travel over D-Bus is refused before GLib complains of it.
bool can_be_sent(const gchar *object_path, std::initializer_list<const gchar *> texts, GError **error) {
  for (const gchar *text : texts) {
    if (text != nullptr && g_utf8_validate(text, -1, nullptr)) continue;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "a name is missing or not UTF-8");
    return false;
  }
  if (object_path != nullptr && g_variant_is_object_path(object_path)) return true;
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "\"%s\" is no object path",
              object_path != nullptr ? object_path : "");
  return false;
}

bool connect(ConfigEvent *event, GError **error) {
  // The process's shared one: while others hold that it stays lost, too.
  if (event->bus != nullptr && g_dbus_connection_is_closed(event->bus.get())) event->bus.reset();
  if (event->bus != nullptr) return true;
  event->bus.reset(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error));
  if (event->bus == nullptr) return false;
  // GLib would end the process when the bus goes away.
  g_dbus_connection_set_exit_on_close(event->bus.get(), FALSE);
  return true;
}

gboolean broadcast(ConfigEvent *event, const gchar *object_path, const gchar *signal, GVariant *floating_body,
                   GError **error) {
  const Variant body(g_variant_ref_sink(floating_body));
  // Flushed: who sends an event and ends at once has sent it.
  return connect(event, error) &&
         g_dbus_connection_emit_signal(event->bus.get(), nullptr, object_path, events_interface, signal, body.get(),
                                       error) &&
         g_dbus_connection_flush_sync(event->bus.get(), nullptr, error);
}

gboolean tell_source(ConfigEvent *event, const gchar *signal, const gchar *owner, const gchar *object_path,
                     const gchar *interface_name, GError **error) {
  return can_be_sent(object_path, {owner, interface_name}, error) &&
         broadcast(event, object_path, signal, g_variant_new("(sss)", event->name.c_str(), owner, interface_name),
                   error);
}

}  // namespace

ConfigEvent *config_event_new(const gchar *event_name, gint, gint) {
  if (event_name == nullptr || !g_utf8_validate(event_name, -1, nullptr)) return nullptr;
  return new ConfigEvent{event_name, {}, {}};
}

gboolean config_event_declare(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                              const gchar *interface_name, GError **error) {
  return tell_source(event, "Declared", owner, object_path, interface_name, error);
}

gboolean config_event_undeclare(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                                const gchar *interface_name, GError **error) {
  return tell_source(event, "Undeclared", owner, object_path, interface_name, error);
}

void config_event_init_change_string(ConfigEvent *event) { event->changes.clear(); }

void config_event_append_escaped_pair(ConfigEvent *event, const gchar *key, const gchar *value) {
  if (key == nullptr) return;
  const ptz::Text escaped_key(g_uri_escape_string(key, nullptr, FALSE));
  const ptz::Text escaped_value(g_uri_escape_string(value != nullptr ? value : "", nullptr, FALSE));
  if (!event->changes.empty()) event->changes += '&';
  event->changes.append(escaped_key.get()).append("=").append(escaped_value.get());
}

gboolean config_event_send(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                           const gchar *interface_name, const gchar *event_key, gint event_kind, GError **error) {
  return can_be_sent(object_path, {owner, interface_name, event_key}, error) &&
         broadcast(event, object_path, "Changed",
                   g_variant_new("(ssssis)", event->name.c_str(), owner, interface_name, event_key, event_kind,
                                 event->changes.c_str()),
                   error);
}

void config_event_free(ConfigEvent *event) { delete event; }
