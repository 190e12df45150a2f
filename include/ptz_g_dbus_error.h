/* ptz_g_dbus_error.h - numbers in the names of D-Bus errors. */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * ptz_g_dbus_error_get_remote_error_code:
 * @error: (nullable): a failed call's error; borrowed
 *
 * Services number their errors by a name that ends in ".Code" and a number, such as "com.velk.PTZ.Error.Code17". The
 * last ".Code" of the name counts, and a decimal number behind it, which may have a sign.
 *
 * Thread: any.
 *
 * Returns: the number; -1 where there is none, where it does not fit into an int, and for `NULL` or an error that did
 *   not come over D-Bus (or has been stripped of its name with g_dbus_error_strip_remote_error())
 */
PTZ_API gint ptz_g_dbus_error_get_remote_error_code (const GError *error);

G_END_DECLS
