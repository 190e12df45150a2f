// reply_sender.h - sends the replies of a command server and logs those that cannot be sent.
#pragma once
#include <glib.h>
#include <sys/types.h>

namespace example {

// ptz_socket_server_send() logs nothing if a reply cannot be sent: the client has gone, or does not read its replies.
// It returns FALSE, and the line in the log is the driver's to write. This class writes it, with the client's process
// id, and at most once a second, because one client that does not read can cause thousands of failures.
//
// Main context. The default main context must run: a timer writes the number of failures that got no line of their own.
//
//   gboolean on_request(gpointer user_data, gpointer reply_context, gpointer data, guint32 length) {
//     const pid_t peer = replies.peer_of(reply_context);
//     ...
//     replies.send(reply_context, peer, reply->data, reply->len);
class ReplySender {
  guint suppressed_ = 0;  // failures since the last line
  pid_t last_peer_ = 0;   // of these failures
  guint timer_ = 0;       // id; 0 if the last line is more than a second old

  void log_failure(pid_t peer, guint32 length);
  static gboolean on_second_over(gpointer sender);

 public:
  ReplySender() = default;
  ReplySender(const ReplySender &) = delete;
  ~ReplySender();

  // The process that made the connection; 0 if unknown. Call this in the server's callback, even if the reply is sent
  // later: by then the client may have gone, and its descriptor may be another client's.
  [[nodiscard]] static pid_t peer_of(gpointer reply_context);

  // Sends the reply and frees the context. Returns whether the reply was sent; if not, it has been logged.
  bool send(gpointer reply_context, pid_t peer, gconstpointer data, guint32 length);
};

}  // namespace example
