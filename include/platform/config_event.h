/* config_event.h - the platform's configuration-event service: who keeps configuration, and word of its changes. */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

typedef struct ConfigEvent ConfigEvent;

/**
 * config_event_new:
 * @event_name: the name of the event; borrowed
 * @first: 0
 * @second: 0
 *
 * Thread: any; the event belongs to one thread at a time.
 *
 * Returns: (transfer full) (nullable): a new event, for config_event_free(); `NULL` on failure
 */
ConfigEvent *config_event_new (const gchar *event_name, gint first, gint second);

/**
 * config_event_declare:
 * @event: an event
 * @owner: who declares it; borrowed
 * @object_path: the object on the bus that has the configuration; borrowed
 * @interface_name: its D-Bus interface; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Declares a source of configuration. Blocks on the service.
 *
 * Thread: that of @event.
 *
 * Returns: `TRUE` on success; `FALSE` on failure, with @error set
 */
gboolean config_event_declare (ConfigEvent *event, const gchar *owner, const gchar *object_path,
                               const gchar *interface_name, GError **error);

/**
 * config_event_undeclare:
 * @event: an event
 * @owner: who declared it; borrowed
 * @object_path: as it was declared; borrowed
 * @interface_name: as it was declared; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Takes a declaration back. Blocks on the service.
 *
 * Thread: that of @event.
 *
 * Returns: `TRUE` on success; `FALSE` on failure, with @error set
 */
gboolean config_event_undeclare (ConfigEvent *event, const gchar *owner, const gchar *object_path,
                                 const gchar *interface_name, GError **error);

/**
 * config_event_init_change_string:
 * @event: an event
 *
 * Starts a new, empty description of changes for the next config_event_send().
 *
 * Thread: that of @event.
 */
void config_event_init_change_string (ConfigEvent *event);

/**
 * config_event_append_escaped_pair:
 * @event: an event
 * @key: what has changed; borrowed
 * @value: its new value; borrowed
 *
 * Appends a pair to the description of changes; the service escapes both.
 *
 * Thread: that of @event.
 */
void config_event_append_escaped_pair (ConfigEvent *event, const gchar *key, const gchar *value);

/**
 * config_event_send:
 * @event: an event
 * @owner: who sends it; borrowed
 * @object_path: the object whose configuration has changed; borrowed
 * @interface_name: its D-Bus interface; borrowed
 * @event_key: the object, or one numbered set of it; borrowed
 * @event_kind: the kind of change, a number of the device's own
 * @error: return location for an error, or `NULL`
 *
 * Sends the event with the description of changes. Blocks on the service.
 *
 * Thread: that of @event.
 *
 * Returns: `TRUE` on success; `FALSE` on failure, with @error set
 */
gboolean config_event_send (ConfigEvent *event, const gchar *owner, const gchar *object_path, const gchar *interface_name,
                            const gchar *event_key, gint event_kind, GError **error);

/**
 * config_event_free:
 * @event: (transfer full): an event
 *
 * Thread: that of @event.
 */
void config_event_free (ConfigEvent *event);

G_END_DECLS
