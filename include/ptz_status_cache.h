/* ptz_status_cache.h - the live state of a PTZ instance, shared with the other processes of the device.
 *
 * Each instance has groups of values in the status store:
 *
 *   group                    name in the store      size   parameters
 *   PTZ_SC_GROUP_POSITION    PTZ_POSITION_IS%u      1536   0 to 46, position, movement and times
 *   PTZ_SC_GROUP_PRESET      PTZ_PRESET_IS%u          64   none
 *   PTZ_SC_GROUP_VARIOUS     PTZ_VARIOUS_IS%u        228   49 to 58, flags
 *   PTZ_SC_GROUP_LIMIT       PTZ_LIMIT_IS%u          512   59 to 72, mechanical limits
 *
 * A caller sets up a handle for a group, binds parameters to variables of its own, and then writes or reads all of them
 * in one call. The group in the store is made by the first update that does not find it, and outlives the handle and
 * the process.
 *
 * A variable's type depends on its parameter: a #PTZStatusCacheTime for PTZ_SC_PARAM_POSITION_TIME_VAL (seconds and
 * microseconds) and for the idle and moving times (seconds and nanoseconds); a float for pan, tilt, magnification and
 * the angles of view; a gint32 for all others, flags included.
 *
 * What goes wrong is written to the system log. A handle stays usable after any failure but that of a fetch, see
 * ptz_status_cache_fetch_group().
 */
#pragma once

#include "ptz_api.h"
#include "ptz_enum_types.h"

G_BEGIN_DECLS

/**
 * PTZStatusCacheTime:
 * @seconds: whole seconds
 * @fraction: microseconds or nanoseconds, as the parameter has it
 *
 * A time in the status store.
 */
typedef struct {
  guint32 seconds;
  guint32 fraction;
} PTZStatusCacheTime;

/**
 * PTZStatusCacheParam:
 * @key: the parameter's name in the store
 * @size: bytes of the value, 4 or 8
 * @value: the caller's variable
 * @type: 1 for an integer, 2 for a float, 4 for seconds and microseconds, 5 for seconds and nanoseconds
 *
 * A parameter bound to a variable, as the status store reads it.
 */
typedef struct {
  const gchar *key;
  guint32 size;
  gpointer value;
  guint32 type;
} PTZStatusCacheParam;

/**
 * PTZStatusCacheGroup:
 * @group: a #PTZSCGroup
 * @name: the group's name in the store; owned
 * @size: the group's size in the store
 * @instance: the PTZ instance
 * @count: parameters that are bound
 * @capacity: parameters that may be bound; after a fetch, what the store returned
 * @params: the parameters that are bound; owned. A `NULL` follows them when the store is called
 *
 * A handle for one group of one instance. Only ptz_status_cache_setup_group() makes one.
 */
typedef struct {
  gint32 group;
  gchar *name;
  guint32 size;
  guint32 instance;
  gint32 count;
  gint32 capacity;
  PTZStatusCacheParam **params;
} PTZStatusCacheGroup;

/**
 * ptz_status_cache_setup_group: (skip)
 * @group: a group
 * @instance: the PTZ instance, in the caller's numbering
 * @max_params: how many parameters may be bound; none where it is negative
 *
 * Nothing is done in the store.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): a new handle, to be released with ptz_status_cache_free_group(); `NULL` for an
 *   unknown group
 */
PTZ_API PTZStatusCacheGroup *ptz_status_cache_setup_group (PTZSCGroup group, guint instance, gint max_params);

/**
 * ptz_status_cache_add_param: (skip)
 * @handle: (nullable): a handle
 * @param: a parameter of the handle's group; 58, which has no enumerator, is the flag for the overview mode
 * @value: the caller's variable for it, which must outlive the use of the handle
 *
 * Binds a parameter. Nothing can be bound to a preset group, which is not logged. After a fetch, no more parameters can
 * be bound than the store returned, nor ever more than the handle was set up for.
 *
 * Thread: the handle's, one at a time.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_status_cache_add_param (PTZStatusCacheGroup *handle, PTZSCParam param, gpointer value);

/**
 * ptz_status_cache_update_group: (skip)
 * @handle: (nullable): a handle
 *
 * Writes the values of all bound parameters to the store, in one call of it; makes the group where that fails, and tries
 * once more.
 *
 * Thread: the handle's, one at a time.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_status_cache_update_group (PTZStatusCacheGroup *handle);

/**
 * ptz_status_cache_fetch_group: (skip)
 * @handle: (nullable): a handle
 *
 * Reads the values of all bound parameters from the store, in one call of it. What the store returns, the number of
 * values found or a negative number, becomes the handle's capacity: where that is below the number of bound parameters,
 * further adds, updates and fetches are refused.
 *
 * Thread: the handle's, one at a time.
 *
 * Returns: `TRUE` on success, also where the store holds only some of the values
 */
PTZ_API gboolean ptz_status_cache_fetch_group (PTZStatusCacheGroup *handle);

/**
 * ptz_status_cache_free_group: (skip)
 * @handle: (nullable) (transfer full): a handle
 *
 * Releases the handle. The store and the caller's variables are not touched.
 *
 * Thread: the handle's, one at a time.
 */
PTZ_API void ptz_status_cache_free_group (PTZStatusCacheGroup *handle);

/**
 * ptz_status_cache_create_group:
 * @group: a group
 * @instance: the PTZ instance
 *
 * Writes default values for the group to the store: everything but the flag for the overview mode. A failure of the
 * store is logged, but does not change the result.
 *
 * Thread: any.
 *
 * Returns: `FALSE` for an unknown group and for the preset group, which has no defaults
 */
PTZ_API gboolean ptz_status_cache_create_group (PTZSCGroup group, guint instance);

G_END_DECLS
