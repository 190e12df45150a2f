#include "transport/pending_requests.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <vector>

#include "clock.h"
#include "command_ends.h"
#include "held_mutex.h"
#include "peers.h"
#include "syslog_capture.h"
#include "transport/client_command_private.h"

namespace ptz {
gboolean ptz_socket_client_command_cmd_timeout(gpointer user_data);  // what the timer calls
}

using namespace ptz_test;
using ptz::PendingRequest;

namespace {

using Request = std::unique_ptr<PendingRequest, FreeWith<ptz::free_pending_request>>;

constexpr std::int64_t expiry_ms = 360'000;

// The requests of a client whose peer never replies.
class PendingRequests : public testing::Test {
 protected:
  Pair pair;
  std::vector<std::unique_ptr<Answer>> answers;  // outlives the client, which may release them
  CommandClient client{pair.ours.get()};
  ptz::PendingRequests &pending = ptz::private_of(client.get())->pending;
  const ptz::ReplyCallbacks &callbacks = ptz::private_of(client.get())->callbacks;

  Answer &add(guint32 message_id) {
    answers.push_back(std::make_unique<Answer>());
    pending.add(answers.back().get(), message_id);
    return *answers.back();
  }
  Request take(guint32 message_id) { return Request(pending.take(message_id)); }
  // Without a timer, as a test calls it.
  gboolean run_expiry() { return ptz::ptz_socket_client_command_cmd_timeout(client.get()); }
  [[nodiscard]] guint32 timer() const { return client.get()->timeout_source; }
  [[nodiscard]] std::vector<guint32> ids() const {
    std::vector<guint32> ids;
    for (GList *link = client.get()->pending; link != nullptr; link = link->next) {
      ids.push_back(static_cast<PendingRequest *>(link->data)->message_id);
    }
    return ids;
  }
};

using PendingRequestsExpiry = PendingRequests;

}  // namespace

TEST_F(PendingRequests, AddAppendsRequestThatIsDueInSixMinutes) {
  add(5);
  Answer &second = add(3);
  EXPECT_EQ(ids(), (std::vector<guint32>{5, 3}));
  const auto *request = static_cast<PendingRequest *>(g_list_last(client.get()->pending)->data);
  EXPECT_EQ(request->context, &second);
  EXPECT_NEAR(static_cast<double>(request->deadline.tv_sec - ptz::logged_clock_now().tv_sec), 360, 1);
  EXPECT_EQ(timer(), 0u);
}

TEST_F(PendingRequests, TakeReturnsTheRequestWithTheId) {
  add(1);
  Answer &wanted = add(2);
  add(3);
  const Request request = take(2);
  ASSERT_NE(request, nullptr);
  EXPECT_EQ(request->context, &wanted);
  EXPECT_EQ(request->message_id, 2u);
  EXPECT_EQ(ids(), (std::vector<guint32>{1, 3}));
}

TEST_F(PendingRequests, TakeOfTakenRequestReturnsNull) {
  add(1);
  EXPECT_NE(take(1), nullptr);
  EXPECT_EQ(take(1), nullptr);
}

TEST_F(PendingRequests, TakeOfUnknownIdReturnsNull) {
  EXPECT_EQ(take(0), nullptr);
  add(1);
  EXPECT_EQ(take(0), nullptr);
  EXPECT_EQ(ids(), (std::vector<guint32>{1}));
}

TEST_F(PendingRequests, TakeOfRepeatedIdReturnsTheOldestFirst) {
  Answer &oldest = add(1), &newest = add(1);
  EXPECT_EQ(take(1)->context, &oldest);
  EXPECT_EQ(take(1)->context, &newest);
}

TEST_F(PendingRequests, TakeInSeveralThreadsReturnsEachRequestOnce) {
  constexpr guint32 requests = 500;
  std::array<std::atomic<int>, requests> taken = {};
  std::vector<std::future<void>> threads;
  for (guint32 i = 0; i < 4; ++i) {
    threads.push_back(in_thread([&, i] {
      for (guint32 id = i; id < requests; id += 4) pending.add(&taken[id], id);
      for (guint32 id = 0; id < requests; ++id) {
        const Request request = take(id);
        if (request != nullptr) ++*static_cast<std::atomic<int> *>(request->context);
      }
    }));
  }
  for (auto &thread : threads) thread.wait();
  for (guint32 id = 0; id < requests; ++id) {
    const Request left = take(id);
    EXPECT_EQ(taken[id] + (left != nullptr ? 1 : 0), 1) << id;
  }
  EXPECT_EQ(client.get()->pending, nullptr);
}

