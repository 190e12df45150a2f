// src/transport/plain_reply_context.h - the reply context of plain servers, of which there is one per process.
#pragma once
#include "ptz_socket_server.h"

namespace ptz {

// contract: every plain server hands out the same record, which is valid during the callback that receives it.
//
// A callback may run a main loop in which another server delivers a message and overwrites the record. So the record
// is saved before a callback and restored after it. A connection or server that goes meanwhile is cleared in the
// record and in every saved copy.
//
// Thread of the default main context, except forget_server_in_plain_reply_context(), which any thread may call. A mutex
// (a leaf) protects the record and the copies; how deep callbacks are nested belongs to the first thread alone.
[[nodiscard]] PTZSocketServerReplyContext *set_plain_reply_context(PTZSocketServer *server,
                                                                   PTZSocketServerClient *client);
void forget_client_in_plain_reply_context(const PTZSocketServerClient *client);
void forget_server_in_plain_reply_context(const PTZSocketServer *server);

// Around a callback of any server, on the stack. Only a nested one has anything to save.
class SavedPlainReplyContext {
  PTZSocketServerReplyContext saved_;
  SavedPlainReplyContext *outer_;
  bool is_nested_;

  friend void for_each_plain_reply_context(void (*action)(PTZSocketServerReplyContext &, gconstpointer),
                                           gconstpointer gone);

 public:
  SavedPlainReplyContext();
  SavedPlainReplyContext(SavedPlainReplyContext &&) = delete;
  ~SavedPlainReplyContext();
};

}  // namespace ptz
