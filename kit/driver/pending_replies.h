// kit/driver/pending_replies.h - the replies of a driver that have no answer yet.
#pragma once
#include "driver/reply.h"
#include "handles.h"

namespace ptz_kit {

// A deferred reply may have a deadline, at which it is answered with error 7.
//
// Main context. The replies are borrowed: each is removed when it is answered, at the latest when it goes.
class PendingReplies {
  PointerArray replies_{g_ptr_array_new()};  // of PTZKitReply, the oldest first
  Timer timer_;                              // runs while a reply has a deadline
  gint64 timer_due_us_ = 0;
  bool expires_ = false;

  static gboolean on_deadline(gpointer pending);
  void expire_due(gint64 now_us);
  void watch(gint64 due_us, gint64 now_us);

 public:
  void add(PTZKitReply *reply) { g_ptr_array_add(replies_.get(), reply); }
  void remove(PTZKitReply *reply) { g_ptr_array_remove(replies_.get(), reply); }
  void set_deadline(PTZKitReply *reply, guint deadline_ms);
  void expire_all();
  // A reply is being answered because of its deadline.
  [[nodiscard]] bool expires() const { return expires_; }
};

}  // namespace ptz_kit
