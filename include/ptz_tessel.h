/* ptz_tessel.h - the device's parameter tree: its configuration as named texts that processes share.
 *
 * A parameter is named by a path of components with dots between them; the parameters of the framework are below
 * "root.PTZ". The tree itself is kept by the platform's parameter service; these calls build the paths, convert values
 * and say whether it worked. Mode words, number words and extra words are the service's and are passed on as they are.
 *
 * Paths of parameters and of groups have at most 127 bytes. The stand-alone parameter service has the same limit for all
 * its operations, so that whatever is created can be read, walked and deleted. A call that builds a longer path, or one
 * that cannot be formatted, fails without a word and without asking the service. ptz_tessel_get_vp(),
 * ptz_tessel_get_int() and ptz_tessel_get_bool() cut it short instead, and ptz_tessel_set_vp() leaves it to the service
 * to refuse it.
 *
 * ptz_tessel_get(), ptz_tessel_set() and ptz_tessel_delete_group() take their path for a format: "%%" stands for "%".
 * Any other "%" stands for itself. All other calls use a path as it is once it has been formatted, whatever per cent
 * signs are in it. A path that is complete, such as that of a walk, is passed to ptz_tessel_get_vp(),
 * ptz_tessel_set_vp() or ptz_tessel_delete_group_vp() with the format "%s".
 *
 * Where "first letter" is said, it is the first byte of a name as it stands; an empty name makes the call fail.
 *
 * A `NULL` argument aborts the process, unless it is said to be allowed. What goes wrong in the service is written to
 * the system log where stated.
 *
 * No call keeps a state of its own: threads are as free as the service lets them be, and the stand-alone one lets them.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * PTZTesselIterateGroupCallback:
 * @name: the path of the parameter
 * @value: its value
 * @user_data: what was given to ptz_tessel_iterate_group()
 * @position: its place in the walk, counted from 1
 *
 * Receives one parameter. Both texts are valid during the call.
 *
 * Returns: `FALSE` to stop
 */
typedef gboolean (*PTZTesselIterateGroupCallback) (const gchar *name, const gchar *value, gpointer user_data,
                                                   guint position);

/**
 * PTZTesselIterateSubGroupsCallback:
 * @group: the path of a child group
 * @value: the value of the parameter in it that was asked for
 * @user_data: what was given to ptz_tessel_iterate_sub_groups()
 *
 * Receives one child group. Both texts are valid during the call.
 *
 * Returns: (transfer full) (nullable): `NULL` to go on; any text ends the walk
 */
typedef gchar *(*PTZTesselIterateSubGroupsCallback) (const gchar *group, const gchar *value, gpointer user_data);

/**
 * ptz_tessel_get_vp:
 * @path_format: printf-like format of a path
 * @...: its arguments
 *
 * A value that is not UTF-8 is taken for ISO-8859-1. A path that cannot be formatted and a value that cannot be
 * converted are logged.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value, as UTF-8; `NULL` where it cannot be read
 */
PTZ_API gchar *ptz_tessel_get_vp (const gchar *path_format, ...) G_GNUC_PRINTF (1, 2);

/**
 * ptz_tessel_get:
 * @path: a path, taken for a format
 *
 * As ptz_tessel_get_vp().
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value, as UTF-8; `NULL` where it cannot be read
 */
PTZ_API gchar *ptz_tessel_get (const gchar *path);

/**
 * ptz_tessel_set_vp:
 * @extra: the extra word; not passed on unless it is above 0
 * @mode: the mode word
 * @val: the value, written as it is
 * @path_format: printf-like format of a path, which is passed to the service whole, whatever its length
 * @...: its arguments
 *
 * If the service reports a failure, the parameter is read back: the failure counts, and is logged as a warning, only if
 * the parameter can be read and differs from @val. That the service refuses a path of more than 127 bytes always counts.
 *
 * Thread: any.
 *
 * Returns: 0 on success, else the service's error; -1 for a path that cannot be formatted
 */
