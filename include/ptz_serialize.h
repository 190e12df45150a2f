/* ptz_serialize.h - the encoding of message bodies: typed values appended to a byte array and read back in order.
 *
 * All integers are little-endian. Items follow each other without alignment, filler or tags: the reader calls the
 * reading functions in exactly the order in which the writer called the writing ones.
 *
 *   item         bytes      encoding
 *   8-bit value  1          the value
 *   16-bit value 2          least significant byte first
 *   32-bit value 4          least significant byte first
 *   string       2 + n      16-bit length n, then n bytes, no NUL
 *   blob         n          the bytes; the reader knows n
 *   list         4 + items  32-bit count, then each element as its serializer writes it
 *   hash table   4 + pairs  32-bit count, then each pair as its serializer writes it
 *
 * A failed check in this module is a fatal assertion: it ends the process. Who reads a body of a stranger tests what
 * is left in the array before reading. Where a check is weaker than the read that follows it (see
 * ptz_deserialize_32bit() and ptz_deserialize_blob()), missing bytes read as zero and nothing outside the array is
 * touched; the cursor then stands beyond the end, and never past 2^32 - 1.
 *
 * An array and its cursor belong to one thread at a time; otherwise any thread may call these functions.
 */
#pragma once

#include "ptz_api.h"

G_BEGIN_DECLS

/**
 * PTZSerializePair:
 * @key: the key
 * @value: the value
 *
 * One entry of a hash table.
 */
typedef struct {
  gpointer key;
  gpointer value;
} PTZSerializePair;

/**
 * PTZElementSerializer:
 * @data: the data of a list node
 * @array: (element-type guint8): where to append its encoding
 *
 * Writes one element of a list.
 */
typedef void (*PTZElementSerializer) (gpointer data, GArray *array);

/**
 * PTZPairSerializer:
 * @pair: one entry of the table; valid during the call
 * @array: (element-type guint8): where to append its encoding
 *
 * Writes one entry of a hash table.
 */
typedef void (*PTZPairSerializer) (PTZSerializePair *pair, GArray *array);

/**
 * PTZElementDeserializer:
 * @array: (element-type guint8): what to read from
 * @indx: the cursor
 *
 * Reads one element of a list.
 *
 * Returns: (transfer full) (nullable): the element
 */
typedef gpointer (*PTZElementDeserializer) (GArray *array, guint32 *indx);

/**
 * PTZPairDeserializer:
 * @array: (element-type guint8): what to read from
 * @indx: the cursor
 *
 * Reads one entry of a hash table.
 *
 * Returns: (transfer full) (nullable): a record allocated with g_malloc(); its key and value go to the table, the
 *   record itself is released with g_free(). `NULL` adds nothing
 */
typedef PTZSerializePair *(*PTZPairDeserializer) (GArray *array, guint32 *indx);

/**
 * ptz_serialize_create_array: (skip)
 *
 * Thread: any.
 *
 * Returns: (transfer full) (element-type guint8): a new empty array of bytes; release it with g_array_free() or
 *   g_array_unref(). It may be used again after g_array_set_size() to 0
 */
PTZ_API GArray *ptz_serialize_create_array (void);

/**
 * ptz_serialize_8bit: (skip)
 * @array: (element-type guint8): where to append
 * @value: the value
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_8bit (GArray *array, guint8 value);

/**
 * ptz_serialize_16bit: (skip)
 * @array: (element-type guint8): where to append
 * @value: the value
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_16bit (GArray *array, guint16 value);

/**
 * ptz_serialize_32bit: (skip)
 * @array: (element-type guint8): where to append
 * @value: the value
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_32bit (GArray *array, guint32 value);

/**
 * ptz_serialize_string: (skip)
 * @array: (element-type guint8): where to append
 * @string: the text, borrowed. Its length is written modulo 65536 although all its bytes are: no reader can make
 *   sense of a string of 64 KiB or more
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_string (GArray *array, const gchar *string);

/**
 * ptz_serialize_blob: (skip)
 * @array: (element-type guint8): where to append
 * @data: (array length=len) (element-type guint8): the bytes, borrowed
 * @len: how many
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_blob (GArray *array, gconstpointer data, guint len);

/**
 * ptz_serialize_glist: (skip)
 * @array: (element-type guint8): where to append
 * @list: the list, borrowed; it must not be empty, although an empty one can be read
 * @serializer: writes one element
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_glist (GArray *array, GList *list, PTZElementSerializer serializer);

/**
 * ptz_serialize_ghashtable: (skip)
 * @array: (element-type guint8): where to append
 * @table: the table, borrowed; written in an unspecified order
 * @serializer: writes one entry
 *
 * Thread: the one that uses @array.
 */
