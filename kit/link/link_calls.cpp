#include "link/link_calls.h"

#include <ptz_kit_body.h>
#include <ptz_serialize.h>

#include "protocol/message_access.h"

namespace ptz_kit {
namespace {

using Body = std::span<const guint8>;

Body body_of(GBytes *bytes) {
  gsize length = 0;
  const auto *data = static_cast<const guint8 *>(g_bytes_get_data(bytes, &length));
  return {data, length};
}

const char *name_of_command(gint32 command) {
  const gchar *name = ptz_kit_command_name(command);
  return name != nullptr ? name : "call";
}

gint32 command_of(Body body) {
  gint32 command = no_command;
  ptz_kit_body_get_command(body.data(), body.size(), &command);
  return command;
}

void set_error(GError **error, Outcome outcome, gint32 command) {
  const auto set = [&](GQuark domain, gint code, const char *text) {
    g_set_error(error, domain, code, "%s: %s", name_of_command(command), text);
  };
  switch (outcome) {
    case Outcome::waiting:
    case Outcome::answered:
      g_assert_not_reached();
    case Outcome::not_connected:
      return set(PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED, "no driver is connected");
    case Outcome::lost:
      return set(PTZ_KIT_ERROR, PTZ_KIT_ERROR_LOST, "the connection ended before the reply");
    case Outcome::timed_out:
      return set(PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT, "no reply before the deadline");
    case Outcome::cancelled:
      return set(G_IO_ERROR, G_IO_ERROR_CANCELLED, "cancelled");
    case Outcome::busy:
      return set(PTZ_KIT_ERROR, PTZ_KIT_ERROR_BUSY, "too many requests are waiting");
  }
}

void set_malformed(GError **error, gint32 command, const char *problem) {
  g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s reply: %s", name_of_command(command), problem);
}

// True with an error if the driver has refused the request, or if its error reply cannot be read.
bool is_refusal(gint32 command, Body reply, GError **error) {
  if (command_of(reply) != PTZ_COMMAND_ERROR_REPLY) return false;
  PTZKitErrorReply *refusal = ptz_kit_error_reply_read(reply.data(), reply.size(), error);
  if (refusal == nullptr) return true;
  g_set_error(error, PTZ_KIT_REFUSAL, static_cast<gint>(refusal->code), "%s: refused with error %u: %s",
              name_of_command(command), refusal->code, refusal->text);
  ptz_kit_error_reply_free(refusal);
  return true;
}

bool is_reply_to(gint32 command, Body reply, GError **error) {
  if (is_refusal(command, reply, error)) return false;
  if (reply.size() >= sizeof command && command_of(reply) == command) return true;
  set_malformed(error, command, "field \"command\" at byte 0: it is another command");
  return false;
}

gpointer read_reply(const Command &command, Body reply, GError **error) {
  static char done;
  if (is_refusal(command.value, reply, error)) return nullptr;
  if (command.reply != 0) return read_message(tables.layouts[command.reply - 1], reply, error);
  if (!is_reply_to(command.value, reply, error)) return nullptr;
  if (reply.size() == sizeof command.value) return &done;
  set_malformed(error, command.value, "bytes left over at byte 4");
  return nullptr;
}

// False, with a critical warning, for a programmer's error.
bool check_link(PTZKitLink *link, const Command &command) {
  if (PTZ_KIT_IS_LINK(link)) return true;
  g_critical("ptz_kit_link_%s: not a link", tables.names + command.name);
  return false;
}

// Empty with an error on failure. A missing request is the programmer's error.
Array write_request(const Command &command, gconstpointer request, GError **error) {
  if (command.request != 0 && request == nullptr) {
    g_critical("ptz_kit_link_%s: no request", tables.names + command.name);
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED, "%s: no request", tables.names + command.name);
    return nullptr;
  }
  Array body(ptz_serialize_create_array());
  if (command.request == 0) {
    ptz_serialize_32bit(body.get(), static_cast<guint32>(command.value));
  } else if (write_message(tables.layouts[command.request - 1], request, body.get(), error) == FALSE) {
    body.reset();
  }
  return body;
}

bool check_request(GBytes *body, GError **error) {
  const gsize length = g_bytes_get_size(body);
  if (length >= sizeof(gint32) && length <= PTZ_SOCKET_BODY_MAX) return true;
  g_set_error(error, PTZ_KIT_ERROR, length < sizeof(gint32) ? PTZ_KIT_ERROR_MALFORMED : PTZ_KIT_ERROR_TOO_LONG,
              "a body has 4 to %u bytes, not %" G_GSIZE_FORMAT, PTZ_SOCKET_BODY_MAX, length);
  return false;
}

struct CancelledCall {
  LinkCore &core;
  Call &call;
};

void on_cancelled_blocking(GCancellable *, gpointer data) {
  const auto &cancelled = *static_cast<CancelledCall *>(data);
  cancelled.core.cancel(cancelled.call);
}

// Sends the body and waits. The reply is written to the buffer, which has room for the longest one.
bool wait_for_reply(PTZKitLink *link, Body body, guint deadline_ms, GCancellable *cancellable, guint8 *buffer,
                    gsize &length, GError **error) {
  BlockingCall call;
  call.body = body;
  call.deadline_us = deadline_after(deadline_ms);
  call.reply = buffer;
  LinkCore &core = core_of(link);
  CancelledCall cancelled{core, call};
  gulong handler = 0;
  if (cancellable != nullptr) {
    handler = g_cancellable_connect(cancellable, G_CALLBACK(on_cancelled_blocking), &cancelled, nullptr);
  }
  core.wait(call);
  g_cancellable_disconnect(cancellable, handler);
  length = call.reply_length;
  if (call.outcome == Outcome::answered) return true;
  set_error(error, call.outcome, command_of(body));
  return false;
}

// Of a wait for the link to be ready.
void set_wait_error(GError **error, LinkCore &core, Outcome outcome) {
  if (outcome == Outcome::timed_out) {
    g_set_error(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT, "%s: %s", core.path(), core.problem().get());
  } else if (outcome == Outcome::not_connected) {
    g_set_error_literal(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_NOT_CONNECTED, "the link is closed");
  } else {
    set_error(error, outcome, no_command);
  }
}

void on_cancelled_later(GCancellable *, gpointer data) {
  auto &call = *static_cast<LaterCall *>(data);
  call.core.cancel(call);
}

// Consumes the task.
void start_call(PTZKitLink *link, GTask *task, GBytes *body, guint deadline_ms) {
  auto *call = new LaterCall(core_of(link), task, body);
  call->deadline_us = deadline_after(deadline_ms);
  GCancellable *cancellable = g_task_get_cancellable(task);
  gulong handler = 0;
  if (cancellable != nullptr) {
    call->ref();
    handler = g_cancellable_connect(cancellable, G_CALLBACK(on_cancelled_later), call,
                                    [](gpointer data) { static_cast<LaterCall *>(data)->unref(); });
  }
  call->core.start(call, handler);
}

GTask *make_task(PTZKitLink *link, GCancellable *cancellable, GAsyncReadyCallback callback, gpointer user_data,
                 gconstpointer tag, gint32 command) {
  GTask *task = g_task_new(link, cancellable, callback, user_data);
  g_task_set_source_tag(task, const_cast<gpointer>(tag));
  g_task_set_task_data(task, GINT_TO_POINTER(command), nullptr);
  return task;
}

bool is_settled(PTZKitLinkState state) {
  return state == PTZ_KIT_LINK_STATE_READY || state == PTZ_KIT_LINK_STATE_DISCONNECTED;
}

// The thread owns the context.
bool run_until_ready(LinkCore &core, GMainContext *context, gint64 deadline_us) {
  GSource *timer = g_timeout_source_new(0);
  g_source_set_ready_time(timer, deadline_us);
  g_source_set_callback(
      timer, [](gpointer) { return G_SOURCE_REMOVE; }, nullptr, nullptr);
  g_source_attach(timer, context);
  while (!is_settled(core.state()) && g_get_monotonic_time() < deadline_us) g_main_context_iteration(context, TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  return core.state() == PTZ_KIT_LINK_STATE_READY;
}

}  // namespace

gint64 deadline_after(guint deadline_ms) {
  return g_get_monotonic_time() + gint64{1000} * (deadline_ms != 0 ? deadline_ms : default_deadline_ms);
}

void LaterCall::complete() {
  if (cancel_handler != 0) g_signal_handler_disconnect(g_task_get_cancellable(task.get()), cancel_handler);
  GError *error = nullptr;
  if (outcome == Outcome::answered && body.empty()) {
    g_task_return_boolean(task.get(), TRUE);
  } else if (outcome == Outcome::answered) {
    g_task_return_pointer(task.get(), reply.release(), reinterpret_cast<GDestroyNotify>(g_bytes_unref));
  } else {
    body.empty() ? set_wait_error(&error, core, outcome) : set_error(&error, outcome, command_of(body));
    g_task_return_error(task.get(), error);
  }
  unref();
}

gpointer call(PTZKitLink *link, guint index, gconstpointer request, guint deadline_ms, GCancellable *cancellable,
              GError **error) {
  const Command &command = tables.commands[index];
  if (!check_link(link, command)) return nullptr;
  const Array body = write_request(command, request, error);
  if (body == nullptr) return nullptr;
  guint8 reply[PTZ_SOCKET_BODY_MAX];
  gsize length = 0;
  const Body sent(reinterpret_cast<const guint8 *>(body->data), body->len);
  if (!wait_for_reply(link, sent, deadline_ms, cancellable, reply, length, error)) return nullptr;
  return read_reply(command, {reply, length}, error);
}

void call_async(PTZKitLink *link, guint index, gconstpointer request, guint deadline_ms, GCancellable *cancellable,
                GAsyncReadyCallback callback, gpointer user_data) {
  const Command &command = tables.commands[index];
  if (!check_link(link, command)) return;
  GTask *task = make_task(link, cancellable, callback, user_data, &command, command.value);
  GError *error = nullptr;
  const Array body = write_request(command, request, &error);
  if (body == nullptr) {
    g_task_return_error(task, error);
    return g_object_unref(task);
  }
  const Bytes bytes(g_bytes_new(body->data, body->len));
  start_call(link, task, bytes.get(), deadline_ms);
}

gpointer call_finish(PTZKitLink *link, guint index, GAsyncResult *result, GError **error) {
  const Command &command = tables.commands[index];
  g_return_val_if_fail(g_task_is_valid(result, link), NULL);
  g_return_val_if_fail(g_task_get_source_tag(G_TASK(result)) == &command, NULL);
  const Bytes reply(static_cast<GBytes *>(g_task_propagate_pointer(G_TASK(result), error)));
  return reply != nullptr ? read_reply(command, body_of(reply.get()), error) : nullptr;
}

}  // namespace ptz_kit

