/* ptz_api.h - what every public header of the library needs. */
#pragma once

#include <glib-object.h>

/* Everything else in the library is hidden. */
#define PTZ_API __attribute__ ((visibility ("default")))
