#include "ptz_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fixtures.h"
#include "handles.h"

namespace {

using namespace ptz_test;

struct FreeQueue {
  void operator()(PTZQueue *queue) const { ptz_queue_free(queue); }
};
using Queue = std::unique_ptr<PTZQueue, FreeQueue>;

static_assert(offsetof(PTZQueue, context) == 0);
static_assert(offsetof(PTZQueue, source) == sizeof(gpointer));

gpointer item(int number) { return GINT_TO_POINTER(number); }

// What the queues of one test did, in order: "got 1", "freed 1".
std::vector<std::string> events;

void note_free(gpointer freed) { events.push_back("freed " + std::to_string(GPOINTER_TO_INT(freed))); }

struct QueueTest : testing::Test {
  Context context{g_main_context_new()};
  gboolean answer = TRUE;
  std::function<void(int)> on_item = [](int) {};

  QueueTest() { events.clear(); }
  QueueTest(const QueueTest &) = delete;
  ~QueueTest() override { context.reset(); }

  [[nodiscard]] Queue make(GDestroyNotify free_function = note_free, gint priority = G_PRIORITY_DEFAULT) const {
    return Queue(ptz_queue_setup(context.get(), free_function, priority));
  }
  [[nodiscard]] Queue receiving(GDestroyNotify free_function = note_free) {
    Queue queue = make(free_function);
    ptz_queue_set_callback(queue.get(), receive, this);
    return queue;
  }
  bool iterate() const { return g_main_context_iteration(context.get(), FALSE) != FALSE; }

  static gboolean receive(gpointer data, gpointer received) {
    auto *self = static_cast<QueueTest *>(data);
    const int number = GPOINTER_TO_INT(received);
    events.push_back("got " + std::to_string(number));
    self->on_item(number);
    return self->answer;
  }
};

using Events = std::vector<std::string>;

TEST(QueueDeathTest, SetupAbortsWithoutAContext) {
  EXPECT_DEATH(ptz_queue_setup(nullptr, nullptr, 0),
               "ERROR:ptz_queue\\.c:[0-9]+:ptz_queue_setup: assertion failed: \\(context != NULL\\)");
}

TEST_F(QueueTest, SetupAttachesToTheContextWithThePriority) {
  const Queue queue = make(nullptr, 37);
  EXPECT_EQ(queue->context, context.get());
  EXPECT_EQ(g_source_get_context(queue->source), context.get());
  EXPECT_EQ(g_source_get_priority(queue->source), 37);
  EXPECT_FALSE(g_source_is_destroyed(queue->source));
  EXPECT_FALSE(iterate());
}

TEST_F(QueueTest, PriorityDecidesWhoseItemsComeFirst) {
  const Queue late = make(nullptr, G_PRIORITY_LOW);
  const Queue early = make(nullptr, G_PRIORITY_HIGH);
  ptz_queue_set_callback(late.get(), receive, this);
  ptz_queue_set_callback(early.get(), receive, this);
  ptz_queue_push(late.get(), item(1));
  ptz_queue_push(early.get(), item(2));
  while (iterate()) {
  }
  EXPECT_EQ(events, (Events{"got 2", "got 1"}));
}

TEST_F(QueueTest, SourceIsReadyInPrepareOnlyAndHasNoTimeout) {
  const Queue queue = receiving();
  gint timeout_ms = 17;
  EXPECT_EQ(queue->source->source_funcs->prepare(queue->source, &timeout_ms), FALSE);
  EXPECT_EQ(timeout_ms, -1);
  ptz_queue_push(queue.get(), item(1));
  timeout_ms = 17;
  EXPECT_EQ(queue->source->source_funcs->prepare(queue->source, &timeout_ms), TRUE);
  EXPECT_EQ(timeout_ms, -1);
  EXPECT_EQ(queue->source->source_funcs->check(queue->source), FALSE);
}

TEST_F(QueueTest, DeliversOneByOneInOrderAllInOneGoAndFreesEach) {
  const Queue queue = receiving();
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(ptz_queue_push(queue.get(), item(i)), TRUE);
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "got 2", "freed 2", "got 3", "freed 3"}));
  EXPECT_FALSE(iterate());
}

TEST_F(QueueTest, DeliversWithoutAFreeFunction) {
  const Queue queue = receiving(nullptr);
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1"}));
}

TEST_F(QueueTest, DeliversANullItemToo) {
  const Queue queue = receiving(nullptr);
  ptz_queue_push(queue.get(), nullptr);
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 0", "got 1"}));
}

