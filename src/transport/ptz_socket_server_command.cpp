#include "ptz_socket_server_command.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>

#include "base/check.h"
#include "base/handles.h"
#include "transport/frame_reader.h"
#include "transport/frame_writer.h"
#include "transport/probes.h"
#include "transport/reply_contexts.h"
#include "transport/server_source.h"

static_assert(std::is_standard_layout_v<PTZSocketServerCommand>);
static_assert(offsetof(PTZSocketServerCommand, fill) == sizeof(PTZSocketServer));
// ptz_socket_server_send() finds the server of either kind of context.
static_assert(offsetof(PTZSocketServerCommandReplyContext, server) == offsetof(PTZSocketServerReplyContext, server));

namespace {

struct PTZSocketServerCommandPrivate {
  ptz::SharedAssembler assembler;
  ptz::ReplyContexts contexts;
  gint foreign_fd = -1;  // that was read although no connection has it

  explicit PTZSocketServerCommandPrivate(PTZSocketServerCommand *server)
      : assembler(ptz::frame::FrameAssembler(server->buffer, &server->fill, &server->expected)) {}
};

}  // namespace

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocketServerCommand, ptz_socket_server_command, PTZ_TYPE_SOCKET_SERVER)

namespace {

using namespace ptz::frame;
using ptz::ServerConnection;
using ptz::ServerSource;

PTZSocketServerCommandPrivate *private_of(PTZSocketServerCommand *self) {
  return static_cast<PTZSocketServerCommandPrivate *>(ptz_socket_server_command_get_instance_private(self));
}

ServerConnection *find_connection(PTZSocketServer *server, gint fd) {
  return server->source != nullptr ? ServerSource::of(server)->find(fd) : nullptr;
}

FrameAssembler &assembler_for(PTZSocketServerCommand *self, ServerConnection *connection, gint fd) {
  auto *state = private_of(self);
  auto &assembler = state->assembler.turn_to(connection);
  if (connection == nullptr && std::exchange(state->foreign_fd, fd) != fd) assembler.reset();
  return assembler;
}

// The body of the complete frame, as far as there is room.
gssize take_message(PTZSocketServerCommand *self, FrameAssembler &assembler, gpointer out, gsize out_size) {
  const gsize length = std::min<gsize>(assembler.length(), out_size);
  const gsize body_length = length > header_size ? length - header_size : 0;
  self->message_id = assembler.message_id();
  if (body_length > 0) std::memcpy(out, assembler.body().data(), body_length);
  assembler.reset();
  self->have_message = TRUE;
  return static_cast<gssize>(body_length);
}

gssize command_server_read(PTZSocket *socket, gint fd, gpointer out, gsize out_size, gint) {
  using Outcome = Reception::Outcome;
  auto *self = reinterpret_cast<PTZSocketServerCommand *>(socket);  // unchecked, as below: once for each frame
  auto *connection = find_connection(&self->parent_instance, fd);
  auto &assembler = assembler_for(self, connection, fd);
  const Reception reception = receive_frame(assembler, fd);
  if (connection != nullptr && reception.count > 0) connection->received = true;
  switch (reception.outcome) {
    case Outcome::complete:
      PTZ_PROBE_FRAME(frame_received, fd, assembler.message_id(), assembler.body().data(),
                      static_cast<guint32>(assembler.body().size()));
      return take_message(self, assembler, out, out_size);
    case Outcome::incomplete:
      return 0;
    case Outcome::failed:
      return errno == EAGAIN ? 0 : -1;
    case Outcome::end_of_stream:
      if (connection != nullptr && connection->input == ServerConnection::Input::open) {
        connection->input = ServerConnection::Input::ended;
      }
      return 0;
    case Outcome::malformed:
      log_func(LOG_WARNING, "A frame cannot have a length of %u, closing client fd %d", assembler.length(), fd);
      assembler.reset();
      return -1;
  }
  return -1;
}

gpointer command_server_get_reply_context(PTZSocketServer *server, PTZSocketServerClient *client) {
  auto *self = reinterpret_cast<PTZSocketServerCommand *>(server);
  if (!self->have_message) return nullptr;
  const auto *connection = find_connection(server, client->fd);
  const guint32 serial = connection != nullptr ? connection->serial : 0;
  self->have_message = FALSE;
  return private_of(self)->contexts.make(client->fd, server, self->message_id, serial);
}

// The connection that the context was made for has gone, whatever has its descriptor number now.
bool is_stale(PTZSocketServer *server, const PTZSocketServerCommandReplyContext *context) {
  const auto serial = private_of(reinterpret_cast<PTZSocketServerCommand *>(server))->contexts.take(context);
  if (!serial || *serial == 0) return false;
  const auto *connection = find_connection(server, context->fd);
  return connection == nullptr || connection->serial != *serial;
}

gboolean command_server_send(gpointer reply_context, gconstpointer data, guint32 length) {
  if (reply_context == nullptr) return TRUE;
  const ptz::Handle<PTZSocketServerCommandReplyContext, g_free> context(
      static_cast<PTZSocketServerCommandReplyContext *>(reply_context));
  auto *server = context->server;
  const bool stale = is_stale(server, context.get());
  g_return_val_if_fail(length <= PTZ_SOCKET_BODY_MAX, FALSE);
  if (stale) return FALSE;
  const gint fd = context->fd;
  const FrameSent sent = write_frame(context->message_id, data, length, [=](gconstpointer piece, gsize piece_length) {
    auto *socket = reinterpret_cast<PTZSocket *>(server);
    errno = 0;
    return gssize{static_cast<gint>(PTZ_SOCKET_GET_CLASS(socket)->write(socket, fd, piece, piece_length, 0))};
  });
  if (sent == FrameSent::whole) PTZ_PROBE_FRAME(frame_sent, fd, context->message_id, data, length);
  if (sent == FrameSent::fragment) {
    auto *connection = find_connection(server, fd);
    if (connection != nullptr) ptz_socket_server_close(server, &connection->client);
  }
  return sent == FrameSent::whole ? TRUE : FALSE;
}

}  // namespace

static void ptz_socket_server_command_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_SERVER_COMMAND(object);
  std::destroy_at(private_of(self));
  g_free(self->buffer);
  self->buffer = nullptr;
  self->fill = 0;
  G_OBJECT_CLASS(ptz_socket_server_command_parent_class)->finalize(object);
}

static void ptz_socket_server_command_init(PTZSocketServerCommand *self) {
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
  self->message_id = 0;
  self->buffer = static_cast<guint8 *>(g_malloc(PTZ_SOCKET_FRAME_MAX));
  self->have_message = FALSE;
  std::construct_at(private_of(self), self);
}

static void ptz_socket_server_command_class_init(PTZSocketServerCommandClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_server_command_finalize;
  PTZ_SOCKET_CLASS(klass)->read = command_server_read;
  PTZ_SOCKET_SERVER_CLASS(klass)->send = command_server_send;
  PTZ_SOCKET_SERVER_CLASS(klass)->get_reply_context = command_server_get_reply_context;
}

PTZSocketServerCommand *ptz_socket_server_command_new(const gchar *path, gint type) {
  g_return_val_if_fail(path != NULL, NULL);
  return PTZ_SOCKET_SERVER_COMMAND(ptz_socket_server_new(PTZ_TYPE_SOCKET_SERVER_COMMAND, path, type));
}
