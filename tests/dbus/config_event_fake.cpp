#include "config_event_fake.h"

#include <glib.h>

#include "platform/config_event.h"

struct ConfigEvent {
  std::string name;
};

namespace {

using ptz_test::config_events;

gboolean answer(bool success, const char *reason, GError **error) {
  if (!success && config_events.gives_errors) g_set_error_literal(error, G_FILE_ERROR, G_FILE_ERROR_IO, reason);
  return success ? TRUE : FALSE;
}

void record(const std::string &call) { config_events.calls.push_back(call); }

}  // namespace

ptz_test::ConfigEventFake ptz_test::config_events;

ConfigEvent *config_event_new(const gchar *event_name, gint first, gint second) {
  record(std::string("new ") + event_name + " " + std::to_string(first) + " " + std::to_string(second));
  if (!config_events.makes_events) return nullptr;
  ++config_events.events;
  return new ConfigEvent{event_name};
}

gboolean config_event_declare(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                              const gchar *interface_name, GError **error) {
  record("declare " + event->name + " " + owner + " " + object_path + " " + interface_name);
  return answer(config_events.declares, "not declared", error);
}

gboolean config_event_undeclare(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                                const gchar *interface_name, GError **error) {
  record("undeclare " + event->name + " " + owner + " " + object_path + " " + interface_name);
  return answer(config_events.undeclares, "not undeclared", error);
}

void config_event_init_change_string(ConfigEvent *event) { record("init " + event->name); }

void config_event_append_escaped_pair(ConfigEvent *event, const gchar *key, const gchar *value) {
  record("append " + event->name + " " + key + "=" + value);
}

gboolean config_event_send(ConfigEvent *event, const gchar *owner, const gchar *object_path,
                           const gchar *interface_name, const gchar *event_key, gint event_kind, GError **error) {
  record("send " + event->name + " " + owner + " " + object_path + " " + interface_name + " " + event_key + " " +
         std::to_string(event_kind));
  return answer(config_events.sends, "not sent", error);
}

void config_event_free(ConfigEvent *event) {
  record("free " + event->name);
  --config_events.events;
  delete event;
}