PTZ_API gint32 ptz_tessel_set_vp (gint32 extra, gint32 mode, const gchar *val, const gchar *path_format, ...)
  G_GNUC_PRINTF (4, 5);

/**
 * ptz_tessel_set:
 * @path: a path, taken for a format
 * @val: the value
 * @first: `FALSE` for mode word 9
 * @second: with @first: `TRUE` for mode word 10 or 12
 * @third: with @first: mode word 11 where @second is `FALSE`, 10 instead of 12 where it is `TRUE`
 * @extra: the extra word
 *
 * As ptz_tessel_set_vp(). With @first alone the mode word is 9, too.
 *
 * Thread: any.
 *
 * Returns: 0 on success, else the service's error
 */
PTZ_API gint32 ptz_tessel_set (const gchar *path, const gchar *val, gboolean first, gboolean second, gboolean third,
                               gint32 extra);

/**
 * ptz_tessel_index_get:
 * @grp_name: a group, such as "root.PTZ"
 * @par_prefix: what stands before the index
 * @index: an index
 * @par_suffix: what follows the index and a dot
 *
 * Reads "group.prefixINDEX.suffix".
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value, as UTF-8; `NULL` where it cannot be read
 */
PTZ_API gchar *ptz_tessel_index_get (const gchar *grp_name, const gchar *par_prefix, guint index,
                                     const gchar *par_suffix);

/**
 * ptz_tessel_index_set:
 * @grp_name: as in ptz_tessel_index_get()
 * @par_prefix: as in ptz_tessel_index_get()
 * @index: as in ptz_tessel_index_get()
 * @par_suffix: as in ptz_tessel_index_get()
 * @val: the value
 * @switch_a: the first and the second switch of ptz_tessel_set()
 * @switch_b: the third switch of ptz_tessel_set()
 * @extra: the extra word
 *
 * Thread: any.
 *
 * Returns: whether it was written
 */
PTZ_API gboolean ptz_tessel_index_set (const gchar *grp_name, const gchar *par_prefix, guint index,
                                       const gchar *par_suffix, const gchar *val, gboolean switch_a,
                                       gboolean switch_b, gint32 extra);

/**
 * ptz_tessel_dyn_index_get:
 * @grp_name: a group below "root.PTZ"
 * @index: an index
 * @par_name: a parameter
 *
 * Reads a parameter of a dynamic group: "Preset", 2 and "Name" read "root.PTZ.Preset.P2.Name".
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the value, as UTF-8; `NULL` where it cannot be read
 */
PTZ_API gchar *ptz_tessel_dyn_index_get (const gchar *grp_name, guint index, const gchar *par_name);

/**
 * ptz_tessel_dyn_index_set:
 * @grp_name: as in ptz_tessel_dyn_index_get()
 * @index: as in ptz_tessel_dyn_index_get()
 * @par_name: as in ptz_tessel_dyn_index_get()
 * @val: the value
 * @switch_a: the first and the second switch of ptz_tessel_set()
 * @switch_b: the third switch of ptz_tessel_set()
 * @extra: the extra word
 *
 * Thread: any.
 *
 * Returns: whether it was written
 */
PTZ_API gboolean ptz_tessel_dyn_index_set (const gchar *grp_name, guint index, const gchar *par_name,
                                           const gchar *val, gboolean switch_a, gboolean switch_b, gint32 extra);

/**
 * ptz_tessel_sync:
 * @mode: the mode word
 *
 * Flushes the tree to storage.
 *
 * Thread: any; waits for the storage.
 *
 * Returns: `TRUE` when every earlier write is there
 */
PTZ_API gboolean ptz_tessel_sync (gint32 mode);

/**
 * ptz_tessel_create_group_vp:
 * @extra: the extra word; -1 is not passed on
 * @mode: the mode word
 * @number: the number word: the number in the new group's name
 * @templ: the template of the new group
 * @path_format: printf-like format of the path of the group to create it in
 * @...: its arguments
 *
 * That the group exists is no failure. Any other is logged as a warning.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): what the service returned: the path of the new group; `NULL` on failure
 */
