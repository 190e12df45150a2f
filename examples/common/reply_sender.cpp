#include "reply_sender.h"

#include <ptz_socket_server_command.h>
#include <sys/socket.h>
#include <syslog.h>

#include <string>

namespace example {
namespace {

constexpr guint log_interval_ms = 1000;

pid_t peer_of_descriptor(gint fd) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

std::string name_of(pid_t peer) { return peer > 0 ? "process " + std::to_string(peer) : "an unknown process"; }

}  // namespace

ReplySender::~ReplySender() {
  if (timer_ != 0) g_source_remove(timer_);
}

// The system cannot be asked after a failure: a reply that was sent in part closes the descriptor, and by the time of a
// late reply another client may have its number.
pid_t ReplySender::peer_of(gpointer reply_context) {
  const auto *context = static_cast<const PTZSocketServerCommandReplyContext *>(reply_context);
  return context != nullptr && context->fd >= 0 ? peer_of_descriptor(context->fd) : 0;
}

bool ReplySender::send(gpointer reply_context, pid_t peer, gconstpointer data, guint32 length) {
  const bool sent = ptz_socket_server_send(reply_context, data, length) != FALSE;
  if (!sent) log_failure(peer, length);
  return sent;
}

void ReplySender::log_failure(pid_t peer, guint32 length) {
  if (timer_ != 0) {
    ++suppressed_;
    last_peer_ = peer;
    return;
  }
  syslog(LOG_WARNING, "a reply of %u bytes to %s could not be sent", length, name_of(peer).c_str());
  timer_ = g_timeout_add(log_interval_ms, on_second_over, this);
}

gboolean ReplySender::on_second_over(gpointer sender) {
  auto &self = *static_cast<ReplySender *>(sender);
  if (self.suppressed_ == 0) {
    self.timer_ = 0;
    return G_SOURCE_REMOVE;
  }
  syslog(LOG_WARNING, "replies that could not be sent in the last second: %u more, the last one to %s",
         self.suppressed_, name_of(self.last_peer_).c_str());
  self.suppressed_ = 0;
  return G_SOURCE_CONTINUE;
}

}  // namespace example
