#include "driver/reply.h"

#include <ptz_serialize.h>
#include <ptz_socket_frame.h>
#include <syslog.h>

#include <cstdarg>
#include <cstring>

#include "handles.h"
#include "protocol/message_codec.h"

using namespace ptz_kit;

namespace {
enum class State : guint8 { open, deferred, answered, expired };
}

// Main context only. A reply leaves `open` or `deferred` once: to `answered` by an answer, to `expired` when its driver
// stops or its deadline passes. The context belongs to the server until the answer is sent, so a reply never outlives
// it unanswered.
struct _PTZKitReply {
  GObject parent_instance;
  ReplyTarget *target;
  Request request;
  gint64 due_us;
  State state;
};
struct _PTZKitReplyClass {
  GObjectClass parent_class;
};
G_DEFINE_TYPE(PTZKitReply, ptz_kit_reply, G_TYPE_OBJECT)

namespace {

constexpr char internal_error[] = "the driver failed; its log says why";

bool is_pending(const PTZKitReply *self) { return self->state == State::open || self->state == State::deferred; }

const char *name_of(const PTZKitReply *self) {
  const gchar *name = ptz_kit_command_name(self->request.command);
  return name != nullptr ? name : "unknown";
}

// An expired reply has been answered by the driver, so its owner has made no mistake.
bool may_answer(const PTZKitReply *self) {
  if (self->state == State::answered) g_critical("the request \"%s\" was answered before", name_of(self));
  return is_pending(self);
}

void deliver(PTZKitReply *self, State state, std::span<const guint8> body) {
  self->state = state;
  self->target->deliver(self, body);
}

std::span<const guint8> bytes_of(const GArray *body) {
  return {reinterpret_cast<const guint8 *>(body->data), body->len};
}

void deliver_error(PTZKitReply *self, State state, PTZKitErrorCode code, const gchar *text) {
  constexpr gsize longest_text = PTZ_SOCKET_BODY_MAX - 2 * sizeof(guint32) - sizeof(guint16);
  Text valid(g_utf8_make_valid(text, -1));
  if (strlen(valid.get()) > longest_text) *g_utf8_find_prev_char(valid.get(), valid.get() + longest_text + 1) = '\0';
  const PTZKitErrorReply message = {static_cast<guint32>(code), valid.get()};
  const Array body(ptz_serialize_create_array());
  if (ptz_kit_error_reply_write(&message, body.get(), nullptr) != FALSE) deliver(self, state, bytes_of(body.get()));
}

}  // namespace

static void ptz_kit_reply_init(PTZKitReply *self) { self->due_us = G_MAXINT64; }

static void ptz_kit_reply_dispose(GObject *object) {
  ptz_kit::fail(PTZ_KIT_REPLY(object), "it was dropped without an answer");
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

bool is_deferred(PTZKitReply *reply) { return reply->state == State::deferred; }

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
  deliver(reply, State::answered, bytes_of(body.get()));
}

void fail(PTZKitReply *reply, const char *reason) {
  if (!is_pending(reply)) return;
  syslog(LOG_ERR, "the request \"%s\" failed: %s", name_of(reply), reason);
  deliver_error(reply, State::answered, PTZ_KIT_ERROR_CODE_INTERNAL, internal_error);
}

void expire(PTZKitReply *reply, const char *text) {
  if (is_pending(reply)) deliver_error(reply, State::expired, PTZ_KIT_ERROR_CODE_INTERNAL, text);
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
  if (may_answer(self)) self->state = State::deferred;
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
  deliver(self, State::answered, bytes_of(body.get()));
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
  if (may_answer(self)) deliver_error(self, State::answered, code, text);
}

void ptz_kit_reply_send_bytes(PTZKitReply *self, GBytes *body) {
  g_return_if_fail(PTZ_KIT_IS_REPLY(self));
  g_return_if_fail(body != NULL);
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(body, &length));
  g_return_if_fail(length >= sizeof(guint32) && length <= PTZ_SOCKET_BODY_MAX);
  if (may_answer(self)) deliver(self, State::answered, {data, length});
}
