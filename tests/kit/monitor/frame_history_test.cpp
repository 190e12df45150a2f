// The buffer of the last frames.
#include "driver/frame_history.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using ptz_kit::Frame;
using ptz_kit::FrameHistory;
using ptz_kit::Identity;
using ptz_kit::Shared;

std::span<const guint8> bytes_of(const std::string &text) {
  return {reinterpret_cast<const guint8 *>(text.data()), text.size()};
}

class History : public testing::Test {
 protected:
  Shared<Identity> client_{new Identity(1, -1)};
  guint32 next_id_ = 0;

  void add(FrameHistory &history, std::size_t length) {
    const std::string body(length, static_cast<char>('a' + next_id_ % 26));
    history.add({.client = client_.get(), .message_id = next_id_++}, bytes_of(body));
  }
  // Each frame that is kept is the one with its number.
  void check(const FrameHistory &history) const {
    ASSERT_EQ(history.end(), next_id_);
    for (guint64 number = history.first(); number < history.end(); ++number) {
      ASSERT_EQ(history.frame(number).message_id, number);
      for (const guint8 byte : history.body(number)) ASSERT_EQ(byte, 'a' + number % 26);
    }
  }
};

TEST_F(History, OfNoBytesCountsFramesAndKeepsNone) {
  FrameHistory history(0);
  add(history, 10);
  add(history, 10);
  EXPECT_EQ(history.first(), 2U);
  EXPECT_EQ(history.end(), 2U);
}

TEST_F(History, FrameThatDoesNotFitLeavesNoFrames) {
  FrameHistory history(500);
  add(history, 10);
  add(history, 1000);
  EXPECT_EQ(history.first(), 2U);
  add(history, 10);
  EXPECT_EQ(history.end() - history.first(), 1U);
  check(history);
}

TEST_F(History, OfEachSizeKeepsTheLastFramesInOrder) {
  std::mt19937 random(1);
  for (gsize limit = 1; limit < 4000; limit += limit < 200 ? 1 : 97) {
    FrameHistory history(limit);
    next_id_ = 0;
    for (int i = 0; i < 300; ++i) {
      add(history, random() % (limit < 1000 ? 60 : 700));
      ASSERT_NO_FATAL_FAILURE(check(history)) << limit;
    }
  }
}

TEST_F(History, FillsMostOfItsMemory) {
  FrameHistory history(32768);
  for (int i = 0; i < 10'000; ++i) add(history, 24);
  EXPECT_GT((history.end() - history.first()) * (sizeof(Frame) + 24), 27'000U);
}

TEST_F(History, NewLimitForgetsFramesAndGoesOnCounting) {
  FrameHistory history(1000);
  add(history, 10);
  history.set_limit_bytes(2000);
  EXPECT_EQ(history.first(), history.end());
  add(history, 10);
  check(history);
  EXPECT_EQ(history.end() - history.first(), 1U);
}

}  // namespace
