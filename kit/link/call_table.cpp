#include "link/call_table.h"

namespace ptz_kit {

void CallList::add(Call &call) {
  call.next = nullptr;
  *end_ = &call;
  end_ = &call.next;
}

Call *CallList::take_first() {
  Call *call = first_;
  if (call != nullptr) remove(*call);
  return call;
}

void CallList::remove(const Call &call) {
  Call **place = &first_;
  while (*place != &call) place = &(*place)->next;
  *place = call.next;
  if (*place == nullptr) end_ = place;
}

guint32 CallTable::add_sent(Call &call) {
  const Sent sent = {next_id_++, &call, 0};
  g_array_append_val(sent_.get(), sent);
  return sent.id;
}

bool CallTable::add_waiting(Call &call) {
  if (waiting_count_ >= most_waiting) return false;
  waiting_.add(call);
  ++waiting_count_;
  return true;
}

bool CallTable::has_room(gint64 now_us) {
  if (sent_->len < limit_) return true;
  for (guint i = sent_->len; i-- > 0;) {
    const bool is_over = sent(i).call == nullptr && sent(i).given_up_at_us <= now_us - given_up_us;
    if (is_over) g_array_remove_index(sent_.get(), i);
  }
  return sent_->len < limit_;
}

Call *CallTable::take_next(gint64 now_us) { return waiting_count_ != 0 && has_room(now_us) ? take_waiting() : nullptr; }

Call *CallTable::take_answered(guint32 id) {
  for (guint i = 0; i < sent_->len; ++i) {
    if (sent(i).id != id) continue;
    Call *call = sent(i).call;
    g_array_remove_index(sent_.get(), i);
    return call;
  }
  return nullptr;
}

void CallTable::give_up(Call &call, gint64 now_us) {
  for (guint i = 0; i < sent_->len; ++i) {
    if (sent(i).call != &call) continue;
    sent(i) = {sent(i).id, nullptr, now_us};
    return;
  }
  waiting_.remove(call);
  --waiting_count_;
}

gint64 CallTable::next_place_us() const {
  gint64 next_us = G_MAXINT64;
  if (waiting_count_ == 0) return next_us;
  for (guint i = 0; i < sent_->len; ++i) {
    if (sent(i).call == nullptr) next_us = MIN(next_us, sent(i).given_up_at_us + given_up_us);
  }
  return next_us;
}

Call *CallTable::find_due(gint64 now_us, gint64 &next_deadline_us) const {
  next_deadline_us = G_MAXINT64;
  for (guint i = 0; i < sent_->len; ++i) {
    if (sent(i).call == nullptr) continue;
    if (sent(i).call->deadline_us <= now_us) return sent(i).call;
    next_deadline_us = MIN(next_deadline_us, sent(i).call->deadline_us);
  }
  for (Call *call = waiting_.first(); call != nullptr; call = call->next) {
    if (call->deadline_us <= now_us) return call;
    next_deadline_us = MIN(next_deadline_us, call->deadline_us);
  }
  return nullptr;
}

Call *CallTable::take_sent() {
  while (sent_->len > 0) {
    Call *call = sent(0).call;
    g_array_remove_index(sent_.get(), 0);
    if (call != nullptr) return call;
  }
  return nullptr;
}

Call *CallTable::take_waiting() {
  Call *call = waiting_.take_first();
  if (call != nullptr) --waiting_count_;
  return call;
}

}  // namespace ptz_kit
