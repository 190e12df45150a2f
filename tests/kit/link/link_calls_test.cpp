// Asynchronous calls of a link: replies, refusals, deadlines, cancellation, the limit of pending requests.
#include <sys/syscall.h>
#include <unistd.h>

#include "clock.h"
#include "link_test.h"

namespace {
std::atomic<int> next_error_of_sendmsg;
}

// In place of the system's for the whole program.
extern "C" ssize_t sendmsg(int fd, const msghdr *message, int flags) {
  errno = next_error_of_sendmsg.exchange(0);
  return errno != 0 ? -1 : syscall(SYS_sendmsg, fd, message, flags);
}

namespace kit_link_test {
namespace {

using ptz_test::run_pending;
using ptz_test::run_until;

struct KitLinkCalls : LinkTest {
  bool end(const Query &query) {
    return run_until([&] { return query.ended(); });
  }
  [[nodiscard]] bool has_request() {
    run_pending();
    return ptz_test::is_readable(peer_.get());
  }
  // The one place is taken by a request whose call has timed out; `waiting` is queued behind it.
  void wait_for_place_of_unanswered_request(Query &waiting) {
    connect(1);
    Query never;
    never.start(link_.get(), 100);
    static_cast<void>(next_request());
    ptz_test::advance_clock(100);
    ASSERT_TRUE(end(never));
    waiting.start(link_.get(), 60'000);
  }
};

TEST_F(KitLinkCalls, AsyncCallReturnsReply) {
  connect();
  Query query;
  query.start(link_.get());
  const Frame request = next_request();
  EXPECT_EQ(request.body, word(PTZ_COMMAND_QUERY_POSITION));
  reply(request, position_reply(1234));
  ASSERT_TRUE(end(query));
  EXPECT_EQ(query.pan(), 1234);
}

TEST_F(KitLinkCalls, RequestIsWrittenFromItsFields) {
  connect();
  PTZKitGotoPresetRequest *goto_preset = ptz_kit_goto_preset_request_new(7, 50);
  bool obeyed = false;
  ptz_kit_link_goto_preset_async(
      link_.get(), goto_preset, 0, nullptr,
      [](GObject *link, GAsyncResult *result, gpointer done) {
        *static_cast<bool *>(done) = ptz_kit_link_goto_preset_finish(PTZ_KIT_LINK(link), result, nullptr) != FALSE;
      },
      &obeyed);
  ptz_kit_goto_preset_request_free(goto_preset);
  const Frame request = next_request();
  EXPECT_EQ(request.body, word(PTZ_COMMAND_GOTO_PRESET) + word(7) + std::string("\x32\0", 2));
  reply(request, word(PTZ_COMMAND_GOTO_PRESET));
  EXPECT_TRUE(run_until([&] { return obeyed; }));
}

TEST_F(KitLinkCalls, RepliesInAnyOrderReachTheirCalls) {
  connect();
  Query first, second;
  first.start(link_.get());
  second.start(link_.get());
  const Frame of_first = next_request(), of_second = next_request();
  reply(of_second, position_reply(2));
  reply(of_first, position_reply(1));
  ASSERT_TRUE(end(first) && end(second));
  EXPECT_EQ(first.pan(), 1);
  EXPECT_EQ(second.pan(), 2);
}

TEST_F(KitLinkCalls, ReplyInPiecesIsPutTogether) {
  connect();
  Query query;
  query.start(link_.get());
  const std::string frame = ptz_test::frame(next_request().id, position_reply(9));
  for (const char byte : frame) {
    EXPECT_FALSE(query.ended());
    ptz_test::send_all(peer_.get(), std::string_view(&byte, 1));
    run_pending();
  }
  ASSERT_TRUE(end(query));
  EXPECT_EQ(query.pan(), 9);
}

TEST_F(KitLinkCalls, CallOnLinkThatIsNotReadyFailsAfterItHasReturned) {
  open_link();
  Query query;
  query.start(link_.get());
  EXPECT_FALSE(query.ended());
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(query.failed_with(PTZ_KIT_ERROR_NOT_CONNECTED));
}

TEST_F(KitLinkCalls, ErrorReplyIsRefusalWithCodeAndTextOfDriver) {
  connect();
  Query query;
  query.start(link_.get());
  reply(next_request(), error_reply(PTZ_KIT_ERROR_CODE_DEVICE, "no cable"));
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(g_error_matches(query.error(), PTZ_KIT_REFUSAL, PTZ_KIT_ERROR_CODE_DEVICE));
  EXPECT_STREQ(query.error()->message, "query_position: refused with error 8: no cable");
  EXPECT_EQ(state(), PTZ_KIT_LINK_STATE_READY);
}

struct Malformed {
  const char *title;
  std::string body;
  const char *error;
};
struct KitLinkMalformedReply : KitLinkCalls, testing::WithParamInterface<Malformed> {};

TEST_P(KitLinkMalformedReply, FailsItsCallAlone) {
  connect();
  Query query, next;
  query.start(link_.get());
  reply(next_request(), GetParam().body);
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(query.failed_with(PTZ_KIT_ERROR_MALFORMED));
  EXPECT_STREQ(query.error()->message, GetParam().error);
  next.start(link_.get());
  reply(next_request(), position_reply(1));
  ASSERT_TRUE(end(next));
  EXPECT_EQ(next.pan(), 1);
}

INSTANTIATE_TEST_SUITE_P(
    , KitLinkMalformedReply,
    testing::Values(Malformed{"TooShort", word(PTZ_COMMAND_QUERY_POSITION),
                              "query position reply: field \"position\" of pan at byte 4: the body is too short"},
                    Malformed{"Empty", "", "query position reply: field \"command\" at byte 0: the body is too short"},
                    Malformed{"OfAnotherCommand", word(PTZ_COMMAND_STOP) + std::string(24, '\0'),
                              "query position reply: field \"command\" at byte 0: it is another command"},
                    Malformed{"ErrorReplyTooShort", word(PTZ_COMMAND_ERROR_REPLY),
                              "error reply: field \"code\" at byte 4: the body is too short"}),
    [](const auto &info) { return info.param.title; });

TEST_F(KitLinkCalls, MalformedFrameEndsConnection) {
  connect();
  Query query;
  query.start(link_.get());
  static_cast<void>(next_request());
  ptz_test::send_all(peer_.get(), ptz_test::frame_claiming(7, 0, "x"));
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(query.failed_with(PTZ_KIT_ERROR_LOST));
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
}

TEST_F(KitLinkCalls, DeadlineEndsCallAndLateReplyIsDropped) {
  connect();
  Query late, next;
  late.start(link_.get(), 300);
  const Frame request = next_request();
  ptz_test::advance_clock(299);
  run_pending();
  EXPECT_FALSE(late.ended());
  ptz_test::advance_clock(1);
  ASSERT_TRUE(end(late));
  EXPECT_TRUE(late.failed_with(PTZ_KIT_ERROR_TIMED_OUT));
  reply(request, position_reply(1));
  next.start(link_.get());
  reply(next_request(), position_reply(2));
  ASSERT_TRUE(end(next));
  EXPECT_EQ(next.pan(), 2);
}

TEST_F(KitLinkCalls, EachCallHasItsOwnDeadline) {
  connect();
  Query slow, quick;
  slow.start(link_.get(), 500);
  quick.start(link_.get(), 200);
  ptz_test::advance_clock(200);
  ASSERT_TRUE(end(quick));
  EXPECT_FALSE(slow.ended());
  ptz_test::advance_clock(300);
  ASSERT_TRUE(end(slow));
  EXPECT_TRUE(slow.failed_with(PTZ_KIT_ERROR_TIMED_OUT));
}

TEST_F(KitLinkCalls, CancelledCallEndsAndItsReplyIsDropped) {
  connect();
  const Object<GCancellable> cancellable(g_cancellable_new());
  Query cancelled, next;
  cancelled.start(link_.get(), 0, cancellable.get());
  const Frame request = next_request();
  g_cancellable_cancel(cancellable.get());
  EXPECT_FALSE(cancelled.ended());
  ASSERT_TRUE(end(cancelled));
  EXPECT_TRUE(g_error_matches(cancelled.error(), G_IO_ERROR, G_IO_ERROR_CANCELLED));
  reply(request, position_reply(1));
  next.start(link_.get());
  reply(next_request(), position_reply(2));
  ASSERT_TRUE(end(next));
  EXPECT_EQ(next.pan(), 2);
}

TEST_F(KitLinkCalls, CancellationInCallbackOfMainLoopEndsCallLater) {
  connect();
  struct Cancellation {
    Object<GCancellable> cancellable{g_cancellable_new()};
    Query query = {};
    bool ended_inside = false;
  } cancellation;
  cancellation.query.start(link_.get(), 0, cancellation.cancellable.get());
  static_cast<void>(next_request());
  g_idle_add(
      [](gpointer data) {
        auto &self = *static_cast<Cancellation *>(data);
        g_cancellable_cancel(self.cancellable.get());
        self.ended_inside = self.query.ended();
        return G_SOURCE_REMOVE;
      },
      &cancellation);
  ASSERT_TRUE(end(cancellation.query));
  EXPECT_FALSE(cancellation.ended_inside);
}

TEST_F(KitLinkCalls, CallWithCancelledCancellableSendsNothing) {
  connect();
  const Object<GCancellable> cancellable(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  Query query;
  query.start(link_.get(), 0, cancellable.get());
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(g_error_matches(query.error(), G_IO_ERROR, G_IO_ERROR_CANCELLED));
  EXPECT_FALSE(has_request());
}

TEST_F(KitLinkCalls, CancellableMayBeCancelledAfterCallHasEnded) {
  connect();
  const Object<GCancellable> cancellable(g_cancellable_new());
  Query query;
  query.start(link_.get(), 0, cancellable.get());
  reply(next_request(), position_reply(1));
  ASSERT_TRUE(end(query));
  g_cancellable_cancel(cancellable.get());
  EXPECT_EQ(query.pan(), 1);
}

TEST_F(KitLinkCalls, LostDriverFailsSentAndWaitingCallsAtOnce) {
  connect(1);
  Query sent, waiting;
  sent.start(link_.get());
  waiting.start(link_.get());
  static_cast<void>(next_request());
  peer_.reset();
  ASSERT_TRUE(end(sent) && end(waiting));
  EXPECT_TRUE(sent.failed_with(PTZ_KIT_ERROR_LOST));
  EXPECT_TRUE(waiting.failed_with(PTZ_KIT_ERROR_NOT_CONNECTED));
}

TEST_F(KitLinkCalls, RepliesSentBeforeHangUpAreDelivered) {
  connect();
  Query query;
  query.start(link_.get());
  reply(next_request(), position_reply(5));
  peer_.reset();
  ASSERT_TRUE(end(query));
  EXPECT_EQ(query.pan(), 5);
}

TEST_F(KitLinkCalls, RequestsBeyondMaxPendingWaitInOrder) {
  connect(2);
  Query queries[4];
  for (Query &query : queries) query.start(link_.get());
  const Frame first = next_request();
  static_cast<void>(next_request());
  EXPECT_FALSE(has_request());
  reply(first, position_reply(0));
  const Frame third = next_request();
  EXPECT_FALSE(has_request());
  reply(third, position_reply(2));
  const Frame fourth = next_request();
  reply(fourth, position_reply(3));
  ASSERT_TRUE(end(queries[0]) && end(queries[2]) && end(queries[3]));
  EXPECT_EQ(queries[0].pan(), 0);
  EXPECT_EQ(queries[2].pan(), 2);
  EXPECT_EQ(queries[3].pan(), 3);
  EXPECT_FALSE(queries[1].ended());
}

TEST_F(KitLinkCalls, WaitingCallThatTimesOutIsNeverSent) {
  connect(1);
  Query sent, waiting;
  sent.start(link_.get());
  waiting.start(link_.get(), 100);
  const Frame request = next_request();
  ptz_test::advance_clock(100);
  ASSERT_TRUE(end(waiting));
  reply(request, position_reply(1));
  ASSERT_TRUE(end(sent));
  EXPECT_FALSE(has_request());
}

TEST_F(KitLinkCalls, TimedOutRequestIsPendingUntilItsLateReply) {
  connect(1);
  Query late, next;
  late.start(link_.get(), 100);
  const Frame request = next_request();
  ptz_test::advance_clock(100);
  ASSERT_TRUE(end(late));
  next.start(link_.get(), 5000);
  EXPECT_FALSE(has_request());
  reply(request, position_reply(1));
  EXPECT_EQ(next_request().body, word(PTZ_COMMAND_QUERY_POSITION));
}

TEST_F(KitLinkCalls, RequestThatIsNeverAnsweredIsPendingForTenSecondsMore) {
  connect(1);
  Query never, next;
  never.start(link_.get(), 100);
  static_cast<void>(next_request());
  ptz_test::advance_clock(100);
  ASSERT_TRUE(end(never));
  ptz_test::advance_clock(10'000);
  next.start(link_.get());
  EXPECT_TRUE(has_request());
}

TEST_F(KitLinkCalls, WaitingCallIsSentWhenPlaceOfUnansweredRequestIsFreeAgain) {
  Query waiting;
  ASSERT_NO_FATAL_FAILURE(wait_for_place_of_unanswered_request(waiting));
  ptz_test::advance_clock(9'900);
  EXPECT_FALSE(has_request());
  ptz_test::advance_clock(100);
  EXPECT_TRUE(has_request());
}

TEST_F(KitLinkCalls, LaterCallDoesNotPassWaitingCallWhenPlaceIsFreeAgain) {
  Query waiting;
  ASSERT_NO_FATAL_FAILURE(wait_for_place_of_unanswered_request(waiting));
  ptz_test::advance_clock(10'000);
  ptz_kit_link_stop_async(link_.get(), 0, nullptr, nullptr, nullptr);
  EXPECT_EQ(next_request().body, word(PTZ_COMMAND_QUERY_POSITION));
}

TEST_F(KitLinkCalls, CallBeyond1024WaitingOnesIsBusy) {
  connect(1);
  std::vector<std::unique_ptr<Query>> queries;
  for (int i = 0; i < 1026; ++i) queries.emplace_back(std::make_unique<Query>())->start(link_.get());
  ASSERT_TRUE(end(*queries.back()));
  EXPECT_TRUE(queries.back()->failed_with(PTZ_KIT_ERROR_BUSY));
  EXPECT_FALSE(queries[1024]->ended());
  ptz_kit_link_close(link_.get());
  for (const auto &query : queries) ASSERT_TRUE(end(*query));
}

TEST_F(KitLinkCalls, RequestThatMeetsLackOfMemoryIsSentLater) {
  for (const int error : {ENOBUFS, ENOMEM}) {
    connect();
    next_error_of_sendmsg = error;
    Query query;
    query.start(link_.get());
    EXPECT_FALSE(ptz_test::is_readable(peer_.get()));
    reply(next_request(), position_reply(error));
    ASSERT_TRUE(end(query));
    EXPECT_EQ(query.pan(), error);
  }
}

TEST_F(KitLinkCalls, DriverThatDoesNotReadReceivesWholeFramesLater) {
  connect(1000);
  const std::string body = word(PTZ_COMMAND_QUERY_POSITION) + std::string(2548, 'x');
  const Bytes bytes(g_bytes_new(body.data(), body.size()));
  for (int i = 0; i < 400; ++i) ptz_kit_link_call_async(link_.get(), bytes.get(), 0, nullptr, nullptr, nullptr);
  for (int i = 0; i < 400; ++i) {
    const Frame request = next_request();
    ASSERT_EQ(request.body, body) << i;
    reply(request, position_reply(1));
  }
}

TEST_F(KitLinkCalls, LinkWithPendingCallLivesUntilCallEnds) {
  connect();
  Query query;
  query.start(link_.get(), 100);
  static_cast<void>(next_request());
  gpointer alive = link_.get();
  g_object_add_weak_pointer(G_OBJECT(link_.get()), &alive);
  link_.reset();
  EXPECT_NE(alive, nullptr);
  ptz_test::advance_clock(100);
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(run_until([&] { return alive == nullptr; }));
  EXPECT_TRUE(ptz_test::is_at_end(peer_.get()));
}

TEST_F(KitLinkCalls, CloseFailsCallsAfterItHasReturned) {
  connect();
  Query query;
  query.start(link_.get());
  ptz_kit_link_close(link_.get());
  EXPECT_FALSE(query.ended());
  ASSERT_TRUE(end(query));
  EXPECT_TRUE(query.failed_with(PTZ_KIT_ERROR_LOST));
}

TEST_F(KitLinkCalls, CallbackRunsInMainContextOfCaller) {
  connect();
  struct Caller {
    PTZKitLink *link;
    Query query = {};
    GThread *thread = nullptr;
  } caller{link_.get()};
  GThread *thread = g_thread_new(
      "caller",
      [](gpointer data) -> gpointer {
        auto &self = *static_cast<Caller *>(data);
        const ptz_test::Context context(g_main_context_new());
        g_main_context_push_thread_default(context.get());
        self.thread = g_thread_self();
        self.query.start(self.link);
        while (!self.query.ended()) g_main_context_iteration(context.get(), TRUE);
        g_main_context_pop_thread_default(context.get());
        return nullptr;
      },
      &caller);
  reply(next_request(), position_reply(3));
  ASSERT_TRUE(run_until([this] { return !ptz_test::is_readable(peer_.get()); }));
  run_pending();
  g_thread_join(thread);
  EXPECT_EQ(caller.query.pan(), 3);
  EXPECT_EQ(caller.query.thread(), caller.thread);
}

TEST_F(KitLinkCalls, CallbackMayStartNextCallAndDropLink) {
  connect();
  PTZKitLink *link = link_.release();
  bool ended = false;
  ptz_kit_link_stop_async(
      link, 0, nullptr,
      [](GObject *object, GAsyncResult *result, gpointer done) {
        EXPECT_TRUE(ptz_kit_link_stop_finish(PTZ_KIT_LINK(object), result, nullptr));
        g_object_unref(object);
        *static_cast<bool *>(done) = true;
      },
      &ended);
  reply(next_request(), word(PTZ_COMMAND_STOP));
  EXPECT_TRUE(run_until([&] { return ended; }));
  EXPECT_TRUE(run_until([this] { return ptz_test::is_at_end(peer_.get()); }));
}

TEST_F(KitLinkCalls, CallbackThatRunsMainLoopSeesEndOfCallAnsweredWithIt) {
  connect();
  struct Calls {
    Query other = {};
    bool ended = false;
    bool other_ended_inside = false;
  } calls;
  ptz_kit_link_stop_async(
      link_.get(), 0, nullptr,
      [](GObject *, GAsyncResult *, gpointer data) {
        auto &self = *static_cast<Calls *>(data);
        self.other_ended_inside = run_until([&] { return self.other.ended(); }, 1000);
        self.ended = true;
      },
      &calls);
  calls.other.start(link_.get());
  const Frame stop = next_request(), query = next_request();
  ptz_test::send_all(peer_.get(),
                     ptz_test::frame(stop.id, word(PTZ_COMMAND_STOP)) + ptz_test::frame(query.id, position_reply(4)));
  ASSERT_TRUE(run_until([&] { return calls.ended; }));
  EXPECT_TRUE(calls.other_ended_inside);
  EXPECT_EQ(calls.other.pan(), 4);
}

TEST_F(KitLinkCalls, MissingRequestIsOneCriticalAndFailsCallAndSendsNothing) {
  connect();
  const ptz_test::GlibLogCapture log;
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_link_goto_preset(link_.get(), nullptr, 0, nullptr, &error));
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
  g_clear_error(&error);
  EXPECT_EQ(log.criticals(), 1u);
  ptz_kit_link_goto_preset_async(
      link_.get(), nullptr, 0, nullptr,
      [](GObject *link, GAsyncResult *result, gpointer failure) {
        ptz_kit_link_goto_preset_finish(PTZ_KIT_LINK(link), result, static_cast<GError **>(failure));
      },
      &error);
  EXPECT_EQ(log.criticals(), 2u);
  ASSERT_TRUE(run_until([&] { return error != nullptr; }));
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
  g_clear_error(&error);
  EXPECT_FALSE(has_request());
}

TEST_F(KitLinkCalls, BodyThatCannotBeSentFailsCall) {
  connect();
  const std::string long_body(2553, 'x');
  GError *error = nullptr;
  const Bytes too_long(g_bytes_new(long_body.data(), long_body.size())), too_short(g_bytes_new("abc", 3));
  EXPECT_EQ(ptz_kit_link_call(link_.get(), too_long.get(), 0, nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TOO_LONG));
  g_clear_error(&error);
  EXPECT_EQ(ptz_kit_link_call(link_.get(), too_short.get(), 0, nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
  g_clear_error(&error);
}

}  // namespace
}  // namespace kit_link_test
