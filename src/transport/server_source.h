// src/transport/server_source.h - the event source of a server: accepts connections and serves them.
#pragma once
#include "transport/nested_loop_guard.h"
#include "transport/server_connection.h"
#include "transport/turns.h"

namespace ptz {

// Behind the public record stands what serving needs, so that prepare() and check() never look at the server: another
// thread may be finalizing it.
//
// Threads: the public record's list, and all of this, belong to the thread of the default main context, or to a thread
// that has acquired that context. A dispatch holds a reference to the server (endpoint_use.h), so a server whose last
// other reference goes meanwhile is finalized when the dispatch ends. A server that is finalized elsewhere, while a
// loop runs, only destroys the source; the source closes its connections when GLib frees it.
//
// Invariants: every entry of the list is a ServerConnection's. `current` and `next_link` are in the list, or null.
struct ServerSource {
  PTZSocketServerSource base;
  Turns turns;
  NestedLoopGuard guard;
  bool listener_was_watched;  // before the guard's pause
  guint32 last_serial;
  guint32 dispatch_number;
  int dispatches;             // that are running; a server that is finalized meanwhile is finalized by one of them
  GList *next_link;           // of the dispatch that is running; moved on if that connection is closed
  ServerConnection *current;  // that is being read, or whose message a callback is handling

  [[nodiscard]] static ServerSource *of(GSource *source) { return reinterpret_cast<ServerSource *>(source); }
  [[nodiscard]] static ServerSource *of(PTZSocketServer *server) {
    return reinterpret_cast<ServerSource *>(server->source);
  }

  // Watches the descriptor of the server, which is borrowed. Attached to the context; the caller owns the reference.
  [[nodiscard]] static PTZSocketServerSource *create(PTZSocketServer *server, GMainContext *context);

  // The connection that has this descriptor, or null.
  [[nodiscard]] ServerConnection *find(gint fd);
  [[nodiscard]] bool is_own_descriptor(gint fd) const;

  void stop_listening();
  void stop_watching(gpointer &tag);
  // Destroys the record of the connection in this link. Its descriptor has been closed.
  void forget(GList *link);
  void add_connection(gint fd);
  void watch(ServerConnection *connection);
};

// What accept(2) returned, or the server's own descriptor if it has no path, becomes a connection. The result is that
// of the dispatch.
gboolean accept_connection(ServerSource *source);

}  // namespace ptz
