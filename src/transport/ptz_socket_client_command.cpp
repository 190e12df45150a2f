#include "ptz_socket_client_command.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/check.h"
#include "base/clock.h"
#include "base/descriptor_flags.h"
#include "base/handles.h"
#include "transport/frame_header.h"
#include "transport/socket_client_private.h"

static_assert(std::is_standard_layout_v<PTZSocketClientCommand>);
static_assert(offsetof(PTZSocketClientCommand, fill) == sizeof(PTZSocketClient));

struct PTZSocketClientCommandPrivate {
  GRecMutex receiving;                        // guards the assembly state and the two flags
  GMutex sending;                             // the header and the body of one frame stay together
  std::atomic<GThread *> expiring = nullptr;  // holds the mutex of the pending requests while a callback runs
  std::atomic<int> callbacks_running = 0;
  bool deferring = false;    // replies to asynchronous requests go to the main loop
  bool out_of_step = false;  // a frame had a length that cannot be: what follows makes no sense
};

G_DEFINE_TYPE_WITH_PRIVATE(PTZSocketClientCommand, ptz_socket_client_command, PTZ_TYPE_SOCKET_CLIENT)

namespace {

using namespace ptz::frame;

constexpr guint reply_timeout_s = 360;
constexpr gint64 sync_timeout_ms = 10'000;
constexpr int drained_frames = 11;

struct PendingRequest {
  gpointer context;
  guint32 message_id;
  timespec deadline;
};

struct DeferredReply {
  GWeakRef client;  // weak: the client may go before the main loop comes to the reply
  guint8 frame[PTZ_SOCKET_FRAME_MAX];
  guint32 length;
};

PTZSocketClientCommandPrivate *private_of(PTZSocketClientCommand *self) {
  return static_cast<PTZSocketClientCommandPrivate *>(ptz_socket_client_command_get_instance_private(self));
}

gint descriptor_of(const PTZSocketClientCommand *self) { return self->parent_instance.parent_instance.fd; }

timespec now_or_zero() {
  timespec now = {};
  if (clock_gettime(CLOCK_MONOTONIC, &now) < 0) {
    syslog(LOG_ERR, "clock_gettime failed %m");
    now = {};
  }
  return now;
}

// The lock of the pending requests. The expiry timer holds it while a callback runs, which may well send again: in
// that thread it counts as held.
class PendingLock {
  PTZSocketClientCommand *self_;
  bool locked_;

 public:
  [[nodiscard]] explicit PendingLock(PTZSocketClientCommand *self)
      : self_(self), locked_(private_of(self)->expiring != g_thread_self()) {
    if (locked_) g_mutex_lock(&self_->mutex);
  }
  PendingLock(PendingLock &&) = delete;
  ~PendingLock() {
    if (locked_) g_mutex_unlock(&self_->mutex);
  }
};

enum class Waiting { yes, no };

class ReceiveLock {
  GRecMutex *mutex_;

