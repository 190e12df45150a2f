// link.h - one client's connection to the driver, of plain bytes: what no library would send can be sent on it.
#pragma once
#include <optional>
#include <string>
#include <string_view>

#include "check.h"

namespace compliance {

struct Frame {
  guint32 id;
  std::string body;
};

[[nodiscard]] std::string frame(guint32 id, std::string_view body);
[[nodiscard]] std::string frame(guint32 id, const Body &body);
[[nodiscard]] std::string header(guint32 length, guint32 id);  // that claims any length

class Link {
  Probe *probe_;
  UniqueFd fd_;
  int client_;
  std::string received_;
  bool at_end_ = false;

 public:
  Link(Probe &probe, UniqueFd fd, int client) : probe_(&probe), fd_(std::move(fd)), client_(client) {}

  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] Probe &probe() { return *probe_; }

  // As one write, or as many as it takes. A driver that does not read for too long fails the check; one that has
  // closed the connection does so when its reply is missed.
  void send(std::string_view bytes);
  // What can be sent without waiting longer than this. False if that is not all of it.
  bool try_send(std::string_view bytes, int limit_ms);
  guint32 request(const Body &body);  // its message id
  void shut_sending();

  // The next frame, if one comes in time.
  std::optional<Frame> receive(int limit_ms);
  // The body of the reply with this id; frames with other ids are dropped, as the library's client does.
  Body reply_to(guint32 id);
  Body ask(const Body &body) { return reply_to(request(body)); }
  // Reads until nothing has come for this long.
  void drain(int quiet_ms);
  // The driver closes the connection in time, and sends nothing before.
  void expect_closed();
};

}  // namespace compliance
