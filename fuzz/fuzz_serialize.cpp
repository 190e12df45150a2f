// Reads a body of arbitrary bytes with an arbitrary sequence of readers, and holds each read against what the bytes
// say: its value, the cursor, which check it fails if any. What was read is written again, and must be the same bytes.
//
//   input   count of operations (1 byte), that many operations (1 byte each), the body
//   operation   low four bits: which (see `operations`), high four bits: its argument
#include <syslog.h>

#include <algorithm>
#include <csetjmp>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "byte_arrays.h"
#include "fuzz_target.h"
#include "interpose.h"
#include "ptz_driver_parameter_item.h"
#include "ptz_serialize.h"

using namespace ptz_test;

namespace {

constexpr std::size_t operations_max = 16;
// A false count is believed up to the larger of these: with large bodies all the time would go into long lists.
constexpr guint32 elements_without_bytes_max = 65'536;
// A list that is longer takes milliseconds: one is read per input.
constexpr guint32 short_list_max = 2048;
constexpr std::size_t body_max = 600;
constexpr guint blob_excess_max = 64 * 1024;

struct Check {
  std::string_view function;
  std::string_view expression;
  bool operator==(const Check &) const = default;
};

constexpr Check check_8bit{"ptz_deserialize_8bit", "array->len >= *indx + 1"};
constexpr Check check_16bit{"ptz_deserialize_16bit", "array->len >= *indx + 2"};
constexpr Check check_32bit{"ptz_deserialize_32bit", "array->len >= *indx + 2"};
constexpr Check check_string{"ptz_deserialize_string", "array->len >= *indx + length"};

std::jmp_buf before_reader;
bool reading = false;
Check failed_check;
guint32 lines_logged = 0;

}  // namespace

INTERPOSE(void, syslog, (int, const char *, ...)) { ++lines_logged; }

// A reader that fails a check ends there, and does not end the process.
INTERPOSE(void, g_assertion_message_expr,
          (const char *domain, const char *file, int line, const char *function, const char *expression)) {
  if (!reading || std::string_view(file) != "ptz_serialize") {
    std::fprintf(stderr, "%s:%s:%d:%s: assertion failed: (%s)\n", domain, file, line, function, expression);
    std::abort();
  }
  failed_check = {function, expression};
  std::longjmp(before_reader, 1);
}

namespace {

// Runs a reader, to its end or to the check that it fails. What it allocates before a check would be lost: the element
// readers below therefore try nothing that would fail.
template <typename Reader>
[[gnu::noinline]] std::optional<Check> failure_of(Reader reader) {
  reading = true;
  const bool failed = setjmp(before_reader) != 0;
  if (!failed) reader();
  reading = false;
  return failed ? std::optional(failed_check) : std::nullopt;
}

std::uint64_t bytes_left(const GArray *array, guint32 indx) { return array->len > indx ? array->len - indx : 0; }

// A little-endian number, of which the bytes beyond the end are zero.
guint32 number_at(const GArray *array, guint32 indx, guint size) {
  guint32 number = 0;
  for (guint i = 0; i < size && i < bytes_left(array, indx); ++i) {
    number |= guint32{static_cast<guint8>(array->data[indx + i])} << (8 * i);
  }
  return number;
}

guint32 advanced(guint32 indx, std::uint64_t count) {
  return static_cast<guint32>(std::min<std::uint64_t>(indx + count, G_MAXUINT32));
}

// The check that a string fails at the cursor, if any.
std::optional<Check> string_failure(const GArray *array, guint32 indx) {
  if (bytes_left(array, indx) < 2) return check_16bit;
  if (bytes_left(array, indx) - 2 < number_at(array, indx, 2)) return check_string;
  return std::nullopt;
}

// Element readers have no data of their own.
guint32 calls;
guint32 refusals;
guint32 freed_keys;
guint32 freed_values;
guint element_size;
gpointer owned() { return g_malloc(1); }
void free_key(gpointer key) {
  ++freed_keys;
  g_free(key);
}
void free_value(gpointer value) {
  ++freed_values;
  g_free(value);
}

gpointer read_byte(GArray *array, guint32 *indx) {
  ++calls;
  if (bytes_left(array, *indx) >= 1) return GUINT_TO_POINTER(ptz_deserialize_8bit(array, indx));
  ++refusals;
  return nullptr;
}
void write_byte(gpointer data, GArray *array) {
  ptz_serialize_8bit(array, static_cast<guint8>(GPOINTER_TO_UINT(data)));
}

gpointer read_text(GArray *array, guint32 *indx) {
  ++calls;
  if (!string_failure(array, *indx)) return ptz_deserialize_string(array, indx);
  ++refusals;
  return nullptr;
}
void write_text(gpointer data, GArray *array) { ptz_serialize_string(array, static_cast<const gchar *>(data)); }

gpointer read_blob(GArray *array, guint32 *indx) {
  ++calls;
  return ptz_deserialize_blob(array, indx, element_size);
}
void write_blob(gpointer data, GArray *array) { ptz_serialize_blob(array, data, element_size); }

gpointer read_nothing(GArray *, guint32 *) {
  ++calls;
  return nullptr;
}

PTZSerializePair *new_pair(gpointer key, gpointer value) {
  auto *pair = g_new(PTZSerializePair, 1);
  *pair = {key, value};
  return pair;
}
PTZSerializePair *read_no_pair(GArray *, guint32 *) {
  ++calls;
  return nullptr;
}
PTZSerializePair *read_pair_of_nothing(GArray *, guint32 *) {
  ++calls;
  return new_pair(owned(), owned());
}
PTZSerializePair *read_text_and_number(GArray *array, guint32 *indx) {
  ++calls;
  guint32 behind = *indx;
  if (string_failure(array, behind)) {
    ++refusals;
    return nullptr;
  }
  gchar *key = ptz_deserialize_string(array, &behind);
  if (bytes_left(array, behind) < 2) {
    g_free(key);
    ++refusals;
    return nullptr;
  }
  auto *number = g_new(guint32, 1);
  *number = ptz_deserialize_32bit(array, &behind);
  *indx = behind;
  return new_pair(key, number);
}
void write_text_and_number(PTZSerializePair *pair, GArray *array) {
  ptz_serialize_string(array, static_cast<const gchar *>(pair->key));
  ptz_serialize_32bit(array, *static_cast<const guint32 *>(pair->value));
}

// One body, and a cursor that stands somewhere in it or beyond it.
class Body {
  ExactArray bytes_;
  GArray *array_ = bytes_.get();
  guint32 indx_ = 0;
  Array written_ = new_array();
  bool had_long_list_ = false;

