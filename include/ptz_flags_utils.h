/* ptz_flags_utils.h - decisions on the capabilities of a driver. */
#pragma once

#include "ptz_flag_types.h"

G_BEGIN_DECLS

/**
 * ptz_flags_utils_ptz_usable:
 * @driver_cap: (nullable) (inout): what the driver announces; @driver_cap->extra may be changed
 *
 * A driver that can move anything is usable, and its record is left alone. One that cannot is usable only if it offers
 * something more than telling its device type: "DeviceType" is cleared in @driver_cap->extra, and what remains there
 * decides. The record keeps that change.
 *
 * Thread: any; @driver_cap is the caller's alone during the call.
 *
 * Returns: whether the driver is of any use; `FALSE` for `NULL`
 */
PTZ_API gboolean ptz_flags_utils_ptz_usable (PTZDriverCapabilities *driver_cap);

G_END_DECLS