 public:
  [[nodiscard]] ReceiveLock(GRecMutex *mutex, Waiting waiting) : mutex_(mutex) {
    if (waiting == Waiting::yes) {
      g_rec_mutex_lock(mutex_);
    } else if (!g_rec_mutex_trylock(mutex_)) {
      mutex_ = nullptr;
    }
  }
  ReceiveLock(ReceiveLock &&) = delete;
  ~ReceiveLock() { unlock(); }
  explicit operator bool() const { return mutex_ != nullptr; }
  void unlock() {
    if (mutex_ != nullptr) g_rec_mutex_unlock(std::exchange(mutex_, nullptr));
  }
};

// receiving held
void forget_frame(PTZSocketClientCommand *self) {
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
}

// receiving held. The stream has ended or makes no sense from here on.
void give_up_stream(PTZSocketClientCommand *self) {
  forget_frame(self);
  ptz_socket_client_remove_poll(PTZ_SOCKET_CLIENT(self));
}

bool is_silent(int read_error) { return read_error == EAGAIN || read_error == EPIPE || read_error == ECONNRESET; }

// receiving held. Behind a length that cannot be, anything might pass for a frame: nothing is read until somebody has
// deliberately started the watch again.
bool is_out_of_step(PTZSocketClientCommand *self) {
  auto *state = private_of(self);
  if (state->out_of_step && ptz::is_watched(PTZ_SOCKET_CLIENT(self))) state->out_of_step = false;
  return state->out_of_step;
}

// receiving held. Returns the bytes read, 0 at the end of the stream, -1 with errno on an error, such as EAGAIN where
// nothing has followed the header yet: what was read is kept.
gssize ptz_socket_client_command_read_fd(PTZSocketClientCommand *self, gint fd) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (is_out_of_step(self)) {
    errno = EBADMSG;
    return -1;
  }
  gssize total = 0;
  if (self->expected == PTZ_SOCKET_FRAME_UNKNOWN) {
    const gssize count = read(fd, self->buffer + self->fill, length_size);
    if (count < 0) {
      const int error = errno;
      if (!is_silent(error)) log_func(LOG_WARNING, "Unexpected error reading header: %s", std::strerror(error));
      errno = error;
      return -1;
    }
    if (count == 0) {
      give_up_stream(self);
      return 0;
    }
    self->fill += static_cast<guint32>(count);
    total = count;
    if (self->fill < length_size) return total;
    self->expected = length_of(self->buffer);
    if (!can_be_length(self->expected)) {
      log_func(LOG_WARNING, "A frame cannot have a length of %u", self->expected);
      give_up_stream(self);
      private_of(self)->out_of_step = true;
      errno = EBADMSG;
      return -1;
    }
  }
  const gssize count = read(fd, self->buffer + self->fill, self->expected - self->fill);
  if (count < 0) {
    const int error = errno;
    if (!is_silent(error)) log_func(LOG_WARNING, "Unexpected error reading body: %s", std::strerror(error));
    errno = error;
    return -1;
  }
  if (count == 0) {
    give_up_stream(self);
    return total;
  }
  self->fill += static_cast<guint32>(count);
  return total + count;
}

// receiving held
bool frame_complete(const PTZSocketClientCommand *self) { return self->fill == self->expected; }

GList *find_pending(PTZSocketClientCommand *self, guint32 message_id) {
  for (GList *link = self->pending; link != nullptr; link = link->next) {
    const auto *request = static_cast<const PendingRequest *>(link->data);
    if (request != nullptr && request->message_id == message_id) return link;
  }
  return nullptr;
}

PendingRequest *take_pending(PTZSocketClientCommand *self, guint32 message_id) {
  const PendingLock lock(self);
  GList *link = find_pending(self, message_id);
  if (link == nullptr) return nullptr;
  auto *request = static_cast<PendingRequest *>(link->data);
  self->pending = g_list_delete_link(self->pending, link);
  return request;
}

// No lock of the client held: the callback may send again, or drop the client.
bool handle_reply(PTZSocketClientCommand *self, guint8 *frame, guint32 length) {
  const auto *client = PTZ_SOCKET_CLIENT(self);
  if (client->callback == nullptr || length < header_size) return false;
  auto *request = take_pending(self, message_id_of(frame));
  if (request == nullptr) return false;
  const auto keep = ptz::share(self);
  auto *state = private_of(self);
  ++state->callbacks_running;
  client->callback(request->context, frame + header_size, static_cast<guint32>(length - header_size));
  --state->callbacks_running;
  g_slice_free(PendingRequest, request);
  return true;
}

// Default main context.
gboolean deliver_deferred(gpointer user_data) {
  auto *reply = static_cast<DeferredReply *>(user_data);
  {
    const ptz::Object<PTZSocketClientCommand> client(
        static_cast<PTZSocketClientCommand *>(g_weak_ref_get(&reply->client)));
    if (client != nullptr) handle_reply(client.get(), reply->frame, reply->length);
  }
  g_weak_ref_clear(&reply->client);
  g_free(reply);
  return G_SOURCE_REMOVE;
}

// Not waited for: whoever holds the lock may be the expiry timer, whose callback may be waiting for this thread. A
// reply that turns out to be nobody's is then dropped on the main loop.
bool may_be_pending(PTZSocketClientCommand *self, guint32 message_id) {
  if (!g_mutex_trylock(&self->mutex)) return true;
  const bool found = find_pending(self, message_id) != nullptr;
  g_mutex_unlock(&self->mutex);
  return found;
}

void defer_reply(PTZSocketClientCommand *self, const guint8 *frame, guint32 length) {
  if (!may_be_pending(self, message_id_of(frame))) return;
  auto *reply = g_new0(DeferredReply, 1);
  g_weak_ref_init(&reply->client, self);
  std::memcpy(reply->frame, frame, length);
  reply->length = length;
  g_idle_add(deliver_deferred, reply);
}

