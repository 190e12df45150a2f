// driver_parameters.h - what the driver tells of itself in answer to "Get driver parameters".
#pragma once
#include "head.h"
#include "live_settings.h"

namespace sim {

// What the class would answer, and the live settings as they are now.
void answer_driver_parameters(const Head &head, const LiveSettings &live, PTZKitReply *reply);

}  // namespace sim
