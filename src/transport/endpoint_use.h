// src/transport/endpoint_use.h - lets an endpoint's last reference go in any thread while a main loop runs its sources.
#pragma once
#include <glib-object.h>

#include "ptz_socket.h"

namespace ptz {

// contract: sources and timers of an endpoint carry a plain pointer to it and hold no reference, so the last reference
// that the program drops ends the endpoint. Another thread may do that while the main loop is about to call back. So a
// callback begins with an EndpointUse, which takes a reference, or finds that the last one has gone.
//
// The endpoint has a weak reference to itself, which GLib empties before it disposes of the endpoint. What remains is
// to know that the endpoint's memory is still there to look into.
//
// Invariant, under one mutex of the process: an endpoint destroys its sources, with destroy_source() or
// remove_source(), before its memory is freed. If a source is not destroyed, the memory of its endpoint is valid.
//
// The mutex is held for a few instructions, once for each dispatch. Under it destroy_descriptor_source() takes the
// mutex of that source, and GLib its own. No reference is dropped under it. g_weak_ref_get() takes one, and calls a
// toggle notification if a language binding has set one.
struct EndpointLifetime {
  GWeakRef self;

  void begin(PTZSocket *endpoint);   // by the endpoint's init
  void revive(PTZSocket *endpoint);  // at the end of its dispose: g_object_run_dispose() leaves it in use
  void end();                        // by its finalizer, after the sources were destroyed
};

// On the stack of a callback.
class EndpointUse {
  PTZSocket *endpoint_;

 public:
  // `source` is what GLib is dispatching; null if the callback was called by hand.
  EndpointUse(GSource *source, gpointer endpoint);
  EndpointUse(EndpointUse &&) = delete;
  ~EndpointUse();

  // Null if the last reference has gone. Then a callback of a source must return G_SOURCE_CONTINUE, because the
  // finalizer destroys the source.
  [[nodiscard]] PTZSocket *get() const { return endpoint_; }
};

// Any thread.
void destroy_source(GSource *source);
void destroy_descriptor_source(GSource *source);  // a PTZFileGSource
void remove_source(guint32 &id);                  // 0 is none; becomes 0

}  // namespace ptz
