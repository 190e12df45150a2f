#include "ptz_socket_client_signal_data_ready.h"

#include <type_traits>

#include "base/check.h"
#include "base/handles.h"
#include "transport/end_of_stream.h"

static_assert(std::is_standard_layout_v<PTZSocketClientSignalDataReady>);
static_assert(sizeof(PTZSocketClientSignalDataReady) == sizeof(PTZSocketClient));

G_DEFINE_TYPE(PTZSocketClientSignalDataReady, ptz_socket_client_signal_data_ready, PTZ_TYPE_SOCKET_CLIENT)

// The callback drains the descriptor. It is also called once at the end of a stream, which lasts, as data do that no
// callback reads: then the watch stops, so that they do not wake the main loop forever.
static gssize announce_data(PTZSocket *socket, gint fd, gpointer, gsize length, gint) {
  const auto keep = ptz::share(PTZ_SOCKET_CLIENT(socket));  // the callback may drop the client
  auto *self = keep.get();
  const bool last_call = self->callback == nullptr || ptz::at_end_of_stream(fd);
  if (self->callback != nullptr) self->callback(self->user_data, nullptr, static_cast<guint32>(length));
  if (last_call) ptz_socket_client_remove_poll(self);
  return static_cast<gssize>(length);
}

static void ptz_socket_client_signal_data_ready_finalize(GObject *object) {
  G_OBJECT_CLASS(ptz_socket_client_signal_data_ready_parent_class)->finalize(object);
}

static void ptz_socket_client_signal_data_ready_init(PTZSocketClientSignalDataReady *) {}

static void ptz_socket_client_signal_data_ready_class_init(PTZSocketClientSignalDataReadyClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_client_signal_data_ready_finalize;
  PTZ_SOCKET_CLASS(klass)->read = announce_data;
}

PTZSocketClientSignalDataReady *ptz_socket_client_signal_data_ready_new(GType object_type, const gchar *path, gint fd,
                                                                        gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET_CLIENT_SIGNAL_DATA_READY), NULL);
  return PTZ_SOCKET_CLIENT_SIGNAL_DATA_READY(ptz_socket_client_new(object_type, path, fd, type));
}
