#include "transport/client_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <vector>

#include "faults.h"
#include "stream_of_client.h"

using namespace ptz_test;
using Taken = ptz::ClientStream::Taken;

namespace {

using ClientStreamWatched = ClientStream;
using ClientStreamWaiting = ClientStream;
using ClientStreamDesynchronised = ClientStream;
using ClientStreamShutDown = ClientStream;
using ClientStreamReconnect = ClientStream;
using ClientStreamSending = ClientStream;

}  // namespace

// State: watched.

TEST_F(ClientStreamWatched, FrameIsForDeliveryAtOnce) {
  peer_sends(frame(5, "reply"));
  EXPECT_EQ(take(), Taken::frame);
  EXPECT_EQ(frame_taken, frame(5, "reply"));
  EXPECT_EQ(client.get()->fill, 0u);
}

TEST_F(ClientStreamWatched, PartialFrameIsKeptUntilItsRestArrives) {
  const std::string whole = frame(5, "reply");
  peer_sends(whole.substr(0, 10));
  EXPECT_EQ(take(), Taken::nothing);
  EXPECT_EQ(take(), Taken::failed);
  EXPECT_EQ(errno, EAGAIN);
  peer_sends(whole.substr(10));
  EXPECT_EQ(take(), Taken::frame);
  EXPECT_EQ(frame_taken, whole);
}

TEST_F(ClientStreamWatched, EndOfStreamSwitchesTheSourceOffAndForgetsAPartialFrame) {
  peer_sends(frame(5, "reply").substr(0, 10));
  EXPECT_EQ(take(), Taken::nothing);
  shutdown(peer, SHUT_WR);
  EXPECT_EQ(take(), Taken::nothing);
  EXPECT_EQ(client.get()->fill, 0u);
  EXPECT_FALSE(client.watched());
}

TEST_F(ClientStreamWatched, NegativeDescriptorFailsWithEbadf) {
  guint8 bytes[PTZ_SOCKET_FRAME_MAX];
  guint32 length = 0;
  EXPECT_EQ(stream.take_frame(-1, bytes, length), Taken::failed);
  EXPECT_EQ(errno, EBADF);
}

// State: waiting.

TEST_F(ClientStreamWaiting, FirstCallSwitchesTheSourceOffAndTheLastOneOn) {
  EXPECT_TRUE(client.watched());
  Request &first = begin(1);
  EXPECT_FALSE(client.watched());
  Request &second = begin(2);
  end(first);
  EXPECT_FALSE(client.watched());
  end(second);
  EXPECT_TRUE(client.watched());
}

TEST_F(ClientStreamWaiting, FrameOfNoCallIsDeferred) {
  Request &request = begin(1);
  peer_sends(frame(5, "of another request") + frame(6, "of another request"));
  EXPECT_EQ(take(), Taken::deferred);
  EXPECT_EQ(frame_taken, frame(5, "of another request"));
  end(request);
  EXPECT_EQ(take(), Taken::frame);
}

TEST_F(ClientStreamWaiting, FrameOfACallIsHandedToIt) {
  Request &request = begin(1);
  peer_sends(frame(1, "reply"));
  EXPECT_EQ(take(), Taken::nothing);
  EXPECT_EQ(frame_taken, "");
  EXPECT_TRUE(await(request));
  EXPECT_EQ(request.body(), "reply");
  EXPECT_EQ(waits, 0);  // not for the descriptor
  end(request);
}

TEST_F(ClientStreamWaiting, SecondReplyOfACallIsNotHandedToIt) {
  Request &request = begin(1);
  peer_sends(frame(1, "reply") + frame(1, "another"));
  EXPECT_EQ(take(), Taken::nothing);
  EXPECT_EQ(take(), Taken::deferred);
  EXPECT_TRUE(await(request));
  EXPECT_EQ(request.body(), "reply");
  end(request);
}

TEST_F(ClientStreamWaiting, LateReplyOfAnEndedCallIsForDelivery) {
  end(begin(1));
  peer_sends(frame(1, "late"));
  EXPECT_EQ(take(), Taken::frame);
}

TEST_F(ClientStreamWaiting, EmptyReplyIsAnAnswer) {
  Request &request = begin(1);
  request.length = 99;
  peer_sends(frame(1, ""));
  EXPECT_TRUE(await(request));
  EXPECT_EQ(request.length, 0u);
  end(request);
}

TEST_F(ClientStreamWaiting, LongestReplyFillsTheBuffer) {
  Request &request = begin(1);
  const std::string longest = body_of(PTZ_SOCKET_BODY_MAX);
  peer_sends(frame(1, longest));
  EXPECT_TRUE(await(request));
  EXPECT_EQ(request.body(), longest);
  end(request);
}

// State: desynchronised.

