#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <variant>
#include <vector>

#include "byte_arrays.h"
#include "ptz_serialize.h"

using namespace ptz_test;

namespace {

using Blob = std::vector<guint8>;
using Numbers = std::vector<guint32>;            // written as a list
using Mapping = std::map<guint32, std::string>;  // written as a hash table
using Field = std::variant<guint8, guint16, guint32, std::string, Blob, Numbers, Mapping>;

gpointer read_number(GArray *array, guint32 *indx) { return GUINT_TO_POINTER(ptz_deserialize_32bit(array, indx)); }
PTZSerializePair *read_entry(GArray *array, guint32 *indx) {
  auto *pair = g_new(PTZSerializePair, 1);
  pair->key = GUINT_TO_POINTER(ptz_deserialize_32bit(array, indx));
  pair->value = ptz_deserialize_string(array, indx);
  return pair;
}

class Writer {
  GArray *array_;

 public:
  explicit Writer(GArray *array) : array_(array) {}
  void operator()(guint8 value) const { ptz_serialize_8bit(array_, value); }
  void operator()(guint16 value) const { ptz_serialize_16bit(array_, value); }
  void operator()(guint32 value) const { ptz_serialize_32bit(array_, value); }
  void operator()(const std::string &text) const { ptz_serialize_string(array_, text.c_str()); }
  void operator()(const Blob &blob) const { ptz_serialize_blob(array_, blob.data(), static_cast<guint>(blob.size())); }
  void operator()(const Numbers &numbers) const {
    if (numbers.empty()) return ptz_serialize_32bit(array_, 0);  // the writer of lists takes no empty one
    GList *list = nullptr;
    for (const guint32 number : numbers) list = g_list_append(list, GUINT_TO_POINTER(number));
    ptz_serialize_glist(array_, list,
                        [](gpointer data, GArray *array) { ptz_serialize_32bit(array, GPOINTER_TO_UINT(data)); });
    g_list_free(list);
  }
  void operator()(const Mapping &mapping) const {
    const Table table(g_hash_table_new_full(nullptr, nullptr, nullptr, g_free));
    for (const auto &[key, value] : mapping) {
      g_hash_table_insert(table.get(), GUINT_TO_POINTER(key), g_strdup(value.c_str()));
    }
    ptz_serialize_ghashtable(array_, table.get(), [](PTZSerializePair *pair, GArray *array) {
      ptz_serialize_32bit(array, GPOINTER_TO_UINT(pair->key));
      ptz_serialize_string(array, static_cast<const gchar *>(pair->value));
    });
  }
};

// Reads a field of the type of the one given; a blob also has its length, which the encoding does not tell.
class Reader {
  GArray *array_;
  guint32 *indx_;

 public:
  Reader(GArray *array, guint32 *indx) : array_(array), indx_(indx) {}
  Field operator()(guint8) const { return ptz_deserialize_8bit(array_, indx_); }
  Field operator()(guint16) const { return ptz_deserialize_16bit(array_, indx_); }
  Field operator()(guint32) const { return ptz_deserialize_32bit(array_, indx_); }
  Field operator()(const std::string &) const { return std::string(Text(ptz_deserialize_string(array_, indx_)).get()); }
  Field operator()(const Blob &like) const {
    const Memory blob(ptz_deserialize_blob(array_, indx_, static_cast<guint>(like.size())));
    const auto *bytes = static_cast<const guint8 *>(blob.get());
    return Blob(bytes, bytes + like.size());
  }
  Field operator()(const Numbers &) const {
    const List list(ptz_deserialize_glist(array_, indx_, read_number));
    Numbers numbers;
    for (const GList *node = list.get(); node != nullptr; node = node->next) {
      numbers.push_back(GPOINTER_TO_UINT(node->data));
    }
    return numbers;
  }
  Field operator()(const Mapping &) const {
    const Table table(g_hash_table_new_full(nullptr, nullptr, nullptr, g_free));
    ptz_deserialize_ghashtable(array_, indx_, table.get(), read_entry);
    Mapping mapping;
    GHashTableIter iter;
    gpointer key = nullptr, value = nullptr;
    g_hash_table_iter_init(&iter, table.get());
    while (g_hash_table_iter_next(&iter, &key, &value)) {
      mapping[GPOINTER_TO_UINT(key)] = static_cast<const char *>(value);
    }
    return mapping;
  }
};

// Of any bytes but NUL, which ends a string.
rc::Gen<std::string> any_text() { return rc::gen::container<std::string>(rc::gen::nonZero<char>()); }

rc::Gen<Field> any_field() {
  using rc::gen::arbitrary;
  using rc::gen::cast;
  return rc::gen::oneOf(cast<Field>(arbitrary<guint8>()), cast<Field>(arbitrary<guint16>()),
                        cast<Field>(arbitrary<guint32>()), cast<Field>(any_text()), cast<Field>(arbitrary<Blob>()),
                        cast<Field>(arbitrary<Numbers>()),
                        cast<Field>(rc::gen::container<Mapping>(arbitrary<guint32>(), any_text())));
}

rc::Gen<std::vector<Field>> any_fields() { return rc::gen::container<std::vector<Field>>(any_field()); }

rc::Gen<std::string> any_bytes() { return rc::gen::container<std::string>(rc::gen::arbitrary<char>()); }

}  // namespace

