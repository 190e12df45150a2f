#include "ptz_serialize.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <syslog.h>

#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "byte_arrays.h"
#include "failed_assertion.h"
#include "interpose.h"
#include "syslog_capture.h"

using namespace std::string_literals;
using namespace ptz_test;

namespace {
std::size_t nodes_walked = 0;
}

// These two functions of GLib walk a list to its end.
INTERPOSE(GList *, g_list_append, (GList * list, gpointer data)) {
  nodes_walked += g_list_length(list);
  return REAL(g_list_append)(list, data);
}

INTERPOSE(GList *, g_list_last, (GList * list)) {
  nodes_walked += g_list_length(list);
  return REAL(g_list_last)(list);
}

namespace {

constexpr std::size_t blob_excess_max = 65'536;

gpointer pointer(guint32 number) { return GUINT_TO_POINTER(number); }

// Element writers and readers, as a caller of the library has them.
void write_16bit(gpointer data, GArray *array) {
  ptz_serialize_16bit(array, static_cast<guint16>(GPOINTER_TO_UINT(data)));
}
gpointer read_16bit(GArray *array, guint32 *indx) { return pointer(ptz_deserialize_16bit(array, indx)); }
void write_pair(PTZSerializePair *pair, GArray *array) {
  ptz_serialize_8bit(array, static_cast<guint8>(GPOINTER_TO_UINT(pair->key)));
  ptz_serialize_16bit(array, static_cast<guint16>(GPOINTER_TO_UINT(pair->value)));
}
PTZSerializePair *new_pair(gpointer key, gpointer value) {
  auto *pair = g_new(PTZSerializePair, 1);
  *pair = {key, value};
  return pair;
}
PTZSerializePair *read_pair(GArray *array, guint32 *indx) {
  const guint8 key = ptz_deserialize_8bit(array, indx);
  return new_pair(pointer(key), pointer(ptz_deserialize_16bit(array, indx)));
}

// A false count is believed up to this, or the bytes of the array.
constexpr guint32 elements_without_bytes_max = 65'536;

// Readers that believe nothing: they take no bytes, and count their calls.
guint32 calls = 0;
gpointer read_nothing(GArray *, guint32 *) { return pointer(++calls); }
PTZSerializePair *read_no_pair(GArray *, guint32 *) {
  ++calls;
  return nullptr;
}
PTZSerializePair *read_pair_of_nothing(GArray *, guint32 *) {
  ++calls;
  return new_pair(pointer(calls), nullptr);
}

List list_of(const std::vector<guint32> &numbers) {
  GList *list = nullptr;
  for (auto number = numbers.rbegin(); number != numbers.rend(); ++number) {
    list = g_list_prepend(list, pointer(*number));
  }
  return List(list);
}

std::vector<guint32> numbers_of(const GList *list) {
  std::vector<guint32> numbers;
  for (; list != nullptr; list = list->next) numbers.push_back(GPOINTER_TO_UINT(list->data));
  return numbers;
}

Table new_table() { return Table(g_hash_table_new(g_direct_hash, g_direct_equal)); }

guint32 value_of(const Table &table, guint32 key) {
  return GPOINTER_TO_UINT(g_hash_table_lookup(table.get(), pointer(key)));
}

std::string blob_at(GArray *array, guint32 *indx, guint size) {
  const Memory blob(ptz_deserialize_blob(array, indx, size));
  return blob == nullptr ? "no blob" : std::string(static_cast<const char *>(blob.get()), size);
}

#define EXPECT_FAILED_CHECK(statement, function, expression) \
  EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), failed_assertion("ptz_serialize", function, expression))

constexpr char ends_within_8bit[] = "array->len >= *indx + 1";
constexpr char ends_within_16bit[] = "array->len >= *indx + 2";
constexpr char ends_within_string[] = "array->len >= *indx + length";

}  // namespace

TEST(Serialize, NewArrayIsEmptyAndHoldsBytes) {
  const Array array = new_array();
  EXPECT_EQ(array->len, 0u);
  EXPECT_EQ(g_array_get_element_size(array.get()), 1u);
}

TEST(Serialize, IntegersAreWrittenLeastSignificantByteFirst) {
  const Array array = new_array();
  ptz_serialize_8bit(array.get(), 0xab);
  EXPECT_EQ(bytes_of(array), "\xab");
  g_array_set_size(array.get(), 0);
  ptz_serialize_16bit(array.get(), 0x1234);
  EXPECT_EQ(bytes_of(array), "\x34\x12");
  g_array_set_size(array.get(), 0);
  ptz_serialize_32bit(array.get(), 0x11223344);
  EXPECT_EQ(bytes_of(array), "\x44\x33\x22\x11");
}

