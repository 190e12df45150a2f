#include "ptz_socket_server.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "base/check.h"
#include "base/descriptor_flags.h"
#include "ptz_socket_frame.h"
#include "transport/socket_server_private.h"

static_assert(std::is_standard_layout_v<PTZSocketServer> && std::is_standard_layout_v<PTZSocketServerClass>);
static_assert(offsetof(PTZSocketServer, source) == sizeof(PTZSocket));
static_assert(offsetof(PTZSocketServerClass, send) == sizeof(PTZSocketClass));
static_assert(std::is_standard_layout_v<PTZSocketServerSource> && std::is_standard_layout_v<PTZSocketServerClient>);

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocketServer, ptz_socket_server, PTZ_TYPE_SOCKET)

namespace {

constexpr auto watched_events = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP);
constexpr guint readable_events = G_IO_IN | G_IO_PRI;
constexpr guint ended_events = G_IO_ERR | G_IO_HUP | G_IO_NVAL;
constexpr gint send_timeout_ms = 1000;
constexpr gint patience = 16;  // messages; a burst is served in list order, a flood is not

// Of the message that a plain server's callback is looking at; there is one per process.
PTZSocketServerReplyContext plain_reply_context = {nullptr, nullptr};

PTZSocketServerSource *server_source(GSource *source) { return reinterpret_cast<PTZSocketServerSource *>(source); }

PTZSocketServerClient *client_of(GList *link) { return static_cast<PTZSocketServerClient *>(link->data); }

guint events_of(PTZSocketServerSource *source, gpointer tag) {
  return tag != nullptr ? g_source_query_unix_fd(&source->source, tag) : 0;
}

void watch(PTZSocketServerSource *source, gint fd, gpointer &tag) {
  tag = g_source_add_unix_fd(&source->source, fd, watched_events);
}

void stop_watching(PTZSocketServerSource *source, gpointer &tag) {
  if (tag != nullptr && !g_source_is_destroyed(&source->source)) g_source_remove_unix_fd(&source->source, tag);
  tag = nullptr;
}

GList *link_holding(PTZSocketServerSource *source, gint fd) {
  GList *link = source->clients;
  while (link != nullptr && client_of(link)->fd != fd) link = link->next;
  return link;
}

bool is_own_descriptor(PTZSocketServerSource *source, gint fd) {
  return source->server->parent_instance.socket == nullptr && fd == source->fd;
}

void add_client(PTZSocketServerSource *source, gint fd) {
  auto *state = ptz::server_state(source->server);
  const auto index = static_cast<std::size_t>(fd);
  if (index >= state->connections.size()) state->connections.resize(index + 1);
  if (++state->last_connection == 0) ++state->last_connection;
  state->connections[index] = state->last_connection;

  auto *client = g_slice_new(PTZSocketServerClient);
  client->fd = fd;
  watch(source, fd, client->tag);
  source->clients = g_list_prepend(source->clients, client);
}

// Returns what the dispatch returns.
gboolean accept_client(PTZSocketServerSource *source) {
  if (source->server->parent_instance.socket == nullptr) {
    if (link_holding(source, source->fd) != nullptr) return G_SOURCE_CONTINUE;
    (void)ptz::set_non_blocking(source->fd);
    add_client(source, source->fd);
    return G_SOURCE_CONTINUE;
  }
  sockaddr_un address;
  socklen_t address_length = sizeof address;
  const gint fd = accept(source->fd, reinterpret_cast<sockaddr *>(&address), &address_length);
  if (fd < 0) {
    const int error = errno;
    syslog(LOG_ERR, "%s: accept failed, errno=%d, %s", "ptz_socket_server_source_dispatch", error,
           std::strerror(error));
    stop_watching(source, source->tag);
    return G_SOURCE_REMOVE;
  }
  ptz::set_close_on_exec(fd);
  (void)ptz::set_non_blocking(fd);
  add_client(source, fd);
  return G_SOURCE_CONTINUE;
}

bool others_are_ready(PTZSocketServerSource *source, const PTZSocketServerClient *served) {
  for (GList *link = source->clients; link != nullptr; link = link->next) {
    if (client_of(link) != served && (events_of(source, client_of(link)->tag) & readable_events) != 0) return true;
  }
  return false;
}