PTZ_API gchar *ptz_tessel_create_group_vp (gint32 extra, gint32 mode, gint32 number, const gchar *templ,
                                           const gchar *path_format, ...) G_GNUC_PRINTF (5, 6);

/**
 * ptz_tessel_create_group:
 * @driver_number: the number of a driver
 * @template_prefix: the beginning of the template's name
 * @group: a group below "root.PTZ"
 * @index: the number of the new group in it
 * @mode: the mode word
 *
 * Creates a dynamic group from the template "prefixDRIVER_group", the group in lower case. Where that fails, also
 * because it exists, a group of that index is deleted and the creation tried once more; what fails then is logged.
 *
 * Thread: any.
 *
 * Returns: whether the group was created
 */
PTZ_API gboolean ptz_tessel_create_group (gint driver_number, const gchar *template_prefix, const gchar *group,
                                          gint index, gint32 mode);

/**
 * ptz_tessel_create_sub_group:
 * @driver_number: the number of a driver
 * @group: a group below "root.PTZ"
 * @index: the number of a dynamic group in it
 * @name: a group in that one
 * @template_number: the number of the template, and of the new group
 * @mode: the mode word
 *
 * Creates a group in a group of a dynamic group from the template "driverDRIVER_nameNUMBER", the name in lower case,
 * whose file must exist in /etc/sysconfig/template. The template's name has at most 98 characters.
 *
 * Thread: any.
 *
 * Returns: whether the group was created
 */
PTZ_API gboolean ptz_tessel_create_sub_group (gint driver_number, const gchar *group, gint index, const gchar *name,
                                              guint template_number, gint32 mode);

/**
 * ptz_tessel_delete_group_vp:
 * @mode: the mode word
 * @path_format: printf-like format of the path of a group
 * @...: its arguments
 *
 * Deletes a group and all that is in it. Whether that worked is not told.
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_delete_group_vp (gint32 mode, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_delete_group:
 * @path: the path of a group, taken for a format
 * @mode: the mode word
 *
 * As ptz_tessel_delete_group_vp().
 *
 * Thread: any.
 */
PTZ_API void ptz_tessel_delete_group (const gchar *path, gint32 mode);

/**
 * ptz_tessel_index_delete_group:
 * @group: a group below "root.PTZ"
 * @index: what is appended to its name
 * @mode: the mode word
 *
 * Deletes "root.PTZ.groupINDEX".
 *
 * Thread: any.
 *
 * Returns: `FALSE` only for a path that is too long
 */
PTZ_API gboolean ptz_tessel_index_delete_group (const gchar *group, guint index, gint32 mode);

/**
 * ptz_tessel_delete_sub_group:
 * @group: a group below "root.PTZ"
 * @index: the number of a dynamic group in it
 * @mode: the mode word
 *
 * Deletes a dynamic group: "Preset" and 2 delete "root.PTZ.Preset.P2".
 *
 * Thread: any.
 *
 * Returns: `FALSE` only for a path that is too long or an empty @group
 */
PTZ_API gboolean ptz_tessel_delete_sub_group (const gchar *group, gint index, gint32 mode);

/**
 * ptz_tessel_delete_subsub_group:
 * @group: a group below "root.PTZ"
 * @index: the number of a dynamic group in it
 * @sub_group: a group in that one
 * @sub_index: the number of a dynamic group in the sub-group
 * @mode: the mode word
 *
 * Deletes a dynamic group of a dynamic group: "Cam", 1, "Preset" and 2 delete "root.PTZ.Cam.C1.Preset.P2".
 *
 * Thread: any.
 *
 * Returns: `FALSE` only for a path that is too long or an empty name
 */
PTZ_API gboolean ptz_tessel_delete_subsub_group (const gchar *group, gint index, const gchar *sub_group,
                                                 gint sub_index, gint32 mode);

