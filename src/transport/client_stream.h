// src/transport/client_stream.h - the byte stream of a command client: its states, its reader and its senders.
#pragma once
#include <glib.h>
#include <atomic>
#include <ctime>
#include <optional>

#include "ptz_socket_client_command.h"
#include "transport/frame_reader.h"

namespace ptz {

// A synchronous request in progress, on the stack of its caller.
struct SyncCall {
  guint32 message_id;
  gpointer reply_buffer;  // PTZ_SOCKET_BODY_MAX bytes
  guint32 *reply_length;
  guint connection = 0;                // that the request was sent on; the caller's thread only
  bool answered = false;               // guarded by the stream's mutex, like the members below
  std::atomic<bool> sleeping = false;  // on `changed`; atomic for tests, which cannot lock
  GCond changed;
  SyncCall *next = nullptr;

  SyncCall(guint32 id, gpointer buffer, guint32 *length) : message_id(id), reply_buffer(buffer), reply_length(length) {
    g_cond_init(&changed);
  }
  SyncCall(SyncCall &&) = delete;
  ~SyncCall() { g_cond_clear(&changed); }
};

// How much is left of a bounded wait. It begins with the whole time; the clock is read again by update() only.
class Deadline {
  timespec start_;
  gint64 limit_ms_;
  gint64 left_ms_;

 public:
  Deadline(const timespec &start, gint64 limit_ms) : start_(start), limit_ms_(limit_ms), left_ms_(limit_ms) {}
  [[nodiscard]] gint64 left_ms() const { return left_ms_; }
  void update();
};

// ClientStream reads the frames of a command client and lets several threads share the descriptor.
//
// States:
//
//   watched
//     No synchronous call is in progress. The main loop reads the descriptor if its source is switched on; so does a
//     drain before a send.
//   waiting
//     At least one synchronous call is in progress. One of them, the reader, waits for the descriptor and hands the
//     others their replies by message id; while there is a reader, nothing else reads. While there is none (no call has
//     sent yet, or the next reader has not woken yet), drains read as in state watched, and the main loop too if the
//     program has switched the source on; replies to asynchronous requests are deferred to the main loop.
//   desynchronised
//     A malformed length was read. Nothing is read. A synchronous call still sends its request, then fails at once.
//   shut down
//     A frame was sent in part, so the connection was shut down, and sends fail. Only drains read what the peer sent
//     before.
//
// Transitions. Every synchronous call switches the source off when it begins. The calls in progress that have no reply
// fail in each transition to desynchronised or shut down, and by add_retry.
//
//   watched -> waiting: the first synchronous call begins.
//   waiting -> watched: the last one ends. It switches the source on, unless a reconnection has given the endpoint
//     another descriptor number.
//   any -> desynchronised: a malformed length; switches the source off.
//   watched, waiting -> shut down: a partial send; switches the source off. Whenever a last synchronous call ends,
//     it is switched on, and the hang-up switches it off before anything is read. A partial send in state
//     desynchronised shuts the connection down too, but the state stays.
//   desynchronised -> watched or waiting: ptz_socket_client_add_poll() has switched the source on; noticed by the
//     next read or synchronous call.
//   any -> watched or waiting: the class operation add_retry. It switches the source off, and drops the partial
//     frame and the reader's role.
//
// An end of file and a read error change no state. An end of file switches the source off and drops the partial
// frame; both end the reader's call, and the other calls find the same in their turn.
//
// Locks: `mutex_` guards the state, the list of calls, the reader's role and the assembly fields of the client. It
// is held during reads that do not wait, and never while a thread waits for the descriptor, sends, or runs a
// callback. A thread that sends has the sending turn. Order, outermost first: the mutex of the pending requests,
// the sending turn, `mutex_`, then the mutex of the client's source or that of the deferred replies, then GLib's
// locks. An expiry callback holds the first of them and may send, so a thread that has the turn or `mutex_` never
// waits for it: it only tries.
//
// Invariants: the list holds exactly the calls between begin() and end(). If a call sleeps and there is no reader,
// a call is awake that becomes the reader or, in end(), wakes a sleeping one.
//
// Any thread.
class ClientStream {
 public:
  enum class State { watched, waiting, desynchronised, shut_down };

  explicit ClientStream(PTZSocketClientCommand *client);
  ClientStream(ClientStream &&) = delete;
  ~ClientStream();

  // For the class's read operation: reads at most one frame without waiting.
  enum class Taken {
    failed,
    nothing,   // no complete frame, an end of file, or a frame that went to a synchronous call
    frame,     // a frame for deliver_reply()
    deferred,  // a frame for defer_reply(), because a synchronous call is in progress
  };
  // A frame is copied to `frame`, PTZ_SOCKET_FRAME_MAX bytes, and its length to `length`.
  [[nodiscard]] Taken take_frame(gint fd, guint8 *frame, guint32 &length);

  // A synchronous call: begin() before the request is sent, await_reply() after it.
  void begin(SyncCall &call);
  // Returns at the deadline at the latest. On true the reply is in the caller's buffer and the call has ended.
  [[nodiscard]] bool await_reply(SyncCall &call, gint fd, Deadline deadline);
  // Ends a call whose request was not sent or not answered. Returns whether its reply has come meanwhile.
  [[nodiscard]] bool end(SyncCall &call);

  // One thread at a time sends, so that the header and the body of a frame stay together. Without a limit a thread
  // waits for as long as the others take, at most two seconds each. Returns whether it is the caller's turn;
  // `queued_since` is set if the caller had to wait.
  static constexpr gint64 no_limit = -1;
  [[nodiscard]] bool begin_sending(gint64 limit_ms, std::optional<timespec> &queued_since);
  void end_sending();

  // A frame was sent in part: shuts the connection down.
  void shut_down(gint fd);
  // Closes the descriptor through the class operation of the base class, and forgets what was received from it.
  guint reconnect(guint (*add_retry)(PTZSocket *));
  // Which connection the descriptor belongs to. Both stay the same during a sending turn.
  [[nodiscard]] guint connection() const { return connection_; }

 private:
  PTZSocketClientCommand *client_;
  frame::FrameAssembler assembler_;
  GMutex mutex_;
  GCond sending_ended_;
  State state_ = State::watched;
  SyncCall *calls_ = nullptr;
  SyncCall *reader_ = nullptr;
  std::atomic<guint> connection_ = 0;  // counts reconnections
  std::atomic<GThread *> sender_ = nullptr;
  std::atomic<int> waiting_senders_ = 0;  // changed with mutex_ held

  [[nodiscard]] frame::Reception receive(gint fd);
  void resynchronise_if_watched();
  void abandon_calls(State state);
  [[nodiscard]] bool hand_to_call();
  [[nodiscard]] bool may_be_answered(const SyncCall &call) const;
  [[nodiscard]] bool read_until_answered(SyncCall &call, gint fd, Deadline &deadline);
  void remove(SyncCall &call);
  [[nodiscard]] bool read_for_calls(gint fd);
  void give_up_reading(const SyncCall &call);
  [[nodiscard]] bool watches_foreign_descriptor() const;
  void wake_one();
  void wake_all();
};

}  // namespace ptz
