// src/transport/reply_delivery.cpp - brings the reply of an asynchronous request to its callback.
//
// Reply callbacks run in a thread that has acquired the default main context: the one that runs the main loop, or one
// that sends while no thread runs it. In any other thread, and inside another callback of the client, a reply is copied
// and handed to the main loop.
#include <cstring>

#include "base/handles.h"
#include "transport/client_command_private.h"
#include "transport/endpoint_use.h"

namespace ptz {

namespace {

struct DeferredReply {
  EndpointReference client;  // weak: the client may go before the main loop dispatches the reply
  guint32 length;
  guint8 frame[];
};

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

// Default main context.
gboolean deliver_deferred(gpointer user_data) {
  auto *reply = static_cast<DeferredReply *>(user_data);
  {
    const EndpointUse use(reply->client);
    reply->client.clear();
    auto *client = reinterpret_cast<PTZSocketClientCommand *>(use.get());
    if (client != nullptr) handle_reply(client, reply->frame, reply->length);
  }
  g_free(reply);
  return G_SOURCE_REMOVE;
}

}  // namespace

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
  if (!private_of(client)->pending.may_contain(frame::message_id_of(frame))) return;
  auto *reply = static_cast<DeferredReply *>(g_malloc(sizeof(DeferredReply) + length));
  reply->client.set(&client->parent_instance.parent_instance);
  std::memcpy(reply->frame, frame, length);
  reply->length = length;
  g_idle_add(deliver_deferred, reply);
}

}  // namespace ptz
