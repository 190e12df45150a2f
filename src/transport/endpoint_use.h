// src/transport/endpoint_use.h - lets an endpoint's last reference go in any thread while a main loop runs its sources.
#pragma once
#include <glib-object.h>

#include "ptz_socket.h"

namespace ptz {

// contract: sources and timers of an endpoint hold a plain pointer to it and no reference, so the last reference that
// the program drops ends the endpoint. Another thread may do that while the main loop is about to call back. So a
// callback begins with an EndpointUse, which takes a reference, or finds that there is nothing left to refer to.
//
// Invariants, under one mutex of the process:
//   - an endpoint destroys its sources (destroy_source(), remove_source()) before its memory is freed. So if a source
//   is
//     not destroyed, the memory of its endpoint is valid;
//   - `ending` is set once the last reference is going. From then on no use begins;
//   - while there are pins, a use is about to take its reference, and the end of the last one waits for it. The
//     reference is taken without the mutex, because g_object_ref() may call a toggle notification of the program.
//
// The mutex is held for a few instructions, once for each dispatch; it is a leaf, except that destroy_source() takes
// the mutex of a descriptor source and GLib's own under it. No reference is dropped under it.
struct EndpointReference;
struct EndpointLifetime {
  int pins = 0;
  bool ending = false;
  EndpointReference *references = nullptr;
};

// A weak pointer to an endpoint, for callbacks that the endpoint does not destroy itself.
struct EndpointReference {
  PTZSocket *endpoint;
  EndpointReference *previous, *next;

  void set(PTZSocket *to);  // a caller that holds a reference to the endpoint
  void clear();
};

// On the stack of a callback.
class EndpointUse {
  PTZSocket *endpoint_ = nullptr;

 public:
  // `source` is what GLib is dispatching; null if a test calls the callback by hand.
  EndpointUse(GSource *source, gpointer endpoint);
  explicit EndpointUse(const EndpointReference &reference);
  EndpointUse(EndpointUse &&) = delete;
  ~EndpointUse();

  // Null if the endpoint is ending. Then a callback of a source must return G_SOURCE_CONTINUE, because the finalizer
  // destroys the source.
  [[nodiscard]] PTZSocket *get() const { return endpoint_; }

 private:
  void take_reference(PTZSocket *endpoint);
};

// By the endpoint's dispose operation.
void last_reference_may_be_going(PTZSocket *endpoint);
void survived_dispose(PTZSocket *endpoint);

// Any thread.
void destroy_source(GSource *source);
void destroy_descriptor_source(GSource *source);  // a PTZFileGSource
void remove_source(guint32 &id);                  // 0 is none; becomes 0

}  // namespace ptz
