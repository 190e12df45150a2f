#include "body_reader.h"

#include <gtest/gtest.h>
#include <ptz_serialize.h>

#include <cstring>
#include <initializer_list>

#include "owned.h"

using example::Body;
using example::BodyReader;

namespace {

Body bytes(std::initializer_list<guint8> values) {
  Body body(ptz_serialize_create_array());
  ptz_serialize_blob(body.get(), values.begin(), static_cast<guint>(values.size()));
  return body;
}

}  // namespace

TEST(BodyReader, ReadsWhatTheLibraryWrites) {
  const Body body(ptz_serialize_create_array());
  ptz_serialize_8bit(body.get(), 200);
  ptz_serialize_16bit(body.get(), 40'000);
  ptz_serialize_32bit(body.get(), 3'000'000'000);
  ptz_serialize_32bit(body.get(), static_cast<guint32>(-5));
  ptz_serialize_string(body.get(), "höher");
  BodyReader reader(body.get());
  EXPECT_EQ(reader.u8(), 200);
  EXPECT_EQ(reader.u16(), 40'000);
  EXPECT_EQ(reader.u32(), 3'000'000'000);
  EXPECT_EQ(reader.i32(), -5);
  EXPECT_EQ(reader.text(), "höher");
  EXPECT_TRUE(reader.finished());
}

TEST(BodyReader, FailsWhereABodyEndsWithinANumber) {
  // Two and three bytes are what ptz_deserialize_32bit() itself would take for four.
  for (const guint size : {0U, 1U, 2U, 3U}) {
    const Body body = bytes({1, 2, 3});
    g_array_set_size(body.get(), size);
    BodyReader reader(body.get());
    EXPECT_EQ(reader.u32(), 0U);
    EXPECT_TRUE(reader.failed()) << size;
  }
}

TEST(BodyReader, StaysFailedAndReturnsZeroes) {
  const Body body = bytes({1, 2, 3});
  BodyReader reader(body.get());
  reader.u32();
  EXPECT_EQ(reader.u8(), 0);
  EXPECT_EQ(reader.u16(), 0);
  EXPECT_EQ(reader.text(), "");
  EXPECT_EQ(reader.count(1), 0U);
  EXPECT_FALSE(reader.finished());
}

TEST(BodyReader, IsNotFinishedWhileBytesAreLeftOver) {
  const Body body = bytes({1, 2});
  BodyReader reader(body.get());
  reader.u8();
  EXPECT_FALSE(reader.failed());
  EXPECT_FALSE(reader.finished());
}

TEST(BodyReader, FailsOnATextThatRunsPastTheEnd) {
  const Body body = bytes({4, 0, 'a', 'b', 'c'});
  BodyReader reader(body.get());
  EXPECT_EQ(reader.text(), "");
  EXPECT_TRUE(reader.failed());
}

TEST(BodyReader, FailsOnATextWithANulOrWithoutMeaning) {
  const Body bodies[] = {bytes({3, 0, 'a', 0, 'c'}), bytes({1, 0, 0}), bytes({2, 0, 0xC3, 0x28})};
  for (const Body &body : bodies) {
    BodyReader reader(body.get());
    EXPECT_EQ(reader.text(), "");
    EXPECT_TRUE(reader.failed());
  }
}

TEST(BodyReader, FailsOnACountThatTheBodyCannotHold) {
  const Body body = bytes({0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4});
  BodyReader reader(body.get());
  EXPECT_EQ(reader.count(6), 0U);
  EXPECT_TRUE(reader.failed());
}
