// kit/link/link_core.h - everything of a link but its GObject: the connection, the calls, the state.
//
// The core is shared by the object and by its source on the main context (link_source.h), so that either may go first.
//
// States: those of PTZKitLinkState. `connection_` is set while the handshake runs (connecting) and in the state ready;
// requests of the daemon are sent in the state ready only. In the states connecting and failed without a connection the
// source tries again at `next_attempt_us_`, or earlier if the file at the path changes.
//
// Threads: one lock guards everything; it is never held while code of the program runs. Reading never blocks and
// happens under the lock, so any thread may do it. To save wake-ups one of them is expected to: the first thread in a
// blocking call polls the descriptor (`reader_`), the others wait for their condition, and the source does not watch
// for data meanwhile. A reader that has its reply hands over to the next waiting thread, or else to the source, which
// watches for data only while asynchronous calls are under way. So a blocking call wakes no thread but its own.
//
// The lock of the main context may be taken under the link's lock, not the other way round.
#pragma once
#include <ptz_kit_link.h>

#include "link/call_table.h"
#include "link/connection.h"
#include "link/handshake.h"

namespace ptz_kit {

class LinkCore {
 public:
  LinkCore(const char *path, guint max_pending, guint handshake_ms);
  LinkCore(LinkCore &&) = delete;
  void ref() { g_atomic_ref_count_inc(&references_); }
  void unref();

  // Any thread. Attaches `source`, whose functions are those below, to `context`. It is destroyed by close(). No effect
  // if the link is open.
  void open(GSource *source, GMainContext *context);
  void close();
  [[nodiscard]] PTZKitLinkState state();
  [[nodiscard]] DriverFacts facts();  // a copy
  [[nodiscard]] Context context();    // null if the link is closed
  // Waits for another state than the given ones; false at the deadline.
  [[nodiscard]] bool wait_ready(gint64 deadline_us);
  [[nodiscard]] Text problem();

  // Any thread. start() takes over a reference of the call.
  void start(LaterCall *call, gulong cancel_handler);
  void wait(BlockingCall &call);
  void cancel(Call &call);
  // For the calls themselves, with the lock held.
  void call_is_settled(LaterCall &call);

  // The source, in the thread of its context. `watched` is the connection that the source polls.
  [[nodiscard]] bool prepare(const Shared<Connection> &watched, GPollFD &poll, gint *timeout_ms);
  [[nodiscard]] bool check(const Shared<Connection> &watched, const GPollFD &poll);
  void run(const Shared<Connection> &watched, gushort events);
  [[nodiscard]] Shared<Connection> connection();
  [[nodiscard]] const char *path() const { return path_.get(); }
  // A driver may listen now, or in a moment: the next attempt is soon, and the back-off begins anew.
  void path_has_changed();
  // Whether the state has changed since the last question.
  [[nodiscard]] bool take_change();

 private:
  class Section;
  ~LinkCore();

  // The lock is held in all of these.
  void set_state(PTZKitLinkState state);
  [[nodiscard]] bool connected_to(const Shared<Connection> &watched) const { return watched && watched == connection_; }
  [[nodiscard]] bool source_reads() const { return reader_ == nullptr && (later_calls_ > 0 || handshake_.running()); }
  [[nodiscard]] gint64 place_us() const;  // when send_waiting() can send without any event of the connection
  [[nodiscard]] gint64 due_us() const;
  [[nodiscard]] gushort wanted_events() const;
  void wake_source() const;
  void attempt(gint64 now_us);
  void attempt_failed(gint64 now_us, PTZKitLinkState state, const char *problem);
  void begin_handshake(gint64 now_us);
  void finish_handshake(gint64 now_us);
  void receive();
  void lose();
  void disconnect();
  void fail_waiting();
  void expire(gint64 now_us);
  void submit(Call &call);
  void send(Call &call);
  void send_waiting();
  void give_up(Call &call, Outcome outcome, gint64 now_us);
  void wake_sender() const;
  static void settle(Call &call, Outcome outcome);
  void hand_over_reading();
  void read_for(BlockingCall &call, gint64 left_us, Section &section);

  gatomicrefcount references_;
  const Text path_;
  const guint handshake_ms_;

  GMutex lock_;
  GCond state_changed_;
  GSource *source_ = nullptr;  // owned; null if the link is closed
  Context context_;            // of the source
  PTZKitLinkState state_ = PTZ_KIT_LINK_STATE_DISCONNECTED;
  bool change_ = false;
  Text problem_;  // of the last attempt
  DriverFacts facts_;
  Shared<Connection> connection_;
  Handshake handshake_;
  gint64 next_attempt_us_ = 0;
  guint retry_ms_ = 0;
  gint64 ready_since_us_ = 0;

  CallTable calls_;                  // before the link is ready, those that wait are the ones without a body
  guint later_calls_ = 0;            // that are neither settled nor refused
  gint64 next_deadline_us_ = 0;      // not after the first deadline of those
  CallList ended_;                   // asynchronous calls whose callbacks are to run when the lock is free
  BlockingCall *reader_ = nullptr;   // the call whose thread polls the descriptor
  GQueue followers_ = G_QUEUE_INIT;  // of BlockingCall, whose threads wait for their condition
  UniqueFd wake_;                    // ends the poll of the reader; there if there is a connection
};

}  // namespace ptz_kit