 public:
  explicit Body(std::string_view bytes) : bytes_(bytes) {}

  // The 32-bit reader's check demands fewer bytes than it reads.
  template <auto reader, auto writer, const Check &check, guint demanded>
  void read_integer(guint) {
    const guint32 start = indx_;
    decltype(reader(array_, &indx_)) value = 0;
    const auto failure = failure_of([&] { value = reader(array_, &indx_); });
    REQUIRE(failure == (bytes_left(array_, start) < demanded ? std::optional(check) : std::nullopt));
    REQUIRE(indx_ == (failure ? start : advanced(start, sizeof value)));
    if (failure) return;
    REQUIRE(value == number_at(array_, start, sizeof value));
    writer(written_.get(), value);
    require_written_is_what_was_read(start);
  }

  void read_string(guint) {
    const guint32 start = indx_;
    const guint32 length = number_at(array_, start, 2);
    gchar *read = nullptr;
    const auto failure = failure_of([&] { read = ptz_deserialize_string(array_, &indx_); });
    const Text text(read);
    REQUIRE(failure == string_failure(array_, start));
    if (failure) {
      REQUIRE(indx_ == (failure == check_string ? start + 2 : start));
      return;
    }
    REQUIRE(indx_ == start + 2 + length);
    const std::string_view stored(array_->data + start + 2, length);
    std::string expected(stored.substr(0, stored.find('\0')));
    expected.resize(length + 1);
    REQUIRE(std::string_view(text.get(), length + 1) == expected);
    if (stored.find('\0') != stored.npos) return;
    ptz_serialize_string(written_.get(), text.get());
    require_written_is_what_was_read(start);
  }

  void read_blob_of(guint argument) {
    constexpr guint sizes[] = {0,      1,      2,      3,      4,          8,          100,       1000,
                               65'535, 65'536, 65'537, 66'000, 0x7fffffff, 0x80000000, G_MAXUINT, G_MAXUINT - 1};
    const guint size = sizes[argument];
    const guint32 start = indx_;
    const auto present = static_cast<guint>(std::min<std::uint64_t>(size, bytes_left(array_, start)));
    const Memory blob(ptz_deserialize_blob(array_, &indx_, size));
    REQUIRE(indx_ == advanced(start, size));
    REQUIRE((blob == nullptr) == (size == 0 || size - present > blob_excess_max));
    if (blob == nullptr) return;
    const std::string_view copy(static_cast<const char *>(blob.get()), size);
    if (present > 0) REQUIRE(copy.substr(0, present) == std::string_view(array_->data + start, present));
    REQUIRE(copy.find_first_not_of('\0', present) == copy.npos);
    ptz_serialize_blob(written_.get(), blob.get(), size);
    require_written_is_what_was_read(start);
  }

