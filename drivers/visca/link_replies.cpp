// What a reply means for the messages that a link has sent.
#include <utility>

#include "link.h"

namespace visca {

namespace {

// An ACK or a completion for the same socket within this time is a duplicate.
constexpr std::int64_t duplicate_ack_us = 100'000, duplicate_completion_us = 500'000;
// The same number in so many replies to different messages: the camera has a number of its own.
constexpr unsigned most_strangers = 4, most_first_strangers = 2;
constexpr unsigned enough_matches = 4;
constexpr std::int64_t next_stranger_us = 90'000;
constexpr std::uint32_t recent_numbers = 64;
constexpr std::int64_t full_us = 50'000, full_for_stop_us = 20'000;
constexpr unsigned most_renumberings = 3;

Outcome outcome_of(Byte code) {
  return code == error_length || code == error_syntax ? Outcome::bad_syntax : Outcome::not_executable;
}

}  // namespace

Link::Slot *Link::slot_of_sequence(Sequence sequence) {
  if (!sequence || matches_by_order()) return nullptr;
  for (Slot &slot : slots_) {
    if (slot.sequence == *sequence) return &slot;
  }
  return nullptr;
}

// A command that the camera never acknowledges comes last.
Link::Slot *Link::oldest_unacknowledged() {
  Slot *silent = nullptr;
  for (Slot &slot : slots_) {
    if (slot.is_acknowledged) continue;
    if (!is_silent_kind(slot.command)) return &slot;
    if (silent == nullptr) silent = &slot;
  }
  return silent;
}

Link::Slot *Link::slot_of_socket(Byte socket) {
  for (Slot &slot : slots_) {
    if (slot.is_acknowledged && slot.socket == socket) return &slot;
  }
  return nullptr;
}

bool Link::was_sent_lately(std::uint32_t sequence) const {
  return sequence < sequence_ && sequence_ - sequence <= recent_numbers;
}

bool Link::has_number(std::uint32_t sequence) const {
  return (asked_ && asked_->sequence == sequence) ||
         std::ranges::any_of(slots_, [&](const Slot &slot) { return slot.sequence == sequence; });
}

// A message that was repeated is answered several times, so replies with an old number are no evidence by themselves.
void Link::count_stranger(std::uint32_t sequence, std::int64_t now) {
  const bool is_same = strangers_ > 0 && sequence == stranger_;
  if (is_same && order_ == stranger_order_ && now - stranger_us_ < next_stranger_us) return;
  strangers_ = is_same ? strangers_ + 1 : 1;
  stranger_ = sequence;
  stranger_order_ = order_;
  stranger_us_ = now;
  const bool was_never_sent = !has_matched_ && sequence >= sequence_;
  if (!was_never_sent && strangers_ < (has_matched_ ? most_strangers : most_first_strangers)) return;
  by_order_ = true;
  matches_ = 0;
}

// Whether the number says that the reply belongs to no message that waits. Finds out whether the camera returns
// numbers.
bool Link::concerns_nothing(Sequence sequence, std::int64_t now) {
  if (!sequence || !options_.has_header) return false;
  if (has_number(*sequence)) {
    if (by_order_ && ++matches_ >= enough_matches) by_order_ = false;
    if (!by_order_) has_matched_ = true;
    strangers_ = 0;
    return false;
  }
  matches_ = 0;
  if (by_order_) return false;
  if (slots_.empty() && !asked_) return true;
  count_stranger(*sequence, now);
  return !by_order_;
}

void Link::receive(const Reply &reply, Sequence sequence, std::int64_t now) {
  if (state_ == State::down) return;
  hear(now);
  if (!concerns_nothing(sequence, now)) {
    Slot *const slot = slot_of_sequence(sequence);
    switch (reply.kind) {
      case ReplyKind::ack:
        on_ack(reply, slot, now);
        break;
      case ReplyKind::completion:
        on_completion(reply, slot, now);
        break;
      case ReplyKind::answer:
        on_answer(reply, sequence);
        break;
      case ReplyKind::error:
        on_error(reply, slot, sequence, now);
        break;
      default:  // of interest to the line only
        break;
    }
  } else if (reply.kind == ReplyKind::error && (reply.code == error_cancelled || reply.code == error_no_socket)) {
    on_end_of_cancel(reply, now);
  }
  settle(now);
}

void Link::accept(Slot &slot, Outcome outcome) { tell(slot.command.acknowledged, outcome); }

void Link::erase(const Slot &slot) {
  slots_.remove_if([&](const Slot &each) { return &each == &slot; });
}

void Link::release(Slot &slot, Outcome outcome, std::int64_t now) {
  freed_us_[slot.socket] = now;
  tell(slot.command.ended, slot.is_replaced ? Outcome::replaced : outcome);
  erase(slot);
}

void Link::on_ack(const Reply &reply, Slot *slot, std::int64_t now) {
  Slot *const holder = reply.socket != 0 ? slot_of_socket(reply.socket) : nullptr;
  if (slot == nullptr) {
    if (holder != nullptr && now - holder->sent_us < duplicate_ack_us) return;
    slot = oldest_unacknowledged();
  }
  if (slot != nullptr && slot->is_acknowledged && slot->socket == 0) slot->socket = reply.socket;
  if (slot == nullptr || slot->is_acknowledged) return;
  // The camera gives a socket again only after a completion, so that one was lost.
  if (holder != nullptr) release(*holder, Outcome::done, now);
  full_ = 0;
  slot->is_acknowledged = true;
  slot->socket = reply.socket;
  const std::int64_t limit = slot->command.completion_limit;
  slot->end_us = now + (limit != 0 ? limit : options_.completion_limit_us);
  accept(*slot, slot->is_replaced ? Outcome::replaced : Outcome::done);
  if (slot->command.stop) {
    end_what_is_stopped(*slot, now);
  } else if (slot->is_overtaken) {
    stop_again(*slot, now);
  }
}

// The stop holds: a motion that the camera has not ended by itself is cancelled.
void Link::end_what_is_stopped(const Slot &stop, std::int64_t now) {
  for (Slot &other : slots_) {
    if (other.command.group != stop.command.group || !other.is_replaced || !other.is_acknowledged) continue;
    if (other.cancel_us == 0 && other.socket != 0) send_cancel(other, now);
  }
}

// A motion was acknowledged after the stop that overtook it.
void Link::stop_again(Slot &moved, std::int64_t now) {
  if (moved.socket != 0) send_cancel(moved, now);
  const Group group = moved.command.group;
  const auto is_later = [&](const Slot &slot) {
    return slot.command.group == group && slot.order > moved.order &&
           (slot.command.motion || (slot.command.stop && !slot.is_acknowledged));
  };
  const auto waits = [&](const Waiting &waiting) { return waiting.command.group == group; };
  if (std::ranges::any_of(slots_, is_later) || std::ranges::any_of(queue_, waits)) return;
  const Packet &packet = stops_[static_cast<std::size_t>(group)];
  queue_.push_front({Command{.packet = packet, .group = group, .stop = true}, now, now});
}

void Link::on_completion(const Reply &reply, Slot *slot, std::int64_t now) {
  if (slot == nullptr) slot = slot_of_socket(reply.socket);
  if (slot == nullptr) {
    const bool is_duplicate = reply.socket != 0 && now - freed_us_[reply.socket] < duplicate_completion_us;
    slot = oldest_unacknowledged();
    if (slot == nullptr || (is_duplicate && (!completes_without_ack_ || slot->command.stop))) return;
    if (reply.socket != 0) completes_without_ack_ = true;
  }
  accept(*slot, slot->is_replaced ? Outcome::replaced : Outcome::done);
  if (!slot->is_acknowledged) slot->socket = reply.socket;
  release(*slot, Outcome::done, now);
}

void Link::on_answer(const Reply &reply, Sequence sequence) {
  if (!asked_) return;
  const bool is_meant = sequence && !matches_by_order();
  if (is_meant && asked_->sequence != *sequence) return;
  if (!fits(asked_->kind, reply.data)) {
    // By order it may be the late answer to another inquiry.
    if (!is_meant) return;
    events_.push_back([this, kind = asked_->kind] { user_.on_no_answer(kind, Outcome::bad_syntax); });
    return asked_.reset();
  }
  std::array<Byte, longest_packet> data = {};
  std::ranges::copy(reply.data, data.begin());
  events_.push_back([this, kind = asked_->kind, data, size = reply.data.size()] {
    user_.on_answer(kind, {data.data(), size});
  });
  asked_.reset();
}

void Link::on_error(const Reply &reply, Slot *slot, Sequence sequence, std::int64_t now) {
  if (reply.code == error_cancelled || reply.code == error_no_socket) return on_end_of_cancel(reply, now);
  const bool is_of_question = sequence && !matches_by_order() && asked_ && asked_->sequence == *sequence;
  if (slot == nullptr && !is_of_question) {
    slot = oldest_unacknowledged();
    if (slot != nullptr && asked_ && asked_->order < slot->order) slot = nullptr;
    if (slot == nullptr && !asked_ && reply.socket != 0) slot = slot_of_socket(reply.socket);
  }
  if (slot == nullptr) {
    if (!asked_) return;
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
  queue_.push_front(std::move(again));
  if (++full_ % 2 != 0 || !slots_.empty()) return;
  for (const Byte socket : {Byte{1}, Byte{2}}) {
    transmit(cancel(address_, socket).bytes(), PayloadType::command, sequence_++, now);
  }
}

void Link::control(ByteSpan payload, std::uint32_t sequence, std::int64_t now) {
  if (state_ == State::down || payload.empty()) return;
  hear(now);
  const bool is_error = payload.size() >= 2 && payload[0] == control_error;
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
