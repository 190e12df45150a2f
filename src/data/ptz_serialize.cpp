#include "ptz_serialize.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "base/check.h"

namespace {

// What every failed check here names as its file.
constexpr char module_name[] = "ptz_serialize";

// Bytes that a blob may claim beyond the end of the array: enough for any field, little enough for any peer's lie.
constexpr guint32 missing_blob_bytes_max = 64 * 1024;

// Elements that a count may claim if the array has fewer bytes: elements need not take any, so nothing else would end
// a false count.
constexpr guint32 elements_without_bytes_max = 65'536;

guint32 saturated_sum(guint32 left, guint32 right) { return left + std::min(right, G_MAXUINT32 - left); }

guint32 bytes_left(const GArray *array, guint32 indx) { return array->len > indx ? array->len - indx : 0; }

// In 64 bits: a cursor near 2^32 must not pass by wrapping round.
bool holds(const GArray *array, guint32 indx, guint32 count) { return array->len >= guint64{indx} + count; }

guint32 read_count(const char *function, GArray *array, guint32 *indx) {
  const guint32 claimed = ptz_deserialize_32bit(array, indx);
  const guint32 believed = std::min(claimed, std::max(array->len, elements_without_bytes_max));
  if (believed < claimed) syslog(LOG_WARNING, "%s: count of %u elements cut to %u", function, claimed, believed);
  return believed;
}

guint8 *byte_at(const GArray *array, guint32 indx) { return reinterpret_cast<guint8 *>(array->data) + indx; }

// Makes room for one item at the end, uninitialised. One call into GLib for each item is most of what writing costs.
guint8 *extend(GArray *array, gsize count) {
  const guint old_length = array->len;
  if (G_UNLIKELY(count > G_MAXUINT - old_length)) {
    g_error("%s: adding %" G_GSIZE_FORMAT " bytes to an array of %u would overflow", module_name, count, old_length);
  }
  g_array_set_size(array, old_length + static_cast<guint>(count));
  return byte_at(array, old_length);
}

void store_16bit(guint8 *bytes, guint16 value) {
  value = GUINT16_TO_LE(value);
  std::memcpy(bytes, &value, sizeof value);
}

}  // namespace

GArray *ptz_serialize_create_array(void) { return g_array_new(FALSE, FALSE, 1); }

void ptz_serialize_8bit(GArray *array, guint8 value) {
  assert_in(module_name, array != NULL);
  *extend(array, sizeof value) = value;
}

void ptz_serialize_16bit(GArray *array, guint16 value) {
  assert_in(module_name, array != NULL);
  store_16bit(extend(array, sizeof value), value);
}

void ptz_serialize_32bit(GArray *array, guint32 value) {
  assert_in(module_name, array != NULL);
  value = GUINT32_TO_LE(value);
  std::memcpy(extend(array, sizeof value), &value, sizeof value);
}

void ptz_serialize_string(GArray *array, const gchar *string) {
  assert_in(module_name, array != NULL);
  assert_in(module_name, string != NULL);
  const std::string_view text(string);
  guint8 *bytes = extend(array, sizeof(guint16) + text.size());
  store_16bit(bytes, static_cast<guint16>(text.size()));
  text.copy(reinterpret_cast<gchar *>(bytes + sizeof(guint16)), text.size());
}

void ptz_serialize_blob(GArray *array, gconstpointer data, guint len) { g_array_append_vals(array, data, len); }

void ptz_serialize_glist(GArray *array, GList *list, PTZElementSerializer serializer) {
  assert_in(module_name, array != NULL);
  assert_in(module_name, list != NULL);
  assert_in(module_name, serializer != NULL);
  ptz_serialize_32bit(array, g_list_length(list));
  for (const GList *node = g_list_first(list); node != nullptr; node = node->next) serializer(node->data, array);
}

