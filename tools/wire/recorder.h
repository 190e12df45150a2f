// recorder.h - writes what a driver's monitor socket shows into a recording.
#pragma once
#include <ptz_kit_monitor.h>

#include <functional>
#include <optional>
#include <string>

#include "recording.h"

namespace ptzctl {

struct RecorderSettings {
  std::string path;  // of the driver's socket
  guint timeout_ms = 10'000;
  guint seconds = 0;  // 0: no limit
  guint64 frames = 0;
  std::optional<guint32> client;
  bool with_past = false;
};

// After a restart of the driver, the numbers of its clients go on above those before: a number means one connection in
// the whole recording. The frames since the restart come from what the driver has kept.
class Recorder {
  const RecorderSettings settings_;
  tools::Object<PTZKitMonitor> monitor_;
  tools::Loop loop_{g_main_loop_new(nullptr, FALSE)};
  RecordingWriter *writer_ = nullptr;
  std::string instance_;  // which run of the driver it is
  guint32 first_client_ = 0, last_client_ = 0;
  guint64 written_ = 0, lost_ = 0;
  guint64 lost_before_next_ = 0;  // before frames that are not recorded
  guint retry_ = 0;
  bool is_restarted_ = false;  // since the last frame

  static void on_frame(PTZKitMonitor *monitor, const PTZKitMonitorFrame *frame, gpointer recorder);
  static void on_closed(PTZKitMonitor *monitor, gpointer recorder);
  static gboolean on_retry(gpointer recorder);
  static gboolean on_end(gpointer recorder);
  void take(const PTZKitMonitorFrame &frame);
  [[nodiscard]] std::string comment_on(const RecordedFrame &frame);
  [[nodiscard]] bool reconnect();
  [[nodiscard]] std::string problem_of(const tools::Error &error) const;
  [[nodiscard]] tools::Variant figures(tools::Error &error) const;

 public:
  explicit Recorder(RecorderSettings settings);
  ~Recorder();
  Recorder(const Recorder &) = delete;
  // The driver's own account of itself. Nothing, with the problem, if it cannot be asked.
  [[nodiscard]] std::optional<RecordingOrigin> connect(std::string &problem);
  // Until SIGINT or SIGTERM, a limit, or a failure of the writer.
  [[nodiscard]] bool record(RecordingWriter &writer, std::string &problem);
  [[nodiscard]] guint64 written() const { return written_; }
  [[nodiscard]] guint64 lost() const { return lost_; }
};

}  // namespace ptzctl
