// src/transport/client_stream.h - the byte stream of a command client: who reads it, who writes it, what state it is
// in.
#pragma once
#include <glib.h>
#include <atomic>
#include <ctime>
#include <optional>

#include "base/handles.h"
#include "ptz_socket_client_command.h"
#include "transport/frame_reader.h"

namespace ptz {

// A synchronous request in progress, on the stack of its caller.
struct SyncCall {
  guint32 message_id;
  gpointer reply_buffer;  // PTZ_SOCKET_BODY_MAX bytes
  guint32 *reply_length;
  bool answered = false;  // with what follows: the stream's mutex
  bool sleeping = false;  // on `changed`
  guint connection = 0;   // that the request was sent on
  GCond changed = {};
  SyncCall *next = nullptr;
};

// How much is left of a bounded wait. It begins with the whole time; the clock is read again by update() only.
class Deadline {
  timespec start_;
  gint64 limit_ms_;
  gint64 left_ms_;

 public:
  explicit Deadline(gint64 limit_ms);
  [[nodiscard]] gint64 left_ms() const { return left_ms_; }
  void update();
};

// ClientStream reads the frames of a command client and lets several threads share the descriptor.
//
// States:
//   watched          no synchronous call is in progress. The main loop reads the descriptor if its source is switched
//                    on; so does a drain before a send
//   waiting          at least one synchronous call is in progress: the source is switched off. One of the calls, the
//                    reader, waits for the descriptor and hands the others their replies by message id. When it leaves,
//                    it wakes another, which takes over. While there is a reader, nothing else reads
//   desynchronised   a malformed length was read. Nothing is read, and synchronous calls fail
//   shut down        a frame was sent in part, so the connection was shut down. Synchronous calls fail
//
//   watched -> waiting                                the first synchronous call begins
//   waiting -> watched                                the last one ends; switches the source on
//   watched, waiting -> desynchronised                by a malformed length; switches the source off
//   watched, waiting, desynchronised -> shut down     by a partial send; switches the source off
//   desynchronised -> watched or waiting              ptz_socket_client_add_poll() has switched the source on; seen by
//                                                     the next read or synchronous call
//   desynchronised, shut down -> watched or waiting   the class operation add_retry closes the descriptor
//
// Lock: `mutex_`, over the state, the list of calls, the reader's role and the assembly fields of the client. It is
// held over reads that do not wait, and never while a thread waits for the descriptor, sends, or runs a callback.
// Order: the mutex of the pending requests (which an expiry callback holds), `mutex_`, the mutex of the client's
// source. Under `mutex_`, the mutex of the pending requests is only tried. The sending turn is not a lock: a thread
// that has it takes none of these for longer than a few instructions.
//
// Invariants: the list holds exactly the calls between begin() and end(). If a call sleeps and there is no reader, a
// call is awake that is about to become the reader or to wake another.
//
// Any thread.
class ClientStream {
 public:
  enum class State { watched, waiting, desynchronised, shut_down };

  explicit ClientStream(PTZSocketClientCommand *client);
  ClientStream(ClientStream &&) = delete;
  ~ClientStream();

  // For the class's read operation: takes what is there of one frame.
  enum class Taken {
    failed,
    nothing,   // no frame, or one that a synchronous call was waiting for
    frame,     // a frame for deliver_reply()
    deferred,  // a frame for defer_reply()
  };
  // A frame is copied to `frame`, PTZ_SOCKET_FRAME_MAX bytes, and its length to `length`.
  [[nodiscard]] Taken take_frame(gint fd, guint8 *frame, guint32 &length);

  // A synchronous call: begin() before the request is sent, await_reply() after it.
  void begin(SyncCall &call);
  // Returns after `limit_ms` at the latest. On true the reply is in the caller's buffer and the call has ended.
  [[nodiscard]] bool await_reply(SyncCall &call, gint fd, gint64 limit_ms);
  // If the request was not sent, or got no reply.
  void end(SyncCall &call);

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

 private:
  PTZSocketClientCommand *client_;
  frame::FrameAssembler assembler_;
  GMutex mutex_ = {};
  GCond sending_ended_ = {};
  State state_ = State::watched;
  SyncCall *calls_ = nullptr;
  bool has_reader_ = false;
  guint connection_ = 0;  // counts reconnections
  std::atomic<bool> sending_ = false;
  std::atomic<int> waiting_senders_ = 0;  // changed with mutex_ held

  [[nodiscard]] frame::Reception receive(gint fd);
  void resynchronise_if_watched();
  void lose(State state);
  [[nodiscard]] bool hand_to_call();
  [[nodiscard]] bool may_be_answered(const SyncCall &call) const;
  [[nodiscard]] bool read_until_answered(SyncCall &call, gint fd, Deadline &deadline);
  void remove(SyncCall &call);
  [[nodiscard]] bool read_for_calls(gint fd);
  void wake_one();
  void wake_all();
};

}  // namespace ptz
