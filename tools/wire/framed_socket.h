// framed_socket.h - a connection that carries frames, without blocking. It sends any bytes, also malformed frames.
#pragma once
#include <span>
#include <string>
#include <vector>

#include "handles.h"

namespace ptzctl {

class FramedSocket {
  tools::UniqueFd fd_;
  std::vector<guint8> received_, unsent_;
  std::string end_;
  bool stays_half_open_ = false, is_at_end_ = false;

  void flush();
  void close_because(const std::string &reason);
  [[nodiscard]] bool take_frame(std::vector<std::vector<guint8>> &frames);

 public:
  FramedSocket() = default;
  explicit FramedSocket(tools::UniqueFd fd) : fd_(std::move(fd)) {}  // must not block
  // Can be sent to after the peer has shut down its sending side.
  [[nodiscard]] static FramedSocket half_open(tools::UniqueFd fd) {
    FramedSocket made(std::move(fd));
    made.stays_half_open_ = true;
    return made;
  }
  [[nodiscard]] bool is_open() const { return static_cast<bool>(fd_); }
  [[nodiscard]] int fd() const { return fd_.get(); }
  // Why it is closed: "the driver closed the connection" is up to the caller, this is the cause.
  [[nodiscard]] const std::string &end() const { return end_; }
  // What to poll for. A peer that does not read what it is sent is not read either.
  [[nodiscard]] short events() const;
  // The peer sends nothing further, and was sent everything.
  [[nodiscard]] bool is_finished() const { return is_at_end_ && unsent_.empty(); }
  void send(std::span<const guint8> bytes);
  // Reads what is there. Each frame is whole, with its header.
  [[nodiscard]] std::vector<std::vector<guint8>> receive();
  // After poll().
  [[nodiscard]] std::vector<std::vector<guint8>> handle(short returned_events);
  void close() { fd_ = tools::UniqueFd(); }
};

}  // namespace ptzctl
