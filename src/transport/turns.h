// src/transport/turns.h - the order in which a server looks at what is ready.
#pragma once
#include <glib.h>

#include "ptz_socket_server.h"

namespace ptz {

// contract: a dispatch looks at the clients in list order, newest first, then at the listening descriptor, and delivers
// at most one message. A burst is served in this order. If something else has been kept waiting for 16 messages in a
// row, the server takes turns until nothing waits: the client that was served goes behind the others, and the listening
// descriptor comes before the clients. So no peer that sends without pause starves another.
//
// Invariant: the next client is in the source's list, or null. Thread of the default main context.
class Turns {
  static constexpr int burst = 16;

  int kept_waiting_ = 0;  // messages in a row that kept something waiting
  const PTZSocketServerClient *next_client_ = nullptr;
  bool listener_next_ = false;

 public:
  // A dispatch begins: whether the listening descriptor comes before the clients.
  [[nodiscard]] bool take_listener_turn();
  // The client with which a dispatch begins; null for an empty list.
  [[nodiscard]] GList *take_first_client(GList *clients);

  // A dispatch ends with a message of the client in this link.
  void message_delivered(GList *served, bool client_waits, bool listener_waits);
  // A dispatch has looked at every client and delivered nothing.
  void nothing_delivered(bool listener_waits);

  // Before the link is removed from the list.
  void forget(GList *link);
};

}  // namespace ptz
