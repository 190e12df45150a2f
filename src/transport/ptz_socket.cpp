#include "ptz_socket.h"

#include <unistd.h>
#include <csignal>
#include <cstddef>
#include <memory>
#include <optional>
#include <type_traits>

#include "base/check.h"
#include "transport/endpoint_use.h"
#include "transport/socket_private.h"

static_assert(std::is_standard_layout_v<PTZSocket> && std::is_standard_layout_v<PTZSocketClass>);
static_assert(offsetof(PTZSocket, socket) == sizeof(GObject));
static_assert(offsetof(PTZSocketClass, read) == sizeof(GObjectClass));

namespace {

struct PTZSocketPrivate {
  ptz::EndpointLifetime lifetime;
  std::optional<ptz::FileIdentity> own_file = {};  // of a server that listens
  bool keep_path = false;
};

}  // namespace

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocket, ptz_socket, G_TYPE_OBJECT)

namespace {

constexpr guint retry_interval_s = 1;

enum Property { property_socket = 1 };

PTZSocketPrivate *private_of(PTZSocket *self) {
  return static_cast<PTZSocketPrivate *>(ptz_socket_get_instance_private(self));
}

// Default main context.
gboolean retry_connection(gpointer user_data) {
  if (user_data == nullptr) return G_SOURCE_REMOVE;
  const ptz::EndpointUse use(g_main_current_source(), user_data);
  auto *self = use.get();
  if (self == nullptr) return G_SOURCE_CONTINUE;
  gint32 fd = ptz::descriptor_of(self);
  if (fd >= 0) {  // another timer, started by another thread while this one connected, has nothing left to do
    self->retry_source = 0;
    return G_SOURCE_REMOVE;
  }
  if (self->socket != nullptr) ptz::open_client_socket(self->socket, &fd, self->type);
  if (fd == -1) return G_SOURCE_CONTINUE;
  self->retry_source = 0;  // first: a thread that uses the descriptor may start another timer
  ptz::set_descriptor(self, fd);
  return G_SOURCE_REMOVE;
}

guint ptz_socket_add_retry(PTZSocket *self) {
  assert_in("ptz_socket.c", self->socket);
  if (self->fd >= 0) {
    close(self->fd);
    ptz::set_descriptor(self, -1);
  }
  if (self->retry_source == 0) self->retry_source = g_timeout_add_seconds(retry_interval_s, retry_connection, self);
  return self->retry_source;
}

// As GIO does: writing to a peer that has gone must not end a process that left the signal at its default.
void ignore_broken_pipes() {
  struct sigaction current = {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
      current.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

}  // namespace

static void ptz_socket_set_property(GObject *object, guint id, const GValue *value, GParamSpec *spec) {
  auto *self = PTZ_SOCKET(object);
  if (id != property_socket) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    return;
  }
  g_free(self->socket);
  self->socket = g_value_dup_string(value);
}

static void ptz_socket_get_property(GObject *object, guint id, GValue *value, GParamSpec *spec) {
  if (id != property_socket) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
    return;
  }
  g_value_set_string(value, PTZ_SOCKET(object)->socket);
}

static void ptz_socket_dispose(GObject *object) {
  G_OBJECT_CLASS(ptz_socket_parent_class)->dispose(object);
  private_of(PTZ_SOCKET(object))->lifetime.revive(PTZ_SOCKET(object));
}

void ptz_socket_finalize(GObject *object) {
  auto *self = PTZ_SOCKET(object);
  ptz::remove_source(self->retry_source);
  if (self->mode == PTZ_SOCKET_MODE_SERVER && self->socket != nullptr && !private_of(self)->keep_path) {
    unlink(self->socket);
  }
  if (self->socket != nullptr) {  // contract: a descriptor without a path stays open, its creator owns it
    if (self->fd >= 0) {
      close(self->fd);
      self->fd = -1;
    }
    g_free(self->socket);
    self->socket = nullptr;
  }
  private_of(self)->lifetime.end();
  std::destroy_at(private_of(self));
  G_OBJECT_CLASS(ptz_socket_parent_class)->finalize(object);
}

static void ptz_socket_init(PTZSocket *self) {
  std::construct_at(private_of(self))->lifetime.begin(self);
  self->socket = nullptr;
  self->fd = -1;
  self->retry_source = 0;
}

static void ptz_socket_class_init(PTZSocketClass *klass) {
  ignore_broken_pipes();
  auto *object_class = G_OBJECT_CLASS(klass);
  object_class->set_property = ptz_socket_set_property;
  object_class->get_property = ptz_socket_get_property;
  object_class->dispose = ptz_socket_dispose;
  object_class->finalize = ptz_socket_finalize;
  klass->read = ptz::socket_read;
  klass->write = ptz::socket_write;
  klass->add_retry = ptz_socket_add_retry;
  g_object_class_install_property(object_class, property_socket,
                                  g_param_spec_string("socket", "Socket", "Socket", nullptr, G_PARAM_WRITABLE));
}

ptz::EndpointLifetime &ptz::lifetime_of(PTZSocket *endpoint) { return private_of(endpoint)->lifetime; }

void ptz::keep_path_of_successor(PTZSocket *endpoint) {
  if (endpoint->socket == nullptr) return;
  const auto file = socket_at(endpoint->socket);
  private_of(endpoint)->keep_path = file && file != private_of(endpoint)->own_file;
}

PTZSocket *ptz_socket_new(GType object_type, gint mode, const gchar *path, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET), NULL);
  g_return_val_if_fail(mode != PTZ_SOCKET_MODE_SERVER || path != NULL, NULL);
  auto *self = PTZ_SOCKET(g_object_new(object_type, "socket", path, nullptr));
  self->mode = mode;
  self->type = type;
  switch (mode) {
    case PTZ_SOCKET_MODE_SERVER:
      private_of(self)->own_file = ptz::open_server_socket(self);
      break;
    case PTZ_SOCKET_MODE_CLIENT:
      if (path == nullptr) break;
      ptz::open_client_socket(self->socket, &self->fd, type);
      if (self->fd == -1) PTZ_SOCKET_GET_CLASS(self)->add_retry(self);
      break;
    default:
      assert_not_reached_in("ptz_socket.c");
  }
  return self;
}

PTZSocket *ptz_socket_fd_new(GType object_type, gint mode, gint fd, gint type) {
  g_return_val_if_fail(g_type_is_a(object_type, PTZ_TYPE_SOCKET), NULL);
  auto *self = PTZ_SOCKET(g_object_new(object_type, "socket", nullptr, nullptr));
  self->mode = mode;
  self->type = type;
  self->fd = fd;
  return self;
}
