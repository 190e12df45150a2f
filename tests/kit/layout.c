/* The slots of PTZKitDriverClass where pointers have 64 bits: no exported function takes the class, so the kept description
 * of the interface does not have it. Nothing to run: what does not hold does not compile. */
#include <ptz_kit.h>
#include <stddef.h>

#ifdef __LP64__
#define SLOT(number, slot) \
  _Static_assert (offsetof (PTZKitDriverClass, slot) == sizeof (GObjectClass) + 8 * (number), #slot " is elsewhere")

_Static_assert (sizeof (PTZKitDriver) == sizeof (GObject), "PTZKitDriver");
_Static_assert (sizeof (PTZKitDriverClass) == sizeof (GObjectClass) + 8 * 43, "PTZKitDriverClass");
SLOT (0, open);
SLOT (1, close);
SLOT (2, update);
SLOT (3, set_preset);
SLOT (4, set_device_preset);
SLOT (5, get_device_presets);
SLOT (6, goto_preset);
SLOT (7, goto_device_preset);
SLOT (8, move);
SLOT (9, stop);
SLOT (10, field_angles);
SLOT (11, unregister);
SLOT (12, auxiliary);
SLOT (13, get_auxiliary);
SLOT (14, osd_menu);
SLOT (15, query_speed);
SLOT (16, query_position);
SLOT (17, query_zoomdelim);
SLOT (18, change_port);
SLOT (19, move_command);
SLOT (20, area_zoom);
SLOT (21, image);
SLOT (22, default_home_preset);
SLOT (23, get_driver_property);
SLOT (24, get_preset_position);
SLOT (25, query_attributes);
SLOT (26, get_driver_parameters);
SLOT (27, check_settings);
SLOT (28, started);
SLOT (29, reserved);
#endif

int main (void) { return 0; }
