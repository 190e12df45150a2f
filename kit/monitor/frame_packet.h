// kit/monitor/frame_packet.h - a PTZKitMonitorFrame from its packet.
#pragma once
#include <ptz_kit_monitor.h>

#include "handles.h"
#include "monitor/packet.h"

namespace ptz_kit {

using MonitorFrame = Handle<PTZKitMonitorFrame, ptz_kit_monitor_frame_free>;

// Null if the packet is malformed. The reader is behind the header.
[[nodiscard]] MonitorFrame read_frame(const PacketHeader &header, PacketReader &reader);

}  // namespace ptz_kit