TEST(Serialize, ItemsFollowEachOtherWithoutFiller) {
  const Array array = new_array();
  ptz_serialize_8bit(array.get(), 1);
  ptz_serialize_32bit(array.get(), 2);
  ptz_serialize_8bit(array.get(), 3);
  ptz_serialize_16bit(array.get(), 4);
  ptz_serialize_string(array.get(), "x");
  EXPECT_EQ(bytes_of(array), "\1\2\0\0\0\3\4\0\1\0x"s);
}

TEST(Serialize, StringIsItsLengthAndItsBytes) {
  const Array array = new_array();
  ptz_serialize_string(array.get(), "abc");
  EXPECT_EQ(bytes_of(array), "\3\0abc"s);
}

TEST(Serialize, EmptyStringIsItsLengthOnly) {
  const Array array = new_array();
  ptz_serialize_string(array.get(), "");
  EXPECT_EQ(bytes_of(array), "\0\0"s);
}

TEST(Serialize, LongestStringThatItsLengthCanTellReadsBack) {
  const Array array = new_array();
  const std::string longest(65'535, 'l');
  ptz_serialize_string(array.get(), longest.c_str());
  guint32 indx = 0;
  EXPECT_EQ(Text(ptz_deserialize_string(array.get(), &indx)).get(), longest);
  EXPECT_EQ(indx, 65'537u);
}

TEST(Serialize, StringOf64KiBOrMoreKeepsItsBytesUnderATruncatedLength) {
  const Array array = new_array();
  ptz_serialize_string(array.get(), std::string(65'536, 'a').c_str());
  EXPECT_EQ(bytes_of(array), "\0\0"s + std::string(65'536, 'a'));
  g_array_set_size(array.get(), 0);
  ptz_serialize_string(array.get(), std::string(65'539, 'b').c_str());
  EXPECT_EQ(bytes_of(array), "\3\0"s + std::string(65'539, 'b'));
}

TEST(Serialize, BlobIsItsBytesOnly) {
  const Array array = new_array();
  ptz_serialize_blob(array.get(), "\0\xff\0", 3);
  EXPECT_EQ(bytes_of(array), "\0\xff\0"s);
  ptz_serialize_blob(array.get(), nullptr, 0);
  EXPECT_EQ(array->len, 3u);
}

TEST(Serialize, ListIsItsCountAndItsElementsInOrder) {
  const Array array = new_array();
  ptz_serialize_glist(array.get(), list_of({7, 9, 8}).get(), write_16bit);
  EXPECT_EQ(bytes_of(array), "\3\0\0\0\7\0\11\0\10\0"s);
}

TEST(Serialize, TableIsItsCountAndItsPairs) {
  const Array array = new_array();
  const Table table = new_table();
  g_hash_table_insert(table.get(), pointer(5), pointer(0x0201));
  ptz_serialize_ghashtable(array.get(), table.get(), write_pair);
  EXPECT_EQ(bytes_of(array), "\1\0\0\0\5\1\2"s);
}

TEST(Serialize, EmptyTableIsItsCountOnly) {
  const Array array = new_array();
  ptz_serialize_ghashtable(array.get(), new_table().get(), write_pair);
  EXPECT_EQ(bytes_of(array), "\0\0\0\0"s);
}

TEST(Serialize, EveryPairOfATableIsWrittenOnce) {
  const Array array = new_array();
  const Table table = new_table();
  for (guint32 key = 0; key < 200; ++key) g_hash_table_insert(table.get(), pointer(key), pointer(key + 1000));
  ptz_serialize_ghashtable(array.get(), table.get(), write_pair);
  EXPECT_EQ(array->len, 4u + 200 * 3);
  const Table read = new_table();
  guint32 indx = 0;
  ptz_deserialize_ghashtable(array.get(), &indx, read.get(), read_pair);
  EXPECT_EQ(indx, array->len);
  EXPECT_EQ(g_hash_table_size(read.get()), 200u);
  for (guint32 key = 0; key < 200; ++key) EXPECT_EQ(value_of(read, key), key + 1000);
}

TEST(Serialize, ArrayThatEndsItsBytesWithAZeroKeepsIt) {
  const Array array(g_array_new(TRUE, FALSE, 1));
  for (guint32 i = 0; i < 40; ++i) {
    ptz_serialize_8bit(array.get(), 1);
    ptz_serialize_16bit(array.get(), 0x0101);
    ptz_serialize_32bit(array.get(), 0x01010101);
    ptz_serialize_string(array.get(), "\1");
    ASSERT_EQ(array->data[array->len], '\0');
  }
}

TEST(Serialize, IntegersReadBackUnsignedAndMoveTheCursor) {
  ExactArray array("\xff\xfe\xff\xfd\xff\xff\xff");
  guint32 indx = 0;
  EXPECT_EQ(ptz_deserialize_8bit(array.get(), &indx), 0xff);
  EXPECT_EQ(indx, 1u);
  EXPECT_EQ(ptz_deserialize_16bit(array.get(), &indx), 0xfffe);
  EXPECT_EQ(indx, 3u);
  EXPECT_EQ(ptz_deserialize_32bit(array.get(), &indx), 0xfffffffdu);
  EXPECT_EQ(indx, 7u);
}

TEST(Serialize, ThirtyTwoBitReadOfTwoOrThreeLastBytesTakesTheMissingOnesAsZero) {
  for (const auto &[bytes, value] : {std::pair{"\x11\x22"s, 0x2211u}, std::pair{"\x11\x22\x33"s, 0x332211u}}) {
    ExactArray array(bytes);
    guint32 indx = 0;
    EXPECT_EQ(ptz_deserialize_32bit(array.get(), &indx), value);
    EXPECT_EQ(indx, 4u);
    ExactArray later("????"s + bytes);
    EXPECT_EQ(ptz_deserialize_32bit(later.get(), &indx), value);
    EXPECT_EQ(indx, 8u);
  }
}

TEST(Serialize, EmptyStringReadsBackAsANewString) {
  ExactArray array("\0\0"s);
  guint32 indx = 0;
  const Text text(ptz_deserialize_string(array.get(), &indx));
  EXPECT_STREQ(text.get(), "");
  EXPECT_EQ(indx, 2u);
}

TEST(Serialize, StringReadsBackUpToItsEmbeddedNulAndHidesNothingBehindIt) {
  ExactArray array("\6\0ab\0cde"s);
  guint32 indx = 0;
  const Text text(ptz_deserialize_string(array.get(), &indx));
  EXPECT_EQ(std::string(text.get(), 7), "ab\0\0\0\0\0"s);
  EXPECT_EQ(indx, 8u);
}

TEST(Serialize, StringMayEndWhereTheArrayEnds) {
  ExactArray array("??\3\0abc"s);
  guint32 indx = 2;
  EXPECT_STREQ(Text(ptz_deserialize_string(array.get(), &indx)).get(), "abc");
  EXPECT_EQ(indx, 7u);
}

TEST(Serialize, BlobReadsBackAsACopy) {
  ExactArray array("?a\0b?"s);
  guint32 indx = 1;
  EXPECT_EQ(blob_at(array.get(), &indx, 3), "a\0b"s);
  EXPECT_EQ(indx, 4u);
}

TEST(Serialize, BlobOfNoBytesIsNullAndLeavesTheCursor) {
  ExactArray array("abc");
  guint32 indx = 1;
  EXPECT_EQ(ptz_deserialize_blob(array.get(), &indx, 0), nullptr);
  EXPECT_EQ(indx, 1u);
}

TEST(Serialize, BlobBeyondTheEndReadsTheMissingBytesAsZero) {
  ExactArray array("abc");
  for (const guint start : {0u, 1u, 2u, 3u, 4u, 1000u}) {
    for (const guint size : {1u, 2u, 4u, 5u, 100u}) {
      const std::string present = std::string("abc").substr(std::min(start, 3u), size);
      guint32 indx = start;
      EXPECT_EQ(blob_at(array.get(), &indx, size), present + std::string(size - present.size(), '\0'));
      EXPECT_EQ(indx, start + size);
    }
  }
}

TEST(Serialize, BlobOfAnArrayThatNeverHeldAByteIsZero) {
  const Array array = new_array();
  guint32 indx = 0;
  EXPECT_EQ(blob_at(array.get(), &indx, 2), "\0\0"s);
}

TEST(Serialize, BlobMayClaim64KiBBeyondTheEndAndNoMore) {
  ExactArray array("abc");
  guint32 indx = 1;
  EXPECT_EQ(blob_at(array.get(), &indx, 2 + blob_excess_max), "bc" + std::string(blob_excess_max, '\0'));
  EXPECT_EQ(indx, 3 + blob_excess_max);
  indx = 1;
  EXPECT_EQ(ptz_deserialize_blob(array.get(), &indx, 2 + blob_excess_max + 1), nullptr);
  EXPECT_EQ(indx, 3 + blob_excess_max + 1);
  indx = 5;
  EXPECT_EQ(ptz_deserialize_blob(array.get(), &indx, blob_excess_max + 1), nullptr);
  EXPECT_EQ(indx, 5 + blob_excess_max + 1);
}

TEST(Serialize, BlobNeverMovesTheCursorRoundTheEndOfItsRange) {
  ExactArray array("abc");
  guint32 indx = 2;
  EXPECT_EQ(ptz_deserialize_blob(array.get(), &indx, G_MAXUINT), nullptr);
  EXPECT_EQ(indx, G_MAXUINT32);
  EXPECT_EQ(blob_at(array.get(), &indx, 2), "\0\0"s);
  EXPECT_EQ(indx, G_MAXUINT32);
  indx = G_MAXUINT32 - 2;
  EXPECT_EQ(blob_at(array.get(), &indx, 2), "\0\0"s);
  EXPECT_EQ(indx, G_MAXUINT32);
}

TEST(Serialize, ThirtyTwoBitReadNeverMovesTheCursorRoundTheEndOfItsRange) {
  // Addresses only: no page of it is there before it is used.
  constexpr std::size_t length = G_MAXUINT32;
  void *pages = mmap(nullptr, length, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (pages == MAP_FAILED) GTEST_SKIP() << "no 4 GiB of addresses";
  GArray array{static_cast<gchar *>(pages), length};
  guint32 indx = G_MAXUINT32 - 2;
  EXPECT_EQ(ptz_deserialize_32bit(&array, &indx), 0u);
  EXPECT_EQ(indx, G_MAXUINT32);
  munmap(pages, length);
}

TEST(Serialize, ListReadsBackInOrder) {
  ExactArray array("\3\0\0\0\7\0\11\0\10\0?"s);
  guint32 indx = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_16bit));
  EXPECT_EQ(numbers_of(list.get()), (std::vector<guint32>{7, 9, 8}));
  EXPECT_EQ(indx, 10u);
}

TEST(Serialize, ListReadBackIsLinkedBothWays) {
  ExactArray array("\3\0\0\0\7\0\11\0\10\0"s);
  guint32 indx = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_16bit));
  EXPECT_EQ(list->prev, nullptr);
  for (const GList *node = list.get(); node->next != nullptr; node = node->next) EXPECT_EQ(node->next->prev, node);
}

TEST(Serialize, ListOfNoElementsReadsBackAsNull) {
  ExactArray array("\0\0\0\0??"s);
  guint32 indx = 0;
  EXPECT_EQ(ptz_deserialize_glist(array.get(), &indx, read_16bit), nullptr);
  EXPECT_EQ(indx, 4u);
}

TEST(Serialize, ListOfElementsThatTakeNoBytesIsAsLongAsItsCount) {
  const SyslogCapture log;
  const Array array = new_array();
  ptz_serialize_32bit(array.get(), elements_without_bytes_max);
  guint32 indx = 0;
  calls = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_nothing));
  EXPECT_EQ(calls, elements_without_bytes_max);
  EXPECT_EQ(g_list_length(list.get()), elements_without_bytes_max);
  EXPECT_EQ(indx, 4u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(Serialize, ListWithALyingCountEnds) {
  for (const std::string &bytes : {"\xff\xff\1"s, "\xff\xff\xff\xff"s, std::string(70'000, '\xff')}) {
    const gsize believed = std::max<gsize>(bytes.size(), elements_without_bytes_max);
    ExactArray array(bytes);
    guint32 indx = 0;
    calls = 0;
    const List list(ptz_deserialize_glist(array.get(), &indx, read_nothing));
    EXPECT_EQ(calls, believed);
    EXPECT_EQ(g_list_length(list.get()), believed);
    EXPECT_EQ(indx, 4u);
  }
}

TEST(Serialize, ListWhoseCountIsCutLogsAWarning) {
  const SyslogCapture log;
  ExactArray array("\1\0\1\0"s);  // 65,537
  guint32 indx = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_nothing));
  EXPECT_EQ(g_list_length(list.get()), elements_without_bytes_max);
  EXPECT_EQ(log.lines(),
            (std::vector<LogLine>{{LOG_WARNING, "ptz_deserialize_glist: count of 65537 elements cut to 65536"}}));
}

TEST(Serialize, ListWithALyingCountKeepsToIt) {
  ExactArray array("\2\0\0\0??????????"s);
  guint32 indx = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_nothing));
  EXPECT_EQ(g_list_length(list.get()), 2u);
}

TEST(Serialize, ListOfBlobsWithALyingCountEndsInZeros) {
  ExactArray array("\xff\xff\xff\xff\1\2\3"s);
  guint32 indx = 0;
  GList *list = ptz_deserialize_glist(
      array.get(), &indx, [](GArray *bytes, guint32 *cursor) { return ptz_deserialize_blob(bytes, cursor, 2); });
  std::string all;
  for (const GList *node = list; node != nullptr; node = node->next)
    all += std::string(static_cast<char *>(node->data), 2);
  g_list_free_full(list, g_free);
  EXPECT_EQ(all, "\1\2\3"s + std::string(2 * elements_without_bytes_max - 3, '\0'));
  EXPECT_EQ(indx, 4u + 2 * elements_without_bytes_max);
}

TEST(Serialize, ListIsReadInOneWalk) {
  constexpr guint32 length = 2000;
  const Array array = new_array();
  ptz_serialize_32bit(array.get(), length);
  for (guint32 i = 0; i < length; ++i) ptz_serialize_16bit(array.get(), static_cast<guint16>(i));
  guint32 indx = 0;
  nodes_walked = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_16bit));
  EXPECT_LE(nodes_walked, length);
  EXPECT_EQ(g_list_length(list.get()), length);
}

TEST(Serialize, ListOfAMillionElementsReadsBack) {
  constexpr guint32 length = 1'000'000;
  const Array array = new_array();
  ptz_serialize_32bit(array.get(), length);
  g_array_set_size(array.get(), 4 + length);
  guint32 indx = 0;
  calls = 0;
  const List list(ptz_deserialize_glist(array.get(), &indx, read_nothing));
  guint32 expected = 0;
  for (const GList *node = list.get(); node != nullptr; node = node->next) {
    ASSERT_EQ(GPOINTER_TO_UINT(node->data), ++expected);
  }
  EXPECT_EQ(expected, length);
}

TEST(Serialize, TableReadsIntoTheOneGivenAndReplacesValues) {
  ExactArray array("\2\0\0\0\5\1\2\6\3\4"s);
  const Table table = new_table();
  g_hash_table_insert(table.get(), pointer(5), pointer(1));
  g_hash_table_insert(table.get(), pointer(9), pointer(2));
  guint32 indx = 0;
  EXPECT_EQ(ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_pair), table.get());
  EXPECT_EQ(indx, 10u);
  EXPECT_EQ(g_hash_table_size(table.get()), 3u);
  EXPECT_EQ(value_of(table, 5), 0x0201u);
  EXPECT_EQ(value_of(table, 6), 0x0403u);
  EXPECT_EQ(value_of(table, 9), 2u);
}

TEST(Serialize, LaterPairOfTheSameKeyReplacesTheEarlierOne) {
  ExactArray array("\2\0\0\0\5\1\0\5\2\0"s);
  const Table table = new_table();
  guint32 indx = 0;
  ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_pair);
  EXPECT_EQ(g_hash_table_size(table.get()), 1u);
  EXPECT_EQ(value_of(table, 5), 2u);
}

TEST(Serialize, TableOfNoPairsLeavesTheOneGivenAsItWas) {
  ExactArray array("\0\0\0\0???"s);
  const Table table = new_table();
  g_hash_table_insert(table.get(), pointer(5), pointer(1));
  guint32 indx = 0;
  EXPECT_EQ(ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_pair), table.get());
  EXPECT_EQ(indx, 4u);
  EXPECT_EQ(g_hash_table_size(table.get()), 1u);
  EXPECT_EQ(value_of(table, 5), 1u);
}

