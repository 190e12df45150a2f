#include "driver/reply.h"

#include <ptz_serialize.h>
#include <ptz_socket_frame.h>
#include <syslog.h>

#include <cstdarg>
#include <cstring>
#include <memory>
#include <utility>

#include "handles.h"
#include "protocol/message_codec.h"

using namespace ptz_kit;

namespace {
constexpr char internal_error[] = "the driver failed; its log says why";
enum State : gint { unanswered, deferred, answered, expired };
}  // namespace

// A reply leaves `unanswered` or `deferred` once, in any thread: to `answered` by an answer, to `expired` when its
// driver stops or its deadline passes. Its answer is delivered in the thread that made it, the one of the default main
// context: from another thread it goes there through an idle source. The context of the request belongs to the server
// until then, so a reply never outlives it undelivered.
struct _PTZKitReply {
  GObject parent_instance;
  GThread *thread;      // that made it
  ReplyTarget *target;  // null once the answer is delivered; that thread only
  Request request;      // does not change
  gint64 due_us;        // that thread only
  gint state;           // a State, atomic
};
struct _PTZKitReplyClass {
  GObjectClass parent_class;
};
G_DEFINE_FINAL_TYPE(PTZKitReply, ptz_kit_reply, G_TYPE_OBJECT)

namespace {

bool is_in_state(PTZKitReply *self, State state) { return g_atomic_int_get(&self->state) == state; }
bool is_pending(PTZKitReply *self) { return is_in_state(self, unanswered) || is_in_state(self, deferred); }

const char *name_of(const PTZKitReply *self) {
  const gchar *name = ptz_kit_command_name(self->request.command);
  return name != nullptr ? name : "unknown";
}

// An expired reply has been answered by the driver, so its owner has made no mistake.
bool may_answer(PTZKitReply *self) {
  if (is_in_state(self, answered)) g_critical("the request \"%s\" was answered before", name_of(self));
  return is_pending(self);
}

// Only one of several threads that answer succeeds.
bool leave_pending(PTZKitReply *self, State state) {
  return g_atomic_int_compare_and_exchange(&self->state, unanswered, state) != FALSE ||
         g_atomic_int_compare_and_exchange(&self->state, deferred, state) != FALSE;
}

void hand_over(PTZKitReply *self, std::span<const guint8> body) {
  ReplyTarget *target = std::exchange(self->target, nullptr);
  if (target != nullptr) target->deliver(self, body);
}

// Calls the function in the thread of the default main context. The reply lives until then.
void call_in_main_context(PTZKitReply *self, GBytes *body, void (*function)(PTZKitReply *, GBytes *)) {
  struct Call {
    Object<PTZKitReply> reply;
    Bytes body;
    void (*function)(PTZKitReply *, GBytes *);
  };
  auto *call = new Call{Object<PTZKitReply>(PTZ_KIT_REPLY(g_object_ref(self))), Bytes(body), function};
  const auto run = [](gpointer data) -> gboolean {
    const std::unique_ptr<Call> owned(static_cast<Call *>(data));
    owned->function(owned->reply.get(), owned->body.get());
    return G_SOURCE_REMOVE;
  };
  g_idle_add_full(G_PRIORITY_DEFAULT, run, call, nullptr);
}

void deliver(PTZKitReply *self, State state, std::span<const guint8> body) {
  if (!leave_pending(self, state)) {
    may_answer(self);
  } else if (g_thread_self() == self->thread) {
    hand_over(self, body);
  } else {
    call_in_main_context(self, g_bytes_new(body.data(), body.size()), [](PTZKitReply *reply, GBytes *bytes) {
      gsize length = 0;
      const auto *data = static_cast<const guint8 *>(g_bytes_get_data(bytes, &length));
      hand_over(reply, {data, length});
    });
  }
}

std::span<const guint8> bytes_of(const GArray *body) {
  return {reinterpret_cast<const guint8 *>(body->data), body->len};
}

Array error_body(PTZKitErrorCode code, const gchar *text) {
  constexpr gsize longest_text = PTZ_SOCKET_BODY_MAX - 2 * sizeof(guint32) - sizeof(guint16);
  Text valid(g_utf8_make_valid(text, -1));
  if (strlen(valid.get()) > longest_text) *g_utf8_find_prev_char(valid.get(), valid.get() + longest_text + 1) = '\0';
  const PTZKitErrorReply message = {static_cast<guint32>(code), valid.get()};
  Array body(ptz_serialize_create_array());
  ptz_kit_error_reply_write(&message, body.get(), nullptr);
  return body;
}

void deliver_error(PTZKitReply *self, PTZKitErrorCode code, const gchar *text) {
  deliver(self, answered, bytes_of(error_body(code, text).get()));
}

// Whether the body is a reply that the request may have.
bool is_reply(const PTZKitReply *self, std::span<const guint8> body, Error &error) {
  gint32 word = 0;
  ptz_kit_body_get_command(body.data(), body.size(), &word);
  const Command *command = find_command(self->request.command);
  if (word == PTZ_COMMAND_ERROR_REPLY) {
    ptz_kit_error_reply_free(ptz_kit_error_reply_read(body.data(), body.size(), out(error)));
  } else if (word != self->request.command || command == nullptr) {
    error.reset(g_error_new(PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "the body is of command %d", word));
  } else if (command->reply != 0) {
    const Layout &layout = tables.layouts[command->reply - 1];
    gpointer message = read_message(layout, body, out(error));
    const bool valid = message != nullptr && validate_message(layout, message, out(error)) != FALSE;
    free_message(layout, message);
    return valid;
  } else if (body.size() != sizeof word) {
    error.reset(g_error_new_literal(PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "the reply has no fields"));
  }
  return error == nullptr;
}

constexpr char dropped[] = "it was dropped without an answer";

}  // namespace

