// watch.h - the drivers as their monitors show them: figures, the last frames, and the motions of a few seconds.
#pragma once
#include <ptz_kit_monitor.h>
#include <ptz_kit_registry.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "handles.h"
#include "motion_trace.h"
#include "status_group.h"

namespace ptzctl {

using MonitorFrame = tools::Handle<PTZKitMonitorFrame, ptz_kit_monitor_frame_free>;

class WatchedDriver {
  static constexpr std::size_t most_frames = 2000;

  tools::Object<PTZKitMonitor> monitor_;
  std::optional<StatusGroup> status_;
  guint timeout_ms_;
  gint64 start_us_ = 0;  // real time, like all times here
  gint64 last_sample_us_ = 0;

  void ask();
  void add(const PTZKitMonitorFrame *frame);

 public:
  const PTZKitRegistryEntry &entry;
  std::string problem;         // why there are no figures, or no later ones
  tools::Variant first, last;  // figures, of the beginning and of the end; may be null
  std::deque<MonitorFrame> frames;
  guint64 lost = 0, dropped = 0;  // by the driver, and by us
  tools::MotionTrace motion;
  bool has_status = false;

  WatchedDriver(const PTZKitRegistryEntry &entry, guint timeout_ms);
  WatchedDriver(const WatchedDriver &) = delete;
  ~WatchedDriver();
  void begin();  // connects and subscribes
  void sample();
  void end();
};

class Watch {
 public:
  std::vector<std::unique_ptr<WatchedDriver>> drivers;

  Watch(const std::vector<const PTZKitRegistryEntry *> &entries, guint timeout_ms);
  // Runs the main context for so long.
  void run(guint seconds);
};

}  // namespace ptzctl