TEST(Serialize, TableOwnsTheKeysAndValuesThatWereRead) {
  static guint freed_keys, freed_values;
  freed_keys = freed_values = 0;
  const auto free_key = [](gpointer key) { ++freed_keys, g_free(key); };
  const auto free_value = [](gpointer value) { ++freed_values, g_free(value); };
  ExactArray array("\3\0\0\0\1\0a\1\0x\1\0b\1\0y\1\0a\1\0z"s);
  Table table(g_hash_table_new_full(g_str_hash, g_str_equal, free_key, free_value));
  guint32 indx = 0;
  ptz_deserialize_ghashtable(array.get(), &indx, table.get(), [](GArray *bytes, guint32 *cursor) {
    gchar *key = ptz_deserialize_string(bytes, cursor);
    return new_pair(key, ptz_deserialize_string(bytes, cursor));
  });
  EXPECT_STREQ(static_cast<char *>(g_hash_table_lookup(table.get(), "a")), "z");
  EXPECT_STREQ(static_cast<char *>(g_hash_table_lookup(table.get(), "b")), "y");
  EXPECT_EQ(freed_keys, 1u);
  EXPECT_EQ(freed_values, 1u);
  table.reset();
  EXPECT_EQ(freed_keys, 3u);
  EXPECT_EQ(freed_values, 3u);
}

