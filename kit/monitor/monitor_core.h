// kit/monitor/monitor_core.h - the private state of a PTZKitMonitor.
//
// Packets are read by the source, which emits frames at once, and by figures(), which keeps frames in a queue until the
// main context runs. The queue is limited: frames beyond the limit are dropped and counted as lost. Nothing blocks but
// figures(). The connection is closed for a malformed packet.
//
// The object's thread.
#pragma once
#include <deque>
#include <memory>
#include <string>

#include "monitor/figures_answer.h"
#include "monitor/frame_packet.h"

namespace ptz_kit {

class MonitorCore {
  static constexpr std::size_t most_queued = 8192;

  PTZKitMonitor *object_;
  const std::string path_;  // of the monitor socket
  const Context context_{g_main_context_ref_thread_default()};
  UniqueFd fd_;
  GSource *source_ = nullptr, *later_ = nullptr;  // owned
  std::unique_ptr<guint8[]> buffer_;
  std::deque<MonitorFrame> queue_;
  guint64 dropped_ = 0;
  guint32 serial_ = 0;
  bool was_busy_ = false;
  bool has_closed_ = false;  // not told yet

  enum class Received : guint8 { packet, none, end, malformed };
  Received receive(std::span<const guint8> &packet);
  Received receive_into_queue(FiguresAnswer *answer, bool &complete);
  [[nodiscard]] bool send(const PacketHeader &header, GError **error);
  void close(bool tell);
  void enqueue(MonitorFrame frame);
  void emit_frame(MonitorFrame frame);
  void emit_later();
  void dispatch();
  GVariant *end_of_figures(Received received, GError **error);
  [[nodiscard]] bool check_connected(GError **error) const;
  static gboolean on_input(gint, GIOCondition, gpointer core);
  static gboolean on_later(gpointer core);

 public:
  MonitorCore(PTZKitMonitor *object, const char *driver_path);
  MonitorCore(const MonitorCore &) = delete;
  ~MonitorCore() { close(false); }

  [[nodiscard]] bool connect(GError **error);
  [[nodiscard]] GVariant *figures(guint timeout_ms, GCancellable *cancellable, GError **error);
  [[nodiscard]] bool subscribe(bool with_past, GError **error);
};

}  // namespace ptz_kit