TEST_F(ClientStreamDesynchronised, MalformedLengthSwitchesTheSourceOffAndEndsReading) {
  peer_sends(frame_claiming(3, 0, "").substr(0, 4) + frame(5, "forged"));
  EXPECT_EQ(take(), Taken::failed);
  EXPECT_EQ(errno, EBADMSG);
  EXPECT_FALSE(client.watched());
  const int unread = unread_bytes();
  EXPECT_EQ(take(), Taken::failed);
  EXPECT_EQ(errno, EBADMSG);
  EXPECT_EQ(unread_bytes(), unread);
}

TEST_F(ClientStreamDesynchronised, CallFailsAtOnceAndLeavesTheSourceOff) {
  desynchronise();
  Request &request = begin(1);
  peer_sends(frame(1, "forged"));
  EXPECT_FALSE(await(request));
  EXPECT_EQ(waits, 0);
  end(request);
  EXPECT_FALSE(client.watched());
}

TEST_F(ClientStreamDesynchronised, CallThatHasBegunFails) {
  Request &request = begin(1);
  desynchronise();
  EXPECT_FALSE(await(request));
  EXPECT_EQ(waits, 0);
  end(request);
  EXPECT_FALSE(client.watched());
}

TEST_F(ClientStreamDesynchronised, CallThatWasAnsweredBeforeSucceeds) {
  Request &request = begin(1);
  peer_sends(frame(1, "reply"));
  EXPECT_EQ(take(), Taken::nothing);
  desynchronise();
  EXPECT_TRUE(await(request));
  end(request);
}

TEST_F(ClientStreamDesynchronised, SourceThatIsSwitchedOnLetsTheNextReadGoOn) {
  desynchronise();
  ptz_socket_client_add_poll(client.base());
  peer_sends(frame(5, "reply"));
  EXPECT_EQ(take(), Taken::frame);
}

TEST_F(ClientStreamDesynchronised, SourceThatIsSwitchedOnLetsTheNextCallGoOn) {
  desynchronise();
  ptz_socket_client_add_poll(client.base());
  Request &request = begin(1);
  peer_sends(frame(5, "of another request"));
  EXPECT_EQ(take(), Taken::deferred);
  peer_sends(frame(1, "reply"));
  EXPECT_TRUE(await(request));
  end(request);
  EXPECT_TRUE(client.watched());
}

TEST_F(ClientStreamDesynchronised, SourceThatIsSwitchedOnDuringACallLetsItGoOn) {
  Request &request = begin(1);
  desynchronise();
  ptz_socket_client_add_poll(client.base());
  peer_sends(frame(5, "of another request") + frame(1, "reply"));
  EXPECT_EQ(take(), Taken::deferred);
  EXPECT_TRUE(await(request));
  end(request);
}

// State: shut down.

TEST_F(ClientStreamShutDown, ConnectionIsShutDownAndTheSourceOff) {
  stream.shut_down(fd);
  EXPECT_TRUE(was_closed(peer));
  EXPECT_FALSE(client.watched());
}

TEST_F(ClientStreamShutDown, CallFailsAtOnce) {
  stream.shut_down(fd);
  Request &request = begin(1);
  EXPECT_FALSE(await(request));
  EXPECT_EQ(waits, 0);
  end(request);
}

TEST_F(ClientStreamShutDown, CallThatHasBegunFails) {
  Request &request = begin(1);
  stream.shut_down(fd);
  EXPECT_FALSE(await(request));
  EXPECT_EQ(waits, 0);
  end(request);
}

TEST_F(ClientStreamShutDown, DesynchronisedStreamIsAtItsEndAfterTheSourceIsSwitchedOn) {
  desynchronise();
  stream.shut_down(fd);
  ptz_socket_client_add_poll(client.base());
  Request &request = begin(1);
  EXPECT_FALSE(await(request));
  EXPECT_LE(waits, 1);
  end(request);
}

// Reconnection.

TEST_F(ClientStreamReconnect, ReturnsWhatTheOperationReturnsAndForgetsAPartialFrame) {
  peer_sends(frame(5, "of the old connection").substr(0, 10));
  EXPECT_EQ(take(), Taken::nothing);
  EXPECT_EQ(stream.reconnect(retry_later), 77u);
  peer_sends(frame(6, "of the new one"));
  EXPECT_EQ(take(), Taken::frame);
  EXPECT_EQ(frame_taken, frame(6, "of the new one"));
}

TEST_F(ClientStreamReconnect, WithoutCallsDoesNotShutTheOldConnectionDown) {
  const CallLog log;
  stream.reconnect(retry_later);
  EXPECT_EQ(log.count(Call::shutdown), 0u);
}

TEST_F(ClientStreamReconnect, EndsDesynchronisation) {
  desynchronise();
  stream.reconnect(retry_later);
  peer_sends(frame(5, "reply"));
  EXPECT_EQ(take(), Taken::frame);
}

