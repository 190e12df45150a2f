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
  gint64 start_us_ = 0;  // real time, like all times here
  gint64 last_sample_us_ = 0;

  void ask(guint timeout_ms);
  void add(const PTZKitMonitorFrame *frame);

 public:
  const PTZKitRegistryEntry &entry;
  std::string problem;         // why there are no figures, or no later ones
  tools::Variant first, last;  // figures, of the beginning and of the end; may be null
  std::deque<MonitorFrame> frames;
  guint64 lost = 0, dropped = 0;  // by the driver, and by us
  tools::MotionTrace motion;
  bool has_status = false;

  explicit WatchedDriver(const PTZKitRegistryEntry &entry);
  WatchedDriver(const WatchedDriver &) = delete;
  ~WatchedDriver();
  // Connects and subscribes. The time-out is that of the figures.
  void begin(guint timeout_ms);
  void sample();
  [[nodiscard]] gint64 start_us() const { return start_us_; }
  void end(guint timeout_ms);
};

// The drivers share one time-out at the beginning and one at the end, so that many that hang cost no more than one.
class Watch {
  guint timeout_ms_;

  void ask_each(void (WatchedDriver::*question)(guint timeout_ms));

 public:
  std::vector<std::unique_ptr<WatchedDriver>> drivers;

  Watch(const std::vector<const PTZKitRegistryEntry *> &entries, guint timeout_ms);
  // Runs the main context for so long.
  void run(guint seconds);
};

}  // namespace ptzctl
