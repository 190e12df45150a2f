// recorder.h - writes what a driver's monitor socket shows into a recording.
#pragma once
#include <optional>
#include <string>

#include "monitor_follower.h"
#include "recording.h"

namespace ptzctl {

struct RecorderSettings {
  MonitorFollower::Settings driver;
  guint seconds = 0;  // 0: no limit
  guint64 frames = 0;
  std::optional<guint32> client;
  bool with_past = false;
};

// After a restart of the driver, the numbers of its clients go on above those before: a number means one connection in
// the whole recording. The frames since the restart come from what the driver has kept.
class Recorder {
  const RecorderSettings settings_;
  MonitorFollower follower_;
  tools::Loop loop_{g_main_loop_new(nullptr, FALSE)};
  RecordingWriter *writer_ = nullptr;
  guint32 first_client_ = 0, last_client_ = 0;
  guint64 written_ = 0, lost_ = 0;
  guint64 lost_before_next_ = 0;  // before frames that are not recorded
  bool is_restarted_ = false;     // since the last frame

  static gboolean on_end(gpointer recorder);
  void take(const PTZKitMonitorFrame &frame);
  void report(Following change);
  [[nodiscard]] std::string comment_on(const RecordedFrame &frame);
  [[nodiscard]] std::string problem_of(const tools::Error &error) const;

 public:
  explicit Recorder(RecorderSettings settings);
  Recorder(const Recorder &) = delete;
  // The driver's own account of itself. Nothing, with the problem, if it cannot be asked.
  [[nodiscard]] std::optional<RecordingOrigin> connect(std::string &problem);
  // Until SIGINT or SIGTERM, a limit, or a failure of the writer.
  [[nodiscard]] bool record(RecordingWriter &writer, std::string &problem);
  [[nodiscard]] guint64 written() const { return written_; }
  [[nodiscard]] guint64 lost() const { return lost_; }
};

}  // namespace ptzctl
