// kit/driver/monitor_server.h - the monitor socket of a driver: figures and copies of frames for tools.
//
// The socket lies beside the driver's own, with ".monitor" at the end of the path. Its packets are described in
// docs/wire-format.md. It is a SOCK_SEQPACKET socket of mode 0660 with the group of its folder. The mode is set between
// bind() and listen(), so that no monitor connects before it holds, and not by the umask, which other threads share.
// The file is removed only if it is the driver's own, by device and inode.
//
// A driver serves without a monitor if the socket cannot be made: the path is too long, or is taken by a file of
// another type or by a process. The log has one line. The socket is made anew when the driver listens anew, and when
// only its own file is removed.
//
// Load. The sources have a lower priority than those of the driver's clients. So that a driver that is never idle can
// be looked at, too, a request serves the monitors if they were not served for 100 ms. At most eight monitors are
// served; a further one takes the place of one that has asked for nothing in its first second, or is told "busy".
//
// Main context.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "driver/monitor_peer.h"
#include "registry/entry.h"

namespace ptz_kit {

class MonitorServer {
  MonitoredDriver &driver_;
  FrameHistory history_;
  std::string path_;
  pid_t owner_ = 0;  // a child does not remove the files of its parent
  SocketFile file_;
  UniqueFd fd_;
  guint source_ = 0;
  Timer pause_;  // of accepting, after a failure
  bool warned_ = false;
  std::vector<std::unique_ptr<MonitorPeer>> peers_;
  gint64 next_turn_ns_ = 0;

  static gboolean on_connection(gint, GIOCondition, gpointer server);
  static gboolean on_pause_over(gpointer server);
  [[nodiscard]] bool make_socket(std::string &problem);
  void close_socket();
  void watch(bool on);
  void remove_ended();
  [[nodiscard]] bool make_place();
  [[nodiscard]] bool accept_one();
  void serve_all(gint64 now_ns);
  void send_to_peers(const Frame &frame, std::span<const guint8> body);

 public:
  static constexpr std::size_t max_peers = 8;
  static constexpr gsize default_history_bytes = 32768;

  explicit MonitorServer(MonitoredDriver &driver) : driver_(driver), history_(default_history_bytes) {}
  MonitorServer(const MonitorServer &) = delete;
  ~MonitorServer() { stop(); }

  // Makes the socket for a driver that listens at this path, unless it is there.
  void listen(const std::string &driver_path);
  // Its file was removed or replaced.
  [[nodiscard]] bool is_lost() const;
  [[nodiscard]] const std::string &path() const { return path_; }
  void stop();

  [[nodiscard]] FrameHistory &history() { return history_; }
  void frame_came(const Frame &frame, std::span<const guint8> body) {
    history_.add(frame, body);
    if (!peers_.empty()) send_to_peers(frame, body);
  }
  // The driver has received a request.
  void request_came(gint64 now_ns) {
    if (now_ns >= next_turn_ns_) serve_all(now_ns);
  }
};

}  // namespace ptz_kit
