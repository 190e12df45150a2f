// What a link sends, and when it sends it again or gives it up.
#include <glib.h>

#include <utility>

#include "link.h"

namespace visca {

namespace {

constexpr std::size_t most_commands_in_camera = 2;
// How long a message without a reply keeps others from being sent if replies are matched by order.
constexpr std::int64_t first_reply_us = 150'000, reply_to_repeat_us = 60'000;
constexpr std::int64_t stop_waits_for_room_us = 100'000;
constexpr std::int64_t room_limit_us = 3'000'000, short_command_us = 1'000'000;
constexpr std::int64_t repeat_question_us = 150'000;

// Category and number of a command: what it does, without its values.
std::uint16_t kind_of(const Command &command) {
  const ByteSpan bytes = command.packet.bytes();
  return bytes.size() > 3 ? static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]) : 0;
}

}  // namespace

// A camera that answers no inquiry at all is not lost for it.
void Link::transmit(ByteSpan packet, PayloadType type, std::uint32_t sequence, std::int64_t now) {
  const bool may_be_ignored = type == PayloadType::inquiry && !has_answered_ && state_ == State::up;
  if (!may_be_ignored && unanswered_++ == 0) unanswered_since_us_ = now;
  wire_.send(packet, type, sequence);
}

void Link::send_reset(std::int64_t now) {
  const Byte payload[] = {control_reset};
  sequence_ = 0;
  for (Slot &slot : slots_) slot.needs_number = true;
  if (asked_) asked_->needs_number = true;
  transmit(payload, PayloadType::control, 0, now);
}

void Link::send_slot(Slot &slot, std::int64_t now) {
  slot.sent_us = commanded_us_ = now;
  ++slot.sends;
  if (std::exchange(slot.needs_number, false)) slot.sequence = sequence_++;
  transmit(slot.command.packet.bytes(), PayloadType::command, slot.sequence, now);
}

void Link::send_command(Waiting waiting, std::int64_t now) {
  Slot slot = {.command = std::move(waiting.command), .sequence = sequence_++, .order = order_++};
  slot.since_us = waiting.since_us;
  slot.first_us = now;
  send_slot(slots_.emplace_back(std::move(slot)), now);
}

void Link::send_cancel(Slot &slot, std::int64_t now) {
  slot.cancel_us = now;
  transmit(cancel(address_, slot.socket).bytes(), PayloadType::command, sequence_++, now);
}

void Link::send_question(std::int64_t now) {
  asked_->sent_us = now;
  ++asked_->sends;
  if (std::exchange(asked_->needs_number, false)) asked_->sequence = sequence_++;
  transmit(inquiry(address_, asked_->kind).bytes(), PayloadType::inquiry, asked_->sequence, now);
}

void Link::ask(std::int64_t now) {
  asked_ = Question{.kind = questions_.front(), .sequence = sequence_++, .order = order_++, .first_us = now};
  questions_.pop_front();
  send_question(now);
}

bool Link::waits_for_reply(std::int64_t now) const {
  if (asked_ && now - asked_->first_us < first_reply_us) return true;
  return std::ranges::any_of(slots_, [&](const Slot &slot) {
    return waits_for_answer(slot) && now - slot.sent_us < (slot.sends > 1 ? reply_to_repeat_us : first_reply_us);
  });
}

// By order, the ACK of one command would be taken for that of another.
bool Link::waits_for_ack(std::int64_t now) const {
  if (asked_ && now - asked_->first_us < first_reply_us) return true;
  return std::ranges::any_of(
      slots_, [&](const Slot &slot) { return waits_for_answer(slot) && now - slot.sent_us < first_reply_us; });
}

// A replaced motion whose socket the camera did not name cannot be cancelled: nothing is won by waiting for its end.
void Link::release_replaced(std::int64_t now) {
  for (auto next = slots_.begin(); next != slots_.end();) {
    Slot &slot = *next++;
    if (slot.is_acknowledged && slot.is_replaced && slot.socket == 0) release(slot, Outcome::replaced, now);
  }
}

void Link::pump(std::int64_t now) {
  release_replaced(now);
  drop_refused_stops();
  std::array<bool, 5> held = {};  // groups with an earlier command that still waits
  for (auto waiting = queue_.begin(); waiting != queue_.end();) {
    bool &is_held = held[static_cast<std::size_t>(waiting->command.group)];
    if (is_held || !may_send(*waiting, now)) {
      is_held = true;
      ++waiting;
      continue;
    }
    Waiting sent = std::move(*waiting);
    waiting = queue_.erase(waiting);
    send_command(std::move(sent), now);
  }
  if (state_ != State::up || questions_.empty() || asked_ || !wire_.is_free_for(*this)) return;
  if (!matches_by_order() || !waits_for_reply(now)) ask(now);
}