// Where somebody has been kept waiting for too long, a client that has just been heard goes behind those that wait, and
// behind the listening descriptor.
void pass_turn(PTZSocketServerSource *source, GList *served) {
  auto *state = ptz::server_state(source->server);
  const bool somebody_connects = (events_of(source, source->tag) & readable_events) != 0;
  const bool somebody_waits = somebody_connects || others_are_ready(source, client_of(served));
  state->kept_waiting = somebody_waits ? std::min(state->kept_waiting + 1, patience) : 0;
  const bool take_turns = state->kept_waiting == patience;
  state->listening_turn = take_turns && somebody_connects;
  state->next_turn = take_turns && served->next != nullptr ? client_of(served->next) : nullptr;
}

// A callback that runs a main loop of its own must not be called again from there. GLib would see to it, by taking all
// descriptors off the context and back for every message; this is done only where there is such a loop.
void pause(PTZSocketServerSource *source) {
  auto *state = ptz::server_state(source->server);
  state->paused = true;
  state->listening_paused = source->tag != nullptr;
  stop_watching(source, source->tag);
  for (GList *link = source->clients; link != nullptr; link = link->next) stop_watching(source, client_of(link)->tag);
}

void resume(PTZSocketServerSource *source) {
  auto *state = ptz::server_state(source->server);
  if (!std::exchange(state->paused, false)) return;
  if (state->listening_paused && source->fd >= 0) watch(source, source->fd, source->tag);
  for (GList *link = source->clients; link != nullptr; link = link->next) {
    watch(source, client_of(link)->fd, client_of(link)->tag);
  }
}

// The callback's result where a message was delivered; else the next client has its turn.
std::optional<gboolean> serve(PTZSocketServerSource *source, GList *link, PTZSocketServerCallback callback,
                              gpointer user_data) {
  auto *server = source->server;
  auto *client = client_of(link);
  const guint events = events_of(source, client->tag);
  if ((events & readable_events) != 0) {
    guint8 buffer[PTZ_SOCKET_FRAME_MAX + 1];
    auto *socket = reinterpret_cast<PTZSocket *>(server);
    const gint count =
        static_cast<gint>(PTZ_SOCKET_GET_CLASS(socket)->read(socket, client->fd, buffer, PTZ_SOCKET_FRAME_MAX, 0));
    if (count < 0) {
      ptz_socket_server_close(server, client);
      return std::nullopt;
    }
    if (count > 0) {
      const auto length = std::min(static_cast<guint32>(count), PTZ_SOCKET_FRAME_MAX);
      buffer[length] = '\0';
      if (callback == nullptr) return std::nullopt;
      gpointer reply_context = PTZ_SOCKET_SERVER_GET_CLASS(server)->get_reply_context(server, client);
      if (reply_context == nullptr) return std::nullopt;
      pass_turn(source, link);
      ptz::server_state(server)->serving = true;
      const gboolean result = callback(user_data, reply_context, buffer, length);
      if (!g_source_is_destroyed(&source->source)) {  // as it is where the callback dropped the server
        ptz::server_state(server)->serving = false;
        resume(source);
      }
      return result;
    }
  }
  if ((events & ended_events) != 0) ptz_socket_server_close(server, client);
  return std::nullopt;
}

gboolean server_source_prepare(GSource *base, gint *timeout_ms) {
  auto *source = server_source(base);
  const auto *state = ptz::server_state(source->server);
  if (state->serving && !state->paused) pause(source);
  *timeout_ms = -1;
  return FALSE;
}

gboolean server_source_check(GSource *base) {
  auto *source = server_source(base);
  if ((events_of(source, source->tag) & readable_events) != 0) return TRUE;
  for (GList *link = source->clients; link != nullptr; link = link->next) {
    if ((events_of(source, client_of(link)->tag) & (readable_events | G_IO_HUP)) != 0) return TRUE;
  }
  return FALSE;
}