TEST_F(QueueTest, DeliversWhatTheCallbackPushesInTheSameGo) {
  Queue queue = receiving();
  on_item = [&](int number) {
    if (number < 3) ptz_queue_push(queue.get(), item(number + 1));
  };
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "got 2", "freed 2", "got 3", "freed 3"}));
}

TEST_F(QueueTest, CallbackMayPop) {
  Queue queue = receiving();
  on_item = [&](int) { EXPECT_EQ(ptz_queue_pop(queue.get()), item(2)); };
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1"}));
}

TEST_F(QueueTest, CallbackMayFreeTheHandle) {
  Queue queue = receiving();
  on_item = [&](int) { queue.reset(); };
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "got 2", "freed 2"}));
}

TEST_F(QueueTest, CallbackMayFreeTheHandleAndEndTheSource) {
  Queue queue = receiving();
  answer = FALSE;
  on_item = [&](int) { queue.reset(); };
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "freed 0"}));
}

TEST_F(QueueTest, PopTakesTheOldestAndLeavesItToTheCaller) {
  const Queue queue = receiving();
  EXPECT_EQ(ptz_queue_pop(queue.get()), nullptr);
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_EQ(ptz_queue_pop(queue.get()), item(1));
  EXPECT_EQ(ptz_queue_pop(queue.get()), item(2));
  EXPECT_EQ(ptz_queue_pop(queue.get()), nullptr);
  EXPECT_TRUE(events.empty());
  EXPECT_FALSE(iterate());
}

TEST_F(QueueTest, PopOfTheLastItemThatTheContextHasSeenRemovesTheSource) {
  const Queue first = receiving(), second = receiving();
  on_item = [&](int) { EXPECT_EQ(ptz_queue_pop(second.get()), item(2)); };
  ptz_queue_push(first.get(), item(1));
  ptz_queue_push(second.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1"}));
  EXPECT_FALSE(g_source_is_destroyed(first->source));
  EXPECT_TRUE(g_source_is_destroyed(second->source));
}

TEST_F(QueueTest, PushOnNothingIsFalse) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_queue_push(nullptr, item(1)), FALSE);
}

TEST_F(QueueTest, FalseForTheLastItemRemovesTheSource) {
  const Queue queue = receiving();
  on_item = [&](int number) { answer = number < 2; };
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_TRUE(g_source_is_destroyed(queue->source));
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "got 2", "freed 2"}));
}

TEST_F(QueueTest, FalseForAnEarlierItemDoesNot) {
  const Queue queue = receiving();
  on_item = [&](int number) { answer = number == 2; };
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_FALSE(g_source_is_destroyed(queue->source));
  ptz_queue_push(queue.get(), item(3));
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events.back(), "freed 3");
}

TEST_F(QueueTest, RemovedSourceKeepsItemsForPopAndForTheEnd) {
  Queue queue = receiving();
  answer = FALSE;
  ptz_queue_push(queue.get(), item(1));
  iterate();
  events.clear();
  for (int i = 2; i <= 4; ++i) EXPECT_EQ(ptz_queue_push(queue.get(), item(i)), TRUE);
  EXPECT_FALSE(iterate());
  EXPECT_EQ(ptz_queue_pop(queue.get()), item(2));
  queue.reset();
  EXPECT_EQ(events, (Events{"freed 3", "freed 4", "freed 0"}));
}

TEST_F(QueueTest, WithoutACallbackItemsAreDiscardedUnfreedAndTheSourceLeaves) {
  Queue queue = make();
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  EXPECT_TRUE(iterate());
  EXPECT_TRUE(g_source_is_destroyed(queue->source));
  EXPECT_EQ(ptz_queue_pop(queue.get()), nullptr);
  EXPECT_TRUE(events.empty());
  queue.reset();
  EXPECT_EQ(events, (Events{"freed 0"}));
}

TEST_F(QueueTest, FreedHandleLeavesTheSourceDispatching) {
  Queue queue = receiving();
  ptz_queue_push(queue.get(), item(1));
  ptz_queue_push(queue.get(), item(2));
  queue.reset();
  EXPECT_TRUE(events.empty());
  EXPECT_TRUE(iterate());
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "got 2", "freed 2"}));
  events.clear();
  context.reset();
  EXPECT_EQ(events, (Events{"freed 0"}));
}