bool Link::may_send(const Waiting &waiting, std::int64_t now) {
  if (now < waiting.not_before_us) return false;
  if (waiting.command.stop) return state_ != State::resetting && has_room(waiting, now);
  if (state_ != State::up || !group_is_ready(waiting.command, now) || !has_room(waiting, now)) return false;
  return wire_.is_free_for(*this) && (!matches_by_order() || !waits_for_ack(now));
}

// A motion that a stop overtook and that has no ACK was lost, most likely. It is kept because its ACK may still come.
std::size_t Link::slots_in_use(std::int64_t now) const {
  return static_cast<std::size_t>(std::ranges::count_if(slots_, [&](const Slot &slot) {
    return slot.is_acknowledged || !slot.is_overtaken || now - slot.sent_us < repeat_stop_us;
  }));
}

// The completion of a command that is no motion, such as a switch, is taken for lost after a while.
void Link::release_short(std::int64_t now) {
  for (auto next = slots_.begin(); next != slots_.end();) {
    Slot &slot = *next++;
    const bool is_short = (!slot.command.motion || slot.command.continuous) && slot.command.completion_limit == 0;
    if (is_short && slot.is_acknowledged && now - slot.sent_us >= short_command_us) release(slot, Outcome::done, now);
  }
}

// If there is none, a motion that is replaced anyway is cancelled, and for a stop any motion of its group.
bool Link::has_room(const Waiting &waiting, std::int64_t now) {
  if (slots_in_use(now) >= most_commands_in_camera) release_short(now);
  if (slots_in_use(now) < most_commands_in_camera) return true;
  for (Slot &slot : slots_) {
    if (slot.is_acknowledged && slot.is_replaced && slot.socket != 0 && slot.cancel_us == 0) send_cancel(slot, now);
  }
  return waiting.command.stop && now - waiting.since_us >= stop_waits_for_room_us;
}

// Motions of a group are sent one after the other: a repeat of an earlier one must not follow a later one.
bool Link::group_is_ready(const Command &command, std::int64_t now) {
  if (!command.motion) return true;
  bool is_ready = true;
  for (Slot &slot : slots_) {
    if (slot.command.group != command.group || (!slot.command.motion && !slot.command.stop)) continue;
    if (!slot.is_acknowledged) {
      // With sequence numbers, continuous motions need not wait for each other: the camera drops one that comes late.
      const bool may_follow = slot.command.continuous && command.continuous && !matches_by_order();
      if (!slot.is_overtaken && !may_follow) is_ready = false;
    } else if (slot.command.motion && !slot.command.continuous && slot.socket != 0) {
      if (slot.cancel_us == 0) send_cancel(slot, now);
      is_ready = false;
    }
  }
  return is_ready;
}

bool Link::is_silent_kind(const Command &command) const {
  return std::ranges::find(silent_kinds_, kind_of(command)) != silent_kinds_.end();
}

std::int64_t Link::repeat_interval(const Slot &slot) const {
  return slot.command.stop ? repeat_stop_us : options_.repeat_us;
}

// Without sequence numbers the camera would carry out a relative move twice.
bool Link::is_repeated(const Slot &slot) const {
  if (slot.is_acknowledged || slot.is_replaced) return false;
  return slot.command.stop || slot.command.repeatable || (!matches_by_order() && has_matched_);
}

std::int64_t Link::limit_of(const Slot &slot) const {
  if (slot.command.stop) return slot.since_us + stop_limit_us;
  return slot.first_us + (is_silent_kind(slot.command) ? first_reply_us : options_.ack_limit_us);
}

// A replaced motion without an ACK is not repeated; the one that replaces it does not wait longer than for a repeat.
bool Link::is_abandoned(const Slot &slot, std::int64_t now) const {
  return slot.is_replaced && !slot.is_overtaken && !slot.command.stop && now - slot.sent_us >= repeat_interval(slot);
}

std::int64_t Link::repeat_time(const Slot &slot) const {
  std::int64_t sent_us = slot.sent_us;
  if (slot.command.stop && must_count_acks()) {
    for (const Slot &other : slots_) {
      if (other.command.stop && !other.is_acknowledged) sent_us = std::max(sent_us, other.sent_us);
    }
  }
  return sent_us + repeat_interval(slot);
}

