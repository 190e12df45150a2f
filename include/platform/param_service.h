/* param_service.h - the platform's parameter service: the device's configuration as one tree of named texts.
 *
 * A parameter is named by a path of components with dots between them, such as "root.PTZ.Preset.P0.Name"; every
 * component before the last is a group. A path has at most #PARAM_SERVICE_PATH_MAX bytes, and a value at most
 * #PARAM_SERVICE_VALUE_MAX. Every operation takes an option block, which param_service_reset_options() clears before
 * each call, and stores a #ParamServiceError in its last argument.
 *
 * Writes of all processes are visible to each other at once. They survive the end of the process without
 * param_service_sync(), but not a power failure.
 *
 * The stand-alone service sends no change events: a process sees a change when it reads the parameter. It ignores the
 * fields "mode" and "extra" of #ParamServiceOptions. An operation waits at most ten seconds for other processes, and
 * then reports %PARAM_SERVICE_STORAGE. If param_service_set_custom() does not write a parameter, the service logs the path
 * and the cause, at most one line a second.
 *
 * The stand-alone service keeps the log of changes below 1 MiB, with two exceptions: one transaction, such as a long value
 * or a large template, may exceed it by its own size, and a process that is stopped while it reads keeps the log from being
 * emptied.
 */
#pragma once

#include <glib.h>

G_BEGIN_DECLS

/**
 * PARAM_SERVICE_PATH_MAX:
 *
 * The longest path of a parameter or a group, in bytes, without the NUL. The limit is the same for reading, writing,
 * creating, deleting and walking, so that whatever is created can be read, walked and deleted. An operation on a longer
 * path reports %PARAM_SERVICE_BAD_PATH.
 */
#define PARAM_SERVICE_PATH_MAX 127

/**
 * PARAM_SERVICE_VALUE_MAX:
 *
 * The longest value in bytes, without the NUL. Writing a longer one, or creating a group from a template with a longer
 * default, reports %PARAM_SERVICE_BAD_ARGUMENT and changes nothing.
 */
#define PARAM_SERVICE_VALUE_MAX 16777216

/**
 * ParamServiceError:
 * @PARAM_SERVICE_OK: success
 * @PARAM_SERVICE_NO_PARAMETER: there is no such parameter
 * @PARAM_SERVICE_NO_GROUP: there is no such group
 * @PARAM_SERVICE_NO_TEMPLATE: there is no such template, or it cannot be read
 * @PARAM_SERVICE_GROUP_EXISTS: the group that was to be created exists
 * @PARAM_SERVICE_BAD_PATH: the path, or one that is to be made, is empty, too long, or has an empty component; or the path
 *   of a parameter has only one component
 * @PARAM_SERVICE_STORAGE: the tree cannot be read or written, or another process keeps it locked
 * @PARAM_SERVICE_BAD_ARGUMENT: the value is too long or `NULL`, or the number is less than -1
 *
 * What an operation reports.
 */
typedef enum {
  PARAM_SERVICE_OK = 0,
  PARAM_SERVICE_NO_PARAMETER = -1,
  PARAM_SERVICE_NO_GROUP = -2,
  PARAM_SERVICE_NO_TEMPLATE = -3,
  PARAM_SERVICE_GROUP_EXISTS = -4,
  PARAM_SERVICE_BAD_PATH = -5,
  PARAM_SERVICE_STORAGE = -6,
  PARAM_SERVICE_BAD_ARGUMENT = -7
} ParamServiceError;

/**
 * ParamServiceOptions:
 * @mode: how the device's service carries the operation out, such as whether it sends a change event. The stand-alone
 *   service ignores it: it sends no change events, and keeps every change
 * @number: for param_service_create_dynamic_group(): the number in the name of the new group; -1 for the lowest free one
 * @extra: for the device's service. The stand-alone service ignores it
 *
 * Arguments that are the same for all operations.
 */
typedef struct {
  gint32 mode;
  gint32 number;
  gint32 extra;
} ParamServiceOptions;

/**
 * ParamServiceGroupContext:
 * @full_name: the path of the current parameter, or of the current child group
 * @name: (nullable): the last component of the current parameter's path; `NULL` in a walk over child groups
 * @at_end: the walk has no further entry
 * @walk: the service's own
 *
 * A walk over the parameters or the child groups of one group, in the order of their names. The texts belong to the
 * service and last until the next call for this walk.
 */