gssize command_read(PTZSocket *socket, gint fd, gpointer out, gsize out_size, gint) {
  auto *self = PTZ_SOCKET_CLIENT_COMMAND(socket);
  auto *state = private_of(self);
  ReceiveLock lock(&state->receiving, Waiting::no);
  if (!lock) return 0;  // a synchronous call reads the socket
  if (ptz_socket_client_command_read_fd(self, fd) < 0) return -1;
  if (!frame_complete(self)) return 0;
  // The callback may send, and so receive into the buffer again, while it looks at the body: it gets a copy.
  guint8 own_copy[PTZ_SOCKET_FRAME_MAX];
  const guint32 length = self->expected;
  const gsize copied = out != nullptr ? std::min<gsize>(out_size, length) : 0;
  if (copied > 0) std::memcpy(out, self->buffer, copied);
  auto *frame = copied == length ? static_cast<guint8 *>(out) : own_copy;
  if (frame == own_copy) std::memcpy(own_copy, self->buffer, length);
  forget_frame(self);
  const bool defer = state->deferring;
  lock.unlock();
  if (defer) {
    defer_reply(self, frame, length);
  } else {
    handle_reply(self, frame, length);
  }
  return static_cast<gssize>(copied);
}

// Replies that have arrived make room for the answer to the next request. Not from within a callback: each would
// nest another.
void drain(PTZSocketClientCommand *self) {
  if (private_of(self)->callbacks_running > 0) return;
  auto *socket = PTZ_SOCKET(self);
  const auto read_operation = PTZ_SOCKET_GET_CLASS(socket)->read;
  for (int frames = 0; frames < drained_frames; ++frames) {
    guint8 scratch[length_size];
    if (static_cast<gint>(read_operation(socket, socket->fd, scratch, 1, 0)) <= 0) break;
  }
}

enum class Sent { whole, nothing, part };

Sent send_piece(PTZSocketClientCommand *self, gconstpointer data, gsize length) {
  const gssize count = ptz::send_counted(PTZ_SOCKET_CLIENT(self), data, length);
  if (count < 0) return Sent::nothing;
  return count > 0 && static_cast<gsize>(count) < length ? Sent::part : Sent::whole;
}

bool send_frame(PTZSocketClientCommand *self, guint32 message_id, gconstpointer body, guint32 length) {
  const guint32 header[] = {static_cast<guint32>(length + header_size), message_id};
  const ptz::MutexLock lock(&private_of(self)->sending);
  const Sent header_sent = send_piece(self, header, sizeof header);
  if (header_sent == Sent::nothing) return false;
  const Sent body_sent = header_sent == Sent::whole ? send_piece(self, body, length) : Sent::nothing;
  if (header_sent == Sent::whole && body_sent == Sent::whole) return true;
  if (header_sent == Sent::whole && length == 0) return false;  // the header was the whole frame
  // The peer takes whatever follows for the rest of this frame, so nothing may: not from here, nor from a retry.
  log_func(LOG_WARNING, "Message %u was sent only in part, shutting the connection down", message_id);
  ptz_socket_client_remove_poll(PTZ_SOCKET_CLIENT(self));
  shutdown(descriptor_of(self), SHUT_RDWR);
  return false;
}

guint32 take_message_id(PTZSocketClientCommand *self) { return std::atomic_ref(self->next_id).fetch_add(1); }

// mutex held
void start_expiry_timer(PTZSocketClientCommand *self, guint seconds);

void expire(PTZSocketClientCommand *self, PendingRequest *request) {
  auto *state = private_of(self);
  const auto *client = PTZ_SOCKET_CLIENT(self);
  GThread *outer = state->expiring.exchange(g_thread_self());
  ++state->callbacks_running;
  if (client->callback != nullptr) {
    client->callback(request->context, nullptr, 0);
    g_slice_free(PendingRequest, request);
  } else {
    cleanup_table_entry(request, self);
  }
  --state->callbacks_running;
  state->expiring = outer;
}

