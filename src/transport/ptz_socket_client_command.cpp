#include "ptz_socket_client_command.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>

#include "base/check.h"
#include "base/clock.h"
#include "base/descriptor_flags.h"
#include "base/handles.h"
#include "transport/client_command_private.h"
#include "transport/frame_writer.h"
#include "transport/probes.h"
#include "transport/socket_client_private.h"
#include "transport/socket_private.h"

static_assert(std::is_standard_layout_v<PTZSocketClientCommand>);
static_assert(offsetof(PTZSocketClientCommand, fill) == sizeof(PTZSocketClient));

using PTZSocketClientCommandPrivate = ptz::ClientCommandPrivate;

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocketClientCommand, ptz_socket_client_command, PTZ_TYPE_SOCKET_CLIENT)

namespace {

using ptz::ClientStream;
using ptz::private_of;
using ptz::frame::FrameSent;

constexpr gint64 sync_timeout_ms = 10'000;
constexpr gint64 queue_timeout_ms = 8'000;  // for the sends of other threads; a send of one's own may take two seconds
constexpr gint64 long_send_ms = 50;
constexpr int drained_frames = 11;

PTZSocket *endpoint_of(PTZSocketClientCommand *self) { return &self->parent_instance.parent_instance; }

// The frame goes to the caller's buffer if that holds any frame, so that the main loop's read copies it once.
gssize command_read(PTZSocket *socket, gint fd, gpointer out, gsize out_size, gint) {
  using Taken = ClientStream::Taken;
  auto *self = reinterpret_cast<PTZSocketClientCommand *>(socket);  // unchecked: once for each frame
  guint8 own_copy[PTZ_SOCKET_FRAME_MAX];
  auto *frame = out != nullptr && out_size >= sizeof own_copy ? static_cast<guint8 *>(out) : own_copy;
  guint32 length = 0;
  const Taken taken = private_of(self)->stream.take_frame(fd, frame, length);
  if (taken == Taken::failed) return -1;
  if (taken == Taken::nothing) {
    errno = EAGAIN;
    return 0;
  }
  const gsize copied = out != nullptr ? std::min<gsize>(out_size, length) : 0;
  if (frame == own_copy && copied > 0) std::memcpy(out, frame, copied);
  if (taken == Taken::deferred) {
    ptz::defer_reply(self, frame, length);
  } else {
    ptz::deliver_reply(self, frame, length);
  }
  return static_cast<gssize>(copied);
}

guint command_add_retry(PTZSocket *socket) {
  return private_of(PTZ_SOCKET_CLIENT_COMMAND(socket))
      ->stream.reconnect(PTZ_SOCKET_CLASS(ptz_socket_client_command_parent_class)->add_retry);
}

// Replies that have arrived make room in the peer's buffers for the answer to the next request.
void drain(PTZSocketClientCommand *self) {
  auto *socket = endpoint_of(self);
  const auto read_operation = PTZ_SOCKET_GET_CLASS(socket)->read;
  for (int frames = 0; frames < drained_frames; ++frames) {
    guint8 scratch[ptz::frame::length_size];
    if (static_cast<gint>(read_operation(socket, ptz::descriptor_of(socket), scratch, 1, 0)) <= 0) break;
  }
}

// In the caller's sending turn.
bool send_frame(PTZSocketClientCommand *self, gint fd, guint32 message_id, gconstpointer body, guint32 length) {
  auto *client = &self->parent_instance;
  const FrameSent sent = ptz::frame::write_frame(
      message_id, body, length,
      [=](gconstpointer piece, gsize piece_length) { return ptz::send_counted(client, fd, piece, piece_length); });
  if (sent == FrameSent::whole) PTZ_PROBE_FRAME(frame_sent, fd, message_id, body, length);
  if (sent != FrameSent::fragment) return sent == FrameSent::whole;
  log_func(LOG_WARNING, "Message %u was sent only in part, shutting the connection down", message_id);
  private_of(self)->stream.shut_down(fd);
  return false;
}

// Whether a request was sent, where, and how long the wait for its reply may still be.
struct SyncSend {
  enum class Outcome { sent, failed, too_late } outcome;
  gint fd;
  ptz::Deadline deadline;
};

// The ten seconds begin after the send. If that took long, because other threads were sending or the peer did not read,
// they begin with the call.
SyncSend send_synchronously(PTZSocketClientCommand *self, ptz::SyncCall &call, gconstpointer body, guint32 length) {
  auto &stream = private_of(self)->stream;
  const timespec start = ptz::clock_now();
  std::optional<timespec> queued_since;
  if (!stream.begin_sending(queue_timeout_ms, queued_since)) return {SyncSend::Outcome::too_late, -1, {start, 0}};
  const gint fd = ptz::descriptor_of(endpoint_of(self));
  call.connection = stream.connection();
  const bool sent = send_frame(self, fd, call.message_id, body, length);
  stream.end_sending();
  const timespec end = ptz::logged_clock_now();
  const gint64 spent_ms = ptz::elapsed_ms(start, end);
  return {sent ? SyncSend::Outcome::sent : SyncSend::Outcome::failed, fd,
          ptz::Deadline(end, sync_timeout_ms - (spent_ms >= long_send_ms ? spent_ms : 0))};
}

// contract: without a lock, one counter for both kinds of requests.
guint32 take_message_id(PTZSocketClientCommand *self) { return std::atomic_ref(self->next_id).fetch_add(1); }

}  // namespace

