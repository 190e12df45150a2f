// src/transport/server_connection.h - everything that a server keeps for one connection.
#pragma once
#include "ptz_socket_server.h"
#include "transport/frame_assembler.h"

namespace ptz {

class SharedAssembler;

// One accepted connection. The server source's public list holds pointers to `client`.
//
// Created and destroyed by ServerSource only, in the thread of the default main context. Destroying it frees
// everything of it: the partial frame here, and the one that a SharedAssembler is assembling for it.
struct ServerConnection {
  enum class Input {
    open,
    ended,      // the peer has half-closed; set by the read operation
    unwatched,  // the server source watches for hang-up and error only, because replies may still follow
  };

  PTZSocketServerClient client;  // first: see of()
  guint32 serial;                // never 0; tells the connection from others that had or get its descriptor number
  Input input;
  bool received;               // by the read operation, since the server source cleared it
  guint32 served_in;           // the number of the dispatch that looked at it last
  SharedAssembler *assembler;  // that holds this connection's partial frame; null for none
  guint8 *partial;             // PTZ_SOCKET_FRAME_MAX bytes, owned; null until a partial frame was put aside
  guint32 partial_fill;

  [[nodiscard]] static ServerConnection *create(gint fd, guint32 serial);
  static void destroy(ServerConnection *connection);

  // For an entry of the source's list.
  [[nodiscard]] static ServerConnection *of(PTZSocketServerClient *client) {
    return reinterpret_cast<ServerConnection *>(client);
  }
};

// One assembly buffer that serves all connections of a command server, because the buffer is a public field.
//
// Invariant: the assembler holds the partial frame of `holder`, and only of it; holder->assembler points here. The
// partial frames of the other connections lie in their records. Thread of the default main context.
class SharedAssembler {
  frame::FrameAssembler assembler_;
  ServerConnection *holder_ = nullptr;

 public:
  explicit SharedAssembler(const frame::FrameAssembler &assembler) : assembler_(assembler) {}
  SharedAssembler(SharedAssembler &&) = delete;
  ~SharedAssembler() {
    if (holder_ != nullptr) holder_->assembler = nullptr;
  }

  // The assembler with the partial frame of this connection. Null stands for a descriptor that is not a connection's;
  // its partial frame lasts until another connection's turn.
  frame::FrameAssembler &turn_to(ServerConnection *connection);

  // Discards the connection's partial frame. Called before the connection is destroyed.
  void forget(const ServerConnection *connection);
};

}  // namespace ptz
