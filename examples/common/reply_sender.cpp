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

// The system is asked once for each connection, which a daemon keeps for hours, and not for each reply. It cannot be
// asked after a failure instead: a reply that was sent in part closes the descriptor.
pid_t ReplySender::peer_of(gpointer reply_context) {
  const auto *context = static_cast<const PTZSocketServerCommandReplyContext *>(reply_context);
  if (context == nullptr || context->fd < 0 || context->connection == 0) return 0;  // not made by a server
  const auto index = static_cast<std::size_t>(context->fd);
  if (index >= connections_.size()) connections_.resize(index + 1);
  Connection &connection = connections_[index];
  if (connection.number != context->connection) connection = {context->connection, peer_of_descriptor(context->fd)};
  return connection.peer;
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