void cleanup_table_entry(gpointer entry, gpointer client) {
  auto *request = static_cast<ptz::PendingRequest *>(entry);
  const auto *self = static_cast<const PTZSocketClientCommand *>(client);
  if (request == nullptr) return;
  if (self->free_callback != nullptr) self->free_callback(request->context, self->free_user_data);
  ptz::free_pending_request(request);
}

PTZSocketClientCommandPrivate *ptz::private_of(PTZSocketClientCommand *client) {
  return static_cast<PTZSocketClientCommandPrivate *>(ptz_socket_client_command_get_instance_private(client));
}

static void ptz_socket_client_command_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_CLIENT_COMMAND(object);
  private_of(self)->deferred.end();
  private_of(self)->pending.clear();
  std::destroy_at(private_of(self));
  g_free(self->buffer);
  self->buffer = nullptr;
  g_mutex_clear(&self->mutex);
  G_OBJECT_CLASS(ptz_socket_client_command_parent_class)->finalize(object);
}

static void ptz_socket_client_command_init(PTZSocketClientCommand *self) {
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
  self->buffer = static_cast<guint8 *>(g_malloc(PTZ_SOCKET_FRAME_MAX));
  self->next_id = 0;
  self->pending = nullptr;
  self->timeout_source = 0;
  g_mutex_init(&self->mutex);
  self->free_user_data = nullptr;
  self->free_callback = nullptr;
  std::construct_at(private_of(self), self);
}

static void ptz_socket_client_command_class_init(PTZSocketClientCommandClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_client_command_finalize;
  PTZ_SOCKET_CLASS(klass)->read = command_read;
  PTZ_SOCKET_CLASS(klass)->add_retry = command_add_retry;
}

PTZSocketClientCommand *ptz_socket_client_command_new(const gchar *path, gint fd, gint type) {
  // Bounded waits need it, and what is drained before a send must not be waited for.
  if (path == nullptr && fd >= 0) (void)ptz::set_non_blocking(fd);
  return PTZ_SOCKET_CLIENT_COMMAND(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT_COMMAND, path, fd, type));
}

void ptz_socket_client_command_register_free_callback(PTZSocketClientCommand *client,
                                                      PTZSocketClientCommandFreeCallback free_callback,
                                                      gpointer free_user_data) {
  g_return_if_fail(PTZ_IS_SOCKET_CLIENT_COMMAND(client));
  client->free_callback = free_callback;
  client->free_user_data = free_user_data;
}

gboolean ptz_socket_client_command_async_send(PTZSocketClientCommand *client, gconstpointer body, guint32 length,
                                              gpointer request_context) {
  g_return_val_if_fail(PTZ_IS_SOCKET_CLIENT_COMMAND(client), FALSE);
  g_return_val_if_fail(length <= PTZ_SOCKET_BODY_MAX, FALSE);
  const auto keep = ptz::share(client);  // a reply that is drained may be the reason to drop the client
  auto &pending = private_of(client)->pending;
  auto &stream = private_of(client)->stream;
  drain(client);
  const guint32 message_id = take_message_id(client);
  // contract: pending before it is sent, because another thread may read the reply at once.
  if (request_context != nullptr) pending.add(request_context, message_id);
  std::optional<timespec> queued_since;
  (void)stream.begin_sending(ClientStream::no_limit, queued_since);
  const bool sent = send_frame(client, ptz::descriptor_of(endpoint_of(client)), message_id, body, length);
  stream.end_sending();
  if (request_context == nullptr) return sent ? TRUE : FALSE;
  if (!sent) {
    auto *request = pending.take(message_id);
    if (request == nullptr) return TRUE;  // a peer that guessed the id has answered: the callback has the context
    ptz::free_pending_request(request);
    return FALSE;
  }
  pending.start_timer();
  return TRUE;
}

gboolean ptz_socket_client_command_sync_send(PTZSocketClientCommand *client, gconstpointer body, guint32 length,
                                             gpointer reply_buffer, guint32 *reply_length_out) {
  g_return_val_if_fail(PTZ_IS_SOCKET_CLIENT_COMMAND(client), FALSE);
  g_return_val_if_fail(length <= PTZ_SOCKET_BODY_MAX, FALSE);
  g_return_val_if_fail(reply_buffer != NULL, FALSE);
  g_return_val_if_fail(reply_length_out != NULL, FALSE);
  auto &stream = private_of(client)->stream;
  ptz::SyncCall call(take_message_id(client), reply_buffer, reply_length_out);
  stream.begin(call);
  drain(client);
  const SyncSend request = send_synchronously(client, call, body, length);
  const bool is_sent = request.outcome == SyncSend::Outcome::sent;
  if (is_sent && stream.await_reply(call, request.fd, request.deadline)) return TRUE;
  // contract: the text of a time-out, whatever ended the wait, and before the watch is switched on. A failed send is
  // silent.
  if (request.outcome != SyncSend::Outcome::failed) {
    log_func(LOG_WARNING, "Timeout waiting for response to message %d!", static_cast<int>(call.message_id));
  }
  // A reply may have come since; one to a request that was not sent is forged.
  const bool answered = stream.end(call);
  return is_sent && answered ? TRUE : FALSE;
}