typedef struct {
  gchar *full_name;
  gchar *name;
  gboolean at_end;
  gpointer walk;
} ParamServiceGroupContext;

/**
 * param_service_reset_options:
 * @options: (out caller-allocated): the block whose fields are all set to 0
 *
 * Thread: any.
 */
void param_service_reset_options (ParamServiceOptions *options);

/**
 * param_service_get_custom:
 * @path: the path of a parameter
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value, as it was written; `NULL` on failure
 */
gchar *param_service_get_custom (const gchar *path, ParamServiceOptions *options, gint32 *error);

/**
 * param_service_set_custom:
 * @path: the path of a parameter
 * @value: what it is to be; any bytes
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Writes a parameter. One that does not exist is created, and with it the groups above it.
 *
 * Thread: any.
 */
void param_service_set_custom (const gchar *path, const gchar *value, ParamServiceOptions *options, gint32 *error);

/**
 * param_service_create_dynamic_group:
 * @group_path: the group that the new one is to be a child of
 * @template_name: the name of a template: the file `<name>_grp.conf` in `/etc/sysconfig/template`
 * @options: an option block: the number in the new group's name
 * @error: (out): 0, or what went wrong
 *
 * Creates a group from a template. It is named by the first letter of the last component of @group_path and the
 * number: "root.PTZ.Preset" and 2 give "root.PTZ.Preset.P2". Missing groups above it are created too.
 *
 * A template has one line `Parameter=default` for each parameter. Empty lines and lines that begin with `#` are skipped,
 * and blanks around both parts are dropped. If a parameter's name has dots, its groups are created.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the path of the group, also if it existed before; `NULL` on other failures
 */
gchar *param_service_create_dynamic_group (const gchar *group_path, const gchar *template_name,
                                           ParamServiceOptions *options, gint32 *error);

/**
 * param_service_delete_group:
 * @group_path: the group to delete, with everything in it
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Thread: any.
 */
void param_service_delete_group (const gchar *group_path, ParamServiceOptions *options, gint32 *error);

/**
 * param_service_sync:
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Makes every earlier write durable before it returns. In the stand-alone service, the file params.db alone then holds
 * the whole tree. A process that reads without end makes it fail after ten seconds.
 *
 * Thread: any; waits for the storage.
 */
void param_service_sync (ParamServiceOptions *options, gint32 *error);

/**
 * param_service_get_params:
 * @group_path: the group to walk
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Begins a walk over the parameters of a group, without those of the groups in it. The walk stands before the first.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the walk, to be released with param_service_cleanup_group_context(); `NULL` on
 *   failure
 */
ParamServiceGroupContext *param_service_get_params (const gchar *group_path, ParamServiceOptions *options,
                                                    gint32 *error);

/**
 * param_service_get_param:
 * @context: a walk over parameters
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Moves to the next parameter, or sets the end flag.
 *
 * Thread: one at a time for one walk.
 */
void param_service_get_param (ParamServiceGroupContext *context, ParamServiceOptions *options, gint32 *error);

/**
 * param_service_get_child_groups:
 * @group_path: the group to walk
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Begins a walk over the groups in a group, without those below them. The walk stands before the first.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the walk, to be released with param_service_cleanup_group_context(); `NULL` on
 *   failure
 */
ParamServiceGroupContext *param_service_get_child_groups (const gchar *group_path, ParamServiceOptions *options,
                                                          gint32 *error);

/**
 * param_service_get_child_group:
 * @context: a walk over child groups
 * @options: an option block
 * @error: (out): 0, or what went wrong
 *
 * Moves to the next child group, or sets the end flag.
 *
 * Thread: one at a time for one walk.
 */
void param_service_get_child_group (ParamServiceGroupContext *context, ParamServiceOptions *options, gint32 *error);

/**
 * param_service_cleanup_group_context:
 * @context: (transfer full) (nullable): a walk
 *
 * Thread: any.
 */
void param_service_cleanup_group_context (ParamServiceGroupContext *context);

G_END_DECLS