  void read_list_of_bytes(guint) { read_list(read_byte, write_byte, nullptr); }
  void read_list_of_texts(guint) { read_list(read_text, write_text, g_free); }
  void read_list_of_nothing(guint) { read_list(read_nothing, nullptr, nullptr); }
  void read_list_of_blobs(guint argument) {
    // Not those that are mostly missing: a few thousand of them would fill the memory.
    constexpr guint sizes[] = {0, 1, 2, 3, 4, 5, 8, 13, 50, 100, 70'000, 0x7fffffff, 0x80000000, G_MAXUINT};
    element_size = sizes[argument % std::size(sizes)];
    read_list(read_blob, element_size > 0 ? write_blob : nullptr, g_free);
  }

  // The record of a driver's parameter, read in one go and held against its fields read one by one.
  void read_parameter_item(guint) {
    const guint32 start = indx_;
    guint32 expected_end = start;
    std::optional<Check> expected_failure;
    bool is_whole = true, is_visible = true;
    const auto skip_number = [&] {
      if (expected_failure) return;
      if (bytes_left(array_, expected_end) < 2) {
        expected_failure = check_32bit;
      } else {
        is_whole = is_whole && bytes_left(array_, expected_end) >= 4;
        expected_end = advanced(expected_end, 4);
      }
    };
    const auto skip_string = [&] {
      if (expected_failure) return;
      expected_failure = string_failure(array_, expected_end);
      if (expected_failure == check_16bit) return;
      const guint32 length = number_at(array_, expected_end, 2);
      expected_end += 2;
      if (expected_failure) return;
      is_visible = is_visible && std::string_view(array_->data + expected_end, length).find('\0') == std::string::npos;
      expected_end += length;
    };
    skip_number();
    for (int i = 0; i < 3; ++i) skip_string();
    for (int i = 0; i < 2; ++i) skip_number();
    skip_string();

    PTZDriverParameterItem item = {};
    const auto failure = failure_of([&] {
      ptz_driver_parameter_item_deserialize(array_, &indx_, &item.code, &item.string1, &item.string2, &item.string3,
                                            &item.number1, &item.number2, &item.string4);
    });
    const Text strings[] = {Text(item.string1), Text(item.string2), Text(item.string3), Text(item.string4)};
    REQUIRE(failure == expected_failure);
    REQUIRE(indx_ == expected_end);
    if (failure) return;
    REQUIRE(std::ranges::none_of(strings, [](const Text &string) { return string == nullptr; }));
    if (!is_whole || !is_visible) return;
    ptz_driver_parameter_item_serialize(&item, written_.get());
    require_written_is_what_was_read(start);
  }

  void read_table_of_nothing(guint) { read_table(read_pair_of_nothing, g_direct_hash, g_direct_equal, nullptr); }
  void read_table_of_no_pairs(guint) { read_table(read_no_pair, g_direct_hash, g_direct_equal, nullptr); }
  void read_table_of_texts_and_numbers(guint) {
    read_table(read_text_and_number, g_str_hash, g_str_equal, write_text_and_number);
  }

  void move_cursor(guint argument) {
    switch (argument % 4) {
      case 0:
        indx_ = 0;
        break;
      case 1:
        indx_ = argument;
        break;
      case 2:
        indx_ = array_->len > argument ? array_->len - argument : 0;
        break;
      default:
        indx_ = G_MAXUINT32 - argument;
    }
  }

 private:
  // Only where it ended within the body: what stood beyond is not there to be compared with.
  void require_written_is_what_was_read(guint32 start) {
    if (indx_ <= array_->len) {
      REQUIRE(bytes_of(written_) == std::string_view(array_->data + start, indx_ - start));
    }
    g_array_set_size(written_.get(), 0);
  }

  guint32 elements_at(guint32 start) const {
    return std::min(number_at(array_, start, 4), std::max(array_->len, elements_without_bytes_max));
  }

  bool can_afford(guint32 count) { return count <= short_list_max || !std::exchange(had_long_list_, true); }

  void read_list(PTZElementDeserializer reader, PTZElementSerializer writer, GDestroyNotify free_element) {
    const guint32 start = indx_;
    const guint32 count = elements_at(start);
    if (!can_afford(count)) return;
    calls = refusals = lines_logged = 0;
    GList *list = nullptr;
    const auto failure = failure_of([&] { list = ptz_deserialize_glist(array_, &indx_, reader); });
    REQUIRE(failure == (bytes_left(array_, start) < 2 ? std::optional(check_32bit) : std::nullopt));
    if (failure) {
      REQUIRE(indx_ == start);
      return;
    }
    REQUIRE(calls == count);
    REQUIRE(lines_logged == (count < number_at(array_, start, 4) ? 1 : 0));
    REQUIRE(g_list_length(list) == count);
    REQUIRE(indx_ >= advanced(start, 4));
    // Where each element was there in full, and a text does not hide anything behind a NUL.
    if (writer != nullptr && list != nullptr && refusals == 0 && indx_ <= array_->len &&
        count == number_at(array_, start, 4)) {
      ptz_serialize_glist(written_.get(), list, writer);
      if (written_->len == indx_ - start) require_written_is_what_was_read(start);
      g_array_set_size(written_.get(), 0);
    }
    g_list_free_full(
        list, free_element != nullptr ? free_element : [](gpointer) {});
  }

  void read_table(PTZPairDeserializer reader, GHashFunc hash, GEqualFunc equal, PTZPairSerializer writer) {
    const guint32 start = indx_;
    const guint32 count = elements_at(start);
    if (!can_afford(count)) return;
    calls = refusals = lines_logged = freed_keys = freed_values = 0;
    Table table(g_hash_table_new_full(hash, equal, free_key, free_value));
    GHashTable *result = nullptr;
    const auto failure = failure_of([&] { result = ptz_deserialize_ghashtable(array_, &indx_, table.get(), reader); });
    REQUIRE(failure == (bytes_left(array_, start) < 2 ? std::optional(check_32bit) : std::nullopt));
    if (failure) {
      REQUIRE(indx_ == start);
      return;
    }
    REQUIRE(result == table.get());
    REQUIRE(calls == count);
    REQUIRE(lines_logged == (count < number_at(array_, start, 4) ? 1 : 0));
    REQUIRE(indx_ >= advanced(start, 4));
    REQUIRE(freed_keys == freed_values);
    const guint32 pairs = reader == read_no_pair ? 0 : count - refusals;
    REQUIRE(g_hash_table_size(table.get()) + freed_keys == pairs);
    if (writer != nullptr) require_table_reads_back(table, reader, writer);
    freed_keys = freed_values = 0;
    const guint32 size = g_hash_table_size(table.get());
    table.reset();
    REQUIRE(freed_keys == size && freed_values == size);
  }

  void require_table_reads_back(const Table &table, PTZPairDeserializer reader, PTZPairSerializer writer) {
    ptz_serialize_ghashtable(written_.get(), table.get(), writer);
    const Table again(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    guint32 indx = 0;
    ptz_deserialize_ghashtable(written_.get(), &indx, again.get(), reader);
    REQUIRE(indx == written_->len);
    REQUIRE(g_hash_table_size(again.get()) == g_hash_table_size(table.get()));
    GHashTableIter iter;
    gpointer key = nullptr, value = nullptr;
    g_hash_table_iter_init(&iter, table.get());
    while (g_hash_table_iter_next(&iter, &key, &value)) {
      const auto *found = static_cast<const guint32 *>(g_hash_table_lookup(again.get(), key));
      REQUIRE(found != nullptr && *found == *static_cast<const guint32 *>(value));
    }
    g_array_set_size(written_.get(), 0);
  }
};

constexpr void (Body::*operations[])(guint argument) = {
    &Body::read_integer<ptz_deserialize_8bit, ptz_serialize_8bit, check_8bit, 1>,
    &Body::read_integer<ptz_deserialize_16bit, ptz_serialize_16bit, check_16bit, 2>,
    &Body::read_integer<ptz_deserialize_32bit, ptz_serialize_32bit, check_32bit, 2>,
    &Body::read_string,
    &Body::read_blob_of,
    &Body::read_list_of_bytes,
    &Body::read_list_of_texts,
    &Body::read_list_of_nothing,
    &Body::read_list_of_blobs,
    &Body::read_table_of_nothing,
    &Body::read_table_of_no_pairs,
    &Body::read_table_of_texts_and_numbers,
    &Body::move_cursor,
    &Body::read_parameter_item,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char *>(data), size);
  const auto program = input.substr(1, std::min<std::size_t>(data[0], operations_max));
  Body body(input.substr(1 + program.size(), body_max));
  for (const char operation : program) {
    const auto code = static_cast<std::uint8_t>(operation);
    (body.*operations[code % 16 % std::size(operations)])(code / 16);
  }
  return 0;
}
