/* ptz_kit.h - everything of the kit for drivers and daemons. */
#pragma once

#include <ptz_kit_body.h>
#include <ptz_kit_messages.h>
#include <ptz_kit_types.h>
