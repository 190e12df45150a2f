// The buffer of the last frames.
#include "driver/frame_history.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <random>
#include <string>

#include "driver/monitor_peer.h"

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

struct SilentDriver final : ptz_kit::MonitoredDriver {
  ptz_kit::Accounting counted;
  [[nodiscard]] Facts facts() const override { return {"name", "program", "socket", 1, 0}; }
  void look_at_clients() override {}
  [[nodiscard]] const ptz_kit::Accounting &accounting() const override { return counted; }
};

TEST_F(History, PeerWithFullSocketAtFrameThatDoesNotFitIsSentTheNextOnesWhenItReads) {
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, sockets), 0);
  SilentDriver driver;
  FrameHistory history(1024);
  ptz_kit::MonitorPeer peer(driver, history, ptz_kit::UniqueFd(sockets[0]));
  constexpr char subscribe[] = {2, 0, 0, 0, 0, 0, 0, 0};
  ASSERT_EQ(send(sockets[1], subscribe, sizeof subscribe, 0), ssize_t{sizeof subscribe});
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) continue;
  const auto send_to_peer = [&](std::size_t length) {
    const std::string body(length, 'x');
    Frame frame{.client = client_.get(), .message_id = next_id_++};
    history.add(frame, bytes_of(body));
    peer.frame_came(frame, bytes_of(body));
  };
  for (int i = 0; i < 1000; ++i) send_to_peer(2000);
  send_to_peer(10);
  char packet[9000];
  while (recv(sockets[1], packet, sizeof packet, 0) > 0) continue;
  while (g_main_context_iteration(nullptr, FALSE) != FALSE) continue;
  EXPECT_GT(recv(sockets[1], packet, sizeof packet, 0), 0);
  close(sockets[1]);
}

}  // namespace
