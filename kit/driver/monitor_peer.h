// kit/driver/monitor_peer.h - one connection of the monitor socket.
//
// A peer is sent each frame at once. If its socket is full, it is sent the frame later from the history, when the
// socket is writable, and as many of the next ones as the history still has then. Frames that it does not have any more
// are lost: their number goes with the next frame, and with figures. Until the peer reads again, a frame costs the
// driver a comparison.
//
// One request is read at a time: the next one is read when the answer is sent. A dispatch sends a limited number of
// packets, so that a request to the driver does not wait long.
//
// Main context.
#pragma once
#include "driver/frame_history.h"
#include "monitor/packet.h"

namespace ptz_kit {

// What the packets tell.
class MonitoredDriver {
 public:
  struct Facts {
    std::string_view name, program, socket;
    guint instance;
    gint64 since_ns;  // of the monotonic clock
  };
  [[nodiscard]] virtual Facts facts() const = 0;
  // Looks at all connections, with accounting().begin_look() and end_look().
  virtual void look_at_clients() = 0;
  [[nodiscard]] virtual const Accounting &accounting() const = 0;

 protected:
  ~MonitoredDriver() = default;
};

class MonitorPeer {
  enum class Answer : guint8 { none, driver, clients, end };

  MonitoredDriver &driver_;
  const FrameHistory &history_;
  UniqueFd fd_;
  const gint64 since_ns_;
  guint input_ = 0, output_ = 0;  // sources
  bool ended_ = false;
  bool asked_ = false;
  Answer answer_ = Answer::none;
  guint32 serial_ = 0;
  std::size_t next_client_ = 0;  // by descriptor number
  bool subscribed_ = false;
  guint64 subscribed_at_ = 0;
  guint64 next_frame_ = 0;
  guint64 lost_ = 0;

  static gboolean on_input(gint, GIOCondition, gpointer peer);
  static gboolean on_output(gint, GIOCondition, gpointer peer);
  void watch_input(bool on);
  void watch_output(bool on);
  void end();

  enum class Sent : guint8 { yes, full, failed };
  Sent send(std::span<const guint8> packet);
  Sent send_frame(const Frame &frame, std::span<const guint8> body, guint64 number);
  Sent send_figures();
  [[nodiscard]] guint64 lost_until_now() const;
  void handle(std::span<const guint8> packet);
  void read_request();
  void take_turn();
  [[nodiscard]] bool is_behind() const { return subscribed_ && next_frame_ < history_.end(); }
  [[nodiscard]] bool send_frames();
  [[nodiscard]] bool send_answer();

 public:
  static constexpr gint priority = G_PRIORITY_HIGH_IDLE;  // after requests to the driver

  MonitorPeer(MonitoredDriver &driver, const FrameHistory &history, UniqueFd fd);
  MonitorPeer(const MonitorPeer &) = delete;
  ~MonitorPeer() { end(); }

  // The connection is closed.
  [[nodiscard]] bool has_ended() const { return ended_; }
  // Has not asked for anything in its first second.
  [[nodiscard]] bool is_idle(gint64 now_ns) const;
  // The frame, which is the last one of the history if that keeps any.
  void frame_came(const Frame &frame, std::span<const guint8> body);
  // Does what its sources would do.
  void serve();
};

}  // namespace ptz_kit
