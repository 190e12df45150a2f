#include "driver/pending_replies.h"

#include <syslog.h>

#include <algorithm>

namespace ptz_kit {

namespace {

PTZKitReply *at(const PointerArray &replies, guint index) {
  return static_cast<PTZKitReply *>(g_ptr_array_index(replies.get(), index));
}

}  // namespace

void PendingReplies::set_deadline(PTZKitReply *reply, guint deadline_ms) {
  const gint64 now_us = g_get_monotonic_time();
  const gint64 due_us = now_us + gint64{1000} * deadline_ms;
  set_due(reply, due_us);
  if (!timer_.runs() || due_us < timer_due_us_) watch(due_us, now_us);
}

void PendingReplies::watch(gint64 due_us, gint64 now_us) {
  timer_due_us_ = due_us;
  const gint64 left_ms = (std::max(due_us - now_us, gint64{0}) + 999) / 1000;
  timer_.start(static_cast<guint>(std::min(left_ms, gint64{G_MAXINT32})), on_deadline, this);
}

gboolean PendingReplies::on_deadline(gpointer pending) {
  auto &self = *static_cast<PendingReplies *>(pending);
  self.timer_.ended();
  self.expire_due(g_get_monotonic_time());
  return G_SOURCE_REMOVE;
}

// Those that are due are taken out first, because taking each one out of a long list would be slow.
void PendingReplies::expire_due(gint64 now_us) {
  const PointerArray all = std::exchange(replies_, PointerArray(g_ptr_array_new()));
  const PointerArray due(g_ptr_array_new());
  gint64 next_us = G_MAXINT64;
  for (guint i = 0; i < all->len; ++i) {
    PTZKitReply *reply = at(all, i);
    const bool is_due = due_of(reply) <= now_us;
    g_ptr_array_add(is_due ? due.get() : replies_.get(), reply);
    if (!is_due) next_us = std::min(next_us, due_of(reply));
  }
  if (next_us != G_MAXINT64) watch(next_us, now_us);
  for (guint i = 0; i < due->len; ++i) {
    const char *label = ptz_kit_command_name(request_of(at(due, i)).command);
    syslog(LOG_ERR, "the request \"%s\" failed: its deferred reply was not given in time",
           label != nullptr ? label : "unknown");
    expires_ = true;
    expire(at(due, i), "the driver has not answered in time");
    expires_ = false;
  }
}

void PendingReplies::expire_all() {
  timer_.stop();
  const PointerArray all = std::exchange(replies_, PointerArray(g_ptr_array_new()));
  for (guint i = 0; i < all->len; ++i) expire(at(all, i), "the driver ends");
}

}  // namespace ptz_kit
