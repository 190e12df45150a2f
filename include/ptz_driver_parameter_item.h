/* ptz_driver_parameter_item.h - one parameter of a driver, as a driver and the daemon send it to each other.
 *
 * The record is written with the encoding of ptz_serialize.h, its fields in the order of #PTZDriverParameterItem.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * PTZDriverParameterItem:
 * @code: a 32-bit value
 * @string1: a string
 * @string2: a string
 * @string3: a string
 * @number1: a 32-bit value
 * @number2: a 32-bit value
 * @string4: a string
 *
 * A parameter of a driver. What the fields mean is between the daemon and its drivers.
 */
typedef struct {
  guint32 code;
  gchar *string1;
  gchar *string2;
  gchar *string3;
  guint32 number1;
  guint32 number2;
  gchar *string4;
} PTZDriverParameterItem;

/**
 * ptz_driver_parameter_item_serialize: (skip)
 * @item: what to write, borrowed; a string that is `NULL` aborts, after the fields before it were written
 * @array: (element-type guint8): where to append, borrowed; `NULL` aborts
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_driver_parameter_item_serialize (const PTZDriverParameterItem *item, GArray *array);

/**
 * ptz_driver_parameter_item_deserialize: (skip)
 * @array: (element-type guint8): what to read from
 * @indx: (inout): the cursor, advanced behind the record
 * @code: (out) (optional): a 32-bit value
 * @string1: (out) (optional) (transfer full): a string, to be released with g_free()
 * @string2: (out) (optional) (transfer full): a string, to be released with g_free()
 * @string3: (out) (optional) (transfer full): a string, to be released with g_free()
 * @number1: (out) (optional): a 32-bit value
 * @number2: (out) (optional): a 32-bit value
 * @string4: (out) (optional) (transfer full): a string, to be released with g_free()
 *
 * A record that is cut short aborts in the reader of the field that is not there, as ptz_serialize.h says. A field
 * whose out-pointer is `NULL` is read and dropped.
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_driver_parameter_item_deserialize (GArray *array, guint32 *indx, guint32 *code, gchar **string1,
                                                    gchar **string2, gchar **string3, guint32 *number1,
                                                    guint32 *number2, gchar **string4);

G_END_DECLS