using namespace ptz_kit;

void ptz_kit_link_call_async(PTZKitLink *link, GBytes *body, guint deadline_ms, GCancellable *cancellable,
                             GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(PTZ_KIT_IS_LINK(link));
  g_return_if_fail(body != NULL);
  GTask *task = make_task(link, cancellable, callback, user_data, reinterpret_cast<gpointer>(ptz_kit_link_call_async),
                          command_of(body_of(body)));
  GError *error = nullptr;
  if (check_request(body, &error)) return start_call(link, task, body, deadline_ms);
  g_task_return_error(task, error);
  g_object_unref(task);
}

GBytes *ptz_kit_link_call_finish(PTZKitLink *link, GAsyncResult *result, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), NULL);
  g_return_val_if_fail(g_task_is_valid(result, link), NULL);
  GTask *task = G_TASK(result);
  g_return_val_if_fail(g_task_get_source_tag(task) == reinterpret_cast<gpointer>(ptz_kit_link_call_async), NULL);
  const gint32 command = GPOINTER_TO_INT(g_task_get_task_data(task));
  Bytes reply(static_cast<GBytes *>(g_task_propagate_pointer(task, error)));
  if (reply == nullptr || !is_reply_to(command, body_of(reply.get()), error)) return nullptr;
  return reply.release();
}

