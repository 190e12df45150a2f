#include "transport/plain_reply_context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>

#include "command_ends.h"

using namespace ptz_test;
using ptz::SavedPlainReplyContext;

namespace {

// Two servers with two clients each; only their addresses count.
class PlainReplyContext : public testing::Test {
 protected:
  PTZSocketServer server = {}, other_server = {};
  PTZSocketServerClient client = {}, other_client = {};
  PTZSocketServerReplyContext *record = ptz::set_plain_reply_context(nullptr, nullptr);

  ~PlainReplyContext() override { set(nullptr, nullptr); }

  void set(PTZSocketServer *named_server, PTZSocketServerClient *named_client) {
    EXPECT_EQ(ptz::set_plain_reply_context(named_server, named_client), record);
  }
  void expect(const PTZSocketServer *named_server, const PTZSocketServerClient *named_client) const {
    EXPECT_EQ(record->server, named_server);
    EXPECT_EQ(record->client, named_client);
  }
};

}  // namespace

TEST_F(PlainReplyContext, SetFillsTheOneRecordOfTheProcess) {
  set(&server, &client);
  expect(&server, &client);
  set(&other_server, &other_client);
  expect(&other_server, &other_client);
}

TEST_F(PlainReplyContext, RecordKeepsItsValuesBehindTheOutermostCallback) {
  {
    const SavedPlainReplyContext callback;
    set(&server, &client);
  }
  expect(&server, &client);
}

TEST_F(PlainReplyContext, NestedCallbackRestoresTheRecordOfTheOuterOne) {
  const SavedPlainReplyContext outer;
  set(&server, &client);
  {
    const SavedPlainReplyContext inner;
    expect(&server, &client);
    set(&other_server, &other_client);
  }
  expect(&server, &client);
}

TEST_F(PlainReplyContext, EveryLevelOfNestingRestoresItsOuterOne) {
  const SavedPlainReplyContext outermost;
  set(&server, &client);
  {
    const SavedPlainReplyContext middle;
    set(&other_server, &client);
    {
      const SavedPlainReplyContext innermost;
      set(&other_server, &other_client);
    }
    expect(&other_server, &client);
    {
      const SavedPlainReplyContext sibling;
      set(&server, &other_client);
    }
    expect(&other_server, &client);
  }
  expect(&server, &client);
}

TEST_F(PlainReplyContext, ForgottenClientIsClearedInTheRecordOnly) {
  set(&server, &client);
  ptz::forget_client_in_plain_reply_context(&other_client);
  expect(&server, &client);
  ptz::forget_client_in_plain_reply_context(&client);
  expect(&server, nullptr);  // the server can still be asked to send, which fails
}

TEST_F(PlainReplyContext, ForgottenServerIsClearedWithItsClient) {
  set(&server, &client);
  ptz::forget_server_in_plain_reply_context(&other_server);
  expect(&server, &client);
  ptz::forget_server_in_plain_reply_context(&server);
  expect(nullptr, nullptr);
}

TEST_F(PlainReplyContext, ClientThatGoesInANestedCallbackIsClearedInTheSavedCopy) {
  const SavedPlainReplyContext outer;
  set(&server, &client);
  {
    const SavedPlainReplyContext inner;
    set(&other_server, &other_client);
    ptz::forget_client_in_plain_reply_context(&client);
    expect(&other_server, &other_client);
  }
  expect(&server, nullptr);
}

TEST_F(PlainReplyContext, ServerThatGoesInANestedCallbackIsClearedInTheSavedCopy) {
  const SavedPlainReplyContext outer;
  set(&server, &client);
  {
    const SavedPlainReplyContext inner;
    set(&other_server, &other_client);
    ptz::forget_server_in_plain_reply_context(&server);
    expect(&other_server, &other_client);
  }
  expect(nullptr, nullptr);
}

TEST_F(PlainReplyContext, ClientThatGoesIsClearedInEverySavedCopy) {
  const SavedPlainReplyContext outermost;
  set(&server, &client);
  {
    const SavedPlainReplyContext middle;
    set(&other_server, &client);
    {
      const SavedPlainReplyContext innermost;
      set(&server, &client);
      ptz::forget_client_in_plain_reply_context(&client);
      expect(&server, nullptr);
    }
    expect(&other_server, nullptr);
  }
  expect(&server, nullptr);
}

TEST_F(PlainReplyContext, CopyOfAnEndedCallbackIsNotTouched) {
  std::optional<SavedPlainReplyContext> ended(std::in_place);
  set(&server, &client);
  ended.reset();
  ptz::forget_server_in_plain_reply_context(&server);
  expect(nullptr, nullptr);
}

TEST_F(PlainReplyContext, ServersMayGoInAnotherThreadWhileCallbacksNest) {
  std::atomic<int> forgotten = 0;
  std::atomic<bool> done = false;
  const auto forgetting = in_thread([&] {
    for (; !done; ++forgotten) ptz::forget_server_in_plain_reply_context(&other_server);
  });
  // On the heap, so that the address sanitizer sees an access to a copy that is gone.
  const auto nest = [&] {
    const auto outer = std::make_unique<SavedPlainReplyContext>();
    set(&server, &client);
    auto inner = std::make_unique<SavedPlainReplyContext>();
    set(&other_server, &other_client);
    inner.reset();
    expect(&server, &client);
  };
  for (int nested = 0; nested < 20'000 || forgotten < 20'000; ++nested) nest();
  done = true;
}
