/* ptz_dynamical_properties.h - PTZDynamicalProperties, typed values by name that come into being when they are set.
 *
 * The types are those of ptz_gvalue_utils.h. A value of another type is stored, but after the first one a change of it
 * is logged instead of notified.
 *
 * Each change of a value emits the signal "notify_change" with the name of the property, in the thread that made the
 * change. What counts as a change: the first value, a value of another type, a different one; of strings only one that
 * differs in more than the case of its letters; of doubles also a NaN. While notifications are frozen they wait, and
 * the last thaw delivers them in the order of the changes: a property that changed twice is notified twice.
 *
 * Any thread may call any function. Batches of notifications are emitted one after another, over all objects of the
 * process, under a lock that is not recursive. A handler may get, set and compare; but one that sets a property of any
 * object so that a notification is due at once, or makes the last thaw of one, waits for itself for ever: it freezes
 * the object first and leaves the thaw to an idle callback, or defers the change.
 *
 * The `finalize` of a subclass may set properties before it chains up. Nothing is notified then: all handlers have been
 * disconnected.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

#define PTZ_TYPE_DYNAMICAL_PROPERTIES (ptz_dynamical_properties_get_type ())
#define PTZ_DYNAMICAL_PROPERTIES(o) \
  (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_TYPE_DYNAMICAL_PROPERTIES, PTZDynamicalProperties))
#define PTZ_DYNAMICAL_PROPERTIES_CLASS(k) \
  (G_TYPE_CHECK_CLASS_CAST ((k), PTZ_TYPE_DYNAMICAL_PROPERTIES, PTZDynamicalPropertiesClass))
#define PTZ_IS_DYNAMICAL_PROPERTIES(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_TYPE_DYNAMICAL_PROPERTIES))
#define PTZ_IS_DYNAMICAL_PROPERTIES_CLASS(k) (G_TYPE_CHECK_CLASS_TYPE ((k), PTZ_TYPE_DYNAMICAL_PROPERTIES))
#define PTZ_DYNAMICAL_PROPERTIES_GET_CLASS(o) \
  (G_TYPE_INSTANCE_GET_CLASS ((o), PTZ_TYPE_DYNAMICAL_PROPERTIES, PTZDynamicalPropertiesClass))

typedef struct _PTZDynamicalProperties PTZDynamicalProperties;
typedef struct _PTZDynamicalPropertiesClass PTZDynamicalPropertiesClass;

/**
 * PTZDynamicalPropertiesQueue:
 * @pending: (element-type utf8): the names of what changed while notifications were frozen, newest first; they are the
 *   keys of the table
 * @freeze_count: how many thaws are due
 *
 * The notifications that wait.
 */
typedef struct {
  GSList *pending;
  guint16 freeze_count;
} PTZDynamicalPropertiesQueue;

/**
 * PTZDynamicalProperties:
 * @properties: (element-type utf8 GValue): the values by name. It owns the names, which it releases with g_free(), and
 *   the values, which it releases with g_value_unset() and g_free()
 * @nqueue: the notifications that wait
 *
 * A set of properties. Both fields are there to be read by subclasses, and guarded by locks of the library's own.
 */
struct _PTZDynamicalProperties {
  GObject parent_instance;
  GHashTable *properties;
  PTZDynamicalPropertiesQueue nqueue;
};

/**
 * PTZDynamicalProperties::notify-change:
 * @object: the object whose property changed
 * @name: the name of the property
 *
 * A property has another value than before. Emitted in the thread that made the change, or ended the freeze that held it
 * back.
 */

/**
 * PTZDynamicalPropertiesClass:
 * @set_from_string: see ptz_dynamical_properties_set_from_string()
 * @string_to_gvalue: see ptz_dynamical_properties_string_to_gvalue()
 * @gvalue_to_string: see ptz_dynamical_properties_gvalue_to_string()
 * @set: see ptz_dynamical_properties_set()
 * @get: see ptz_dynamical_properties_get()
 * @compare: see ptz_dynamical_properties_compare()
 * @clear: see ptz_dynamical_properties_clear(). An override chains up: the names that wait for a thaw are kept there
 * @notify_change: the id of the signal "notify_change"
 *
 * The operations that subclasses may override. They are always called through the class of the instance; none of the
 * base class's calls another of them.
 */
struct _PTZDynamicalPropertiesClass {
  GObjectClass parent_class;
  gchar *(*set_from_string) (PTZDynamicalProperties *self, const gchar *set);
  gchar *(*string_to_gvalue) (PTZDynamicalProperties *self, GValue **value, const gchar *string);
  gchar *(*gvalue_to_string) (PTZDynamicalProperties *self, const gchar *name, const GValue *value);
  void (*set) (PTZDynamicalProperties *self, const gchar *name, GValue *value);
  GValue *(*get) (PTZDynamicalProperties *self, const gchar *name);
  gint (*compare) (PTZDynamicalProperties *self, const gchar *name, const GValue *value);
  void (*clear) (PTZDynamicalProperties *self);
  guint notify_change;
};