RC_GTEST_PROP(SerializeLaw, AnySequenceOfFieldsReadsBackWhatWasWritten, ()) {
  const auto fields = *any_fields();
  const Array written = new_array();
  for (const Field &field : fields) std::visit(Writer(written.get()), field);
  ExactArray array(bytes_of(written));
  guint32 indx = 0;
  for (const Field &field : fields) RC_ASSERT(std::visit(Reader(array.get(), &indx), field) == field);
  RC_ASSERT(indx == written->len);
}

RC_GTEST_PROP(SerializeLaw, FieldIsWrittenAlikeWhereverItStands, ()) {
  const auto fields = *any_fields();
  const Array together = new_array();
  std::string one_by_one;
  for (const Field &field : fields) {
    std::visit(Writer(together.get()), field);
    const Array alone = new_array();
    std::visit(Writer(alone.get()), field);
    one_by_one += bytes_of(alone);
  }
  RC_ASSERT(bytes_of(together) == one_by_one);
}

RC_GTEST_PROP(SerializeLaw, AnyBytesReadAsLittleEndianIntegersWithZerosBehindTheirEnd, ()) {
  const auto bytes = *any_bytes();
  ExactArray array(bytes);
  for (guint32 start = 0; start + 2 <= bytes.size(); ++start) {
    std::string followed_by_zeros = bytes.substr(start, 4);
    followed_by_zeros.resize(4);
    guint32 expected = 0;
    for (int i = 3; i >= 0; --i) expected = expected << 8 | static_cast<guint8>(followed_by_zeros[i]);
    guint32 indx = start;
    RC_ASSERT(ptz_deserialize_32bit(array.get(), &indx) == expected);
    RC_ASSERT(indx == start + 4);
    indx = start;
    RC_ASSERT(ptz_deserialize_16bit(array.get(), &indx) == (expected & 0xffff));
    indx = start;
    RC_ASSERT(ptz_deserialize_8bit(array.get(), &indx) == (expected & 0xff));
  }
}

RC_GTEST_PROP(SerializeLaw, BlobIsTheBytesThatAreThereFollowedByZeros, ()) {
  const auto bytes = *any_bytes();
  const auto start = *rc::gen::inRange<guint32>(0, 300);
  const auto size = *rc::gen::inRange<guint>(1, 300);
  ExactArray array(bytes);
  guint32 indx = start;
  const Memory blob(ptz_deserialize_blob(array.get(), &indx, size));
  std::string expected = bytes.substr(std::min<std::size_t>(start, bytes.size()), size);
  expected.resize(size);
  RC_ASSERT(std::memcmp(blob.get(), expected.data(), size) == 0);
  RC_ASSERT(indx == start + size);
}

RC_GTEST_PROP(SerializeLaw, ListIsAsLongAsItsCountUpToALimit, ()) {
  const guint32 count = *rc::gen::oneOf(rc::gen::inRange<guint32>(0, 2048), rc::gen::arbitrary<guint32>());
  const Array array = new_array();
  ptz_serialize_32bit(array.get(), count);
  const std::string rest = *any_bytes();
  ptz_serialize_blob(array.get(), rest.data(), static_cast<guint>(rest.size()));
  guint32 indx = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, [](GArray *, guint32 *) -> gpointer { return nullptr; }));
  RC_ASSERT(g_list_length(list.get()) == std::min(count, 65'536u));
}
