/* ptz_kit_body.h - bodies of any command: by name, as variants for tools and other languages. */
#pragma once

#include <ptz_kit_types.h>

G_BEGIN_DECLS

/**
 * PTZKitBodyKind:
 * @PTZ_KIT_BODY_REQUEST: a request
 * @PTZ_KIT_BODY_REPLY: a reply, which may be an error reply
 *
 * Which of the two messages of a command a body is.
 *
 * Since: 0.1
 */
typedef enum {
  PTZ_KIT_BODY_REQUEST,
  PTZ_KIT_BODY_REPLY
} PTZKitBodyKind;

/**
 * ptz_kit_command_name:
 * @command: a command word
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer none) (nullable): the name of the command in lower case with underscores, such as
 *   "query_position"; `NULL` if no driver serves such a command
 */
PTZ_KIT_API const gchar *ptz_kit_command_name (gint32 command);

/**
 * ptz_kit_command_from_name:
 * @name: a name as ptz_kit_command_name() returns it; borrowed
 * @command: (out): the command word
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if there is such a command
 */
PTZ_KIT_API gboolean ptz_kit_command_from_name (const gchar *name, gint32 *command);

/**
 * ptz_kit_body_get_command:
 * @body: (array length=length): a body; borrowed
 * @length: bytes in @body
 * @command: (out): the command word
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: `TRUE` if the body is long enough for a command word
 */
PTZ_KIT_API gboolean ptz_kit_body_get_command (const guint8 *body, gsize length, gint32 *command);

/**
 * ptz_kit_body_to_variant:
 * @kind: whether it is a request or a reply
 * @body: (array length=length): a whole body; borrowed
 * @length: bytes in @body
 * @error: return location for an error, or `NULL`
 *
 * Reads the body of any command that the kit knows.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): a dictionary of type `a{sv}`: "command" is the name of the command, every other key
 *   is a field: numbers are `i` or `u`, texts `s`, fields per axis `ai` in the order of #PTZKitAxis, lists `as` or
 *   `aa{sv}`. `NULL` with @error set to `PTZ_KIT_ERROR_MALFORMED` on failure
 */
PTZ_KIT_API GVariant *ptz_kit_body_to_variant (PTZKitBodyKind kind, const guint8 *body, gsize length, GError **error);

/**
 * ptz_kit_body_from_variant:
 * @kind: whether it is a request or a reply
 * @fields: a dictionary as ptz_kit_body_to_variant() returns it, with integers of any type; borrowed,
 *   or consumed if it is floating
 * @error: return location for an error, or `NULL`
 *
 * Writes the body of any command that the kit knows.
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: (transfer full) (nullable): the body; `NULL` with @error set if a field is missing, unknown, of another type, or
 *   beyond what its bytes can hold
 */
PTZ_KIT_API GBytes *ptz_kit_body_from_variant (PTZKitBodyKind kind, GVariant *fields, GError **error);

G_END_DECLS
