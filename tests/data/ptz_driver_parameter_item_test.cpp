#include "ptz_driver_parameter_item.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <csignal>
#include <string>

#include "byte_arrays.h"
#include "failed_assertion.h"
#include "fixtures.h"

using namespace std::string_literals;
using namespace ptz_test;

namespace {

struct Record {
  guint32 code = 0;
  std::string string1 = {}, string2 = {}, string3 = {};
  guint32 number1 = 0, number2 = 0;
  std::string string4 = {};
  bool operator==(const Record &) const = default;
};

PTZDriverParameterItem item_of(Record &record) {
  return {record.code,    record.string1.data(), record.string2.data(), record.string3.data(),
          record.number1, record.number2,        record.string4.data()};
}

std::string written(Record record) {
  const Array array = new_array();
  const PTZDriverParameterItem item = item_of(record);
  ptz_driver_parameter_item_serialize(&item, array.get());
  return bytes_of(array);
}

Record read(GArray *array, guint32 *indx) {
  Record record;
  gchar *strings[4] = {};
  ptz_driver_parameter_item_deserialize(array, indx, &record.code, &strings[0], &strings[1], &strings[2],
                                        &record.number1, &record.number2, &strings[3]);
  record.string1 = Text(strings[0]).get();
  record.string2 = Text(strings[1]).get();
  record.string3 = Text(strings[2]).get();
  record.string4 = Text(strings[3]).get();
  return record;
}

void read_short_record(const std::string &bytes) {
  ExactArray array(bytes);
  guint32 indx = 0;
  read(array.get(), &indx);
}

const std::string whole = "\1\0\0\0\1\0a\0\0\2\0bc\2\0\0\0\3\0\0\0\0\0"s;

}  // namespace

TEST(DriverParameterItem, IsItsFieldsInOrder) {
  EXPECT_EQ(written({1, "a", "", "bc", 2, 3, ""}), whole);
  EXPECT_EQ(written({0x01020304, "", "", "", 0xffffffff, 0, "xyz"}),
            "\4\3\2\1\0\0\0\0\0\0\xff\xff\xff\xff\0\0\0\0\3\0xyz"s);
}

TEST(DriverParameterItem, IsReadFieldByField) {
  ExactArray array(whole);
  guint32 indx = 0;
  EXPECT_EQ(read(array.get(), &indx), (Record{1, "a", "", "bc", 2, 3, ""}));
  EXPECT_EQ(indx, whole.size());
}

TEST(DriverParameterItem, StandsBehindWhatTheArrayHoldsAlready) {
  const Array array = new_array();
  ptz_serialize_8bit(array.get(), 7);
  Record first{1, "one", "", "", 0, 0, ""}, second{2, "", "", "", 0, 0, "two"};
  for (Record *record : {&first, &second}) {
    const PTZDriverParameterItem item = item_of(*record);
    ptz_driver_parameter_item_serialize(&item, array.get());
  }
  guint32 indx = 1;
  EXPECT_EQ(read(array.get(), &indx), first);
  EXPECT_EQ(read(array.get(), &indx), second);
  EXPECT_EQ(indx, array->len);
}

TEST(DriverParameterItem, FieldsNeedNotBeTaken) {
  ExactArray array(whole);
  guint32 indx = 0;
  guint32 number2 = 0;
  ptz_driver_parameter_item_deserialize(array.get(), &indx, nullptr, nullptr, nullptr, nullptr, nullptr, &number2,
                                        nullptr);
  EXPECT_EQ(number2, 3u);
  EXPECT_EQ(indx, whole.size());
}

TEST(DriverParameterItem, NullItemIsACritical) {
  const GlibLogCapture log;
  const Array array = new_array();
  ptz_driver_parameter_item_serialize(nullptr, array.get());
  EXPECT_EQ(log.failed_check("ptz_driver_parameter_item_serialize", "item != NULL"), 1u);
  EXPECT_EQ(array->len, 0u);
}

RC_GTEST_PROP(DriverParameterItemLaw, AnyRecordReadsBackAsWritten, (guint32 code, guint32 number1, guint32 number2)) {
  const auto text = [] { return *rc::gen::container<std::string>(rc::gen::nonZero<char>()); };
  const Record record{code, text(), text(), text(), number1, number2, text()};
  const std::string bytes = written(record);
  ExactArray array(bytes);
  guint32 indx = 0;
  RC_ASSERT(read(array.get(), &indx) == record);
  RC_ASSERT(indx == bytes.size());
}

// ---- what ends the process

class NullString : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(DriverParameterItemDeathTest, NullString, testing::Range(0, 4));

TEST_P(NullString, AbortsInTheWriterOfStrings) {
  Record record;
  PTZDriverParameterItem item = item_of(record);
  gchar **const strings[] = {&item.string1, &item.string2, &item.string3, &item.string4};
  *strings[GetParam()] = nullptr;
  const Array array = new_array();
  EXPECT_EXIT(ptz_driver_parameter_item_serialize(&item, array.get()), testing::KilledBySignal(SIGABRT),
              failed_assertion("ptz_serialize", "ptz_serialize_string", "string != NULL"));
}

TEST(DriverParameterItemDeathTest, NullArrayAborts) {
  Record record;
  const PTZDriverParameterItem item = item_of(record);
  EXPECT_EXIT(ptz_driver_parameter_item_serialize(&item, nullptr), testing::KilledBySignal(SIGABRT),
              failed_assertion("ptz_serialize", "ptz_serialize_32bit", "array != NULL"));
  EXPECT_EXIT(ptz_driver_parameter_item_deserialize(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                    nullptr, nullptr),
              testing::KilledBySignal(SIGABRT),
              failed_assertion("ptz_serialize", "ptz_deserialize_32bit", "array != NULL"));
}

struct Cut {
  gsize first, last;  // how many bytes are left of the record
  const char *function;
  const char *expression;
};

class CutRecord : public testing::TestWithParam<Cut> {};

constexpr char number_missing[] = "ptz_deserialize_32bit";
constexpr char length_missing[] = "ptz_deserialize_16bit";
constexpr char text_missing[] = "ptz_deserialize_string";
constexpr char two_bytes_needed[] = "array->len >= *indx + 2";
constexpr char text_needed[] = "array->len >= *indx + length";

// A number of which two bytes are there is read; what is missed then is the field behind it.
INSTANTIATE_TEST_SUITE_P(DriverParameterItemDeathTest, CutRecord,
                         testing::Values(Cut{0, 1, number_missing, two_bytes_needed},    // code
                                         Cut{2, 5, length_missing, two_bytes_needed},    // of string1
                                         Cut{6, 6, text_missing, text_needed},           // of string1
                                         Cut{7, 8, length_missing, two_bytes_needed},    // of string2
                                         Cut{9, 10, length_missing, two_bytes_needed},   // of string3
                                         Cut{11, 12, text_missing, text_needed},         // of string3
                                         Cut{13, 14, number_missing, two_bytes_needed},  // number1
                                         Cut{15, 18, number_missing, two_bytes_needed},  // number2
                                         Cut{19, 22, length_missing, two_bytes_needed}   // of string4
                                         ));

TEST_P(CutRecord, AbortsInTheReaderOfWhatIsMissing) {
  for (gsize length = GetParam().first; length <= GetParam().last; ++length) {
    SCOPED_TRACE(length);
    EXPECT_EXIT(read_short_record(whole.substr(0, length)), testing::KilledBySignal(SIGABRT),
                failed_assertion("ptz_serialize", GetParam().function, GetParam().expression));
  }
}
