// kit/link/link_source.h - the source of a link on its main context: the descriptor, the deadlines, the next attempt.
#pragma once
#include "link/link_core.h"

namespace ptz_kit {

// A new source, not attached. It holds the core, and the link only weakly; it emits the notifications of the link.
[[nodiscard]] GSource *new_link_source(PTZKitLink *link, const Shared<LinkCore> &core);

// Emits what has changed with the state.
void notify_change(PTZKitLink *link, LinkCore &core);

}  // namespace ptz_kit
