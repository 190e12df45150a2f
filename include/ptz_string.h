/* ptz_string.h - names in CamelCase turned into lower-case tokens.
 *
 * A word begins at an upper-case letter that follows a lower-case letter, and only there: "getABCValue" is
 * "get-abcvalue", "Zoom2Max" is "zoom2max". Only ASCII letters count. A token has at most 49 characters; the rest of
 * the name is dropped.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * CamelCase2token:
 * @CamelCase: the name, borrowed; `NULL` aborts
 * @separator: what to write between two words
 *
 * Thread: any.
 *
 * Returns: (transfer full): the token; an empty one for an empty name
 */
PTZ_API gchar *CamelCase2token (const gchar *CamelCase, gchar separator);

/**
 * CamelCase2hyphen:
 * @CamelCase: the name, borrowed; `NULL` aborts
 *
 * Thread: any.
 *
 * Returns: (transfer full): the token with "-" between words
 */
PTZ_API gchar *CamelCase2hyphen (const gchar *CamelCase);

/**
 * CamelCase2uscore:
 * @CamelCase: the name, borrowed; `NULL` aborts
 *
 * Thread: any.
 *
 * Returns: (transfer full): the token with "_" between words
 */
PTZ_API gchar *CamelCase2uscore (const gchar *CamelCase);

G_END_DECLS
