#include "link.h"

#include <utility>

namespace visca {

namespace {

// Losing this many messages in a row by chance is unlikely even if three of ten datagrams are lost.
constexpr unsigned silence_of_datagrams = 8, silence_of_stream = 3;
constexpr std::int64_t reset_us = 100'000;
constexpr unsigned most_resets = 3;
constexpr int most_overtaken = 4;
constexpr unsigned clear_every = 3;

}  // namespace

const char *text_of(Outcome outcome) {
  switch (outcome) {
    case Outcome::done:
      return "done";
    case Outcome::replaced:
      return "replaced by a later order";
    case Outcome::bad_syntax:
      return "the camera does not understand the command";
    case Outcome::not_executable:
      return "the camera cannot obey now: it is powered off, busy, or in another mode";
    case Outcome::busy:
      return "the camera is busy with other commands";
    case Outcome::no_answer:
      return "the camera does not answer";
    case Outcome::down:
      return "there is no connection to the camera";
  }
  return "";
}

// Callers are told only here, so that they may submit further commands.
void Link::settle(std::int64_t now) {
  if (settling_) return;
  settling_ = true;
  do {
    pump(now);
    for (const auto &event : std::exchange(events_, {})) event();
  } while (!events_.empty());
  settling_ = false;
  // Commands that the events have submitted.
  if (state_ != State::down) pump(now);
  wire_.changed();
}

void Link::tell(std::function<void(Outcome)> &callback, Outcome outcome) {
  if (!callback) return;
  events_.push_back([told = std::exchange(callback, nullptr), outcome] { told(outcome); });
}

void Link::start(std::int64_t now) {
  by_order_ = has_matched_ = completes_without_ack_ = has_acked_ = has_answered_ = false;
  strays_ = 0;
  sequence_ = 0;
  heard_us_ = 0;
  begin_probing(now);
  settle(now);
}

void Link::stop() {
  const bool was_up = state_ == State::up;
  state_ = State::down;
  fail_all(Outcome::down, true);
  if (was_up) events_.push_back([this] { user_.link_is_lost(); });
  settle(heard_us_);
}

void Link::begin_probing(std::int64_t now) {
  state_ = options_.has_header ? State::resetting : State::probing;
  resets_ = probes_ = 0;
  unanswered_ = 0;
  probe(now);
}

// RESET first, then an inquiry that a camera answers in standby as well. A camera without any inquiry answers to
// "interface clear".
void Link::probe(std::int64_t now) {
  if (state_ == State::resetting && resets_ == most_resets) state_ = State::probing;
  if (state_ == State::resetting) {
    ++resets_;
    send_reset(now);
    probe_at_us_ = now + reset_us;
  } else {
    const bool clears = ++probes_ % clear_every == 0;
    const Packet packet = clears ? interface_clear(address_) : inquiry(address_, InquiryKind::power);
    transmit(packet.bytes(), clears ? PayloadType::command : PayloadType::inquiry, sequence_++, now);
    probe_at_us_ = now + options_.probe_us;
  }
}

void Link::hear(std::int64_t now) {
  heard_us_ = now;
  unanswered_ = 0;
  if (state_ != State::probing && state_ != State::resetting) return;
  state_ = State::up;
  events_.push_back([this] { user_.link_is_up(); });
}

void Link::check_silence(std::int64_t now) {
  const unsigned limit = options_.loses_packets ? silence_of_datagrams : silence_of_stream;
  if (state_ != State::up || unanswered_ < limit || now - unanswered_since_us_ < silence_us) return;
  fail_all(Outcome::no_answer, false);
  events_.push_back([this] { user_.link_is_lost(); });
  begin_probing(now);
}

void Link::fail_all(Outcome outcome, bool stops_too) {
  const auto is_kept = [&](const Command &command) { return command.stop && !stops_too; };
  std::erase_if(queue_, [&](Waiting &waiting) {
    if (is_kept(waiting.command)) return false;
    tell(waiting.command.acknowledged, outcome);
    return true;
  });
  std::erase_if(slots_, [&](Slot &slot) {
    if (is_kept(slot.command)) return false;
    if (slot.is_acknowledged) {
      tell(slot.command.ended, outcome);
    } else {
      tell(slot.command.acknowledged, outcome);
    }
    return true;
  });
  questions_.clear();
  asked_.reset();
  held_acks_.clear();
}

// Drops what the command replaces in the queue, and marks what it replaces in the camera.
void Link::supersede(const Command &command) {
  const auto is_replaced = [&](const Command &other) { return other.group == command.group && other.motion; };
  std::erase_if(queue_, [&](Waiting &waiting) {
    if (!is_replaced(waiting.command)) return false;
    tell(waiting.command.acknowledged, Outcome::replaced);
    return true;
  });
  for (Slot &slot : slots_) {
    if (!is_replaced(slot.command)) continue;
    slot.is_replaced = true;
    if (command.stop && slot.command.motion && !slot.is_acknowledged) slot.is_overtaken = true;
  }
  // An old one of many that were overtaken: its ACK will not come any more.
  while (std::ranges::count_if(slots_, &Slot::is_overtaken) > most_overtaken) {
    const auto oldest = std::ranges::find_if(slots_, &Slot::is_overtaken);
    accept(*oldest, Outcome::replaced);
    slots_.erase(oldest);
  }
}

// Nothing moves between two stops of a group, so the ACK of the first one is that of both.
bool Link::join_stop(Command &command, std::int64_t now) {
  const auto join = [&](Command &with) {
    if (!with.stop || with.group != command.group) return false;
    const auto both = [](std::function<void(Outcome)> &first, std::function<void(Outcome)> &second) {
      first = [a = std::move(first), b = std::move(second)](Outcome outcome) {
        if (a) a(outcome);
        if (b) b(outcome);
      };
    };
    both(with.acknowledged, command.acknowledged);
    both(with.ended, command.ended);
    return true;
  };
  for (Waiting &waiting : queue_) {
    if (join(waiting.command)) return true;
  }
  for (Slot &slot : slots_) {
    if (slot.is_acknowledged || !join(slot.command)) continue;
    slot.since_us = now;
    return true;
  }
  return false;
}

// A later motion does not wait for a stop that the camera refuses, in standby for one: it would be refused as well, or
// stopped by a repeat.
void Link::drop_refused_stops() {
  for (auto next = slots_.begin(); next != slots_.end();) {
    Slot &slot = *next++;
    if (!slot.command.stop || !slot.is_refused) continue;
    const auto waits = [&](const Waiting &waiting) {
      return waiting.command.motion && waiting.command.group == slot.command.group;
    };
    if (std::ranges::none_of(queue_, waits)) continue;
    accept(slot, Outcome::not_executable);
    erase(slot);
  }
}

void Link::submit(Command command, std::int64_t now) {
  if (state_ == State::down || (state_ != State::up && !command.stop)) {
    tell(command.acknowledged, state_ == State::down ? Outcome::down : Outcome::no_answer);
    return settle(now);
  }
  if (command.motion || command.stop) supersede(command);
  if (command.stop) {
    if (join_stop(command, now)) return settle(now);
    if (command.group != Group::other) stops_[static_cast<std::size_t>(command.group)] = command.packet;
    const auto place = std::ranges::find_if(queue_, [](const Waiting &waiting) { return !waiting.command.stop; });
    queue_.insert(place, {std::move(command), now, now});
  } else {
    queue_.push_back({std::move(command), now, now});
  }
  settle(now);
}

void Link::inquire(InquiryKind kind, std::int64_t now) {
  if (state_ != State::up) return;
  if (std::ranges::find(questions_, kind) == questions_.end()) questions_.push_back(kind);
  settle(now);
}

bool Link::asks(InquiryKind kind) const {
  return (asked_ && asked_->kind == kind) || std::ranges::find(questions_, kind) != questions_.end();
}

bool Link::is_stopping() const {
  return std::ranges::any_of(queue_, [](const Waiting &waiting) { return waiting.command.stop; }) ||
         std::ranges::any_of(slots_, [](const Slot &slot) { return slot.command.stop && !slot.is_acknowledged; });
}

bool Link::has_in_camera(Group group) const {
  return std::ranges::any_of(slots_, [&](const Slot &slot) { return slot.command.group == group; });
}

void Link::confirm_rest(Group group, std::int64_t now) {
  for (auto slot = slots_.begin(); slot != slots_.end();) {
    Slot &each = *slot++;
    if (each.command.group != group || (!each.command.motion && !each.command.stop)) continue;
    if (!each.is_acknowledged && !each.command.stop) continue;
    accept(each, Outcome::done);
    release(each, Outcome::done, now);
  }
  settle(now);
}

void Link::confirm_motion(Group group, std::int64_t now) {
  for (Slot &slot : slots_) {
    if (slot.command.group != group || !slot.command.motion || slot.is_acknowledged || slot.is_replaced) continue;
    slot.is_acknowledged = true;
    slot.end_us = now + options_.completion_limit_us;
    accept(slot, Outcome::done);
  }
  settle(now);
}

void Link::advance(std::int64_t now) {
  if (state_ == State::down) return;
  if (state_ != State::up && now >= probe_at_us_) probe(now);
  expire(now);
  repeat(now);
  check_silence(now);
  settle(now);
}

}  // namespace visca