static void ptz_kit_reply_init(PTZKitReply *self) {
  self->thread = g_thread_self();
  self->due_us = G_MAXINT64;
}

// The driver still knows the object. So the last reference of another thread goes to the main context, which forgets
// it first.
static void ptz_kit_reply_dispose(GObject *object) {
  PTZKitReply *self = PTZ_KIT_REPLY(object);
  if (g_thread_self() == self->thread) {
    fail(self, dropped);
  } else {
    call_in_main_context(self, nullptr, [](PTZKitReply *reply, GBytes *) { fail(reply, dropped); });
  }
  G_OBJECT_CLASS(ptz_kit_reply_parent_class)->dispose(object);
}

static void ptz_kit_reply_class_init(PTZKitReplyClass *klass) {
  G_OBJECT_CLASS(klass)->dispose = ptz_kit_reply_dispose;
}

namespace ptz_kit {

PTZKitReply *make_reply(ReplyTarget &target, const Request &request) {
  auto *self = static_cast<PTZKitReply *>(g_object_new(PTZ_KIT_TYPE_REPLY, nullptr));
  self->target = &target;
  self->request = request;
  return self;
}

const Request &request_of(PTZKitReply *reply) { return reply->request; }

bool is_deferred(PTZKitReply *reply) { return is_in_state(reply, deferred); }

void answer(PTZKitReply *reply, gint32 command, gconstpointer message) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(reply));
  g_return_if_fail(message != NULL);
  if (!may_answer(reply)) return;
  if (command != reply->request.command) {
    g_critical("a request \"%s\" cannot have a reply to \"%s\"", name_of(reply), ptz_kit_command_name(command));
    return;
  }
  const Layout &layout = tables.layouts[find_command(command)->reply - 1];
  const Array body(ptz_serialize_create_array());
  Error error;
  if (write_message(layout, message, body.get(), out(error)) == FALSE) return fail(reply, error->message);
  if (validate_message(layout, message, out(error)) == FALSE) return fail(reply, error->message);
  deliver(reply, answered, bytes_of(body.get()));
}

void fail(PTZKitReply *reply, const char *reason) {
  if (!is_pending(reply)) return;
  syslog(LOG_ERR, "the request \"%s\" failed: %s", name_of(reply), reason);
  deliver_error(reply, PTZ_KIT_ERROR_CODE_INTERNAL, internal_error);
}

void expire(PTZKitReply *reply, const char *text) {
  leave_pending(reply, expired);
  if (reply->target != nullptr) hand_over(reply, bytes_of(error_body(PTZ_KIT_ERROR_CODE_INTERNAL, text).get()));
}

void set_due(PTZKitReply *reply, gint64 due_us) { reply->due_us = due_us; }
gint64 due_of(PTZKitReply *reply) { return reply->due_us; }

}  // namespace ptz_kit

gint32 ptz_kit_reply_get_command(PTZKitReply *self) {
  g_return_val_if_fail(PTZ_KIT_IS_REPLY(self), PTZ_COMMAND_ERROR_REPLY);
  return self->request.command;
}

gint64 ptz_kit_reply_get_peer_pid(PTZKitReply *self) {
  g_return_val_if_fail(PTZ_KIT_IS_REPLY(self), 0);
  return self->request.pid;
}

gint64 ptz_kit_reply_get_peer_uid(PTZKitReply *self) {
  g_return_val_if_fail(PTZ_KIT_IS_REPLY(self), -1);
  return self->request.uid;
}

gboolean ptz_kit_reply_is_answered(PTZKitReply *self) {
  g_return_val_if_fail(PTZ_KIT_IS_REPLY(self), FALSE);
  return is_pending(self) ? FALSE : TRUE;
}

void ptz_kit_reply_defer(PTZKitReply *self) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(self));
  if (may_answer(self)) g_atomic_int_compare_and_exchange(&self->state, unanswered, deferred);
}

void ptz_kit_reply_ok(PTZKitReply *self) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(self));
  if (!may_answer(self)) return;
  const Command *command = find_command(self->request.command);
  if (command == nullptr || command->reply != 0) {
    g_critical("the reply to \"%s\" has fields", name_of(self));
    return;
  }
  const Array body(ptz_serialize_create_array());
  ptz_serialize_32bit(body.get(), static_cast<guint32>(self->request.command));
  deliver(self, answered, bytes_of(body.get()));
}

void ptz_kit_reply_error(PTZKitReply *self, PTZKitErrorCode code, const gchar *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(g_strdup_vprintf(format, arguments));
  va_end(arguments);
  ptz_kit_reply_error_literal(self, code, text.get());
}

void ptz_kit_reply_error_literal(PTZKitReply *self, PTZKitErrorCode code, const gchar *text) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(self));
  g_return_if_fail(text != NULL);
  if (may_answer(self)) deliver_error(self, code, text);
}

void ptz_kit_reply_send_bytes(PTZKitReply *self, GBytes *body) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(self));
  g_return_if_fail(body != NULL);
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(body, &length));
  g_return_if_fail(length >= sizeof(guint32) && length <= PTZ_SOCKET_BODY_MAX);
  if (!may_answer(self)) return;
  Error error;
  if (!is_reply(self, {data, length}, error)) return fail(self, error->message);
  deliver(self, answered, {data, length});
}
