#include "ptz_socket_server_command.h"

#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <type_traits>
#include <vector>

#include "base/check.h"
#include "base/handles.h"
#include "transport/frame_header.h"
#include "transport/socket_server_private.h"

static_assert(std::is_standard_layout_v<PTZSocketServerCommand>);
static_assert(offsetof(PTZSocketServerCommand, fill) == sizeof(PTZSocketServer));
// ptz_socket_server_send() finds the server of either kind of context.
static_assert(offsetof(PTZSocketServerCommandReplyContext, server) == offsetof(PTZSocketServerReplyContext, server));

struct PTZSocketServerCommandPrivate {
  gint current_fd = -1;                           // whose frame the buffer holds
  std::map<gint, std::vector<guint8>> set_aside;  // half frames of the other clients
};

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocketServerCommand, ptz_socket_server_command, PTZ_TYPE_SOCKET_SERVER)

namespace {

using namespace ptz::frame;

PTZSocketServerCommandPrivate *private_of(PTZSocketServerCommand *self) {
  return static_cast<PTZSocketServerCommandPrivate *>(ptz_socket_server_command_get_instance_private(self));
}

void forget_frame(PTZSocketServerCommand *self) {
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
}

// Makes the assembly state that of the client, putting another's half frame aside.
void turn_to(PTZSocketServerCommand *self, gint fd) {
  auto *state = private_of(self);
  if (state->current_fd == fd) return;
  if (self->fill > 0) state->set_aside[state->current_fd].assign(self->buffer, self->buffer + self->fill);
  forget_frame(self);
  state->current_fd = fd;
  if (state->set_aside.empty()) return;
  const auto found = state->set_aside.find(fd);
  if (found == state->set_aside.end()) return;
  self->fill = static_cast<guint32>(found->second.size());
  std::memcpy(self->buffer, found->second.data(), self->fill);
  if (self->fill >= length_size) self->expected = length_of(self->buffer);
  state->set_aside.erase(found);
}

void client_closed(PTZSocketServer *server, gint fd) {
  auto *self = PTZ_SOCKET_SERVER_COMMAND(server);
  auto *state = private_of(self);
  if (state->current_fd == fd) {
    forget_frame(self);
    state->current_fd = -1;
  } else {
    state->set_aside.erase(fd);
  }
}

enum class Piece { some, none_yet, failed };

// At most this many bytes of the frame. An end of file is a failure: a client that has stopped sending is done.
Piece read_piece(PTZSocketServerCommand *self, gint fd, gsize length) {
  const gssize count = read(fd, self->buffer + self->fill, length);
  if (count < 0) return errno == EAGAIN ? Piece::none_yet : Piece::failed;
  if (count == 0) return Piece::failed;
  self->fill += static_cast<guint32>(count);
  return Piece::some;
}

gssize command_server_read(PTZSocket *socket, gint fd, gpointer out, gsize out_size, gint) {
  auto *self = PTZ_SOCKET_SERVER_COMMAND(socket);
  turn_to(self, fd);
  if (self->expected == PTZ_SOCKET_FRAME_UNKNOWN) {
    const Piece header = read_piece(self, fd, length_size);
    if (header != Piece::some) return header == Piece::failed ? -1 : 0;
    if (self->fill < length_size) return 0;
    self->expected = length_of(self->buffer);
    if (!can_be_length(self->expected)) {
      log_func(LOG_WARNING, "A frame cannot have a length of %u, closing client fd %d", self->expected, fd);
      forget_frame(self);
      return -1;
    }
  }
  const Piece rest = read_piece(self, fd, self->expected - self->fill);
  if (rest != Piece::some) return rest == Piece::failed ? -1 : 0;
  if (self->fill != self->expected) return 0;
  const gsize length = std::min<gsize>(self->expected, out_size);
  const gsize body_length = length > header_size ? length - header_size : 0;
  self->message_id = message_id_of(self->buffer);
  std::memcpy(out, self->buffer + header_size, body_length);
  forget_frame(self);
  self->have_message = TRUE;
  return static_cast<gssize>(body_length);
}

gpointer command_server_get_reply_context(PTZSocketServer *server, PTZSocketServerClient *client) {
  auto *self = PTZ_SOCKET_SERVER_COMMAND(server);
  if (!self->have_message) return nullptr;
  auto *context = g_new(PTZSocketServerCommandReplyContext, 1);
  *context = {client->fd, server, self->message_id, ptz::connection_at(server, client->fd)};
  self->have_message = FALSE;
  return context;
}

gssize write_once(PTZSocketServer *server, gint fd, gconstpointer data, gsize length) {
  auto *socket = reinterpret_cast<PTZSocket *>(server);
  errno = 0;
  return static_cast<gint>(PTZ_SOCKET_GET_CLASS(socket)->write(socket, fd, data, length, 0));
}

bool is_part(gssize sent, gsize length) { return sent > 0 && static_cast<gsize>(sent) < length; }

gboolean command_server_send(gpointer reply_context, gconstpointer data, guint32 length) {
  if (reply_context == nullptr) return TRUE;
  const ptz::Handle<PTZSocketServerCommandReplyContext, g_free> context(
      static_cast<PTZSocketServerCommandReplyContext *>(reply_context));
  g_return_val_if_fail(length <= PTZ_SOCKET_BODY_MAX, FALSE);
  const gint fd = context->fd;
  auto *server = context->server;
  if (context->connection != 0 && context->connection != ptz::connection_at(server, fd)) return FALSE;

  const guint32 header[] = {static_cast<guint32>(length + header_size), context->message_id};
  const gssize header_sent = write_once(server, fd, header, sizeof header);
  if (header_sent < 0) return FALSE;
  const bool header_in_part = is_part(header_sent, sizeof header);
  const gssize body_sent = header_in_part ? -1 : write_once(server, fd, data, length);
  const bool frame_in_part = header_in_part || is_part(body_sent, length) || (body_sent < 0 && length > 0);
  if (frame_in_part) ptz::close_client_at(server, fd);  // it would take the next frame for the rest of this one
  return !frame_in_part && body_sent >= 0 ? TRUE : FALSE;
}

}  // namespace

static void ptz_socket_server_command_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_SERVER_COMMAND(object);
  g_free(self->buffer);
  self->buffer = nullptr;
  self->fill = 0;
  // The base closes the clients that are left, when there is nothing to forget of them any more.
  ptz::server_state(PTZ_SOCKET_SERVER(self))->client_closed = nullptr;
  std::destroy_at(private_of(self));
  G_OBJECT_CLASS(ptz_socket_server_command_parent_class)->finalize(object);
}

static void ptz_socket_server_command_init(PTZSocketServerCommand *self) {
  std::construct_at(private_of(self));
  ptz::server_state(PTZ_SOCKET_SERVER(self))->client_closed = client_closed;
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
  self->message_id = 0;
  self->buffer = static_cast<guint8 *>(g_malloc(PTZ_SOCKET_FRAME_MAX));
  self->have_message = FALSE;
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