TEST_F(ClientStreamReconnect, EndsShutDown) {
  stream.shut_down(fd);
  stream.reconnect(retry_later);
  const Pair next;
  Request &request = begin(1);
  send_all(next.theirs.get(), frame(1, "reply"));
  EXPECT_TRUE(await_on(request, next.ours.get()));
  end(request);
}

TEST_F(ClientStreamReconnect, CallOfTheOldConnectionFailsAndOneOfTheNewIsAnswered) {
  Request &old_request = begin(1);
  stream.reconnect(retry_later);
  const Pair next;
  Request &new_request = begin(2);
  send_all(next.theirs.get(), frame(2, "reply"));
  EXPECT_FALSE(await_on(old_request, next.ours.get()));
  end(old_request);
  EXPECT_FALSE(client.watched());  // a call is in progress
  EXPECT_TRUE(await_on(new_request, next.ours.get()));
  end(new_request);
  EXPECT_TRUE(client.watched());
}

TEST_F(ClientStreamReconnect, WakesReaderAndSleepers) {
  Request &reader = begin(1), &sleeper = begin(2), &another = begin(3);
  auto reading = finish_as_reader(reader), sleeping = finish_asleep(sleeper), also_sleeping = finish_asleep(another);
  stream.reconnect(retry_later);
  EXPECT_FALSE(reading.get());
  EXPECT_FALSE(sleeping.get());
  EXPECT_FALSE(also_sleeping.get());
}

TEST_F(ClientStreamReconnect, ReaderOfTheOldConnectionReadsNothingFromTheNewOne) {
  std::promise<void> go_on;
  const SelectHook stopped([this, may_go_on = go_on.get_future().share()](long) -> std::optional<int> {
    ++waits;
    may_go_on.wait();
    return std::nullopt;
  });
  Request &reader = begin(1);
  auto reading = finish_as_reader(reader);
  stream.reconnect(retry_later);
  const Pair next;
  dup2(next.ours.get(), fd);  // the new connection has the old number
  send_all(next.theirs.get(), frame(1, "to another call"));
  const int unread = unread_bytes();
  go_on.set_value();
  EXPECT_FALSE(reading.get());
  EXPECT_EQ(unread_bytes(), unread);
}

// The turn to send.

TEST_F(ClientStreamSending, TurnOfAnIdleStreamIsTakenWithoutWaiting) {
  bool had_to_wait = true;
  EXPECT_TRUE(begin_sending(ptz::ClientStream::no_limit, had_to_wait));
  EXPECT_FALSE(had_to_wait);
  stream.end_sending();
  EXPECT_TRUE(begin_sending(0, had_to_wait));
  EXPECT_FALSE(had_to_wait);
  stream.end_sending();
}

TEST_F(ClientStreamSending, TurnOfAnotherThreadIsWaitedForUpToTheLimit) {
  bool had_to_wait = false;
  ASSERT_TRUE(begin_sending(ptz::ClientStream::no_limit, had_to_wait));
  bool waited = false;
  const auto start = real_time_ms();
  EXPECT_FALSE(in_thread([&] { return begin_sending(20, waited); }).get());
  EXPECT_GE(real_time_ms() - start, 20);
  EXPECT_TRUE(waited);
  stream.end_sending();
  EXPECT_TRUE(begin_sending(0, had_to_wait));
  EXPECT_FALSE(had_to_wait);
  stream.end_sending();
}

TEST_F(ClientStreamSending, EndOfATurnWakesTheNextSender) {
  for (const gint64 limit_ms : {ptz::ClientStream::no_limit, long_ms}) {
    bool had_to_wait = false, waited = false;
    ASSERT_TRUE(begin_sending(ptz::ClientStream::no_limit, had_to_wait));
    std::atomic<bool> started = false;
    auto next = in_thread([&] {
      started = true;
      return begin_sending(limit_ms, waited);
    });
    while (!started) g_usleep(100);
    g_usleep(50'000);
    EXPECT_FALSE(is_ready(next));
    stream.end_sending();
    EXPECT_TRUE(next.get());
    EXPECT_TRUE(waited);
    stream.end_sending();
  }
}

TEST_F(ClientStreamSending, OneThreadAtATimeHasTheTurnAndNoWakeUpIsLost) {
  std::atomic<int> sending = 0, mixed = 0, refused = 0;
  std::vector<std::future<void>> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.push_back(in_thread([&, thread] {
      const bool gives_up = thread == 3;
      for (int i = 0; i < 1000; ++i) {
        bool had_to_wait = false;
        if (!begin_sending(gives_up ? i % 2 : ptz::ClientStream::no_limit, had_to_wait)) {
          if (!gives_up) ++refused;
          continue;
        }
        if (++sending != 1) ++mixed;
        if (i % 16 == 0) g_usleep(300);
        --sending;
        stream.end_sending();
      }
    }));
  }
  for (auto &thread : threads) thread.wait();
  EXPECT_EQ(mixed, 0);
  EXPECT_EQ(refused, 0);
}
