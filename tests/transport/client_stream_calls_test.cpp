#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "faults.h"
#include "held_mutex.h"
#include "stream_of_client.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

using ClientStreamCalls = ClientStream;  // several synchronous calls at a time

}  // namespace

TEST_F(ClientStreamCalls, ReaderHandsTheOthersTheirReplies) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  peer_sends(frame(3, "to the third") + frame(2, "to the second"));
  EXPECT_TRUE(also_sleeping.get());
  EXPECT_TRUE(sleeping.get());
  EXPECT_FALSE(is_ready(reading));
  EXPECT_EQ(another.body(), "to the third");
  EXPECT_EQ(sleeper.body(), "to the second");
  EXPECT_FALSE(client.watched());
  peer_sends(frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
  EXPECT_EQ(reader.body(), "to the reader");
  EXPECT_TRUE(client.watched());
}

TEST_F(ClientStreamCalls, ReaderHandsRepliesToCallsThatDoNotAwaitThemYet) {
  Request &reader = begin(1), &sending = begin(2);
  auto reading = finish_as_reader(reader);
  peer_sends(frame(2, "early") + frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
  EXPECT_TRUE(await(sending));
  EXPECT_EQ(sending.body(), "early");
  end(sending);
}

TEST_F(ClientStreamCalls, ReaderHandsOtherRepliesToTheMainLoop) {
  EXPECT_TRUE(client.send("asynchronous", &answer));
  Request &reader = begin(5);
  auto reading = finish_as_reader(reader);
  peer_sends(frame(0, "to the callback") + frame(5, "to the reader"));
  EXPECT_TRUE(reading.get());
  EXPECT_TRUE(answer.untouched());
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.body, "to the callback");
}

TEST_F(ClientStreamCalls, ReaderDoesNotWaitForTheMutexOfThePendingRequests) {
  Request &reader = begin(5);
  auto reading = finish_as_reader(reader);
  const HeldMutex held(&client.get()->mutex);
  peer_sends(frame(0, "of another request") + frame(5, "to the reader"));
  EXPECT_TRUE(reading.get());
}

TEST_F(ClientStreamCalls, NothingElseReadsWhileThereIsAReader) {
  Request &reader = begin(1);
  std::promise<void> go_on;
  const SelectHook stopped([this, may_go_on = go_on.get_future().share()](long) -> std::optional<int> {
    ++waits;
    may_go_on.wait();
    return std::nullopt;
  });
  auto reading = finish_as_reader(reader);
  peer_sends(frame(1, "reply"));
  EXPECT_EQ(take(), ptz::ClientStream::Taken::nothing);
  EXPECT_EQ(unread_bytes(), 13);
  go_on.set_value();
  EXPECT_TRUE(reading.get());
}

TEST_F(ClientStreamCalls, AnsweredReaderPassesItsRoleOn) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  peer_sends(frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
  peer_sends(frame(2, "to the second") + frame(3, "to the third"));
  EXPECT_TRUE(sleeping.get());
  EXPECT_TRUE(also_sleeping.get());
}

TEST_F(ClientStreamCalls, ReaderPassesItsRoleToASleeperNotToACallThatIsStillSending) {
  Request &reader = begin(1), &sleeper = begin(2), &sending = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper);
  peer_sends(frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
  peer_sends(frame(2, "to the second"));
  EXPECT_TRUE(sleeping.get());
  end(sending);
}

TEST_F(ClientStreamCalls, ReaderWhoseTimeIsUpPassesItsRoleOn) {
  Request &reader = begin(1), &sleeper = begin(2);
  auto reading = finish_as_reader(reader, 30);
  auto sleeping = finish_asleep(sleeper);
  EXPECT_FALSE(reading.get());
  EXPECT_TRUE(wait_until([&] { return waits > 1; }));
  peer_sends(frame(2, "to the second"));
  EXPECT_TRUE(sleeping.get());
}

TEST_F(ClientStreamCalls, ReadErrorEndsTheCallOfTheReaderOnly) {
  Request &reader = begin(1), &sleeper = begin(2);
  const SyslogCapture log;
  const Fault fault(Call::read, EIO, {.fd = fd, .times = 1});
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper);
  peer_sends(frame(2, "to the second"));
  EXPECT_FALSE(reading.get());
  EXPECT_TRUE(sleeping.get());
  EXPECT_EQ(log.containing("Unexpected error reading header"), 1u);
}

