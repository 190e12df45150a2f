/* ptz_gvalue_utils.h - typed values as text, and back.
 *
 * Four types have a text form: G_TYPE_INT, G_TYPE_BOOLEAN, G_TYPE_DOUBLE and G_TYPE_STRING.
 *
 * A formatted string is a name, a type word and a value, joined by colons. Only the first two colons separate: the
 * value may hold more of them.
 *
 *   type            written as                     type words that are read, beside the name of the GLib type
 *   G_TYPE_INT      name:int32:42                  int32, int
 *   G_TYPE_BOOLEAN  name:boolean:true              boolean, bool
 *   G_TYPE_DOUBLE   name:double:1.500000           double
 *   G_TYPE_STRING   name:string:text               string
 *
 * Doubles are written in the locale of the process and read in the "C" locale: processes that exchange them run in the
 * latter.
 */
#pragma once

#include "ptz_enum_types.h"

G_BEGIN_DECLS

/**
 * ptz_gvalue_utils_formatted_string_to_gvalue: (skip)
 * @string: a formatted string
 * @name: (out) (optional) (transfer full): the name, to be released with g_free(); untouched unless the result is
 *   `TRUE`
 * @value: (out) (transfer full): a new value, to be released with g_value_unset() and g_free()
 *
 * A number that does not parse is what was parsed of it, or 0. A boolean other than "true" and "false", in any case of
 * letters, is `FALSE` and logged. Where the third piece is missing the value is 0, `FALSE` or a `NULL` string.
 *
 * A string without a name or a type word, and an unknown type word, give a critical and leave @value untouched. So
 * does a type that GLib knows and that has no text form, but then @value already holds a new, empty value of that type,
 * which is the caller's.
 *
 * Thread: any.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_gvalue_utils_formatted_string_to_gvalue (const gchar *string, gchar **name, GValue **value);

/**
 * ptz_gvalue_utils_gvalue_to_formatted_string:
 * @name: a name without a colon, borrowed
 * @value: (nullable): a value, borrowed
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the formatted string, with "(null)" for a `NULL` string; `NULL` and a critical
 *   for a type without a text form
 */
PTZ_API gchar *ptz_gvalue_utils_gvalue_to_formatted_string (const gchar *name, const GValue *value);

/**
 * ptz_gvalue_utils_string_from_gvalue:
 * @value: (nullable): a value, borrowed
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the text of an integer, a boolean ("true" or "false") or a string; `NULL` for
 *   a `NULL` string and for every other type, doubles included
 */
PTZ_API gchar *ptz_gvalue_utils_string_from_gvalue (const GValue *value);

/**
 * ptz_gvalue_utils_gvalue_from_string: (skip)
 * @text: (nullable): a text, borrowed; `NULL` reads as `FALSE`, 0 or a `NULL` string
 * @kind: a #PTZParameter; only the four kinds of `PTZ_PARAMETER_CONSTANT` to `PTZ_PARAMETER_BOOLEAN` are converted
 * @value: (out): the value, to be released with g_value_unset(). What it held before is not released: it may be
 *   uninitialised. For a kind that is not converted it is zeroed
 *
 * A boolean is `TRUE` exactly for "true", in any case of letters.
 *
 * Thread: any.
 *
 * Returns: `TRUE` on success
 */
PTZ_API gboolean ptz_gvalue_utils_gvalue_from_string (const gchar *text, gint kind, GValue *value);

/**
 * ptz_gvalue_utils_gvalue_cmp0:
 * @val1: (nullable): a value, borrowed; `NULL` counts as a value of no type
 * @val2: (nullable): a value of the same type, borrowed
 *
 * Compares two integers, strings (a `NULL` one comes first) or booleans (which only differ or not). Values of
 * different types give a critical, values of another type, doubles included, a line in the system log.
 *
 * Thread: any.
 *
 * Returns: negative, 0 or positive, as @val1 is less than, equal to or greater than @val2; 1 for booleans that differ;
 *   -1 where the two cannot be compared
 */
PTZ_API gint ptz_gvalue_utils_gvalue_cmp0 (const GValue *val1, const GValue *val2);

G_END_DECLS
