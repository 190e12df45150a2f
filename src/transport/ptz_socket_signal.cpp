#include "ptz_socket_signal.h"

#include <cstring>
#include <type_traits>

#include "base/check.h"

static_assert(std::is_standard_layout_v<PTZSocketSignal> && sizeof(PTZSocketSignal) == sizeof(PTZSocket));

G_DEFINE_TYPE(PTZSocketSignal, ptz_socket_signal, PTZ_TYPE_SOCKET)

static constexpr gint emit_timeout_ms = 100;

static void ptz_socket_signal_finalize(GObject *object) {
  G_OBJECT_CLASS(ptz_socket_signal_parent_class)->finalize(object);
}

static void ptz_socket_signal_init(PTZSocketSignal *) {}

static void ptz_socket_signal_class_init(PTZSocketSignalClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_signal_finalize;
}

PTZSocketSignal *ptz_socket_signal_new(const gchar *path, gint type) {
  return PTZ_SOCKET_SIGNAL(ptz_socket_new(PTZ_TYPE_SOCKET_SIGNAL, PTZ_SOCKET_MODE_CLIENT, path, type));
}

void ptz_socket_signal_emit(PTZSocketSignal *self, const gchar *text) {
  auto *socket = reinterpret_cast<PTZSocket *>(self);
  if (socket == nullptr || socket->fd == -1) return;
  g_return_if_fail(text != NULL);
  const auto *klass = PTZ_SOCKET_GET_CLASS(socket);
  const gsize length = std::strlen(text) + 1;
  gsize sent = 0;
  while (sent < length) {
    // A repeat sends the whole text anew: a receiver can make sense of a text that starts again, not of its tail.
    const gssize result = klass->write(socket, socket->fd, text, length, emit_timeout_ms);
    if (result <= 0) {
      klass->add_retry(socket);
      return;
    }
    sent += static_cast<gsize>(result);
  }
  if (sent > length) klass->add_retry(socket);  // the receiver has seen a fragment: begin with a new connection
}
