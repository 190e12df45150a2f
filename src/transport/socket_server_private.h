// src/transport/socket_server_private.h - what the server shares with the classes derived from it.
#pragma once
#include <vector>

#include "ptz_socket_server.h"

struct PTZSocketServerPrivate {
  std::vector<guint32> connections;  // by descriptor: the number of the connection that holds it, 0 for none
  guint32 last_connection = 0;
  gint kept_waiting = 0;                       // messages in a row that left somebody waiting
  PTZSocketServerClient *next_turn = nullptr;  // whom the next dispatch looks at first; null for the list's head
  bool listening_turn = false;                 // ... before whom it accepts
  bool serving = false;                        // a callback runs
  bool paused = false;                         // ... and in it a main loop, which must not serve
  bool listening_paused = false;               // ... or accept
  void (*client_closed)(PTZSocketServer *server, gint fd) = nullptr;  // not a class slot: those are for drivers
};

namespace ptz {

PTZSocketServerPrivate *server_state(PTZSocketServer *server);

// The connection that holds the descriptor, 0 for none of this server's.
guint32 connection_at(PTZSocketServer *server, gint fd);

// Closes the client that holds the descriptor, if there is one.
void close_client_at(PTZSocketServer *server, gint fd);

}  // namespace ptz
