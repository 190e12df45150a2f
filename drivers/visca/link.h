// link.h - the exchange of messages with one camera: which message is sent when, and which reply belongs to it.
//
// The link has no descriptor and no clock. Its line hands it replies (receive(), control()), asks deadline() when it
// wants to run again, and calls advance() then. What is sent goes out through the line's Wire. Times are monotonic
// microseconds.
//
// States: `down` (the transport is closed; everything fails at once), `resetting` (header only: RESET was sent, and is
// repeated), `probing` (a power inquiry is repeated until the camera sends anything), `up`. The link falls back from up
// to resetting or probing if several messages in a row have no answer. A command fails at once unless the link is up,
// so that no old move is carried out when the camera comes back. A stop is sent in every state but down.
//
// A camera has two sockets, so at most two commands are in it: `slots_`. A slot is sent (no ACK yet), then acknowledged
// (its socket is known), and free after the completion, an error, an answer to its cancel, or its time-out. An ACK with
// the socket of another slot proves that the completion of that slot was lost.
//
// Order: commands wait in `queue_`. A motion replaces queued motions of its group. A motion of the group that is in the
// camera and acknowledged is cancelled, and the new one waits for the answer (at most `cancel_limit`); while it is not
// acknowledged, the new one waits for its ACK. A continuous motion is replaced without a cancel, because cameras
// complete it at once; it is cancelled only if it still occupies the second socket.
//
// Stop: it removes the queued motions of its group, stops the repeats of those that were sent, and goes out before
// everything else. If both sockets are taken, a motion is cancelled first. A stop is repeated every `repeat_stop` until
// it is acknowledged, for `stop_limit`; then it has failed. If a motion that it replaced is acknowledged after the
// stop, the datagrams may have changed places, and the stop is sent again.
//
// Matching: a reply with a header is matched by its sequence number. If replies come with numbers that were not sent
// while messages wait, the camera does not return them: from then on replies are matched by order, as without a header.
// By order, an ACK belongs to the oldest command without one, a completion to the slot of its socket, an error without
// a socket to the oldest message without a reply, an answer to the inquiry if its data fits. So by order only one
// command waits for its ACK at a time; stops are the exception. A command that was sent several times may have several
// ACKs: those that come soon after the first one do not confirm a later stop, nor any command that can be repeated. If
// datagrams may be lost, several stops that wait are acknowledged together, by as many ACKs; they are repeated
// together.
#pragma once
#include <deque>
#include <functional>
#include <list>
#include <vector>

#include "replies.h"

namespace visca {

enum class Group : Byte { pan_tilt, zoom, focus, iris, other };

enum class Outcome : Byte {
  done,            // acknowledged; at the end: completed
  replaced,        // by a later motion or a stop, before or while it was carried out
  bad_syntax,      // the camera does not understand it
  not_executable,  // powered off, or not in this mode
  busy,            // both sockets stayed in use
  no_answer,       // the camera does not answer
  down,            // there is no connection
};
[[nodiscard]] const char *text_of(Outcome outcome);

struct Command {
  Packet packet = {};
  Group group = Group::other;
  bool motion = false;      // replaces, and is replaced by, a motion of the same group
  bool continuous = false;  // a motion without an end
  bool stop = false;
  bool repeatable = true;                               // sending it twice does no harm
  std::int64_t completion_limit = 0;                    // microseconds; 0: that of the options
  std::function<void(Outcome)> acknowledged = nullptr;  // once: the camera has accepted the command or will not
  std::function<void(Outcome)> ended = nullptr;         // once, and only if it was accepted
};

class Link;

// What a line does for its links.
class Wire {
 public:
  virtual ~Wire() = default;
  virtual void send(ByteSpan packet, PayloadType type, std::uint32_t sequence) = 0;
  // Whether another camera of the line does not use it now.
  [[nodiscard]] virtual bool is_free_for(const Link &link) const = 0;
  // The link may have another deadline, and other cameras may use the line now.
  virtual void changed() = 0;
};

// What a link tells its camera's head.
class LinkUser {
 public:
  virtual ~LinkUser() = default;
  virtual void link_is_up() = 0;
  virtual void link_is_lost() = 0;
  virtual void on_answer(InquiryKind kind, ByteSpan data) = 0;
  virtual void on_no_answer(InquiryKind kind, Outcome why) = 0;
};

struct LinkOptions {
  bool has_header = false;
  bool loses_packets = false;  // datagrams: commands are repeated early
  std::int64_t repeat_us = 100'000;
  std::int64_t ack_limit_us = 1'000'000;
  std::int64_t inquiry_limit_us = 500'000;
  std::int64_t completion_limit_us = 30'000'000;
  std::int64_t probe_us = 500'000;
};

constexpr std::int64_t repeat_stop_us = 100'000, stop_limit_us = 2'000'000, cancel_limit_us = 120'000,
                       silence_us = 1'200'000;

class Link {
 public:
  enum class State : Byte { down, resetting, probing, up };