void ptz_serialize_ghashtable(GArray *array, GHashTable *table, PTZPairSerializer serializer) {
  assert_in(module_name, array != NULL);
  assert_in(module_name, table != NULL);
  assert_in(module_name, serializer != NULL);
  ptz_serialize_32bit(array, g_hash_table_size(table));
  GHashTableIter iter;
  PTZSerializePair pair;
  g_hash_table_iter_init(&iter, table);
  while (g_hash_table_iter_next(&iter, &pair.key, &pair.value)) serializer(&pair, array);
}

guint8 ptz_deserialize_8bit(GArray *array, guint32 *indx) {
  assert_in(module_name, array != NULL);
  assert_stated_in(module_name, holds(array, *indx, 1), "array->len >= *indx + 1");
  const guint8 value = *byte_at(array, *indx);
  *indx += sizeof value;
  return value;
}

guint16 ptz_deserialize_16bit(GArray *array, guint32 *indx) {
  assert_in(module_name, array != NULL);
  assert_stated_in(module_name, holds(array, *indx, 2), "array->len >= *indx + 2");
  guint16 value = 0;
  std::memcpy(&value, byte_at(array, *indx), sizeof value);
  *indx += sizeof value;
  return GUINT16_FROM_LE(value);
}

guint32 ptz_deserialize_32bit(GArray *array, guint32 *indx) {
  assert_in(module_name, array != NULL);
  // Weaker than the read needs, and relied on: a value may be cut to two or three bytes at the end of a body.
  assert_stated_in(module_name, holds(array, *indx, 2), "array->len >= *indx + 2");
  guint32 value = 0;
  if (G_LIKELY(holds(array, *indx, sizeof value))) {
    std::memcpy(&value, byte_at(array, *indx), sizeof value);
  } else {
    std::memcpy(&value, byte_at(array, *indx), bytes_left(array, *indx));
  }
  *indx = saturated_sum(*indx, sizeof value);
  return GUINT32_FROM_LE(value);
}

gchar *ptz_deserialize_string(GArray *array, guint32 *indx) {
  const guint16 length = ptz_deserialize_16bit(array, indx);
  assert_stated_in(module_name, holds(array, *indx, length), "array->len >= *indx + length");
  auto *string = static_cast<gchar *>(g_malloc(gsize{length} + 1));
  // Not memcpy: what a peer hides behind an embedded NUL stays out of the copy.
  std::strncpy(string, reinterpret_cast<const gchar *>(byte_at(array, *indx)), length);
  string[length] = '\0';
  *indx += length;
  return string;
}

gpointer ptz_deserialize_blob(GArray *array, guint32 *indx, guint byte_size) {
  const guint32 start = *indx;
  const guint32 present = std::min(byte_size, bytes_left(array, start));
  *indx = saturated_sum(start, byte_size);
  if (byte_size == 0 || byte_size - present > missing_blob_bytes_max) return nullptr;
  auto *blob = static_cast<guint8 *>(g_malloc(byte_size));
  if (present > 0) std::memcpy(blob, byte_at(array, start), present);
  std::memset(blob + present, 0, byte_size - present);
  return blob;
}

GList *ptz_deserialize_glist(GArray *array, guint32 *indx, PTZElementDeserializer deserializer) {
  assert_in(module_name, array != NULL);
  assert_in(module_name, indx != NULL);
  assert_in(module_name, deserializer != NULL);
  const guint32 count = read_count(__func__, array, indx);
  GList *list = nullptr;
  for (guint32 i = 0; i < count; ++i) list = g_list_prepend(list, deserializer(array, indx));
  return g_list_reverse(list);
}

GHashTable *ptz_deserialize_ghashtable(GArray *array, guint32 *indx, GHashTable *table,
                                       PTZPairDeserializer deserializer) {
  assert_in(module_name, array != NULL);
  assert_in(module_name, indx != NULL);
  assert_in(module_name, table != NULL);
  assert_in(module_name, deserializer != NULL);
  const guint32 count = read_count(__func__, array, indx);
  for (guint32 i = 0; i < count; ++i) {
    PTZSerializePair *pair = deserializer(array, indx);
    if (pair == nullptr) continue;
    g_hash_table_insert(table, pair->key, pair->value);
    g_free(pair);
  }
  return table;
}