PTZ_API void ptz_serialize_ghashtable (GArray *array, GHashTable *table, PTZPairSerializer serializer);

/**
 * ptz_deserialize_8bit:
 * @array: (element-type guint8): what to read from
 * @indx: (inout): the cursor, advanced by 1
 *
 * Thread: the one that uses @array.
 *
 * Returns: the value
 */
PTZ_API guint8 ptz_deserialize_8bit (GArray *array, guint32 *indx);

/**
 * ptz_deserialize_16bit:
 * @array: (element-type guint8): what to read from
 * @indx: (inout): the cursor, advanced by 2
 *
 * Thread: the one that uses @array.
 *
 * Returns: the value
 */
PTZ_API guint16 ptz_deserialize_16bit (GArray *array, guint32 *indx);

/**
 * ptz_deserialize_32bit:
 * @array: (element-type guint8): what to read from
 * @indx: (inout): the cursor, advanced by 4
 *
 * Its check asks only for two bytes. Where two or three are left, the missing ones read as zero.
 *
 * Thread: the one that uses @array.
 *
 * Returns: the value
 */
PTZ_API guint32 ptz_deserialize_32bit (GArray *array, guint32 *indx);

/**
 * ptz_deserialize_string:
 * @array: (element-type guint8): what to read from
 * @indx: (inout): the cursor, advanced by 2 and the length
 *
 * Thread: the one that uses @array.
 *
 * Returns: (transfer full): the text, ended by a NUL; a NUL within it ends what is seen of it
 */
PTZ_API gchar *ptz_deserialize_string (GArray *array, guint32 *indx);

/**
 * ptz_deserialize_blob: (skip)
 * @array: (element-type guint8): what to read from
 * @indx: the cursor, advanced by @byte_size
 * @byte_size: how many bytes
 *
 * Checks nothing: bytes that are missing at the end read as zero. A size that claims more than 64 KiB beyond the end
 * gives `NULL`, so that memory is never spent on the word of a peer.
 *
 * Thread: the one that uses @array.
 *
 * Returns: (transfer full) (nullable): a copy, to be released with g_free(); `NULL` for a size of 0
 */
PTZ_API gpointer ptz_deserialize_blob (GArray *array, guint32 *indx, guint byte_size);

/**
 * ptz_deserialize_glist: (skip)
 * @array: (element-type guint8): what to read from
 * @indx: the cursor, advanced by 4 and what @deserializer reads
 * @deserializer: reads one element
 *
 * Reads as many elements as the count says, but at most 65536 or, if that is more, as many as @array has bytes, so that
 * a false count ends. A larger count is cut to that, and a warning is logged.
 *
 * Thread: the one that uses @array.
 *
 * Returns: (transfer full) (nullable): the list in the order of the array; `NULL` for a count of 0
 */
PTZ_API GList *ptz_deserialize_glist (GArray *array, guint32 *indx, PTZElementDeserializer deserializer);

/**
 * ptz_deserialize_ghashtable: (skip)
 * @array: (element-type guint8): what to read from
 * @indx: the cursor, advanced by 4 and what @deserializer reads
 * @table: where the entries go, replacing those of the same key; its destroy functions own them from then on
 * @deserializer: reads one entry
 *
 * Reads as many entries as the count says, but at most 65536 or, if that is more, as many as @array has bytes, so that
 * a false count ends. A larger count is cut to that, and a warning is logged.
 *
 * Thread: the one that uses @array.
 *
 * Returns: (transfer none): @table
 */
PTZ_API GHashTable *ptz_deserialize_ghashtable (GArray *array, guint32 *indx, GHashTable *table,
                                                PTZPairDeserializer deserializer);

G_END_DECLS