 private:
  struct Slot {
    Command command;
    std::uint32_t sequence = 0;
    std::uint64_t order = 0;
    std::int64_t since_us = 0;  // when it was submitted
    std::int64_t first_us = 0, sent_us = 0, end_us = 0;
    std::int64_t cancel_us = 0;  // when its cancel was sent; 0: it was not
    unsigned sends = 0, renumbered = 0;
    unsigned dropped_acks = 0;   // ACKs that were taken for those of an earlier command
    unsigned refused_sends = 0;  // of a stop: how often it had been sent when it was refused
    Byte socket = 0;
    bool is_acknowledged = false, is_replaced = false;
    bool is_overtaken = false;  // by a stop
    bool is_refused = false;    // a stop that is tried again
    bool needs_number = false;  // a repeat would have a number that the camera does not take
  };
  struct Question {
    InquiryKind kind = InquiryKind::power;
    std::uint32_t sequence = 0;
    std::uint64_t order = 0;
    std::int64_t first_us = 0, sent_us = 0;
    unsigned sends = 0, renumbered = 0;
    bool needs_number = false;
  };
  struct Waiting {
    Command command;
    std::int64_t since_us = 0;
    std::int64_t not_before_us = 0;
  };
  struct HeldAck {
    Byte socket = 0;
    bool is_completed = false;
  };
  using Sequence = std::optional<std::uint32_t>;

  Wire &wire_;
  LinkUser &user_;
  const Byte address_;
  LinkOptions options_;
  State state_ = State::down;
  std::deque<Waiting> queue_;
  std::list<Slot> slots_;
  std::deque<InquiryKind> questions_;
  std::optional<Question> asked_;
  std::vector<std::function<void()>> events_;   // what the callers are told when the state is consistent again
  std::vector<std::uint16_t> silent_kinds_;     // commands that the camera obeys without an ACK
  std::vector<HeldAck> held_acks_;              // of several stops, until each of them has one
  std::array<Packet, 4> stops_ = {};            // the last stop of each group
  std::array<std::int64_t, 16> freed_us_ = {};  // when a socket was freed
  std::uint32_t sequence_ = 0;
  std::uint64_t order_ = 0;
  std::int64_t commanded_us_ = 0;  // when a command was sent, or sent again
  std::int64_t heard_us_ = 0, unanswered_since_us_ = 0, probe_at_us_ = 0;
  unsigned unanswered_ = 0, resets_ = 0, full_ = 0;
  unsigned strangers_ = 0, matches_ = 0;  // replies in a row with a number that nothing has, and with the right one
  std::uint32_t stranger_ = 0;
  std::uint64_t stranger_order_ = 0;
  std::int64_t stranger_us_ = 0;
  bool by_order_ = false, has_matched_ = false, completes_without_ack_ = false, settling_ = false;
  bool has_acked_ = false;     // the camera has sent an ACK
  bool has_answered_ = false;  // the camera has answered an inquiry since the link was started
  unsigned probes_ = 0;
  unsigned strays_ = 0;               // further ACKs of a command that was repeated, which may still come
  std::int64_t strays_until_us_ = 0;  // and until when

  // link.cpp
  void settle(std::int64_t now);
  void tell(std::function<void(Outcome)> &callback, Outcome outcome);
  void fail_all(Outcome outcome, bool stops_too);
  void supersede(const Command &command);
  void drop_refused_stops();
  [[nodiscard]] bool join_stop(Command &command, std::int64_t now);
  void begin_probing(std::int64_t now);
  void probe(std::int64_t now);
  void hear(std::int64_t now);
  void check_silence(std::int64_t now);

  // link_sending.cpp
  [[nodiscard]] bool matches_by_order() const { return !options_.has_header || by_order_; }
  [[nodiscard]] bool must_count_acks() const { return matches_by_order() && options_.loses_packets; }
  [[nodiscard]] std::int64_t repeat_time(const Slot &slot) const;
  void pump(std::int64_t now);
  [[nodiscard]] bool may_send(const Waiting &waiting, std::int64_t now);
  [[nodiscard]] static bool waits_for_answer(const Slot &slot) {
    return !slot.is_acknowledged && slot.refused_sends < slot.sends;
  }
  [[nodiscard]] bool waits_for_ack(std::int64_t now) const;
  void release_short(std::int64_t now);
  void release_replaced(std::int64_t now);
  [[nodiscard]] bool has_room(const Waiting &waiting, std::int64_t now);
  [[nodiscard]] bool group_is_ready(const Command &command, std::int64_t now);
  [[nodiscard]] std::size_t slots_in_use(std::int64_t now) const;
  void send_command(Waiting waiting, std::int64_t now);
  void send_slot(Slot &slot, std::int64_t now);
  void send_cancel(Slot &slot, std::int64_t now);
  void send_reset(std::int64_t now);
  void ask(std::int64_t now);
  void send_question(std::int64_t now);
  void transmit(ByteSpan packet, PayloadType type, std::uint32_t sequence, std::int64_t now);
  void repeat(std::int64_t now);
  void expire(std::int64_t now);
  void expire_waiting(std::int64_t now);
  void give_up(Slot &slot, std::int64_t now);
  [[nodiscard]] std::int64_t repeat_interval(const Slot &slot) const;
  [[nodiscard]] bool is_repeated(const Slot &slot) const;
  [[nodiscard]] bool is_abandoned(const Slot &slot, std::int64_t now) const;
  [[nodiscard]] std::int64_t limit_of(const Slot &slot) const;
  [[nodiscard]] bool is_silent_kind(const Command &command) const;