/**
 * ptz_tessel_get_int_val:
 * @camera: the index of a camera
 * @group: a group below "root.PTZ"
 * @param: a parameter of the camera's dynamic group in it
 * @valp: (out): the number, untouched unless the result is `TRUE`
 * @strp: (out) (transfer full) (optional) (nullable): the value as it was read, also where it is no number; `NULL` for
 *   a missing parameter
 *
 * Reads as ptz_tessel_dyn_index_get() does. A value is a number when it is one in decimal, of 32 bits, with nothing but
 * white space around it; any other is logged.
 *
 * Thread: any.
 *
 * Returns: whether there is a number
 */
PTZ_API gboolean ptz_tessel_get_int_val (guint camera, const gchar *group, const gchar *param, gint32 *valp,
                                         gchar **strp);

/**
 * ptz_tessel_get_int:
 * @valp: (out): the number, untouched unless the result is `TRUE`
 * @path_format: printf-like format of a path; an empty path makes the call fail
 * @...: its arguments
 *
 * Reads a number as ptz_tessel_get_int_val() does.
 *
 * Thread: any.
 *
 * Returns: whether there is a number
 */
PTZ_API gboolean ptz_tessel_get_int (gint32 *valp, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_get_bool_val:
 * @camera: the index of a camera
 * @group: a group below "root.PTZ"
 * @param: a parameter of the camera's dynamic group in it
 * @valp: (out): whether the value is "true" or "yes"; `FALSE` where there is none
 *
 * Reads as ptz_tessel_dyn_index_get() does.
 *
 * Thread: any.
 *
 * Returns: whether there is a value
 */
PTZ_API gboolean ptz_tessel_get_bool_val (guint camera, const gchar *group, const gchar *param, gboolean *valp);

/**
 * ptz_tessel_get_bool:
 * @valp: (out): whether the value is "true" or "yes"; untouched where there is none
 * @path_format: printf-like format of a path; an empty path makes the call fail
 * @...: its arguments
 *
 * Thread: any.
 *
 * Returns: whether there is a value
 */
PTZ_API gboolean ptz_tessel_get_bool (gboolean *valp, const gchar *path_format, ...) G_GNUC_PRINTF (2, 3);

/**
 * ptz_tessel_iterate_group: (skip)
 * @group: the path of a group
 * @stop_name: (nullable): the last component of the parameter to stop before
 * @user_data: passed to @action; borrowed
 * @action: (scope call): receives each parameter of the group, in the order of the service
 *
 * A failure of the service, and a parameter that cannot be read, end the walk and are logged. Each value is that of
 * the moment before its call.
 *
 * Thread: any; @action runs in the calling thread, and may read and write the tree.
 *
 * Returns: `TRUE` when the walk came to its end, to @stop_name, or was stopped by @action
 */
PTZ_API gboolean ptz_tessel_iterate_group (const gchar *group, const gchar *stop_name, gpointer user_data,
                                           PTZTesselIterateGroupCallback action);

/**
 * ptz_tessel_iterate_sub_groups: (skip)
 * @group: the path of a group
 * @param: a parameter of its child groups
 * @recurse: whether to look into the child groups, too. What @action returns for a group below a child ends the walk
 *   of that child only, and is freed
 * @user_data: passed to @action; borrowed
 * @action: (scope call): receives each child group that has the parameter, in the order of the service
 *
 * The walk ends at a failure of the service and, unless @recurse is given, at a child without the parameter. Groups
 * that are nested more deeply than a path can say, 127 levels, are not looked into.
 *
 * Thread: any; @action runs in the calling thread, and may read and write the tree.
 *
 * Returns: (transfer full) (nullable): the text by which @action ended the walk of @group itself; `NULL` for none or an
 *   empty one
 */
PTZ_API gchar *ptz_tessel_iterate_sub_groups (const gchar *group, const gchar *param, gboolean recurse,
                                              gpointer user_data, PTZTesselIterateSubGroupsCallback action);

G_END_DECLS
