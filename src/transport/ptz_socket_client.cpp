#include "ptz_socket_client.h"

#include <unistd.h>
#include <cerrno>
#include <type_traits>

#include "base/check.h"
#include "base/handles.h"
#include "ptz_socket_frame.h"
#include "transport/end_of_stream.h"
#include "transport/endpoint_use.h"
#include "transport/socket_client_private.h"
#include "transport/socket_private.h"

static_assert(std::is_standard_layout_v<PTZSocketClient>);
static_assert(offsetof(PTZSocketClient, source) == sizeof(PTZSocket));

G_DEFINE_TYPE(PTZSocketClient, ptz_socket_client, PTZ_TYPE_SOCKET)

namespace {

constexpr gint send_timeout_ms = 1000;

// Default main context.
gboolean descriptor_ready(gpointer user_data) {
  const ptz::EndpointUse use(g_main_current_source(), user_data);  // the callback may drop the last other reference
  auto *self = use.get();
  if (self == nullptr) return G_SOURCE_CONTINUE;
  auto *client = reinterpret_cast<PTZSocketClient *>(self);
  const gint fd = ptz_file_g_source_get_fd(client->source);
  guint8 buffer[PTZ_SOCKET_FRAME_MAX];
  errno = 0;
  const gint result = static_cast<gint>(PTZ_SOCKET_GET_CLASS(self)->read(self, fd, buffer, sizeof buffer, 0));
  // An operation of ours that returns 0 sets errno; one of a subclass may return 0 at an end of file for ever.
  const bool may_have_ended = result < 0 || (result == 0 && errno == 0);
  if (may_have_ended && ptz::nothing_more_to_read(fd, errno)) ptz_file_g_source_remove_poll(client->source);
  return G_SOURCE_CONTINUE;
}

gssize client_read(PTZSocket *socket, gint fd, gpointer buffer, gsize length, gint) {
  const gssize count = read(fd, buffer, length);
  if (count < 1) return -1;
  const auto *self = PTZ_SOCKET_CLIENT(socket);
  if (self->callback != nullptr) self->callback(self->user_data, buffer, static_cast<guint32>(count));
  return count;
}

}  // namespace

static void ptz_socket_client_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_CLIENT(object);
  if (self->source != nullptr) {
    ptz::destroy_descriptor_source(self->source);
    g_source_unref(self->source);
    self->source = nullptr;
  }
  if (self->context != nullptr) {
    g_main_context_unref(self->context);
    self->context = nullptr;
  }
  G_OBJECT_CLASS(ptz_socket_client_parent_class)->finalize(object);
}

static void ptz_socket_client_init(PTZSocketClient *self) {
  self->callback = nullptr;
  self->user_data = nullptr;
}

static void ptz_socket_client_class_init(PTZSocketClientClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_client_finalize;
  PTZ_SOCKET_CLASS(klass)->read = client_read;
}

gssize ptz::send_counted(PTZSocketClient *client, gint fd, gconstpointer data, gsize length) {
  auto *self = reinterpret_cast<PTZSocket *>(client);
  const gint count = static_cast<gint>(PTZ_SOCKET_GET_CLASS(self)->write(self, fd, data, length, send_timeout_ms));
  if (count < 0) stop_watch(client);
  return count;
}

bool ptz::is_watched(PTZSocketClient *client) {
  auto *source = reinterpret_cast<PTZFileGSource *>(client->source);
  if (source == nullptr) return false;
  const MutexLock lock(&source->mutex);
  return source->tag != nullptr;
}

PTZSocketClient *ptz_socket_client_new(GType object_type, const gchar *path, gint fd, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET_CLIENT), NULL);
  auto *self = PTZ_SOCKET_CLIENT(ptz_socket_new(object_type, PTZ_SOCKET_MODE_CLIENT, path, type));
  auto *socket = PTZ_SOCKET(self);
  if (path == nullptr && fd >= 0) socket->fd = fd;
  self->context = g_main_context_ref(g_main_context_default());
  self->source = ptz_file_g_source_new(socket->fd);
  g_source_set_callback(self->source, descriptor_ready, self, nullptr);
  g_source_attach(self->source, self->context);
  return self;
}

void ptz_socket_client_register_callback(PTZSocketClient *client, PTZSocketClientCallback callback,
                                         gpointer user_data) {
  g_return_if_fail(PTZ_IS_SOCKET_CLIENT(client));
  client->callback = callback;
  client->user_data = user_data;
}

void ptz_socket_client_add_poll(PTZSocketClient *client) {
  g_return_if_fail(PTZ_IS_SOCKET_CLIENT(client));
  ptz::start_watch(client);
}

void ptz_socket_client_remove_poll(PTZSocketClient *client) {
  g_return_if_fail(PTZ_IS_SOCKET_CLIENT(client));
  ptz::stop_watch(client);
}

gboolean ptz_socket_client_async_send(PTZSocketClient *client, gconstpointer data, guint32 length) {
  g_return_val_if_fail(PTZ_IS_SOCKET_CLIENT(client), FALSE);
  return ptz::send_counted(client, ptz::descriptor_of(PTZ_SOCKET(client)), data, length) >= 0 ? TRUE : FALSE;
}
