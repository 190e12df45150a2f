// kit/link/call.h - a request on its way, and the two kinds of callers that wait for its reply.
#pragma once
#include <gio/gio.h>

#include <span>

#include "handles.h"

namespace ptz_kit {

class LinkCore;

enum class Outcome : guint8 { waiting, answered, not_connected, lost, timed_out, cancelled, busy };

// Guarded by the lock of the link, from submission until it is settled; after that the caller's alone.
struct Call {
  std::span<const guint8> body;  // borrowed until the call is settled; empty to wait until the link is ready
  gint64 deadline_us = 0;        // monotonic
  Call *next = nullptr;          // in a CallList
  Outcome outcome = Outcome::waiting;
  bool submitted = false;
  bool cancel_requested = false;  // before the submission

  // The link's lock is held in both. A reply is taken before the call is settled.
  virtual void take(std::span<const guint8> reply) = 0;
  virtual void settled() = 0;

 protected:
  Call() = default;
  Call(Call &&) = delete;
  ~Call() = default;
};

// Calls in order. A call is in one list at most.
class CallList {
  Call *first_ = nullptr;
  Call **end_ = &first_;

 public:
  CallList() = default;
  CallList(CallList &&) = delete;
  [[nodiscard]] Call *first() const { return first_; }
  void add(Call &call);
  // Null if there is none.
  Call *take_first();
  void remove(const Call &call);
};

// A thread waits for it. Lives on its stack, as does the buffer of the reply.
struct BlockingCall final : Call {
  guint8 *reply = nullptr;  // PTZ_SOCKET_BODY_MAX bytes
  gsize reply_length = 0;
  GCond woken = {};

  BlockingCall() { g_cond_init(&woken); }
  ~BlockingCall() { g_cond_clear(&woken); }
  void take(std::span<const guint8> body_of_reply) override;
  void settled() override { g_cond_signal(&woken); }
};

// Ends in the callback of a task. One reference is the link's until the callback has run, the other one belongs to the
// handler of the cancellable, which may be running in another thread when the call ends.
struct LaterCall final : Call {
  LaterCall(LinkCore &of_link, GTask *its_task, GBytes *request);
  void take(std::span<const guint8> body_of_reply) override;
  void settled() override;
  void ref() { g_atomic_ref_count_inc(&references_); }
  void unref();
  // Without the link's lock. Releases the link's reference.
  void complete();              // runs the callback if this is its main context
  void complete_in_callback();  // always later, on the callback's main context

  LinkCore &core;
  Object<GTask> task;  // references the object of the link, and so the core
  Bytes request;
  Bytes reply;
  gulong cancel_handler = 0;

 private:
  ~LaterCall() = default;
  gatomicrefcount references_;
};

}  // namespace ptz_kit
