// src/transport/pending_requests.h - the asynchronous requests of a command client that await a reply.
#pragma once
#include <glib.h>
#include <atomic>
#include <ctime>

#include "base/handles.h"
#include "ptz_socket_client_command.h"
#include "transport/reply_callbacks.h"

namespace ptz {

struct PendingRequest {
  gpointer context;
  guint32 message_id;
  timespec deadline;
  bool has_deferred_reply;
};

inline void free_pending_request(PendingRequest *request) { g_slice_free(PendingRequest, request); }

// The list, its mutex and the id of the expiry timer are public fields of the client. Apart from its init and finalize
// functions, only this class uses them.
//
// A request is pending from before it is sent until its reply is taken, it expires, or the client ends. Each of them
// removes the entry first, so its context is handed out once.
//
// Lock: the client's `mutex`, the outermost in the order of client_stream.h. contract: the expiry timer holds it
// while it calls the callback of an expired request. In that thread it counts as held, so the callback may send
// and receive. Another thread that holds locks of its own must not wait for it: may_defer() only tries.
//
// add(), take(), may_defer() and start_timer(): any thread. Expiry: default main context. clear(): the finalizer.
class PendingRequests {
  PTZSocketClientCommand *client_;
  ReplyCallbacks *callbacks_;
  std::atomic<GThread *> expiring_ = nullptr;  // the thread that holds the mutex around a callback

  class Lock;
  friend gboolean ptz_socket_client_command_cmd_timeout(gpointer user_data);

 public:
  PendingRequests(PTZSocketClientCommand *client, ReplyCallbacks *callbacks) : client_(client), callbacks_(callbacks) {}
  PendingRequests(PendingRequests &&) = delete;

  void add(gpointer context, guint32 message_id);
  // Null if there is none with this id. The caller frees it with free_pending_request().
  [[nodiscard]] PendingRequest *take(guint32 message_id);
  // Whether a reply with this id is to be deferred: its request may be pending, and no other reply is deferred for it,
  // so a peer cannot fill the memory with replies. Does not block: if the mutex is taken, returns true.
  [[nodiscard]] bool may_defer(guint32 message_id);
  // One timer serves all requests.
  void start_timer();
  // Ends the timer and releases every request through cleanup_table_entry().
  void clear();

 private:
  [[nodiscard]] GList *find(guint32 message_id) const;
  void expire(PendingRequest *request);
  void expire_oldest();
  void schedule(guint seconds);
};

}  // namespace ptz