TEST_F(ClientStreamCalls, ReadinessWithoutDataDoesNotEndTheWait) {
  Request &reader = begin(1);
  const SelectHook spurious([this](long) -> std::optional<int> {
    if (++waits > 3) return std::nullopt;
    return 1;
  });
  auto reading = finish_as_reader(reader);
  EXPECT_TRUE(wait_until([&] { return waits > 3; }));
  peer_sends(frame(1, "reply"));
  EXPECT_TRUE(reading.get());
}

TEST_F(ClientStreamCalls, SleeperWhoseTimeIsUpFailsAndLeavesTheReader) {
  Request &reader = begin(1), &sleeper = begin(2);
  auto reading = finish_as_reader(reader);
  EXPECT_FALSE(finish(sleeper, 10).get());
  EXPECT_FALSE(is_ready(reading));
  peer_sends(frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
}

TEST_F(ClientStreamCalls, CallWithoutTimeFailsWithoutWaiting) {
  Request &request = begin(1);
  EXPECT_FALSE(await(request, 0));
  EXPECT_FALSE(await(request, -5));
  EXPECT_EQ(waits, 0);
  end(request);
}

TEST_F(ClientStreamCalls, MalformedLengthWakesReaderAndSleepers) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  peer_sends(frame_claiming(3, 1, ""));
  EXPECT_FALSE(reading.get());
  EXPECT_FALSE(sleeping.get());
  EXPECT_FALSE(also_sleeping.get());
  EXPECT_EQ(waits, 1);
}

TEST_F(ClientStreamCalls, ShutDownWakesReaderAndSleepers) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  stream.shut_down(fd);
  EXPECT_FALSE(reading.get());
  EXPECT_FALSE(sleeping.get());
  EXPECT_FALSE(also_sleeping.get());
  EXPECT_EQ(waits, 1);
}

// The reader may take a while to notice.
TEST_F(ClientStreamCalls, ShutDownAndReconnectionWakeSleepersWhileTheReaderIsHeldUp) {
  for (const bool reconnects : {false, true}) {
    std::promise<void> go_on;
    const SelectHook stopped([this, may_go_on = go_on.get_future().share()](long) -> std::optional<int> {
      ++waits;
      may_go_on.wait();
      return std::nullopt;
    });
    Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
    auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
    if (reconnects) {
      stream.reconnect(retry_later);
    } else {
      stream.shut_down(fd);
    }
    EXPECT_FALSE(sleeping.get());
    EXPECT_FALSE(also_sleeping.get());
    EXPECT_FALSE(is_ready(reading));
    go_on.set_value();
    EXPECT_FALSE(reading.get());
    stream.reconnect(retry_later);  // for the second round
  }
}

TEST_F(ClientStreamCalls, EndOfStreamEndsEveryCall) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  shutdown(peer, SHUT_WR);
  EXPECT_FALSE(reading.get());
  EXPECT_FALSE(sleeping.get());
  EXPECT_FALSE(also_sleeping.get());
}

TEST_F(ClientStreamCalls, EndOfACallThatNeverAwaitedItsReplyWakesASleeper) {
  Request &reader = begin(1), &sleeper = begin(2), &not_sent = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper);
  end(not_sent);
  peer_sends(frame(1, "to the reader"));
  EXPECT_TRUE(reading.get());
  peer_sends(frame(2, "to the second"));
  EXPECT_TRUE(sleeping.get());
}

// Calls that get their replies in any order, beside calls that run out of time while the reader's role is passed on. A
// lost wake-up would let a call sleep until its time limit.
TEST_F(ClientStreamCalls, NoneSleepsOnWhateverTheOrderOfRepliesAndTimeOuts) {
  std::mt19937 random(20);
  for (int round = 0; round < 60; ++round) {
    std::vector<std::pair<Request *, std::future<bool>>> answered, given_up;
    std::vector<guint32> ids;
    for (guint32 id = 0; id < 8; ++id) {
      Request &request = begin(id);
      const bool gives_up = id % 2 == 1;
      if (!gives_up) ids.push_back(id);
      (gives_up ? given_up : answered).emplace_back(&request, finish(request, gives_up ? random() % 3 : long_ms));
    }
    std::shuffle(ids.begin(), ids.end(), random);
    for (const guint32 id : ids) {
      peer_sends(frame(id, std::to_string(id)));
      g_usleep(random() % 700);
    }
    for (auto &[request, finishing] : answered) {
      ASSERT_TRUE(finishing.get()) << round;
      EXPECT_EQ(request->body(), std::to_string(request->call.message_id));
    }
    for (auto &[request, finishing] : given_up) EXPECT_FALSE(finishing.get());
    EXPECT_TRUE(client.watched());
  }
}