  // link_replies.cpp
  [[nodiscard]] Slot *slot_of_sequence(Sequence sequence);
  [[nodiscard]] Slot *oldest_unacknowledged();
  [[nodiscard]] Slot *slot_of_socket(Byte socket);
  [[nodiscard]] bool was_sent_lately(std::uint32_t sequence) const;
  [[nodiscard]] bool concerns_nothing(Sequence sequence, std::int64_t now);
  [[nodiscard]] bool has_number(std::uint32_t sequence) const;
  void count_stranger(std::uint32_t sequence, std::int64_t now);
  void on_ack(const Reply &reply, Slot *slot, std::int64_t now);
  [[nodiscard]] bool is_stray(Slot &slot, std::int64_t now);
  void acknowledge(Slot &slot, Byte socket, std::int64_t now);
  [[nodiscard]] bool hold_ack(const Slot &oldest, Byte socket, std::int64_t now);
  [[nodiscard]] bool complete_held(Byte socket);
  [[nodiscard]] std::size_t unacknowledged_stops() const;
  void expect_strays(const Slot &slot, std::int64_t now);
  void end_what_is_stopped(const Slot &stop, std::int64_t now);
  void stop_again(Slot &moved, std::int64_t now);
  void on_completion(const Reply &reply, Slot *slot, std::int64_t now);
  [[nodiscard]] bool is_outdated(const Question &question) const;
  void on_answer(const Reply &reply, Sequence sequence);
  void accept(Slot &slot, Outcome outcome);
  void release(Slot &slot, Outcome outcome, std::int64_t now);
  void erase(const Slot &slot);

  // link_errors.cpp
  [[nodiscard]] Slot *slot_of_error(const Reply &reply);
  void make_room_for_stop(const Command &stop, std::int64_t now);
  void on_error(const Reply &reply, Slot *slot, Sequence sequence, std::int64_t now);
  void on_end_of_cancel(const Reply &reply, std::int64_t now);
  void on_refusal(Slot &slot, Outcome outcome, std::int64_t now);
  void on_buffer_full(Slot &slot, std::int64_t now);
  void on_abnormal_sequence(std::uint32_t sequence, std::int64_t now);

 public:
  Link(Wire &wire, LinkUser &user, Byte address, LinkOptions options)
      : wire_(wire), user_(user), address_(address), options_(options) {}
  Link(const Link &) = delete;

  [[nodiscard]] State state() const { return state_; }
  [[nodiscard]] Byte address() const { return address_; }
  [[nodiscard]] const LinkOptions &options() const { return options_; }
  // A message was sent and its first reply is due. For repeats the time is shorter: a camera that does not answer must
  // not keep the line.
  [[nodiscard]] bool waits_for_reply(std::int64_t now) const;
  [[nodiscard]] bool has_in_camera(Group group) const;
  // A stop has no ACK yet.
  [[nodiscard]] bool is_stopping() const;
  [[nodiscard]] std::size_t commands_in_camera() const { return slots_.size(); }
  [[nodiscard]] bool asks(InquiryKind kind) const;

  // The transport is open, or closed.
  void start(std::int64_t now);
  void stop();

  void submit(Command command, std::int64_t now);
  // Asks once more if it is asked already.
  void inquire(InquiryKind kind, std::int64_t now);
  // The motions of the group are over, as positions show.
  void confirm_rest(Group group, std::int64_t now);
  // The group was at rest and moves now: the motion that was sent has arrived, though it has no ACK.
  void confirm_motion(Group group, std::int64_t now);

  // A reply; with the sequence number of its header, if it has one.
  void receive(const Reply &reply, std::optional<std::uint32_t> sequence, std::int64_t now);
  // The payload of a control message or control reply.
  void control(ByteSpan payload, std::uint32_t sequence, std::int64_t now);

  // When advance() is to be called; G_MAXINT64: never.
  [[nodiscard]] std::int64_t deadline(std::int64_t now) const;
  void advance(std::int64_t now);
  // The line is free again.
  void kick(std::int64_t now) { settle(now); }
};

}  // namespace visca