// Default main context.
gboolean ptz_socket_client_command_cmd_timeout(gpointer user_data) {
  if (user_data == nullptr) return FALSE;
  const auto keep = ptz::share(static_cast<PTZSocketClientCommand *>(user_data));
  auto *self = keep.get();
  const PendingLock lock(self);
  self->timeout_source = 0;
  if (self->pending == nullptr) return FALSE;
  timespec now = now_or_zero();
  auto *oldest = static_cast<PendingRequest *>(self->pending->data);
  if (oldest == nullptr) {
    log_func(LOG_ERR, "Entry without data");
    self->pending = g_list_delete_link(self->pending, self->pending);
  } else if (now.tv_sec >= oldest->deadline.tv_sec) {
    // Taken out first: the callback may send and receive, and must not meet its own request again.
    self->pending = g_list_delete_link(self->pending, self->pending);
    expire(self, oldest);
    now = now_or_zero();  // the callback may have taken its time, which the next request does not wait in addition
  }
  if (self->pending == nullptr) return FALSE;
  const auto *next = static_cast<const PendingRequest *>(self->pending->data);
  if (next == nullptr) return FALSE;
  if (self->timeout_source != 0) g_source_remove(self->timeout_source);  // of a request that the callback sent
  start_expiry_timer(self, static_cast<guint>(std::max<gint64>(next->deadline.tv_sec - now.tv_sec, 0)));
  return FALSE;
}

void start_expiry_timer(PTZSocketClientCommand *self, guint seconds) {
  self->timeout_source = g_timeout_add_seconds(seconds, ptz_socket_client_command_cmd_timeout, self);
  if (seconds > 0) return;
  // A timer of whole seconds may come up to one later, but what is due is due at once.
  GSource *timer = g_main_context_find_source_by_id(nullptr, self->timeout_source);
  if (timer != nullptr) g_source_set_ready_time(timer, 0);
}

void add_pending(PTZSocketClientCommand *self, gpointer context, guint32 message_id) {
  auto *request = g_slice_new(PendingRequest);
  *request = {context, message_id, now_or_zero()};
  request->deadline.tv_sec += reply_timeout_s;
  const PendingLock lock(self);
  self->pending = g_list_append(self->pending, request);
}

// As select(2), for any descriptor.
int wait_readable(gint fd, gint64 timeout_ms) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  timeval timeout = {static_cast<time_t>(timeout_ms / 1000), static_cast<suseconds_t>(timeout_ms % 1000 * 1000)};
  if (fd < FD_SETSIZE) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    return select(fd + 1, &readable, nullptr, nullptr, &timeout);
  }
  // The kernel takes a set of any size; fd_set is only the smallest that the C library allows.
  std::vector<fd_set> readable(static_cast<std::size_t>(fd) / FD_SETSIZE + 1);
  FD_SET(fd % FD_SETSIZE, &readable.back());
  return select(fd + 1, readable.data(), nullptr, nullptr, &timeout);
}

// receiving held. The reply stays in the buffer; false when it did not come.
bool await_reply(PTZSocketClientCommand *self, guint32 message_id) {
  const gint fd = descriptor_of(self);
  const timespec start = now_or_zero();
  bool failure_told = false;
  for (gint64 remaining_ms = sync_timeout_ms; remaining_ms > 0;
       remaining_ms = sync_timeout_ms - ptz::elapsed_ms(start, now_or_zero())) {
    const int ready = wait_readable(fd, remaining_ms);
    if (ready < 0) {
      const bool by_signal = errno == EINTR;  // which is told once, and is no reason to give the reply up
      if (!std::exchange(failure_told, true)) {
        syslog(LOG_WARNING, "%s: Error waiting for sync reply from socket! %m", "ptz_socket_client_command_sync_send");
      }
      if (by_signal) continue;
      return false;
    }
    if (ready == 0) continue;
    const gssize count = ptz_socket_client_command_read_fd(self, fd);
    if (count == 0 || (count < 0 && errno != EAGAIN)) return false;
    if (!frame_complete(self)) continue;
    if (message_id_of(self->buffer) == message_id) return true;
    defer_reply(self, self->buffer, self->expected);
    forget_frame(self);
  }
  return false;
}

}  // namespace

void cleanup_table_entry(gpointer entry, gpointer client) {
  auto *request = static_cast<PendingRequest *>(entry);
  const auto *self = static_cast<const PTZSocketClientCommand *>(client);
  if (request == nullptr) return;
  if (self->free_callback != nullptr) self->free_callback(request->context, self->free_user_data);
  g_slice_free(PendingRequest, request);
}