// Default main context.
gboolean ptz_socket_server_source_dispatch(GSource *base, GSourceFunc function, gpointer user_data) {
  auto *source = server_source(base);
  auto *state = ptz::server_state(source->server);
  const auto callback = reinterpret_cast<PTZSocketServerCallback>(reinterpret_cast<void (*)()>(function));
  const guint listening_events = events_of(source, source->tag);
  const bool somebody_connects = (listening_events & readable_events) != 0;
  if (std::exchange(state->listening_turn, false) && somebody_connects) return accept_client(source);

  GList *first = state->next_turn != nullptr ? g_list_find(source->clients, state->next_turn) : source->clients;
  state->next_turn = nullptr;
  // Each client once: what the last poll said of one is no longer true after it was read.
  int before_first = first != nullptr ? g_list_position(source->clients, first) : 0;
  for (GList *link = first, *next; link != nullptr; link = next) {
    next = link->next;
    if (const auto result = serve(source, link, callback, user_data)) return *result;
  }
  for (GList *link = source->clients, *next; before_first > 0; link = next, --before_first) {
    next = link->next;
    if (const auto result = serve(source, link, callback, user_data)) return *result;
  }

  if (!somebody_connects) state->kept_waiting = 0;
  if (source->tag == nullptr) return G_SOURCE_CONTINUE;  // a server's own descriptor goes with its client
  if (somebody_connects) return accept_client(source);
  // What never passes would wake the main loop without end.
  if ((listening_events & ended_events) != 0) stop_watching(source, source->tag);
  return G_SOURCE_CONTINUE;
}

void server_source_finalize(GSource *base) {
  auto *source = server_source(base);
  for (GList *link = source->clients; link != nullptr; link = link->next) {
    if (client_of(link)->fd >= 0) close(client_of(link)->fd);
    g_slice_free(PTZSocketServerClient, client_of(link));
  }
  g_list_free(std::exchange(source->clients, nullptr));
}

GSourceFuncs source_functions = {
    server_source_prepare,
    server_source_check,
    ptz_socket_server_source_dispatch,
    server_source_finalize,
    nullptr,
    nullptr,
};

PTZSocketServer *with_source(PTZSocketServer *self) {
  if (self == nullptr) return nullptr;
  self->context = g_main_context_ref(g_main_context_default());
  GSource *base = g_source_new(&source_functions, sizeof(PTZSocketServerSource));
  g_source_set_static_name(base, "PTZSocketServer");
  self->source = server_source(base);
  self->source->fd = self->parent_instance.fd;
  self->source->server = self;
  self->source->clients = nullptr;
  watch(self->source, self->source->fd, self->source->tag);
  g_source_set_can_recurse(base, TRUE);
  g_source_attach(base, self->context);
  return self;
}

gssize server_read(PTZSocket *, gint fd, gpointer buffer, gsize length, gint) {
  const gssize count = read(fd, buffer, length);
  return count < 1 ? -1 : count;
}

gpointer server_get_reply_context(PTZSocketServer *server, PTZSocketServerClient *client) {
  plain_reply_context = {client, server};
  return &plain_reply_context;
}

gboolean server_send(gpointer reply_context, gconstpointer data, guint32 length) {
  auto *context = static_cast<PTZSocketServerReplyContext *>(reply_context);
  if (context->client == nullptr) return FALSE;
  auto *socket = PTZ_SOCKET(context->server);
  const gssize sent = PTZ_SOCKET_GET_CLASS(socket)->write(socket, context->client->fd, data, length, send_timeout_ms);
  if (static_cast<gint>(sent) >= 0) return TRUE;
  if (errno != EAGAIN && errno != EINTR) ptz_socket_server_close(context->server, context->client);
  return FALSE;
}

}  // namespace

PTZSocketServerPrivate *ptz::server_state(PTZSocketServer *server) {
  return static_cast<PTZSocketServerPrivate *>(ptz_socket_server_get_instance_private(server));
}

guint32 ptz::connection_at(PTZSocketServer *server, gint fd) {
  const auto &connections = server_state(server)->connections;
  return fd >= 0 && static_cast<std::size_t>(fd) < connections.size() ? connections[static_cast<std::size_t>(fd)] : 0;
}

