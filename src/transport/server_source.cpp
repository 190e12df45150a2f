#include "transport/server_source.h"

#include <unistd.h>
#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "base/check.h"
#include "ptz_socket_frame.h"
#include "transport/end_of_stream.h"
#include "transport/endpoint_use.h"
#include "transport/plain_reply_context.h"

namespace ptz {

static_assert(std::is_standard_layout_v<ServerSource> && offsetof(ServerSource, base) == 0);

namespace {

constexpr auto watched_events = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);
constexpr auto end_events = static_cast<GIOCondition>(G_IO_ERR | G_IO_HUP);
constexpr guint readable_events = G_IO_IN | G_IO_PRI;
constexpr guint ended_events = G_IO_ERR | G_IO_HUP | G_IO_NVAL;

PTZSocketServerClient *client_of(GList *link) { return static_cast<PTZSocketServerClient *>(link->data); }

guint events_of(ServerSource *self, gpointer tag) {
  return tag != nullptr ? g_source_query_unix_fd(&self->base.source, tag) : 0;
}

void watch_listener(ServerSource *self) {
  self->base.tag = g_source_add_unix_fd(&self->base.source, self->base.fd, watched_events);
}

// See NestedLoopGuard.
void pause(ServerSource *self) {
  self->guard.pause();
  self->listener_was_watched = self->base.tag != nullptr;
  self->stop_listening();
  for (GList *link = self->base.clients; link != nullptr; link = link->next) self->stop_watching(client_of(link)->tag);
}

void resume(ServerSource *self) {
  if (g_source_is_destroyed(&self->base.source)) return;
  if (self->listener_was_watched && self->base.fd >= 0) watch_listener(self);
  for (GList *link = self->base.clients; link != nullptr; link = link->next) {
    self->watch(ServerConnection::of(client_of(link)));
  }
}

bool another_client_waits(ServerSource *self, const PTZSocketServerClient *served) {
  for (GList *link = self->base.clients; link != nullptr; link = link->next) {
    if (client_of(link) != served && (events_of(self, client_of(link)->tag) & readable_events) != 0) return true;
  }
  return false;
}

// The peer has half-closed: its descriptor remains readable. A reply may still follow, so the connection stays open
// until the peer hangs up.
void watch_for_end_only(ServerSource *self, ServerConnection *connection) {
  connection->input = ServerConnection::Input::unwatched;
  if (connection->client.tag != nullptr) {
    g_source_modify_unix_fd(&self->base.source, connection->client.tag, end_events);
  }
}

// On the stack of a dispatch, around its EndpointUse: see ServerSource::dispatches.
class Dispatching {
  ServerSource *self_;