TEST_F(QueueTest, ItemsLeftAtTheEndAreFreedAndOnceMoreNothing) {
  Queue queue = receiving();
  for (int i = 1; i <= 3; ++i) ptz_queue_push(queue.get(), item(i));
  queue.reset();
  context.reset();
  EXPECT_EQ(events, (Events{"freed 1", "freed 2", "freed 3", "freed 0"}));
}

TEST_F(QueueTest, EmptyQueueFreesNothingOnceAtTheEnd) {
  receiving().reset();
  EXPECT_TRUE(events.empty());
  context.reset();
  EXPECT_EQ(events, (Events{"freed 0"}));
}

TEST_F(QueueTest, EndsWithoutAFreeFunction) {
  Queue queue = receiving(nullptr);
  ptz_queue_push(queue.get(), item(1));
  queue.reset();
  context.reset();
  EXPECT_TRUE(events.empty());
}

TEST_F(QueueTest, HandleKeepsItsContext) {
  Queue queue = receiving();
  context.reset();
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(g_main_context_iteration(queue->context, FALSE));
  EXPECT_EQ(events, (Events{"got 1", "freed 1"}));
  events.clear();
  queue.reset();
  EXPECT_EQ(events, (Events{"freed 0"}));
}

TEST_F(QueueTest, FreeOfNothingIsHarmless) {
  const GlibLogCapture log;
  ptz_queue_free(nullptr);
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(QueueTest, ServesTheDefaultMainContextToo) {
  Queue queue(ptz_queue_setup(g_main_context_default(), note_free, G_PRIORITY_DEFAULT));
  ptz_queue_set_callback(queue.get(), receive, this);
  answer = FALSE;
  ptz_queue_push(queue.get(), item(1));
  EXPECT_TRUE(run_until([&] { return !events.empty(); }));
  queue.reset();
  EXPECT_EQ(events, (Events{"got 1", "freed 1", "freed 0"}));
}

TEST_F(QueueTest, PushWakesASleepingContextAndDeliversOnItsThread) {
  struct Seen {
    std::atomic<bool> called = false;
    std::thread::id thread;
  } seen;
  const Queue queue = make(nullptr);
  ptz_queue_set_callback(
      queue.get(),
      [](gpointer data, gpointer) -> gboolean {
        auto *noted = static_cast<Seen *>(data);
        noted->thread = std::this_thread::get_id();
        noted->called = true;
        return TRUE;
      },
      &seen);
  std::thread owner([&] {
    while (!seen.called) g_main_context_iteration(context.get(), TRUE);
  });
  const auto owner_id = owner.get_id();
  g_usleep(10'000);
  ptz_queue_push(queue.get(), item(1));
  owner.join();
  EXPECT_EQ(seen.thread, owner_id);
}

TEST_F(QueueTest, KeepsTheOrderOfEachOfSeveralThreads) {
  constexpr int threads = 4, each = 1'000;
  std::vector<int> received;
  const Queue queue = make(nullptr);
  ptz_queue_set_callback(
      queue.get(),
      [](gpointer data, gpointer number) -> gboolean {
        static_cast<std::vector<int> *>(data)->push_back(GPOINTER_TO_INT(number));
        return TRUE;
      },
      &received);
  std::vector<std::thread> pushers;
  for (int t = 0; t < threads; ++t) {
    pushers.emplace_back([&, t] {
      for (int i = 0; i < each; ++i) ptz_queue_push(queue.get(), item(t * each + i + 1));
    });
  }
  while (received.size() < std::size_t{threads} * each) g_main_context_iteration(context.get(), TRUE);
  for (auto &pusher : pushers) pusher.join();
  std::map<int, int> last;
  for (const int number : received) {
    const int thread = (number - 1) / each;
    EXPECT_LT(last[thread], number);
    last[thread] = number;
  }
  EXPECT_EQ(received.size(), std::size_t{threads} * each);
}

TEST_F(QueueTest, ItemsOfSeveralThreadsComeInPushOrderInOneGo) {
  const Queue queue = receiving(nullptr);
  for (int i = 1; i <= 20; ++i) std::thread([&] { ptz_queue_push(queue.get(), item(i)); }).join();
  EXPECT_TRUE(iterate());
  ASSERT_EQ(events.size(), 20U);
  for (int i = 1; i <= 20; ++i) EXPECT_EQ(events[static_cast<std::size_t>(i - 1)], "got " + std::to_string(i));
}

}  // namespace