void ptz::close_client_at(PTZSocketServer *server, gint fd) {
  GList *link = link_holding(server->source, fd);
  if (link != nullptr) ptz_socket_server_close(server, client_of(link));
}

static void ptz_socket_server_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_SERVER(object);
  if (auto *source = self->source) {
    stop_watching(source, source->tag);
    while (source->clients != nullptr) ptz_socket_server_close(self, client_of(source->clients));
    g_source_destroy(&source->source);
    g_source_unref(&source->source);
    self->source = nullptr;
  }
  if (plain_reply_context.server == self) plain_reply_context = {nullptr, nullptr};
  if (self->context != nullptr) {
    g_main_context_unref(self->context);
    self->context = nullptr;
  }
  std::destroy_at(ptz::server_state(self));
  G_OBJECT_CLASS(ptz_socket_server_parent_class)->finalize(object);
}

static void ptz_socket_server_init(PTZSocketServer *self) {
  std::construct_at(ptz::server_state(self));
  self->source = nullptr;
  self->context = nullptr;
}

static void ptz_socket_server_class_init(PTZSocketServerClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_server_finalize;
  PTZ_SOCKET_CLASS(klass)->read = server_read;
  klass->send = server_send;
  klass->get_reply_context = server_get_reply_context;
}

PTZSocketServer *ptz_socket_server_new(GType object_type, const gchar *path, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET_SERVER), NULL);
  g_return_val_if_fail(path != NULL, NULL);
  return with_source(PTZ_SOCKET_SERVER(ptz_socket_new(object_type, PTZ_SOCKET_MODE_SERVER, path, type)));
}

PTZSocketServer *ptz_socket_server_fd_new(GType object_type, gint fd, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET_SERVER), NULL);
  return with_source(PTZ_SOCKET_SERVER(ptz_socket_fd_new(object_type, PTZ_SOCKET_MODE_SERVER, fd, type)));
}

void ptz_socket_server_register_callback(PTZSocketServer *server, PTZSocketServerCallback callback,
                                         gpointer user_data) {
  g_return_if_fail(PTZ_IS_SOCKET_SERVER(server));
  g_source_set_callback(&server->source->source, G_SOURCE_FUNC(callback), user_data, nullptr);
}

gboolean ptz_socket_server_send(gpointer reply_context, gconstpointer data, guint32 length) {
  if (reply_context == nullptr) return TRUE;
  // Every kind of context names its server in the same place.
  auto *server = static_cast<PTZSocketServerReplyContext *>(reply_context)->server;
  g_return_val_if_fail(PTZ_IS_SOCKET_SERVER(server), FALSE);
  return PTZ_SOCKET_SERVER_GET_CLASS(server)->send(reply_context, data, length);
}

void ptz_socket_server_close(PTZSocketServer *server, PTZSocketServerClient *client) {
  g_return_if_fail(PTZ_IS_SOCKET_SERVER(server));
  auto *source = server->source;
  GList *link = g_list_find(source->clients, client);
  g_return_if_fail(link != NULL);
  auto *state = ptz::server_state(server);
  if (state->next_turn == client) state->next_turn = link->next != nullptr ? client_of(link->next) : nullptr;
  if (plain_reply_context.client == client) plain_reply_context.client = nullptr;

  stop_watching(source, client->tag);
  const gint fd = client->fd;
  if (fd >= 0) {
    if (ptz::connection_at(server, fd) != 0) state->connections[static_cast<std::size_t>(fd)] = 0;
    if (state->client_closed != nullptr) state->client_closed(server, fd);
    if (is_own_descriptor(source, fd)) {
      stop_watching(source, source->tag);
      source->fd = server->parent_instance.fd = -1;
    }
    if (close(fd) < 0) {
      log_func(LOG_ERR, "Failed to close client fd %d %m", fd);
    } else {
      client->fd = -1;
    }
  }
  source->clients = g_list_delete_link(source->clients, link);
  g_slice_free(PTZSocketServerClient, client);
}

void ptz_socket_server_unref(gpointer reply_context) {
  g_return_if_fail(reply_context != NULL);
  g_object_unref(static_cast<PTZSocketServerReplyContext *>(reply_context)->server);
}
