#include "ptz_flags_utils.h"

gboolean ptz_flags_utils_ptz_usable(PTZDriverCapabilities *driver_cap) {
  if (driver_cap == nullptr) return FALSE;
  if (driver_cap->move != 0) return TRUE;
  driver_cap->extra &= ~guint32{PTZ_DRIVER_EXTRA_CAPABILITIES_DEVICETYPE};
  return driver_cap->extra != 0;
}