TEST_F(PendingRequests, MayDeferTellsWhetherARequestIsPending) {
  EXPECT_FALSE(pending.may_defer(1));
  add(1);
  EXPECT_TRUE(pending.may_defer(1));
  EXPECT_FALSE(pending.may_defer(2));
  take(1);
  EXPECT_FALSE(pending.may_defer(1));
}

TEST_F(PendingRequests, MayDeferWhileAnotherThreadHoldsTheMutexIsTrueWithoutWaiting) {
  const HeldMutex held(&client.get()->mutex);
  EXPECT_TRUE(pending.may_defer(1));
}

TEST_F(PendingRequests, MayDeferLeavesTheMutexFree) {
  add(1);
  (void)pending.may_defer(1);
  (void)pending.may_defer(2);
  ASSERT_TRUE(g_mutex_trylock(&client.get()->mutex));
  g_mutex_unlock(&client.get()->mutex);
}

TEST_F(PendingRequests, OneTimerServesAllRequests) {
  add(1);
  pending.start_timer();
  const guint32 first = timer();
  EXPECT_NE(first, 0u);
  add(2);
  pending.start_timer();
  EXPECT_EQ(timer(), first);
}

TEST_F(PendingRequests, ClearReleasesEveryRequestOnceAndEndsTheTimer) {
  Answer &first = add(1), &second = add(2);
  pending.start_timer();
  const guint32 ended = timer();
  pending.clear();
  EXPECT_EQ(client.get()->pending, nullptr);
  EXPECT_EQ(timer(), 0u);
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, ended), nullptr);
  pending.clear();
  for (const Answer *answer : {&first, &second}) {
    EXPECT_EQ(answer->freed, 1);
    EXPECT_EQ(answer->calls, 0);
  }
}

TEST_F(PendingRequestsExpiry, WithoutClientIsHarmless) {
  EXPECT_FALSE(ptz::ptz_socket_client_command_cmd_timeout(nullptr));
}

TEST_F(PendingRequestsExpiry, WithoutRequestsStartsNoTimer) {
  EXPECT_FALSE(run_expiry());
  EXPECT_EQ(timer(), 0u);
}

TEST_F(PendingRequestsExpiry, OfRequestThatIsNotDueWaitsOn) {
  const Answer &answer = add(1);
  advance_clock(expiry_ms - 2000);
  EXPECT_FALSE(run_expiry());
  EXPECT_TRUE(answer.untouched());
  EXPECT_EQ(ids(), (std::vector<guint32>{1}));
  ASSERT_NE(timer(), 0u);
  iterate(5);
  EXPECT_TRUE(answer.untouched());
  advance_clock(3500);  // a timer of whole seconds may be one second late
  run_pending();
  EXPECT_TRUE(answer.timed_out());
}

TEST_F(PendingRequestsExpiry, TakesOneRequestPerRunOldestFirst) {
  std::vector<const Answer *> all;
  for (guint32 id = 0; id < 4; ++id) all.push_back(&add(id));
  advance_clock(expiry_ms);
  EXPECT_FALSE(run_expiry());
  for (std::size_t expired = 1; expired < all.size(); ++expired) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      EXPECT_EQ(all[i]->timed_out(), i < expired) << i;
      EXPECT_EQ(all[i]->untouched(), i >= expired) << i;
    }
    ASSERT_NE(timer(), 0u);
    iterate();  // the next request is due as well, so the timer is ready at once
  }
  EXPECT_TRUE(all.back()->timed_out());
  EXPECT_EQ(timer(), 0u);
  EXPECT_EQ(client.get()->pending, nullptr);
}

TEST_F(PendingRequestsExpiry, OfTakenRequestDoesNotHappen) {
  const Answer &taken = add(1), &left = add(2);
  take(1);
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_TRUE(taken.untouched());
  EXPECT_TRUE(left.timed_out());
}

