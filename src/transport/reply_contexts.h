// src/transport/reply_contexts.h - the reply contexts of a command server that await their reply.
#pragma once
#include <glib.h>
#include <optional>
#include <vector>

#include "base/handles.h"
#include "ptz_socket_server_command.h"

namespace ptz {

// The public record of a context holds a descriptor number, which another connection may have by the time of the
// reply. So the server remembers here which connection each of its contexts is for. A context that is not here was made
// by a subclass.
//
// Newest last: most contexts get their reply in the callback that receives them. A context that never gets its reply
// stays here until the server ends.
//
// Lock: `mutex_`, a leaf. Any thread, although a server is meant to be used in one.
class ReplyContexts {
  struct Entry {
    const PTZSocketServerCommandReplyContext *context;
    PTZSocketServerCommandReplyContext content;
    guint32 serial;
  };
  GMutex mutex_ = {};
  std::vector<Entry> entries_;

 public:
  ReplyContexts() = default;
  ReplyContexts(ReplyContexts &&) = delete;
  ~ReplyContexts() { g_mutex_clear(&mutex_); }

  // On the heap, to be freed with g_free() once take() has forgotten it.
  [[nodiscard]] PTZSocketServerCommandReplyContext *make(gint fd, PTZSocketServer *server, guint32 message_id,
                                                         guint32 serial);
  // The serial number of the connection that the context was made for; nothing for a context that was not made here.
  [[nodiscard]] std::optional<guint32> take(const PTZSocketServerCommandReplyContext *context);

 private:
  [[nodiscard]] std::optional<Entry> remove(const PTZSocketServerCommandReplyContext *context);
};

}  // namespace ptz
