#include "driver/reply_sender.h"

#include <ptz_socket_server.h>
#include <syslog.h>

#include "driver/format.h"

namespace ptz_kit {
namespace {

constexpr guint log_interval_ms = 1000;

std::string name_of(pid_t peer) { return peer > 0 ? format("process %d", peer) : "an unknown process"; }

}  // namespace

bool ReplySender::send(gpointer context, pid_t peer, std::span<const guint8> body) {
  const auto length = static_cast<guint32>(body.size());
  if (ptz_socket_server_send(context, body.data(), length) != FALSE) return true;
  log_failure(peer, length);
  return false;
}

void ReplySender::log_failure(pid_t peer, gsize length) {
  if (timer_.runs()) {
    ++suppressed_;
    last_peer_ = peer;
    return;
  }
  syslog(LOG_WARNING, "a reply of %zu bytes to %s could not be sent", length, name_of(peer).c_str());
  timer_.start(log_interval_ms, on_second_over, this);
}

gboolean ReplySender::on_second_over(gpointer sender) {
  auto &self = *static_cast<ReplySender *>(sender);
  if (self.suppressed_ == 0) {
    self.timer_.ended();
    return G_SOURCE_REMOVE;
  }
  syslog(LOG_WARNING, "replies that could not be sent in the last second: %u more, the last one to %s",
         self.suppressed_, name_of(self.last_peer_).c_str());
  self.suppressed_ = 0;
  return G_SOURCE_CONTINUE;
}

}  // namespace ptz_kit
