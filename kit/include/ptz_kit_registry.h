/* ptz_kit_registry.h - which drivers run: PTZKitRegistry. */
#pragma once

#include <ptz_kit_types.h>

G_BEGIN_DECLS

/**
 * PTZKitDriverLiveness:
 * @PTZ_KIT_DRIVER_LIVE: the driver runs and listens at its path. A driver that hangs is live, too
 * @PTZ_KIT_DRIVER_DEAD: the driver was killed and has left its entry
 * @PTZ_KIT_DRIVER_STOLEN: the driver runs, but its path is gone or is another file
 *
 * Whether a driver runs.
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_DRIVER_LIVE = 0,
  PTZ_KIT_DRIVER_DEAD = 1,
  PTZ_KIT_DRIVER_STOLEN = 2
} PTZKitDriverLiveness;

#define PTZ_KIT_TYPE_DRIVER_LIVENESS (ptz_kit_driver_liveness_get_type ())

/**
 * ptz_kit_driver_liveness_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitDriverLiveness", with the nicks "live", "dead" and "stolen"
 */
PTZ_KIT_API GType ptz_kit_driver_liveness_get_type (void);

#define PTZ_KIT_TYPE_REGISTRY_ENTRY (ptz_kit_registry_entry_get_type ())

/**
 * PTZKitRegistryEntry:
 * @name: name of the driver
 * @socket_path: (type filename): absolute path of its socket
 * @program: (type filename): path of its executable; empty if it is not known
 * @pid: process id of the driver, as the driver itself sees it
 * @uid: user id of the driver
 * @instance: number of the PTZ instance that it publishes its status as; 0 if it publishes none
 * @protocol_version: version of the command protocol
 * @since: when the driver was started, as g_get_real_time() tells it
 * @liveness: whether the driver ran when the entry was read
 *
 * What the registry knows of a driver.
 *
 * Since: 0.1
 */
typedef struct {
  gchar *name;
  gchar *socket_path;
  gchar *program;
  gint32 pid;
  guint32 uid;
  guint32 instance;
  guint32 protocol_version;
  gint64 since;
  PTZKitDriverLiveness liveness;
} PTZKitRegistryEntry;

/**
 * ptz_kit_registry_entry_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the boxed type "PTZKitRegistryEntry"
 */
PTZ_KIT_API GType ptz_kit_registry_entry_get_type (void);

/**
 * ptz_kit_registry_entry_copy:
 * @entry: an entry
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a copy
 */
PTZ_KIT_API PTZKitRegistryEntry *ptz_kit_registry_entry_copy (const PTZKitRegistryEntry *entry);

/**
 * ptz_kit_registry_entry_free:
 * @entry: (transfer full) (nullable): an entry
 *
 * Frees an entry.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_registry_entry_free (PTZKitRegistryEntry *entry);

#define PTZ_KIT_TYPE_REGISTRY (ptz_kit_registry_get_type ())
#define PTZ_KIT_REGISTRY(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_KIT_TYPE_REGISTRY, PTZKitRegistry))
#define PTZ_KIT_IS_REGISTRY(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_KIT_TYPE_REGISTRY))

/**
 * PTZKitRegistry:
 *
 * The drivers that run on this machine. Each #PTZKitDriver keeps an entry, a file in the directory `drivers` of the
 * runtime directory, and holds a lock on it. The kernel drops the lock when the driver ends, so the entry of a driver
 * that was killed is seen to be dead.
 *
 * The runtime directory is `/run/ptz`, or the value of the environment variable `PTZ_PLATFORM_RUNTIME_DIR`. The first
 * driver makes it if it is missing and the directory that it is in is there. Drivers that cannot write there run
 * without an entry, and try again at least every ten seconds.
 *
 * A driver makes its entry anew within a second if it is removed or renamed, or if a directory above it is renamed. It
 * does not notice that a file system is mounted over such a directory, or that a symbolic link leads elsewhere.
 *
 * An object may be used in one thread at a time.
 *
 * Since: 0.1
 */
typedef struct _PTZKitRegistry PTZKitRegistry;
typedef struct _PTZKitRegistryClass PTZKitRegistryClass;

/**
 * PTZKitRegistry:directory:
 *
 * The directory of the entries.
 *
 * Since: 0.1
 */
/**
 * PTZKitRegistry::driver-appeared:
 * @self: the registry
 * @entry: the driver
 *
 * A driver runs: it was started, or it ran already when ptz_kit_registry_watch() was called. Once for each.
 *
 * Since: 0.1
 */
/**
 * PTZKitRegistry::driver-gone:
 * @self: the registry
 * @entry: the driver, as it was
 *
 * A driver that had appeared has ended or was killed. Once for each. That its entry was removed is no reason: the lock
 * of the entry tells that the driver runs.
 *
 * Since: 0.1
 */

/**
 * ptz_kit_registry_get_type:
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the type "PTZKitRegistry"
 */
PTZ_KIT_API GType ptz_kit_registry_get_type (void);

/**
 * ptz_kit_registry_new:
 * @directory: (nullable) (type filename): the directory of the entries; `NULL` for `drivers` in the runtime directory
 *
 * The directory need not exist.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full): a new registry
 */
PTZ_KIT_API PTZKitRegistry *ptz_kit_registry_new (const gchar *directory);

/**
 * ptz_kit_registry_list:
 * @self: a registry
 * @error: return location for an error, or `NULL`
 *
 * Lists the drivers, including those that were killed, until another driver is started. Files that are no entries are
 * skipped. If there is no directory, no driver has an entry, and the list is empty.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer container) (element-type PTZKitRegistryEntry) (nullable): the entries, sorted by name and instance;
 *   the array frees them. `NULL` with @error set, in `G_FILE_ERROR`, if the directory cannot be read, or if the process
 *   has no descriptors left
 */
PTZ_KIT_API GPtrArray *ptz_kit_registry_list (PTZKitRegistry *self, GError **error);

/**
 * ptz_kit_registry_find:
 * @self: a registry
 * @name: the driver's name; or NAME:INSTANCE, if several have this name; or the number of the instance
 * @error: return location for an error, or `NULL`
 *
 * Finds a driver that runs. The error names the drivers that there are.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the entry; `NULL` with @error set: `G_IO_ERROR_NOT_FOUND`,
 *   `G_IO_ERROR_INVALID_ARGUMENT` if several drivers fit, or in `G_FILE_ERROR` if the directory cannot be read
 */
PTZ_KIT_API PTZKitRegistryEntry *ptz_kit_registry_find (PTZKitRegistry *self, const gchar *name, GError **error);

/**
 * ptz_kit_registry_watch:
 * @self: a registry
 * @error: return location for an error, or `NULL`
 *
 * Begins to emit [signal@PTZKit.Registry::driver-appeared] and [signal@PTZKit.Registry::driver-gone], on the
 * thread-default main context of the caller: first for the drivers that run already, from the main loop. A second call
 * has no effect. The watch ends with the object. It holds a descriptor for each driver that runs.
 *
 * It does not notice that a directory above the directory of the entries is renamed, that a file system is mounted over
 * one, or that a symbolic link leads elsewhere.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` on success; `FALSE` with @error set, in `G_FILE_ERROR`, if the kernel grants no watch
 */
PTZ_KIT_API gboolean ptz_kit_registry_watch (PTZKitRegistry *self, GError **error);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitRegistry, g_object_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitRegistryEntry, ptz_kit_registry_entry_free)

G_END_DECLS