static void ptz_socket_client_command_finalize(GObject *object) {
  auto *self = PTZ_SOCKET_CLIENT_COMMAND(object);
  auto *state = private_of(self);
  if (self->timeout_source != 0) {
    g_source_remove(self->timeout_source);
    self->timeout_source = 0;
  }
  g_free(self->buffer);
  self->buffer = nullptr;
  if (self->pending != nullptr) {
    g_list_foreach(self->pending, cleanup_table_entry, self);
    g_list_free(self->pending);
    self->pending = nullptr;
  }
  g_mutex_clear(&self->mutex);
  g_mutex_clear(&state->sending);
  g_rec_mutex_clear(&state->receiving);
  std::destroy_at(state);
  G_OBJECT_CLASS(ptz_socket_client_command_parent_class)->finalize(object);
}

static void ptz_socket_client_command_init(PTZSocketClientCommand *self) {
  auto *state = std::construct_at(private_of(self));
  g_rec_mutex_init(&state->receiving);
  g_mutex_init(&state->sending);
  self->fill = 0;
  self->expected = PTZ_SOCKET_FRAME_UNKNOWN;
  self->buffer = static_cast<guint8 *>(g_malloc(PTZ_SOCKET_FRAME_MAX));
  self->next_id = 0;
  self->pending = nullptr;
  self->timeout_source = 0;
  self->free_user_data = nullptr;
  self->free_callback = nullptr;
}

static void ptz_socket_client_command_class_init(PTZSocketClientCommandClass *klass) {
  G_OBJECT_CLASS(klass)->finalize = ptz_socket_client_command_finalize;
  PTZ_SOCKET_CLASS(klass)->read = command_read;
}

PTZSocketClientCommand *ptz_socket_client_command_new(const gchar *path, gint fd, gint type) {
  // Bounded waits need it, and what is drained before a send must not be waited for.
  if (path == nullptr && fd >= 0) (void)ptz::set_non_blocking(fd);
  auto *self = PTZ_SOCKET_CLIENT_COMMAND(ptz_socket_client_new(PTZ_TYPE_SOCKET_CLIENT_COMMAND, path, fd, type));
  g_mutex_init(&self->mutex);
  return self;
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
  drain(client);
  const guint32 message_id = take_message_id(client);
  // Before it is sent: another thread may read the reply before this one comes to it.
  if (request_context != nullptr) add_pending(client, request_context, message_id);
  const bool sent = send_frame(client, message_id, body, length);
  if (request_context == nullptr) return sent ? TRUE : FALSE;
  if (!sent) {
    auto *request = take_pending(client, message_id);
    if (request == nullptr) return TRUE;  // a peer that knew the id has answered already: the context is no longer ours
    g_slice_free(PendingRequest, request);
    return FALSE;
  }
  const PendingLock lock(client);
  if (client->timeout_source == 0) start_expiry_timer(client, reply_timeout_s);
  return TRUE;
}

gboolean ptz_socket_client_command_sync_send(PTZSocketClientCommand *client, gconstpointer body, guint32 length,
                                             gpointer reply_buffer, guint32 *reply_length_out) {
  g_return_val_if_fail(PTZ_IS_SOCKET_CLIENT_COMMAND(client), FALSE);
  g_return_val_if_fail(length <= PTZ_SOCKET_BODY_MAX, FALSE);
  g_return_val_if_fail(reply_buffer != NULL, FALSE);
  g_return_val_if_fail(reply_length_out != NULL, FALSE);
  auto *state = private_of(client);
  auto *base = PTZ_SOCKET_CLIENT(client);
  const guint32 message_id = take_message_id(client);
  const ReceiveLock lock(&state->receiving, Waiting::yes);
  is_out_of_step(client);  // asked while the watch still tells
  ptz_socket_client_remove_poll(base);
  state->deferring = true;
  drain(client);
  state->deferring = false;
  if (!send_frame(client, message_id, body, length)) {
    if (!state->out_of_step) ptz_socket_client_add_poll(base);
    return FALSE;
  }
  const bool answered = await_reply(client, message_id);
  if (answered) {
    const gsize reply_length = client->expected - header_size;
    *reply_length_out = static_cast<guint32>(reply_length);
    std::memcpy(reply_buffer, client->buffer + header_size, reply_length);
    forget_frame(client);
  } else {
    log_func(LOG_WARNING, "Timeout waiting for response to message %d!", static_cast<int>(message_id));
  }
  if (!state->out_of_step) ptz_socket_client_add_poll(base);
  return answered ? TRUE : FALSE;
}