void Link::repeat(std::int64_t now) {
  std::vector<Slot *> due;
  for (Slot &slot : slots_) {
    if (is_repeated(slot) && now >= repeat_time(slot)) due.push_back(&slot);
  }
  for (Slot *const each : due) {
    Slot &slot = *each;
    if (slot.command.stop) held_acks_.clear();
    // A refused stop would get its old answer again, and a number that was abnormal stays so.
    if (slot.is_refused || (slot.renumbered > 0 && slot.command.repeatable)) slot.needs_number = true;
    send_slot(slot, now);
  }
  if (options_.loses_packets && asked_ && now - asked_->sent_us >= repeat_question_us) send_question(now);
}

void Link::expire(std::int64_t now) {
  for (auto next = slots_.begin(); next != slots_.end();) {
    Slot &slot = *next++;
    if (!slot.is_acknowledged) {
      if (is_abandoned(slot, now)) {
        accept(slot, Outcome::replaced);
        erase(slot);
      } else if (now >= limit_of(slot)) {
        give_up(slot, now);
      }
    } else if (slot.cancel_us != 0 && now - slot.cancel_us >= cancel_limit_us) {
      release(slot, Outcome::replaced, now);
    } else if (now >= slot.end_us) {
      release(slot, Outcome::done, now);
    }
  }
  if (asked_ && now - asked_->first_us >= options_.inquiry_limit_us) {
    events_.push_back([this, kind = asked_->kind] { user_.on_no_answer(kind, Outcome::no_answer); });
    asked_.reset();
  }
  expire_waiting(now);
}

void Link::expire_waiting(std::int64_t now) {
  std::erase_if(queue_, [&](Waiting &waiting) {
    if (now - waiting.since_us < (waiting.command.stop ? stop_limit_us : room_limit_us)) return false;
    tell(waiting.command.acknowledged, Outcome::busy);
    return true;
  });
}

// A camera that answers other messages obeys this command without an ACK. A stop is not believed without one.
void Link::give_up(Slot &slot, std::int64_t now) {
  const bool is_alive = heard_us_ > slot.first_us || is_silent_kind(slot.command);
  // If numbers were abnormal, it is not known whether the camera has taken the command.
  if (slot.command.stop || !is_alive || slot.renumbered > 0) {
    accept(slot, slot.is_refused ? Outcome::not_executable : slot.is_replaced ? Outcome::replaced : Outcome::no_answer);
    return erase(slot);
  }
  if (!slot.is_replaced && !is_silent_kind(slot.command)) silent_kinds_.push_back(kind_of(slot.command));
  accept(slot, slot.is_replaced ? Outcome::replaced : Outcome::done);
  release(slot, Outcome::done, now);
}

std::int64_t Link::deadline(std::int64_t now) const {
  if (state_ == State::down) return G_MAXINT64;
  std::int64_t first = state_ != State::up ? probe_at_us_ : G_MAXINT64;
  const auto consider = [&](std::int64_t when) { first = std::min(first, when); };
  for (const Slot &slot : slots_) {
    if (slot.is_acknowledged) {
      consider(slot.cancel_us != 0 ? std::min(slot.end_us, slot.cancel_us + cancel_limit_us) : slot.end_us);
    } else {
      consider(limit_of(slot));
      if (is_repeated(slot)) consider(repeat_time(slot));
      if (slot.is_replaced && now - slot.sent_us < repeat_interval(slot)) {
        consider(slot.sent_us + repeat_interval(slot));
      }
    }
  }
  const bool waits = matches_by_order() && (!queue_.empty() || !questions_.empty());
  for (const Slot &slot : slots_) {
    if (!waits || slot.is_acknowledged) continue;
    if (now - slot.sent_us < first_reply_us) consider(slot.sent_us + first_reply_us);
    if (slot.sends > 1 && now - slot.sent_us < reply_to_repeat_us) consider(slot.sent_us + reply_to_repeat_us);
  }
  for (const Slot &slot : slots_) {
    if (queue_.empty() || !slot.is_acknowledged) continue;
    if (now < slot.sent_us + short_command_us) consider(slot.sent_us + short_command_us);
  }
  for (const Waiting &waiting : queue_) {
    if (now < waiting.not_before_us) consider(waiting.not_before_us);
    if (waiting.command.stop && now < waiting.since_us + stop_waits_for_room_us) {
      consider(waiting.since_us + stop_waits_for_room_us);
    }
    consider(waiting.since_us + (waiting.command.stop ? stop_limit_us : room_limit_us));
  }
  if (asked_) {
    consider(asked_->first_us + options_.inquiry_limit_us);
    if (options_.loses_packets) consider(asked_->sent_us + repeat_question_us);
    if (waits && now - asked_->first_us < first_reply_us) consider(asked_->first_us + first_reply_us);
  }
  if (state_ == State::up && unanswered_ > 0 && unanswered_since_us_ + silence_us > now) {
    consider(unanswered_since_us_ + silence_us);
  }
  return first;
}

}  // namespace visca
