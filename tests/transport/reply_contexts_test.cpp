#include "transport/reply_contexts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <vector>

#include "command_ends.h"

using namespace ptz_test;
using Record = PTZSocketServerCommandReplyContext;

namespace {

using OwnedContext = std::unique_ptr<Record, FreeWith<g_free>>;

struct ReplyContexts : testing::Test {
  PTZSocketServer server = {}, other_server = {};
  ptz::ReplyContexts contexts;

  OwnedContext make(gint fd, guint32 message_id, guint32 serial) {
    return OwnedContext(contexts.make(fd, &server, message_id, serial));
  }
};

}  // namespace

TEST_F(ReplyContexts, MadeContextNamesDescriptorServerAndMessage) {
  const OwnedContext context = make(5, 77, 1);
  EXPECT_EQ(context->fd, 5);
  EXPECT_EQ(context->server, &server);
  EXPECT_EQ(context->message_id, 77u);
}

TEST_F(ReplyContexts, TakeReturnsTheSerialNumberOnce) {
  const OwnedContext context = make(5, 77, 123);
  EXPECT_EQ(contexts.take(context.get()), 123u);
  EXPECT_EQ(contexts.take(context.get()), std::nullopt);
}

TEST_F(ReplyContexts, ContextWithoutConnectionHasSerialNumberZero) {
  const OwnedContext context = make(5, 77, 0);
  EXPECT_EQ(contexts.take(context.get()), 0u);
}

TEST_F(ReplyContexts, TakeInAnyOrderReturnsEachContextsSerialNumber) {
  std::vector<OwnedContext> made;
  for (guint32 serial = 0; serial < 10; ++serial) made.push_back(make(5, 77, serial));
  for (const guint32 serial : {3u, 9u, 0u, 5u, 8u, 1u, 2u, 7u, 4u, 6u}) {
    EXPECT_EQ(contexts.take(made[serial].get()), serial);
  }
}

TEST_F(ReplyContexts, ContextOfGoneConnectionIsToldFromThatOfTheNextOnItsDescriptor) {
  const OwnedContext of_gone = make(5, 0, 10), of_next = make(5, 0, 11);
  EXPECT_EQ(contexts.take(of_gone.get()), 10u);
  EXPECT_EQ(contexts.take(of_next.get()), 11u);
}

TEST_F(ReplyContexts, ContextOfASubclassHasNoSerialNumber) {
  const OwnedContext known = make(5, 77, 1);
  const Record foreign = *known;
  EXPECT_EQ(contexts.take(&foreign), std::nullopt);
  EXPECT_EQ(contexts.take(known.get()), 1u);
}

TEST_F(ReplyContexts, StaleEntryDoesNotSpeakForAnotherContextInItsMemory) {
  const Record others[] = {{6, &server, 77}, {5, &other_server, 77}, {5, &server, 78}};
  for (const Record &other : others) {
    const OwnedContext context = make(5, 77, 1);
    const Record stale = *context;
    *context = other;  // a subclass has freed it without a reply, and got the memory for a context of its own
    EXPECT_EQ(contexts.take(context.get()), std::nullopt);
    *context = stale;
    EXPECT_EQ(contexts.take(context.get()), std::nullopt);  // the stale entry is gone
  }
}

TEST_F(ReplyContexts, StaleEntryDoesNotHideANewContextInItsMemory) {
  OwnedContext context = make(5, 77, 1);
  const Record *address = context.get();
  context.reset();  // without a reply
  context = make(5, 77, 2);
  if (context.get() != address) GTEST_SKIP() << "the allocator has not reused the memory";
  EXPECT_EQ(contexts.take(context.get()), 2u);
}

TEST_F(ReplyContexts, SeveralThreadsTakeWhatTheyMade) {
  std::atomic<bool> go = false;
  std::vector<std::future<int>> threads;
  for (guint32 thread = 0; thread < 4; ++thread) {
    threads.push_back(in_thread([&, thread] {
      while (!go) g_thread_yield();
      int wrong = 0;
      for (guint32 round = 0; round < 10'000; ++round) {
        std::vector<OwnedContext> made;
        for (guint32 i = 0; i < 10; ++i) made.push_back(make(5, i, thread * 1000 + i));
        for (guint32 i = 0; i < 10; ++i) wrong += contexts.take(made[i].get()) == thread * 1000 + i ? 0 : 1;
      }
      return wrong;
    }));
  }
  go = true;
  for (auto &thread : threads) EXPECT_EQ(thread.get(), 0);
}

TEST_F(ReplyContexts, SeveralThreadsTakeOneContextOnce) {
  for (int round = 0; round < 200; ++round) {
    const OwnedContext context = make(5, 77, 1);
    std::atomic<bool> go = false;
    const auto take = [&] {
      while (!go) g_thread_yield();
      return contexts.take(context.get()).has_value() ? 1 : 0;
    };
    auto first = in_thread(take), second = in_thread(take);
    go = true;
    EXPECT_EQ(first.get() + second.get(), 1);
  }
}