TEST(Serialize, PairReaderThatReturnsNothingAddsNothing) {
  ExactArray array("\3\0\0\0??"s);
  const Table table = new_table();
  guint32 indx = 0;
  calls = 0;
  EXPECT_EQ(ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_no_pair), table.get());
  EXPECT_EQ(calls, 3u);
  EXPECT_EQ(g_hash_table_size(table.get()), 0u);
}

TEST(Serialize, TableWithALyingCountEnds) {
  for (const std::string &bytes : {"\xff\xff\1"s, std::string(70'000, '\xff')}) {
    const gsize believed = std::max<gsize>(bytes.size(), elements_without_bytes_max);
    ExactArray array(bytes);
    const Table table = new_table();
    guint32 indx = 0;
    calls = 0;
    ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_pair_of_nothing);
    EXPECT_EQ(calls, believed);
    EXPECT_EQ(g_hash_table_size(table.get()), believed);
  }
}

TEST(Serialize, TableWhoseCountIsCutLogsAWarning) {
  const SyslogCapture log;
  ExactArray array("\xff\xff\xff\xff"s);
  const Table table = new_table();
  guint32 indx = 0;
  ptz_deserialize_ghashtable(array.get(), &indx, table.get(), read_no_pair);
  EXPECT_EQ(log.lines(), (std::vector<LogLine>{{LOG_WARNING,
                                                "ptz_deserialize_ghashtable: count of 4294967295 elements cut to "
                                                "65536"}}));
}

// One call that no check lets through, and the check that it fails.
struct WrongCall {
  const char *name;
  std::function<void()> call;
  const char *function;
  const char *expression;
};

void PrintTo(const WrongCall &wrong, std::ostream *stream) { *stream << wrong.function << ": " << wrong.expression; }

class SerializeDeathTest : public testing::TestWithParam<WrongCall> {};

TEST_P(SerializeDeathTest, EndsTheProcessNamingTheFirstFailedCheck) {
  const WrongCall &wrong = GetParam();
  EXPECT_FAILED_CHECK(wrong.call(), wrong.function, wrong.expression);
}

namespace {

// Calls a reader at a cursor in these bytes.
template <auto reader>
std::function<void()> read_at(guint32 start, const std::string &bytes) {
  return [start, bytes] {
    ExactArray array(bytes);
    guint32 indx = start;
    reader(array.get(), &indx);
  };
}

template <auto reader>
std::function<void()> read_null() {
  return [] {
    guint32 indx = 0;
    reader(nullptr, &indx);
  };
}

GArray *never_freed() { return new_array().release(); }
guint32 start;

const WrongCall null_arguments[] = {
    {"Write8bitToNull", [] { ptz_serialize_8bit(nullptr, 0); }, "ptz_serialize_8bit", "array != NULL"},
    {"Write16bitToNull", [] { ptz_serialize_16bit(nullptr, 0); }, "ptz_serialize_16bit", "array != NULL"},
    {"Write32bitToNull", [] { ptz_serialize_32bit(nullptr, 0); }, "ptz_serialize_32bit", "array != NULL"},
    {"WriteStringToNull", [] { ptz_serialize_string(nullptr, nullptr); }, "ptz_serialize_string", "array != NULL"},
    {"WriteNullString", [] { ptz_serialize_string(never_freed(), nullptr); }, "ptz_serialize_string", "string != NULL"},
    {"WriteListToNull", [] { ptz_serialize_glist(nullptr, nullptr, nullptr); }, "ptz_serialize_glist", "array != NULL"},
    {"WriteEmptyList", [] { ptz_serialize_glist(never_freed(), nullptr, nullptr); }, "ptz_serialize_glist",
     "list != NULL"},
    {"WriteListWithoutSerializer", [] { ptz_serialize_glist(never_freed(), list_of({1}).get(), nullptr); },
     "ptz_serialize_glist", "serializer != NULL"},
    {"WriteTableToNull", [] { ptz_serialize_ghashtable(nullptr, nullptr, nullptr); }, "ptz_serialize_ghashtable",
     "array != NULL"},
    {"WriteNullTable", [] { ptz_serialize_ghashtable(never_freed(), nullptr, nullptr); }, "ptz_serialize_ghashtable",
     "table != NULL"},
    {"WriteTableWithoutSerializer", [] { ptz_serialize_ghashtable(never_freed(), new_table().get(), nullptr); },
     "ptz_serialize_ghashtable", "serializer != NULL"},
    {"Read8bitOfNull", read_null<ptz_deserialize_8bit>(), "ptz_deserialize_8bit", "array != NULL"},
    {"Read16bitOfNull", read_null<ptz_deserialize_16bit>(), "ptz_deserialize_16bit", "array != NULL"},
    {"Read32bitOfNull", read_null<ptz_deserialize_32bit>(), "ptz_deserialize_32bit", "array != NULL"},
    {"ReadStringOfNull", read_null<ptz_deserialize_string>(), "ptz_deserialize_16bit", "array != NULL"},
    {"ReadListOfNull", [] { ptz_deserialize_glist(nullptr, nullptr, nullptr); }, "ptz_deserialize_glist",
     "array != NULL"},
    {"ReadListWithoutCursor", [] { ptz_deserialize_glist(never_freed(), nullptr, nullptr); }, "ptz_deserialize_glist",
     "indx != NULL"},
    {"ReadListWithoutDeserializer", [] { ptz_deserialize_glist(never_freed(), &start, nullptr); },
     "ptz_deserialize_glist", "deserializer != NULL"},
    {"ReadTableOfNull", [] { ptz_deserialize_ghashtable(nullptr, nullptr, nullptr, nullptr); },
     "ptz_deserialize_ghashtable", "array != NULL"},
    {"ReadTableWithoutCursor", [] { ptz_deserialize_ghashtable(never_freed(), nullptr, nullptr, nullptr); },
     "ptz_deserialize_ghashtable", "indx != NULL"},
    {"ReadTableIntoNull", [] { ptz_deserialize_ghashtable(never_freed(), &start, nullptr, nullptr); },
     "ptz_deserialize_ghashtable", "table != NULL"},
    {"ReadTableWithoutDeserializer",
     [] { ptz_deserialize_ghashtable(never_freed(), &start, new_table().get(), nullptr); },
     "ptz_deserialize_ghashtable", "deserializer != NULL"},
};

constexpr auto read_list = [](GArray *array, guint32 *indx) { ptz_deserialize_glist(array, indx, read_16bit); };
constexpr auto read_table = [](GArray *array, guint32 *indx) {
  ptz_deserialize_ghashtable(array, indx, new_table().get(), read_pair);
};

const WrongCall bytes_that_are_not_there[] = {
    {"8bitOfEmptyArray", read_at<ptz_deserialize_8bit>(0, ""), "ptz_deserialize_8bit", ends_within_8bit},
    {"8bitAtTheEnd", read_at<ptz_deserialize_8bit>(3, "abc"), "ptz_deserialize_8bit", ends_within_8bit},
    {"8bitBeyondTheEnd", read_at<ptz_deserialize_8bit>(4, "abc"), "ptz_deserialize_8bit", ends_within_8bit},
    {"8bitWhereTheCursorWouldWrap", read_at<ptz_deserialize_8bit>(G_MAXUINT32, "abc"), "ptz_deserialize_8bit",
     ends_within_8bit},
    {"16bitOfEmptyArray", read_at<ptz_deserialize_16bit>(0, ""), "ptz_deserialize_16bit", ends_within_16bit},
    {"16bitOfOneByte", read_at<ptz_deserialize_16bit>(2, "abc"), "ptz_deserialize_16bit", ends_within_16bit},
    {"16bitBeyondTheEnd", read_at<ptz_deserialize_16bit>(5, "abc"), "ptz_deserialize_16bit", ends_within_16bit},
    {"16bitWhereTheCursorWouldWrap", read_at<ptz_deserialize_16bit>(G_MAXUINT32 - 1, "abc"), "ptz_deserialize_16bit",
     ends_within_16bit},
    {"32bitOfOneByte", read_at<ptz_deserialize_32bit>(2, "abc"), "ptz_deserialize_32bit", ends_within_16bit},
    {"32bitBeyondTheEnd", read_at<ptz_deserialize_32bit>(5, "abc"), "ptz_deserialize_32bit", ends_within_16bit},
    {"32bitWhereTheCursorWouldWrap", read_at<ptz_deserialize_32bit>(G_MAXUINT32, "abc"), "ptz_deserialize_32bit",
     ends_within_16bit},
    {"StringOfOneByte", read_at<ptz_deserialize_string>(0, "\1"), "ptz_deserialize_16bit", ends_within_16bit},
    {"StringWhereTheCursorWouldWrap", read_at<ptz_deserialize_string>(G_MAXUINT32 - 1, "\1\0abc"s),
     "ptz_deserialize_16bit", ends_within_16bit},
    {"StringOneByteShort", read_at<ptz_deserialize_string>(0, "\4\0abc"s), "ptz_deserialize_string",
     ends_within_string},
    {"StringWithTheLongestLength", read_at<ptz_deserialize_string>(0, "\xff\xff???"), "ptz_deserialize_string",
     ends_within_string},
    {"ListWithoutItsCount", read_at<read_list>(0, "\1"), "ptz_deserialize_32bit", ends_within_16bit},
    {"ListWithALyingCount", read_at<read_list>(0, "\xff\xff\xff\xff\1\0\2\0\3"s), "ptz_deserialize_16bit",
     ends_within_16bit},
    {"ListWithACutCount", read_at<read_list>(0, "\1\0"s), "ptz_deserialize_16bit", ends_within_16bit},
    {"TableWithoutItsCount", read_at<read_table>(0, ""), "ptz_deserialize_32bit", ends_within_16bit},
    {"TableWithALyingCount", read_at<read_table>(0, "\2\0\0\0\1\2\3"s), "ptz_deserialize_8bit", ends_within_8bit},
};

std::string name_of(const testing::TestParamInfo<WrongCall> &info) { return info.param.name; }

}  // namespace

INSTANTIATE_TEST_SUITE_P(NullArguments, SerializeDeathTest, testing::ValuesIn(null_arguments), name_of);
INSTANTIATE_TEST_SUITE_P(BytesThatAreNotThere, SerializeDeathTest, testing::ValuesIn(bytes_that_are_not_there),
                         name_of);

TEST(SerializeCursor, StandsBehindTheLengthOfAStringThatIsNotThere) {
  // Shared with the process that ends.
  void *page = mmap(nullptr, sizeof(guint32), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  auto *indx = static_cast<guint32 *>(page);
  *indx = 1;
  ExactArray array("?\4\0abc"s);
  EXPECT_FAILED_CHECK(ptz_deserialize_string(array.get(), indx), "ptz_deserialize_string", ends_within_string);
  EXPECT_EQ(*indx, 3u);
  munmap(page, sizeof(guint32));
}

// A body as a daemon sends one, cut off after every byte of it.
namespace {

// One read of a body: what its check demands, and what it takes.
struct Step {
  const char *reader;
  const char *check;  // NULL: none
  guint32 demands;
  guint32 takes;
};

constexpr Step step_8bit{"ptz_deserialize_8bit", ends_within_8bit, 1, 1};
constexpr Step step_16bit{"ptz_deserialize_16bit", ends_within_16bit, 2, 2};
constexpr Step step_32bit{"ptz_deserialize_32bit", ends_within_16bit, 2, 4};
constexpr Step step_text(guint32 length) { return {"ptz_deserialize_string", ends_within_string, length, length}; }
constexpr Step step_blob(guint32 length) { return {"ptz_deserialize_blob", nullptr, 0, length}; }

std::string whole_body() {
  const Array array = new_array();
  const Table table = new_table();
  g_hash_table_insert(table.get(), pointer(5), pointer(6));
  ptz_serialize_32bit(array.get(), 0x01020304);
  ptz_serialize_string(array.get(), "pan");
  ptz_serialize_string(array.get(), "");
  ptz_serialize_8bit(array.get(), 8);
  ptz_serialize_glist(array.get(), list_of({1, 2}).get(), write_16bit);
  ptz_serialize_blob(array.get(), "blob", 4);
  ptz_serialize_ghashtable(array.get(), table.get(), write_pair);
  ptz_serialize_32bit(array.get(), 0x05060708);
  return bytes_of(array);
}

// Reads the body from its beginning and returns where the cursor stands in the end.
guint32 read_body(GArray *array) {
  guint32 indx = 0;
  const Table table = new_table();
  ptz_deserialize_32bit(array, &indx);
  const Text text(ptz_deserialize_string(array, &indx));
  const Text empty_text(ptz_deserialize_string(array, &indx));
  ptz_deserialize_8bit(array, &indx);
  const List list(ptz_deserialize_glist(array, &indx, read_16bit));
  const Memory blob(ptz_deserialize_blob(array, &indx, 4));
  ptz_deserialize_ghashtable(array, &indx, table.get(), read_pair);
  ptz_deserialize_32bit(array, &indx);
  return indx;
}

// The calls that reading the whole body makes; its lengths and counts are what they are also where it is cut behind
// them.
constexpr Step steps[] = {
    step_32bit,                              // number
    step_16bit,   step_text(3),              // "pan"
    step_16bit,   step_text(0),              // ""
    step_8bit,                               // number
    step_32bit,   step_16bit,   step_16bit,  // list
    step_blob(4),                            // blob
    step_32bit,   step_8bit,    step_16bit,  // table
    step_32bit,                              // number
};

}  // namespace

class SerializeCutBody : public testing::TestWithParam<guint32> {};

TEST_P(SerializeCutBody, IsReadUpToTheFirstCheckThatItsEndFails) {
  const guint32 length = GetParam();
  ExactArray array(whole_body().substr(0, length));
  guint32 cursor = 0;
  for (const Step &step : steps) {
    if (step.check != nullptr && cursor + step.demands > length) {
      EXPECT_FAILED_CHECK(read_body(array.get()), step.reader, step.check);
      return;
    }
    cursor += step.takes;
  }
  EXPECT_EQ(read_body(array.get()), cursor);
}

INSTANTIATE_TEST_SUITE_P(AfterEveryByte, SerializeCutBody,
                         testing::Range(0u, static_cast<guint32>(whole_body().size()) + 1));