 public:
  explicit Dispatching(ServerSource *self) : self_(self) { ++self->dispatches; }
  Dispatching(Dispatching &&) = delete;
  ~Dispatching() { --self_->dispatches; }
};

struct Callback {
  PTZSocketServerCallback function;
  gpointer user_data;
};

gboolean deliver(ServerSource *self, GList *link, const Callback &callback, gpointer reply_context, guint8 *message,
                 guint32 length) {
  const bool listener_waits = (events_of(self, self->base.tag) & readable_events) != 0;
  self->turns.message_delivered(link, another_client_waits(self, client_of(link)), listener_waits);
  return callback.function(callback.user_data, reply_context, message, length);
}

// A result if a message was delivered. Otherwise it is the next client's turn.
std::optional<gboolean> read_client(ServerSource *self, GList *link, const Callback &callback, bool has_ended) {
  auto *server = self->base.server;
  auto *connection = ServerConnection::of(client_of(link));
  connection->received = false;
  guint8 message[PTZ_SOCKET_FRAME_MAX + 1];
  auto *socket = reinterpret_cast<PTZSocket *>(server);
  const gint fd = connection->client.fd;
  const gint count =
      static_cast<gint>(PTZ_SOCKET_GET_CLASS(socket)->read(socket, fd, message, PTZ_SOCKET_FRAME_MAX, 0));
  if (self->current != connection) return std::nullopt;  // an overridden operation has closed it, as below
  // A frame without a body gives 0 too, and there may be others behind it.
  if (count < 0 || (count == 0 && has_ended && !connection->received)) {
    ptz_socket_server_close(server, &connection->client);
    return std::nullopt;
  }
  if (count == 0 && has_ended) return std::nullopt;
  if (count == 0) {
    const bool ended = connection->input == ServerConnection::Input::ended;
    if (ended || (!connection->received && at_end_of_stream(fd))) watch_for_end_only(self, connection);
    return std::nullopt;
  }
  const auto length = std::min(static_cast<guint32>(count), PTZ_SOCKET_FRAME_MAX);
  message[length] = '\0';
  if (callback.function == nullptr) return std::nullopt;
  const SavedPlainReplyContext outer;
  gpointer reply_context = PTZ_SOCKET_SERVER_GET_CLASS(server)->get_reply_context(server, &connection->client);
  if (reply_context == nullptr || self->current != connection) return std::nullopt;
  return deliver(self, link, callback, reply_context, message, length);
}

std::optional<gboolean> serve(ServerSource *self, GList *link, const Callback &callback) {
  auto *client = client_of(link);
  const guint events = events_of(self, client->tag);
  const bool has_ended = (events & ended_events) != 0;
  if ((events & readable_events) != 0) {
    self->current = ServerConnection::of(client);
    self->guard.enter();  // before the callback: operations of subclasses, too, may run a main loop
    const auto result = read_client(self, link, callback, has_ended);
    if (self->guard.leave()) resume(self);
    self->current = nullptr;
    return result;
  }
  if (has_ended) ptz_socket_server_close(self->base.server, client);
  return std::nullopt;
}

gboolean server_source_prepare(GSource *source, gint *timeout_ms) {
  auto *self = ServerSource::of(source);
  if (self->guard.must_pause()) pause(self);
  *timeout_ms = -1;
  return FALSE;
}

gboolean server_source_check(GSource *source) {
  auto *self = ServerSource::of(source);
  if ((events_of(self, self->base.tag) & readable_events) != 0) return TRUE;
  for (GList *link = self->base.clients; link != nullptr; link = link->next) {
    if ((events_of(self, client_of(link)->tag) & (readable_events | G_IO_HUP)) != 0) return TRUE;
  }
  return FALSE;
}

// From this link to the end of the list, but no client a second time: after it was read, the result of the last poll no
// longer holds.
std::optional<gboolean> serve_from(ServerSource *self, GList *first, const Callback &callback) {
  for (GList *link = first; link != nullptr; link = self->next_link) {
    self->next_link = link->next;
    auto *connection = ServerConnection::of(client_of(link));
    if (connection->served_in == self->dispatch_number) continue;
    connection->served_in = self->dispatch_number;
    if (const auto result = serve(self, link, callback)) return result;
  }
  return std::nullopt;
}

// Default main context.
gboolean ptz_socket_server_source_dispatch(GSource *source, GSourceFunc function, gpointer user_data) {
  auto *self = ServerSource::of(source);
  const Dispatching dispatching(self);
  const EndpointUse server(source, self->base.server);
  if (server.get() == nullptr) return G_SOURCE_CONTINUE;
  const Callback callback = {reinterpret_cast<PTZSocketServerCallback>(reinterpret_cast<void (*)()>(function)),
                             user_data};
  const guint listener_events = events_of(self, self->base.tag);
  const bool listener_waits = (listener_events & readable_events) != 0;
  if (self->turns.take_listener_turn() && listener_waits) return accept_connection(self);

  ++self->dispatch_number;
  GList *first = self->turns.take_first_client(self->base.clients);
  const bool from_head = first == self->base.clients;
  if (const auto result = serve_from(self, first, callback)) return *result;
  if (!from_head) {
    if (const auto result = serve_from(self, self->base.clients, callback)) return *result;
  }

  self->turns.nothing_delivered(listener_waits);
  if (self->base.tag == nullptr) return G_SOURCE_CONTINUE;  // a server's own descriptor goes with its connection
  if (listener_waits) return accept_connection(self);
  // A condition that never clears would wake the main loop forever.
  if ((listener_events & ended_events) != 0) self->stop_listening();
  return G_SOURCE_CONTINUE;
}

void server_source_finalize(GSource *source) {
  auto *self = ServerSource::of(source);
  for (GList *link = self->base.clients; link != nullptr; link = link->next) {
    if (client_of(link)->fd >= 0) close(client_of(link)->fd);
    ServerConnection::destroy(ServerConnection::of(client_of(link)));
  }
  g_list_free(std::exchange(self->base.clients, nullptr));
}

GSourceFuncs source_functions = {
    server_source_prepare,
    server_source_check,
    ptz_socket_server_source_dispatch,
    server_source_finalize,
    nullptr,
    nullptr,
};

}  // namespace

PTZSocketServerSource *ServerSource::create(PTZSocketServer *server, GMainContext *context) {
  GSource *source = g_source_new(&source_functions, sizeof(ServerSource));
  g_source_set_static_name(source, "PTZSocketServer");
  auto *self = of(source);
  std::construct_at(&self->turns);
  std::construct_at(&self->guard);
  self->base.fd = server->parent_instance.fd;
  self->base.server = server;
  watch_listener(self);
  g_source_set_can_recurse(source, TRUE);
  g_source_attach(source, context);
  return &self->base;
}

ServerConnection *ServerSource::find(gint fd) {
  if (current != nullptr && current->client.fd == fd) return current;
  for (GList *link = base.clients; link != nullptr; link = link->next) {
    if (client_of(link)->fd == fd) return ServerConnection::of(client_of(link));
  }
  return nullptr;
}

bool ServerSource::is_own_descriptor(gint fd) const {
  return base.server->parent_instance.socket == nullptr && fd == base.fd;
}

void ServerSource::stop_watching(gpointer &tag) {
  if (tag != nullptr && !g_source_is_destroyed(&base.source)) g_source_remove_unix_fd(&base.source, tag);
  tag = nullptr;
}

void ServerSource::stop_listening() { stop_watching(base.tag); }

void ServerSource::watch(ServerConnection *connection) {
  const auto events = connection->input == ServerConnection::Input::unwatched ? end_events : watched_events;
  connection->client.tag = g_source_add_unix_fd(&base.source, connection->client.fd, events);
}

void ServerSource::add_connection(gint fd) {
  if (++last_serial == 0) ++last_serial;
  auto *connection = ServerConnection::create(fd, last_serial);
  watch(connection);
  base.clients = g_list_prepend(base.clients, &connection->client);
}

void ServerSource::forget(GList *link) {
  auto *connection = ServerConnection::of(client_of(link));
  if (current == connection) current = nullptr;
  if (next_link == link) next_link = link->next;
  base.clients = g_list_delete_link(base.clients, link);
  ServerConnection::destroy(connection);
}

}  // namespace ptz
