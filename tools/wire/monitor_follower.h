// monitor_follower.h - a connection to the monitor socket of a driver, and of the driver's next runs.
#pragma once
#include <ptz_kit_monitor.h>

#include <functional>
#include <string>

#include "handles.h"

namespace ptzctl {

// What has happened to the connection.
enum class Following {
  ended,      // the connection is closed; the follower connects again
  busy,       // the driver has no place for another monitor; reported once until the follower is connected again
  restarted,  // connected to another run of the driver: frames since its start come as past ones
  resumed,    // connected to the same run again: frames in between are missing
};

// If the connection ends, the follower tries to connect again, first after 100 ms, then after twice as long up to 2 s.
// Runs of the driver are told apart by process id and start time. Main context.
class MonitorFollower {
 public:
  struct Settings {
    std::string path;    // of the driver's socket
    std::string driver;  // name of the driver if it was chosen by name: the next run may have another socket
    guint timeout_ms;    // for an answer
  };
  using OnFrame = std::function<void(const PTZKitMonitorFrame &)>;
  using OnChange = std::function<void(Following)>;

  MonitorFollower(Settings settings, OnFrame on_frame, OnChange on_change);
  ~MonitorFollower();
  MonitorFollower(const MonitorFollower &) = delete;

  // The figures of the driver, or null with an error.
  [[nodiscard]] tools::Variant connect(tools::Error &error);
  // Every request from now on is met. False with an error if the driver does not answer.
  [[nodiscard]] bool subscribe(bool with_past, tools::Error &error);
  // Reports the frames that the driver has sent until now, and returns how many it has lost since the last one.
  [[nodiscard]] guint64 catch_up();
  // Reports nothing further.
  void stop();
  [[nodiscard]] const std::string &path() const { return settings_.path; }

 private:
  Settings settings_;
  const OnFrame on_frame_;
  const OnChange on_change_;
  tools::Object<PTZKitMonitor> monitor_;
  std::string instance_;  // which run of the driver it is
  guint64 frames_ = 0;
  guint retry_ = 0, next_retry_ms_ = 0;
  bool is_subscribed_ = false, was_busy_ = false;

  static void on_frame(PTZKitMonitor *monitor, const PTZKitMonitorFrame *frame, gpointer follower);
  static void on_closed(PTZKitMonitor *monitor, gpointer follower);
  static gboolean on_retry(gpointer follower);
  void make_monitor();
  void drop_monitor();
  void retry_later();
  void find_socket();
  [[nodiscard]] tools::Variant figures(guint timeout_ms, tools::Error &error) const;
  [[nodiscard]] bool reconnect(tools::Error &error);
};

}  // namespace ptzctl
