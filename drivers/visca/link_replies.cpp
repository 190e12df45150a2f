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
constexpr std::int64_t most_strays_us = 500'000;

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
    // A refused stop has its answer until it is sent again.
    if (!waits_for_answer(slot)) continue;
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

// ACKs are held by the number of stops that wait: without one of them the count no longer says which stop they confirm.
void Link::erase(const Slot &slot) {
  if (slot.command.stop && !slot.is_acknowledged) held_acks_.clear();
  slots_.remove_if([&](const Slot &each) { return &each == &slot; });
}

void Link::release(Slot &slot, Outcome outcome, std::int64_t now) {
  freed_us_[slot.socket] = now;
  tell(slot.command.ended, slot.is_replaced ? Outcome::replaced : outcome);
  erase(slot);
}

// A command that was sent n times may be acknowledged n times. As long after its first ACK as that took, further ones
// may come.
void Link::expect_strays(const Slot &slot, std::int64_t now) {
  if (slot.sends < 2 + slot.dropped_acks || !matches_by_order()) return;
  strays_ = (now > strays_until_us_ ? 0 : strays_) + slot.sends - 1 - slot.dropped_acks;
  strays_until_us_ = now + std::min(now - slot.first_us, most_strays_us);
}

// On a stream a repeat is late, so only stops are that careful.
bool Link::is_stray(Slot &slot, std::int64_t now) {
  if (!options_.loses_packets && !slot.command.stop) return false;
  if (strays_ == 0 || now > strays_until_us_ || slot.sends > strays_ + 1 || !slot.command.repeatable) return false;
  --strays_;
  ++slot.dropped_acks;
  return true;
}

void Link::on_ack(const Reply &reply, Slot *slot, std::int64_t now) {
  has_acked_ = true;
  Slot *const holder = reply.socket != 0 ? slot_of_socket(reply.socket) : nullptr;
  if (slot == nullptr) {
    if (holder != nullptr && now - holder->sent_us < duplicate_ack_us) {
      strays_ -= std::min(strays_, 1U);
      return;
    }
    slot = oldest_unacknowledged();
    if (slot != nullptr && (is_stray(*slot, now) || hold_ack(*slot, reply.socket, now))) return;
  }
  if (slot != nullptr && slot->is_acknowledged && slot->socket == 0) slot->socket = reply.socket;
  if (slot == nullptr || slot->is_acknowledged) return;
  acknowledge(*slot, reply.socket, now);
}

void Link::acknowledge(Slot &slot, Byte socket, std::int64_t now) {
  // The camera gives a socket again only after a completion, so that one was lost.
  Slot *const holder = socket != 0 ? slot_of_socket(socket) : nullptr;
  if (holder != nullptr) release(*holder, Outcome::done, now);
  full_ = 0;
  expect_strays(slot, now);
  slot.is_acknowledged = true;
  slot.socket = socket;
  const std::int64_t limit = slot.command.completion_limit;
  slot.end_us = now + (limit != 0 ? limit : options_.completion_limit_us);
  accept(slot, slot.is_replaced ? Outcome::replaced : Outcome::done);
  if (slot.command.stop) {
    end_what_is_stopped(slot, now);
  } else if (slot.is_overtaken) {
    stop_again(slot, now);
  }
}

std::size_t Link::unacknowledged_stops() const {
  return static_cast<std::size_t>(
      std::ranges::count_if(slots_, [](const Slot &slot) { return slot.command.stop && !slot.is_acknowledged; }));
}

// Several stops were sent at once, over datagrams without numbers: one ACK may be that of any of them. They are
// acknowledged when as many ACKs have come since they were sent.
bool Link::hold_ack(const Slot &oldest, Byte socket, std::int64_t now) {
  const std::size_t stops = unacknowledged_stops();
  if (!must_count_acks() || !oldest.command.stop || stops < 2) return false;
  held_acks_.push_back({socket, false});
  if (held_acks_.size() < stops) return true;
  for (const HeldAck &held : std::exchange(held_acks_, {})) {
    Slot *const slot = oldest_unacknowledged();
    if (slot == nullptr) break;
    acknowledge(*slot, held.socket, now);
    if (held.is_completed) release(*slot, Outcome::done, now);
  }
  return true;
}

bool Link::complete_held(Byte socket) {
  for (HeldAck &held : held_acks_) {
    if (held.socket != socket || held.is_completed) continue;
    held.is_completed = true;
    return true;
  }
  return false;
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
  if (slot == nullptr && complete_held(reply.socket)) return;
  if (slot == nullptr) {
    const bool is_duplicate = reply.socket != 0 && now - freed_us_[reply.socket] < duplicate_completion_us;
    slot = oldest_unacknowledged();
    // A camera that has never sent an ACK completes each command, a stop too, at once in the same socket.
    const bool tells_nothing_else = completes_without_ack_ && !has_acked_;
    if (slot == nullptr) return;
    if (is_duplicate && !tells_nothing_else && (!completes_without_ack_ || slot->command.stop)) return;
    if (is_stray(*slot, now)) return;
    expect_strays(*slot, now);
    completes_without_ack_ = true;
  }
  accept(*slot, slot->is_replaced ? Outcome::replaced : Outcome::done);
  if (!slot->is_acknowledged) slot->socket = reply.socket;
  release(*slot, Outcome::done, now);
}

// A message that is repeated is answered as before: with a position from before the last command, perhaps.
bool Link::is_outdated(const Question &question) const {
  return options_.has_header && question.sends > 1 && commanded_us_ > question.first_us;
}

void Link::on_answer(const Reply &reply, Sequence sequence) {
  has_answered_ = true;
  if (!asked_) return;
  const bool is_meant = sequence && !matches_by_order();
  if (is_meant && asked_->sequence != *sequence) return;
  if (!fits(asked_->kind, reply.data)) {
    // By order it may be the late answer to another inquiry.
    if (!is_meant) return;
    events_.push_back([this, kind = asked_->kind] { user_.on_no_answer(kind, Outcome::bad_syntax); });
    return asked_.reset();
  }
  if (is_outdated(*asked_)) {
    questions_.push_front(asked_->kind);
    return asked_.reset();
  }
  std::array<Byte, longest_packet> data = {};
  std::ranges::copy(reply.data, data.begin());
  events_.push_back([this, kind = asked_->kind, data, size = reply.data.size()] {
    user_.on_answer(kind, {data.data(), size});
  });
  asked_.reset();
}

}  // namespace visca
