// Writing and reading a record of seven fields (a number, three strings, two numbers, a string): the body encoding
// beside a memcpy of the same bytes and a GVariant tuple.
#include <benchmark/benchmark.h>
#include <ptz.h>

#include <array>
#include <cstring>
#include <memory>

#include "handles.h"
#include "ratios.h"

namespace {

using Array = std::unique_ptr<GArray, ptz_test::FreeWith<g_array_unref>>;
using Value = std::unique_ptr<GVariant, ptz_test::FreeWith<g_variant_unref>>;
using ptz_test::Text;

constexpr char tuple_type[] = "(usssuus)";

struct Record {
  guint32 code;
  const char *name, *text, *value;
  guint32 info_code, range_code;
  const char *range;
};

constexpr Record record = {0x1201, "AutoFocusSpeed", "Speed of the automatic focus", "75", 3, 17, "0..100"};

void write_record(GArray *array) {
  g_array_set_size(array, 0);
  ptz_serialize_32bit(array, record.code);
  ptz_serialize_string(array, record.name);
  ptz_serialize_string(array, record.text);
  ptz_serialize_string(array, record.value);
  ptz_serialize_32bit(array, record.info_code);
  ptz_serialize_32bit(array, record.range_code);
  ptz_serialize_string(array, record.range);
}

Array written_record() {
  Array array(ptz_serialize_create_array());
  write_record(array.get());
  return array;
}

GVariant *new_tuple() {
  return g_variant_ref_sink(g_variant_new(tuple_type, record.code, record.name, record.text, record.value,
                                          record.info_code, record.range_code, record.range));
}

void write_encoded(benchmark::State &state) {
  const Array array = written_record();
  for (auto _ : state) {
    write_record(array.get());
    benchmark::DoNotOptimize(array->data);
    benchmark::ClobberMemory();
  }
}

void write_copied(benchmark::State &state) {
  const Array ready = written_record(), array = written_record();
  for (auto _ : state) {
    g_array_set_size(array.get(), 0);
    g_array_append_vals(array.get(), ready->data, ready->len);
    benchmark::DoNotOptimize(array->data);
    benchmark::ClobberMemory();
  }
}

void write_variant(benchmark::State &state) {
  for (auto _ : state) {
    const Value tuple(new_tuple());
    benchmark::DoNotOptimize(g_variant_get_data(tuple.get()));  // asking for the bytes is what makes them
  }
}

struct ReadRecord {
  guint32 code, info_code, range_code;
  Text name, text, value, range;
};

void read_encoded(benchmark::State &state) {
  const Array array = written_record();
  for (auto _ : state) {
    guint32 at = 0;
    ReadRecord read;
    read.code = ptz_deserialize_32bit(array.get(), &at);
    read.name.reset(ptz_deserialize_string(array.get(), &at));
    read.text.reset(ptz_deserialize_string(array.get(), &at));
    read.value.reset(ptz_deserialize_string(array.get(), &at));
    read.info_code = ptz_deserialize_32bit(array.get(), &at);
    read.range_code = ptz_deserialize_32bit(array.get(), &at);
    read.range.reset(ptz_deserialize_string(array.get(), &at));
    benchmark::DoNotOptimize(read);
  }
}

void read_copied(benchmark::State &state) {
  const Array array = written_record();
  std::array<char, 256> bytes;
  for (auto _ : state) {
    std::memcpy(bytes.data(), array->data, array->len);
    benchmark::DoNotOptimize(bytes);
    benchmark::ClobberMemory();
  }
}

void read_variant(benchmark::State &state) {
  const Value written(new_tuple());
  // Its own memory: the bytes of a message lie anywhere.
  const std::unique_ptr<GBytes, ptz_test::FreeWith<g_bytes_unref>> bytes(
      g_bytes_new(g_variant_get_data(written.get()), g_variant_get_size(written.get())));
  for (auto _ : state) {
    const Value tuple(g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(tuple_type), bytes.get(), FALSE)));
    ReadRecord read;
    gchar *name, *text, *value, *range;
    g_variant_get(tuple.get(), tuple_type, &read.code, &name, &text, &value, &read.info_code, &read.range_code, &range);
    read.name.reset(name);
    read.text.reset(text);
    read.value.reset(value);
    read.range.reset(range);
    benchmark::DoNotOptimize(read);
  }
}

using ptz_bench::best;
BENCHMARK(write_encoded)->ComputeStatistics("best", best);
BENCHMARK(write_copied)->ComputeStatistics("best", best);
BENCHMARK(write_variant)->ComputeStatistics("best", best);
BENCHMARK(read_encoded)->ComputeStatistics("best", best);
BENCHMARK(read_copied)->ComputeStatistics("best", best);
BENCHMARK(read_variant)->ComputeStatistics("best", best);

constexpr ptz_bench::Comparison comparisons[] = {
    {"Writing the record beside the memcpy", "write_encoded", "write_copied", {.at_most = 6}},
    {"GVariant beside writing the record", "write_variant", "write_encoded", {.at_least = 10}},
    {"Reading the record beside the memcpy", "read_encoded", "read_copied"},
    {"GVariant beside reading the record", "read_variant", "read_encoded"},
};

}  // namespace

int main(int argc, char **argv) { return ptz_bench::run_and_compare(argc, argv, comparisons); }
