// src/transport/client_command_private.h - the private state of PTZSocketClientCommand, which its parts share.
#pragma once
#include <ctime>

#include "ptz_socket_client_command.h"
#include "transport/client_stream.h"
#include "transport/deferred_replies.h"
#include "transport/pending_requests.h"
#include "transport/reply_callbacks.h"

namespace ptz {

struct ClientCommandPrivate {
  ReplyCallbacks callbacks;
  PendingRequests pending;
  DeferredReplies deferred;
  ClientStream stream;

  explicit ClientCommandPrivate(PTZSocketClientCommand *client)
      : pending(client, &callbacks), deferred(client), stream(client) {}
};

[[nodiscard]] ClientCommandPrivate *private_of(PTZSocketClientCommand *client);

// CLOCK_MONOTONIC; zero, and a line in the system log, if it cannot be read.
[[nodiscard]] timespec logged_clock_now();

// Any thread. Delivers a reply to its request, in this thread or through the main loop. Not in a sending
// turn nor with `mutex_` of the stream held: a callback may send again, or drop the client.
void deliver_reply(PTZSocketClientCommand *client, guint8 *frame, guint32 length);

// Default main context acquired. Calls the callback of the request that the reply is for, if there is one.
void handle_reply(PTZSocketClientCommand *client, guint8 *frame, guint32 length);

// Any thread. Queues a copy of a reply for the main loop. The caller may hold `mutex_` of the stream, or be an expiry
// callback, which holds the mutex of the pending requests.
void defer_reply(PTZSocketClientCommand *client, const guint8 *frame, guint32 length);

}  // namespace ptz
