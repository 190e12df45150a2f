/* tests/kit/driver/complete_driver.h - a driver in C that overrides every virtual function of a command. */
#pragma once

#include <ptz_kit.h>

G_BEGIN_DECLS

/* The command of the last request that reached a virtual function. Each is answered with error 8. */
extern gint32 complete_driver_command;

GType complete_driver_get_type(void);

G_END_DECLS
