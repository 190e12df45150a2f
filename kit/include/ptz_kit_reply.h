/* ptz_kit_reply.h - PTZKitReply, by which a driver answers one request. */
#pragma once

#include <ptz_kit_messages.h>
#include <ptz_kit_types.h>

G_BEGIN_DECLS

#define PTZ_KIT_TYPE_REPLY (ptz_kit_reply_get_type ())
#define PTZ_KIT_REPLY(o) (G_TYPE_CHECK_INSTANCE_CAST ((o), PTZ_KIT_TYPE_REPLY, PTZKitReply))
#define PTZ_KIT_IS_REPLY(o) (G_TYPE_CHECK_INSTANCE_TYPE ((o), PTZ_KIT_TYPE_REPLY))

/**
 * PTZKitReply:
 *
 * The answer to one request. A #PTZKitDriver hands it to the virtual function of the request's command.
 *
 * It is answered once: before the virtual function returns, or later if ptz_kit_reply_defer() was called before the
 * virtual function returned. A second answer is a critical warning and has no effect.
 *
 * A request that is neither answered nor deferred when the virtual function returns is answered with the error
 * `PTZ_KIT_ERROR_CODE_INTERNAL`, which the log tells. A Python exception before ptz_kit_reply_defer() therefore cannot
 * leave a client waiting. A deferred reply whose last reference is dropped without an answer is answered with the same
 * error. When the driver stops, all pending replies are answered with it, and so is a deferred one at its deadline
 * (#PTZKitDriver:reply-deadline); a later answer then has no effect.
 *
 * A Python exception after ptz_kit_reply_defer() does not drop the reply: the interpreter keeps the last traceback, and
 * with it the variables of the function. The client then has its answer at the deadline, by default after 30 seconds.
 * Catch the exception and answer.
 *
 * A driver that waits for its device in another thread defers the reply first and then passes it to that thread. The
 * reply may be answered, and its last reference dropped, in any thread; the default main context sends the answer.
 * A client that has gone does not end the reply.
 *
 * For each command with fields in its reply there is a function that answers with them, such as
 * ptz_kit_reply_query_position() (see ptz_kit_replies.h). ptz_kit_reply_ok() answers the other commands. An answer that
 * the description of the command does not allow, such as a state that is no #PTZEnable, is a failure of the driver, too.
 *
 * Since: 0.1
 */
typedef struct _PTZKitReply PTZKitReply;
typedef struct _PTZKitReplyClass PTZKitReplyClass;

/**
 * ptz_kit_reply_get_type:
 *
 * Thread: any.
 *
 * Returns: the type "PTZKitReply"
 */
PTZ_KIT_API GType ptz_kit_reply_get_type (void);

/**
 * ptz_kit_reply_get_command:
 * @self: a reply
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the command word of the request, a #PTZCommand
 */
PTZ_KIT_API gint32 ptz_kit_reply_get_command (PTZKitReply *self);

/**
 * ptz_kit_reply_get_peer_pid:
 * @self: a reply
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the id of the process that made the connection; 0 if unknown
 */
PTZ_KIT_API gint64 ptz_kit_reply_get_peer_pid (PTZKitReply *self);

/**
 * ptz_kit_reply_get_peer_uid:
 * @self: a reply
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: the user id of the process that made the connection; -1 if unknown
 */
PTZ_KIT_API gint64 ptz_kit_reply_get_peer_uid (PTZKitReply *self);

/**
 * ptz_kit_reply_is_answered:
 * @self: a reply
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: whether the request has its answer
 */
PTZ_KIT_API gboolean ptz_kit_reply_is_answered (PTZKitReply *self);

/**
 * ptz_kit_reply_defer:
 * @self: a reply that is not answered yet
 *
 * States that the answer is sent after the virtual function has returned. The caller keeps a reference until then.
 *
 * Thread: the one of the default main context, before another thread has the reply.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_reply_defer (PTZKitReply *self);

/**
 * ptz_kit_reply_ok:
 * @self: a reply to a command whose reply has no fields
 *
 * Answers that the request was carried out, or has begun to be.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_reply_ok (PTZKitReply *self);

/**
 * ptz_kit_reply_error: (skip)
 * @self: a reply
 * @code: code of the error
 * @format: printf-like format of the reason, for a log
 * @...: its arguments
 *
 * Answers that the request has changed nothing. A text that is too long for a body is cut.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_reply_error (PTZKitReply *self, PTZKitErrorCode code, const gchar *format, ...)
    G_GNUC_PRINTF (3, 4);

/**
 * ptz_kit_reply_error_literal: (rename-to ptz_kit_reply_error)
 * @self: a reply
 * @code: code of the error
 * @text: reason, for a log
 *
 * As ptz_kit_reply_error(), with a text that is no format.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_reply_error_literal (PTZKitReply *self, PTZKitErrorCode code, const gchar *text);

/**
 * ptz_kit_reply_send_bytes:
 * @self: a reply
 * @body: a whole body, command word included, of 4 to `PTZ_SOCKET_BODY_MAX` bytes; borrowed
 *
 * Answers with a body that the driver has written itself. If it is no reply that the command may have, the log says why
 * and the request is answered with `PTZ_KIT_ERROR_CODE_INTERNAL`.
 *
 * Thread: any.
 *
 * Since: 0.1
 */
PTZ_KIT_API void ptz_kit_reply_send_bytes (PTZKitReply *self, GBytes *body);

G_DEFINE_AUTOPTR_CLEANUP_FUNC (PTZKitReply, g_object_unref)

G_END_DECLS
