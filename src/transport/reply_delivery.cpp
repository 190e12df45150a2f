// src/transport/reply_delivery.cpp - brings the reply of an asynchronous request to its callback.
//
// Reply callbacks run in a thread that has acquired the default main context: the one that runs the main loop, or one
// that sends while no thread runs it. In any other thread, and inside another callback of the client, a reply is copied
// and handed to the main loop.
#include "base/handles.h"
#include "transport/client_command_private.h"
#include "transport/frame_header.h"

namespace ptz {

void handle_reply(PTZSocketClientCommand *client, guint8 *frame, guint32 length) {
  const auto *base = &client->parent_instance;
  if (base->callback == nullptr || length < frame::header_size) return;
  auto *state = private_of(client);
  auto *request = state->pending.take(frame::message_id_of(frame));
  if (request == nullptr) return;
  const auto keep = share(client);
  const ReplyCallbacks::Running running(&state->callbacks);
  base->callback(request->context, frame + frame::header_size, static_cast<guint32>(length - frame::header_size));
  free_pending_request(request);
}

void deliver_reply(PTZSocketClientCommand *client, guint8 *frame, guint32 length) {
  if (private_of(client)->callbacks.running_here() || !g_main_context_acquire(nullptr)) {
    defer_reply(client, frame, length);
    return;
  }
  handle_reply(client, frame, length);
  g_main_context_release(nullptr);
}

// If the expiry timer holds the lock of the pending requests, its callback may be waiting for this thread. Then the
// main loop finds out whether the reply has a request.
void defer_reply(PTZSocketClientCommand *client, const guint8 *frame, guint32 length) {
  auto *state = private_of(client);
  if (state->pending.may_defer(frame::message_id_of(frame))) state->deferred.add(frame, length);
}

}  // namespace ptz
