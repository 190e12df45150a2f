#include "ptz_socket_server.h"

#include <unistd.h>
#include <cerrno>
#include <type_traits>

#include "base/check.h"
#include "transport/endpoint_use.h"
#include "transport/plain_reply_context.h"
#include "transport/server_source.h"
#include "transport/socket_private.h"

static_assert(std::is_standard_layout_v<PTZSocketServer> && std::is_standard_layout_v<PTZSocketServerClass>);
static_assert(offsetof(PTZSocketServer, source) == sizeof(PTZSocket));
static_assert(offsetof(PTZSocketServerClass, send) == sizeof(PTZSocketClass));
static_assert(std::is_standard_layout_v<PTZSocketServerSource> && std::is_standard_layout_v<PTZSocketServerClient>);

G_DEFINE_TYPE(PTZSocketServer, ptz_socket_server, PTZ_TYPE_SOCKET)

namespace {

constexpr gint send_timeout_ms = 1000;

PTZSocketServer *with_source(PTZSocketServer *self) {
  if (self == nullptr) return nullptr;
  self->context = g_main_context_ref(g_main_context_default());
  self->source = ptz::ServerSource::create(self, self->context);
  return self;
}

gssize server_read(PTZSocket *, gint fd, gpointer buffer, gsize length, gint) {
  const gssize count = read(fd, buffer, length);
  return count < 1 ? -1 : count;
}

gpointer server_get_reply_context(PTZSocketServer *server, PTZSocketServerClient *client) {
  return ptz::set_plain_reply_context(server, client);
}

gboolean server_send(gpointer reply_context, gconstpointer data, guint32 length) {
  auto *context = static_cast<PTZSocketServerReplyContext *>(reply_context);
  if (context->client == nullptr) return FALSE;
  auto *socket = PTZ_SOCKET(context->server);
  const gssize sent = PTZ_SOCKET_GET_CLASS(socket)->write(socket, context->client->fd, data, length, send_timeout_ms);
  if (static_cast<gint>(sent) >= 0) return TRUE;
  const bool may_go_on = errno == EAGAIN || errno == EINTR;
  // An overridden write operation may have closed the client.
  if (!may_go_on && context->client != nullptr) ptz_socket_server_close(context->server, context->client);
  return FALSE;
}

// Does nothing if another thread runs the default main context: that thread may be walking the list. The source then
// closes the connections when GLib frees it.
void close_everything(PTZSocketServer *self) {
  if (!g_main_context_acquire(self->context)) return;
  auto *source = ptz::ServerSource::of(self);
  source->stop_listening();
  while (source->base.clients != nullptr) {
    ptz_socket_server_close(self, static_cast<PTZSocketServerClient *>(source->base.clients->data));
  }
  // A callback may have made another server on the same path after it dropped this one.
  if (source->dispatches > 0) ptz::keep_path_of_successor(PTZ_SOCKET(self));
  g_main_context_release(self->context);
}

}  // namespace

static void ptz_socket_server_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_SERVER(object);
  if (self->source != nullptr) {
    close_everything(self);
    ptz::destroy_source(&self->source->source);
    g_source_unref(&self->source->source);
    self->source = nullptr;
  }
  ptz::forget_server_in_plain_reply_context(self);
  if (self->context != nullptr) {
    g_main_context_unref(self->context);
    self->context = nullptr;
  }
  G_OBJECT_CLASS(ptz_socket_server_parent_class)->finalize(object);
}

static void ptz_socket_server_init(PTZSocketServer *self) {
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
  if (server->source == nullptr) return;  // a server that ptz_socket_new() has made serves no clients
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
  auto *source = ptz::ServerSource::of(server);
  GList *link = source != nullptr ? g_list_find(source->base.clients, client) : nullptr;
  g_return_if_fail(link != NULL);
  source->turns.forget(link);
  ptz::forget_client_in_plain_reply_context(client);
  source->stop_watching(client->tag);
  const gint fd = client->fd;
  if (fd >= 0) {
    if (source->is_own_descriptor(fd)) {
      source->stop_listening();
      source->base.fd = server->parent_instance.fd = -1;
    }
    if (close(fd) < 0) {
      log_func(LOG_ERR, "Failed to close client fd %d %m", fd);
    } else {
      client->fd = -1;
    }
  }
  source->forget(link);
}

void ptz_socket_server_unref(gpointer reply_context) {
  g_return_if_fail(reply_context != NULL);
  g_object_unref(static_cast<PTZSocketServerReplyContext *>(reply_context)->server);
}