TEST_F(PendingRequestsExpiry, WithoutReplyCallbackReleasesTheContext) {
  ptz_socket_client_register_callback(client.base(), nullptr, nullptr);
  const Answer &answer = add(1);
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_EQ(answer.calls, 0);
  EXPECT_EQ(answer.freed, 1);
  EXPECT_EQ(client.get()->pending, nullptr);
}

TEST_F(PendingRequestsExpiry, EntryWithoutDataIsLoggedAndRemoved) {
  const SyslogCapture log;
  client.get()->pending = g_list_prepend(nullptr, nullptr);
  run_expiry();
  EXPECT_EQ(client.get()->pending, nullptr);
  EXPECT_EQ(log.count(LOG_ERR, "ptz_socket_client_command_cmd_timeout: Entry without data"), 1u);
}

TEST_F(PendingRequestsExpiry, CallbackMayUseTheRequestsAgain) {
  Answer &expired = add(1);
  add(2);
  bool held_own = true, took_other = false, may_hold = false;
  expired.then = [&] {
    held_own = take(1) != nullptr;  // its own request is gone
    took_other = take(2) != nullptr;
    add(3);
    pending.start_timer();
    may_hold = pending.may_defer(77);  // its own thread holds the mutex
  };
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_FALSE(held_own);
  EXPECT_TRUE(took_other);
  EXPECT_TRUE(may_hold);
  EXPECT_EQ(ids(), (std::vector<guint32>{3}));
  EXPECT_NE(timer(), 0u);
  ASSERT_TRUE(g_mutex_trylock(&client.get()->mutex));
  g_mutex_unlock(&client.get()->mutex);
}

TEST_F(PendingRequestsExpiry, CallbackMakesOtherThreadsWaitButNotInMayDefer) {
  Answer &expired = add(1);
  add(2);
  std::future<Request> taking;
  bool may_hold = false, taken_meanwhile = true, running_here = false, running_elsewhere = true;
  expired.then = [&] {
    may_hold = in_thread([&] { return pending.may_defer(77); }).get();
    taking = in_thread([&] { return take(2); });
    g_usleep(20'000);  // not a wait of the future, which goes by the clock that was moved
    taken_meanwhile = is_ready(taking);
    running_here = callbacks.running_here();
    running_elsewhere = in_thread([&] { return callbacks.running_here(); }).get();
  };
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_TRUE(may_hold);
  EXPECT_FALSE(taken_meanwhile);
  EXPECT_NE(taking.get(), nullptr);
  EXPECT_TRUE(running_here);
  EXPECT_FALSE(running_elsewhere);
  EXPECT_FALSE(callbacks.running_here());
}

TEST_F(PendingRequestsExpiry, InMainLoopOfAnExpiryCallbackLeavesTheOuterOneItsMutex) {
  Answer &outer = add(1), &inner = add(2);
  add(3);
  bool running_here = false, other_waits = false, took = false;
  outer.then = [&] {
    pending.start_timer();
    advance_clock(expiry_ms + 1000);
    run_until([&] { return inner.calls > 0; });
    running_here = callbacks.running_here();
    other_waits = in_thread([&] { return !g_mutex_trylock(&client.get()->mutex); }).get();
    took = take(3) != nullptr;
  };
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_TRUE(inner.timed_out());
  EXPECT_TRUE(running_here);
  EXPECT_TRUE(other_waits);
  EXPECT_TRUE(took);
  EXPECT_FALSE(callbacks.running_here());
}

TEST_F(PendingRequestsExpiry, TimerThatTheCallbackStartedIsReplaced) {
  Answer &expired = add(1);
  const Answer &next = add(2);
  guint32 started = 0;
  expired.then = [&] {
    pending.start_timer();
    started = timer();
  };
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_NE(timer(), started);
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, started), nullptr);
  iterate();
  EXPECT_TRUE(next.timed_out());
}

TEST_F(PendingRequestsExpiry, CallbackMayDropTheClient) {
  Answer &expired = add(1), &released = add(2);
  expired.then = [&] { client.drop(); };
  advance_clock(expiry_ms);
  run_expiry();
  EXPECT_EQ(expired.calls, 1);
  EXPECT_EQ(expired.freed, 0);
  EXPECT_EQ(released.calls, 0);
  EXPECT_EQ(released.freed, 1);
}