/**
 * ptz_dynamical_properties_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZDynamicalProperties"
 */
PTZ_API GType ptz_dynamical_properties_get_type (void);

/**
 * ptz_dynamical_properties_new:
 *
 * Thread: any.
 *
 * Returns: (transfer full): a new set without properties
 */
PTZ_API PTZDynamicalProperties *ptz_dynamical_properties_new (void);

/**
 * ptz_dynamical_properties_get:
 * @self: a set of properties
 * @name: a name
 *
 * Thread: any. The value is used after the lock is released: whoever shares a set between threads makes sure that no
 *   other one sets the property meanwhile.
 *
 * Returns: (transfer none) (nullable): the stored value itself, valid until the property is set or cleared; `NULL`
 *   where there is no such property
 */
PTZ_API GValue *ptz_dynamical_properties_get (PTZDynamicalProperties *self, const gchar *name);

/**
 * ptz_dynamical_properties_set: (skip)
 * @self: a set of properties
 * @name: a name, borrowed
 * @value: (transfer full): a value that was allocated with g_malloc() and is no other property's. What is not of a
 *   valid type is logged and not stored, and stays the caller's. Setting a property to the value that it already owns
 *   is allowed
 *
 * Stores a value and notifies a change of it.
 *
 * Thread: any; the handlers run in it.
 */
PTZ_API void ptz_dynamical_properties_set (PTZDynamicalProperties *self, const gchar *name, GValue *value);

/**
 * ptz_dynamical_properties_set_from_string:
 * @self: a set of properties
 * @set: a formatted string, as ptz_gvalue_utils.h describes it
 *
 * Stores the value of a formatted string and notifies a change of it. A string that does not parse gives a critical
 * and changes nothing. The base class parses it itself: an override of "string_to_gvalue" has no part in it.
 *
 * Thread: any; the handlers run in it.
 *
 * Returns: (transfer full) (nullable): the name of the property; `NULL` for a string that does not parse
 */
PTZ_API gchar *ptz_dynamical_properties_set_from_string (PTZDynamicalProperties *self, const gchar *set);

/**
 * ptz_dynamical_properties_string_to_gvalue: (skip)
 * @self: a set of properties
 * @value: (out) (transfer full): a new value, as ptz_gvalue_utils_formatted_string_to_gvalue() gives it: for a type
 *   without a text form it is there although the result is `NULL`
 * @string: a formatted string
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the name; `NULL` for a string that does not parse
 */
PTZ_API gchar *ptz_dynamical_properties_string_to_gvalue (PTZDynamicalProperties *self, GValue **value,
                                                          const gchar *string);

/**
 * ptz_dynamical_properties_gvalue_to_string:
 * @self: a set of properties
 * @name: a name, borrowed
 * @value: a value, borrowed
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the formatted string; `NULL` and a critical for a type without a text form
 */
PTZ_API gchar *ptz_dynamical_properties_gvalue_to_string (PTZDynamicalProperties *self, const gchar *name,
                                                          const GValue *value);

/**
 * ptz_dynamical_properties_compare:
 * @self: a set of properties
 * @name: a name
 * @value: a value, borrowed
 *
 * Thread: any.
 *
 * Returns: 0 where setting the property to @value would be no change, otherwise non-zero, also for a wrong argument
 */
PTZ_API gint ptz_dynamical_properties_compare (PTZDynamicalProperties *self, const gchar *name, const GValue *value);

/**
 * ptz_dynamical_properties_clear:
 * @self: a set of properties
 *
 * Removes all properties, without notifications. Those that wait are still delivered.
 *
 * Thread: any.
 */
PTZ_API void ptz_dynamical_properties_clear (PTZDynamicalProperties *self);

/**
 * ptz_dynamical_properties_freeze_notify:
 * @self: a set of properties
 *
 * Holds notifications back until as many thaws have followed, of at most 65535 freezes.
 *
 * Thread: any.
 */
PTZ_API void ptz_dynamical_properties_freeze_notify (PTZDynamicalProperties *self);

/**
 * ptz_dynamical_properties_thaw_notify:
 * @self: a set of properties whose notifications are frozen
 *
 * Takes a freeze back; the last one delivers what waited.
 *
 * Thread: any; the handlers run in it.
 */
PTZ_API void ptz_dynamical_properties_thaw_notify (PTZDynamicalProperties *self);

/**
 * ptz_dynamical_properties_finalize:
 * @object: the object, whose last reference has gone
 *
 * The class's own `finalize`: frees all properties. Notifications that wait are dropped. Chaining up reaches it from a subclass; nobody else calls it.
 *
 * Thread: the one that ends the object.
 */
PTZ_API void ptz_dynamical_properties_finalize (GObject *object);

G_END_DECLS
