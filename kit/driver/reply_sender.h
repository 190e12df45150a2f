// kit/driver/reply_sender.h - sends the replies of a command server and logs those that cannot be sent.
#pragma once
#include <sys/types.h>

#include <span>

#include "handles.h"

namespace ptz_kit {

// A reply fails if its client has gone, or does not read its replies. The log has a line with the client's process id
// at most once a second, because one client that does not read can cause thousands of failures.
//
// Main context, which must run: a timer writes the number of failures that got no line of their own.
class ReplySender {
  guint suppressed_ = 0;  // failures since the last line
  pid_t last_peer_ = 0;   // of these failures
  Timer timer_;           // runs if the last line is less than a second old

  void log_failure(pid_t peer, gsize length);
  static gboolean on_second_over(gpointer sender);

 public:
  // Frees the context. False if the reply could not be sent.
  bool send(gpointer context, pid_t peer, std::span<const guint8> body);
};

}  // namespace ptz_kit