GBytes *ptz_kit_link_call(PTZKitLink *link, GBytes *body, guint deadline_ms, GCancellable *cancellable,
                          GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), NULL);
  g_return_val_if_fail(body != NULL, NULL);
  if (!check_request(body, error)) return nullptr;
  guint8 reply[PTZ_SOCKET_BODY_MAX];
  gsize length = 0;
  const Body sent = body_of(body);
  if (!wait_for_reply(link, sent, deadline_ms, cancellable, reply, length, error)) return nullptr;
  if (!is_reply_to(command_of(sent), {reply, length}, error)) return nullptr;
  return g_bytes_new(reply, length);
}

gboolean ptz_kit_link_wait_ready(PTZKitLink *link, guint deadline_ms, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), FALSE);
  LinkCore &core = core_of(link);
  const gint64 deadline_us = deadline_after(deadline_ms);
  const Context context = core.context();
  bool ready = false;
  if (context != nullptr && g_main_context_acquire(context.get())) {
    ready = run_until_ready(core, context.get(), deadline_us);
    g_main_context_release(context.get());
  } else {
    ready = core.wait_ready(deadline_us);
  }
  if (ready) return TRUE;
  const bool is_closed = core.state() == PTZ_KIT_LINK_STATE_DISCONNECTED;
  set_wait_error(error, core, is_closed ? Outcome::not_connected : Outcome::timed_out);
  return FALSE;
}

void ptz_kit_link_wait_ready_async(PTZKitLink *link, guint deadline_ms, GCancellable *cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(PTZ_KIT_IS_LINK(link));
  GTask *task = make_task(link, cancellable, callback, user_data,
                          reinterpret_cast<gpointer>(ptz_kit_link_wait_ready_async), no_command);
  const Bytes nothing(g_bytes_new(nullptr, 0));
  start_call(link, task, nothing.get(), deadline_ms);
}

gboolean ptz_kit_link_wait_ready_finish(PTZKitLink *link, GAsyncResult *result, GError **error) {
  g_return_val_if_fail(PTZ_KIT_IS_LINK(link), FALSE);
  g_return_val_if_fail(g_task_is_valid(result, link), FALSE);
  GTask *task = G_TASK(result);
  g_return_val_if_fail(g_task_get_source_tag(task) == reinterpret_cast<gpointer>(ptz_kit_link_wait_ready_async), FALSE);
  return g_task_propagate_boolean(task, error);
}
