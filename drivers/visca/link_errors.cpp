// What an error means for the messages that a link has sent.
#include <utility>

#include "link.h"

namespace visca {

namespace {

constexpr std::int64_t full_us = 50'000, full_for_stop_us = 20'000;
constexpr unsigned most_renumberings = 3;

Outcome outcome_of(Byte code) {
  return code == error_length || code == error_syntax ? Outcome::bad_syntax : Outcome::not_executable;
}

}  // namespace

// By order. A camera that sends no ACK answers a refused command only, so the error is that of the latest one.
Link::Slot *Link::slot_of_error(const Reply &reply) {
  Slot *slot = oldest_unacknowledged();
  if (slot != nullptr && completes_without_ack_ && !has_acked_) {
    for (Slot &each : slots_) {
      if (!each.is_acknowledged && each.sent_us > slot->sent_us) slot = &each;
    }
  }
  // An inquiry that is sent while a stop is repeated: its error must not end the stop.
  const bool is_late_stop = slot != nullptr && slot->command.stop && slot->sends > 1;
  if (slot != nullptr && asked_ && (asked_->order < slot->order || is_late_stop)) return nullptr;
  if (slot == nullptr && !asked_ && reply.socket != 0) return slot_of_socket(reply.socket);
  return slot;
}

void Link::on_error(const Reply &reply, Slot *slot, Sequence sequence, std::int64_t now) {
  if (reply.code == error_cancelled || reply.code == error_no_socket) return on_end_of_cancel(reply, now);
  const bool is_of_question = sequence && !matches_by_order() && asked_ && asked_->sequence == *sequence;
  if (slot == nullptr && !is_of_question) slot = slot_of_error(reply);
  if (slot == nullptr) {
    if (!asked_) return;
    has_answered_ = true;
    events_.push_back([this, kind = asked_->kind, why = outcome_of(reply.code)] { user_.on_no_answer(kind, why); });
    return asked_.reset();
  }
  if (reply.code == error_buffer_full && !slot->is_acknowledged) return on_buffer_full(*slot, now);
  on_refusal(*slot, outcome_of(reply.code), now);
}

// The camera has ended a command: by our cancel, or because it was replaced.
void Link::on_end_of_cancel(const Reply &reply, std::int64_t now) {
  Slot *slot = nullptr;
  for (Slot &each : slots_) {
    const bool is_named = each.is_acknowledged && each.socket == reply.socket;
    if (is_named || (reply.socket == 0 && each.cancel_us != 0)) slot = &each;
  }
  if (slot == nullptr) return;
  if (reply.code == error_no_socket && slot->cancel_us == 0) return;
  release(*slot, Outcome::replaced, now);
}

void Link::on_refusal(Slot &slot, Outcome outcome, std::int64_t now) {
  if (slot.is_acknowledged) return release(slot, outcome, now);
  if (slot.command.stop && outcome == Outcome::not_executable) {
    slot.is_refused = true;  // repeat() sends it again
    slot.refused_sends = slot.sends;
    return;
  }
  accept(slot, outcome);
  erase(slot);
}

// The camera has commands that the link does not know of, such as those of an earlier run: they are cancelled if they
// stay.
void Link::on_buffer_full(Slot &slot, std::int64_t now) {
  const std::int64_t pause_us = slot.command.stop ? full_for_stop_us : full_us;
  Waiting again = {std::move(slot.command), slot.since_us, now + pause_us};
  const bool is_replaced = slot.is_replaced;
  erase(slot);
  if (is_replaced && !again.command.stop) return tell(again.command.acknowledged, Outcome::replaced);
  ++full_;
  if (again.command.stop) {
    make_room_for_stop(again.command, now);
  } else if (full_ % 2 == 0 && slots_.empty()) {
    for (const Byte socket : {Byte{1}, Byte{2}}) {
      transmit(cancel(address_, socket).bytes(), PayloadType::command, sequence_++, now);
    }
  }
  queue_.push_front(std::move(again));
}

// A stop must not wait for commands that last: those that are not known to be of another group are cancelled first, and
// if there are none, or it did not help, all of them.
void Link::make_room_for_stop(const Command &stop, std::int64_t now) {
  const auto is_of_others = [&](Byte socket) {
    const Slot *const slot = slot_of_socket(socket);
    return slot != nullptr && slot->command.group != stop.group;
  };
  const bool spares = full_ % 2 != 0 && !(is_of_others(1) && is_of_others(2));
  for (const Byte socket : {Byte{1}, Byte{2}}) {
    if (spares && is_of_others(socket)) continue;
    Slot *const slot = slot_of_socket(socket);
    if (slot != nullptr) slot->cancel_us = now;
    transmit(cancel(address_, socket).bytes(), PayloadType::command, sequence_++, now);
  }
}

void Link::control(ByteSpan payload, std::uint32_t sequence, std::int64_t now) {
  if (state_ == State::down || payload.empty()) return;
  hear(now);
  const bool is_error = options_.has_header && payload.size() >= 2 && payload[0] == control_error;
  if (is_error && payload[1] == error_sequence_number) on_abnormal_sequence(sequence, now);
  settle(now);
}

// If the message was sent once, the camera has not executed it: it was restarted, or accepts small numbers only. If it
// was repeated, the camera has executed it, or an earlier copy was refused. All but relative moves may be sent again.
void Link::on_abnormal_sequence(std::uint32_t sequence, std::int64_t now) {
  Slot *slot = nullptr;
  for (Slot &each : slots_) {
    if (each.sequence == sequence) slot = &each;
  }
  const bool is_of_question = asked_ && asked_->sequence == sequence;
  if (slot == nullptr && !is_of_question) {
    if (has_matched_ && was_sent_lately(sequence)) return;
    slot = oldest_unacknowledged();
  }
  if (slot != nullptr && slot->is_acknowledged) return;
  if (slot != nullptr && slot->sends > 1 && !slot->command.repeatable) {
    accept(*slot, Outcome::done);
    return release(*slot, Outcome::done, now);
  }
  if (slot == nullptr && !asked_) return;
  unsigned &renumbered = slot != nullptr ? slot->renumbered : asked_->renumbered;
  // If a later message has overtaken it, the camera only wants a higher number.
  const bool is_latest = (slot != nullptr ? slot->sequence : asked_->sequence) + 1 == sequence_;
  if (++renumbered == 1 && is_latest) send_reset(now);
  if (slot != nullptr) {
    slot->needs_number = true;
    if (renumbered <= most_renumberings) send_slot(*slot, now);
  } else {
    asked_->needs_number = true;
    if (renumbered <= most_renumberings) send_question(now);
  }
}

}  // namespace visca
