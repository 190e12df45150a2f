/* ptz_kit.h - everything of the kit for drivers and daemons. */
#pragma once

#include <ptz_kit_body.h>
#include <ptz_kit_driver.h>
#include <ptz_kit_link.h>
#include <ptz_kit_link_calls.h>
#include <ptz_kit_messages.h>
#include <ptz_kit_monitor.h>
#include <ptz_kit_registry.h>
#include <ptz_kit_replies.h>
#include <ptz_kit_reply.h>
#include <ptz_kit_types.h>
