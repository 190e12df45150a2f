// A request is answered once: now, later, by an error of the kit, or when the driver stops.
#include <unistd.h>

#include <vector>

#include "clock.h"
#include "handles.h"
#include "running_driver.h"
#include "syslog_capture.h"

namespace {

const StatusStore store;

class KitReply : public RunningDriver {
 protected:
  void TearDown() override {
    if (driver_ != nullptr) g_clear_object(&driver_->deferred);
    end();
  }
  bool light_is_answered() {
    return ask_auxiliary("light") == "{'command': <'auxiliary'>, 'name': <'light'>, 'state': <uint32 1>}";
  }
  void ask_later() {
    send(bytes_of(auxiliary(AUXILIARY_LATER).c_str()));
    ASSERT_TRUE(ptz_test::run_until([&] { return driver_->deferred != nullptr; }));
  }
};

TEST_F(KitReply, DeferredReplyIsSentWhenItIsAnswered) {
  start();
  ask_later();
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
  EXPECT_FALSE(ptz_kit_reply_is_answered(driver_->deferred));
  EXPECT_EQ(ptz_kit_reply_get_command(driver_->deferred), PTZ_COMMAND_AUXILIARY);
  ptz_kit_reply_error(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "after %d s", 3);
  EXPECT_TRUE(ptz_kit_reply_is_answered(driver_->deferred));
  EXPECT_EQ(text_of(receive()), "{'command': <'error'>, 'code': <uint32 8>, 'text': <'after 3 s'>}");
}

TEST_F(KitReply, DeferredReplyToClientThatHasGoneIsHarmless) {
  start();
  ask_later();
  client_.reset();
  ptz_test::run_pending();
  const ptz_test::SyslogCapture log;
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "too late");
  EXPECT_EQ(log.containing("to process " + std::to_string(getpid()) + " could not be sent"), 1U);
  client_ = ptz_test::connect_to(path_);
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, RepliesThatCannotBeSentAreLoggedAtMostOnceASecond) {
  start();
  std::vector<PTZKitReply *> replies;
  for (int count = 0; count < 4; ++count) {
    ask_later();
    replies.push_back(g_steal_pointer(&driver_->deferred));
  }
  client_.reset();
  ptz_test::run_pending();
  const ptz_test::SyslogCapture log;
  for (PTZKitReply *reply : replies) {
    ptz_kit_reply_error_literal(reply, PTZ_KIT_ERROR_CODE_DEVICE, "too late");
    g_object_unref(reply);
  }
  EXPECT_EQ(log.containing("could not be sent"), 1U);
  ptz_test::advance_clock(1'100);
  const std::string summary =
      "replies that could not be sent in the last second: 3 more, the last one to process " + std::to_string(getpid());
  EXPECT_TRUE(ptz_test::run_until([&] { return log.containing(summary) == 1; }));
}

TEST_F(KitReply, DroppedReplyIsError7) {
  start();
  EXPECT_TRUE(is_error(ask_auxiliary(AUXILIARY_DROP), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, ReplyNeitherAnsweredNorDeferredIsError7AlthoughItIsReferenced) {
  start();
  EXPECT_TRUE(is_error(ask_auxiliary(AUXILIARY_NEITHER), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, SecondAnswerIsCriticalAndSendsNothing) {
  start();
  const ptz_test::GlibLogCapture log;
  EXPECT_EQ(ask_auxiliary(AUXILIARY_TWICE), "{'command': <'auxiliary'>, 'name': <'twice'>, 'state': <uint32 1>}");
  EXPECT_EQ(log.criticals(), 1U);
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, AnswerOfAnotherCommandIsCriticalAndError7) {
  start();
  const ptz_test::GlibLogCapture log;
  EXPECT_TRUE(is_error(ask_auxiliary(AUXILIARY_WRONG), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_EQ(log.criticals(), 1U);
}

TEST_F(KitReply, OkForReplyWithFieldsIsCriticalAndError7) {
  start();
  const ptz_test::GlibLogCapture log;
  EXPECT_TRUE(is_error(ask_auxiliary(AUXILIARY_OK), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_EQ(log.criticals(), 1U);
}

TEST_F(KitReply, LongErrorTextIsCutToOneFrame) {
  start();
  send(bytes_of(auxiliary(AUXILIARY_LONG).c_str()));
  const std::string body = receive();
  EXPECT_EQ(body.size(), std::size_t{PTZ_SOCKET_BODY_MAX});
  EXPECT_TRUE(is_error(text_of(body), PTZ_KIT_ERROR_CODE_DEVICE));
}

TEST_F(KitReply, PeerIsProcessAndUserOfClient) {
  start();
  const std::string peer = "'" + std::to_string(getpid()) + " " + std::to_string(getuid()) + "'";
  EXPECT_NE(ask_auxiliary(AUXILIARY_PEER).find(peer), std::string::npos);
}

TEST_F(KitReply, StopAnswersPendingRequestsAndLaterAnswersAreHarmless) {
  start();
  ask_later();
  const ptz_test::GlibLogCapture log;
  ptz_kit_driver_stop(kit());
  EXPECT_TRUE(is_error(text_of(receive()), PTZ_KIT_ERROR_CODE_INTERNAL));
  ptz_kit_reply_ok(driver_->deferred);
  EXPECT_EQ(log.criticals(), 0U);
}

TEST_F(KitReply, DeferredReplyIsError7AtItsDeadlineAndLaterAnswerIsHarmless) {
  start();
  ask_later();
  const ptz_test::SyslogCapture log;
  const ptz_test::GlibLogCapture glib_log;
  ptz_test::advance_clock(29'000);
  ptz_test::run_pending();
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
  ptz_test::advance_clock(1'100);
  EXPECT_TRUE(is_error(text_of(receive()), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_TRUE(ptz_kit_reply_is_answered(driver_->deferred));
  EXPECT_EQ(log.containing("the request \"auxiliary\" failed: its deferred reply was not given in time"), 1U);
  ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "too late");
  EXPECT_EQ(glib_log.criticals(), 0U);
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, EachDeferredReplyHasItsOwnDeadline) {
  start();
  g_object_set(driver_, "reply-deadline", 5'000U, nullptr);
  ask_later();
  const ptz_test::Object<PTZKitReply> first(g_steal_pointer(&driver_->deferred));
  ptz_test::advance_clock(4'000);
  ask_later();
  ptz_test::advance_clock(1'100);
  EXPECT_TRUE(ptz_test::run_until([&] { return ptz_kit_reply_is_answered(first.get()); }));
  EXPECT_FALSE(ptz_kit_reply_is_answered(driver_->deferred));
  ptz_test::advance_clock(4'000);
  EXPECT_TRUE(ptz_test::run_until([&] { return ptz_kit_reply_is_answered(driver_->deferred); }));
}

TEST_F(KitReply, ShorterDeadlineOfLaterReplyPassesFirst) {
  start();
  ask_later();
  const ptz_test::Object<PTZKitReply> first(g_steal_pointer(&driver_->deferred));
  g_object_set(driver_, "reply-deadline", 1'000U, nullptr);
  ask_later();
  ptz_test::advance_clock(1'100);
  EXPECT_TRUE(ptz_test::run_until([&] { return ptz_kit_reply_is_answered(driver_->deferred); }));
  EXPECT_FALSE(ptz_kit_reply_is_answered(first.get()));
}

TEST_F(KitReply, DeferredReplyWithoutDeadlineWaits) {
  start();
  g_object_set(driver_, "reply-deadline", 0U, nullptr);
  ask_later();
  ptz_test::advance_clock(3'600'000);
  ptz_test::run_pending();
  EXPECT_FALSE(ptz_kit_reply_is_answered(driver_->deferred));
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
}

TEST_F(KitReply, ReplyMayOutliveItsDriver) {
  start();
  ask_later();
  PTZKitReply *const reply = g_steal_pointer(&driver_->deferred);
  g_clear_object(&driver_);
  EXPECT_TRUE(is_error(text_of(receive()), PTZ_KIT_ERROR_CODE_INTERNAL));
  g_object_unref(reply);
}

TEST_F(KitReply, VirtualFunctionMayStopItsDriver) {
  start();
  const ptz_test::GlibLogCapture log;
  EXPECT_TRUE(is_error(ask_auxiliary(AUXILIARY_STOP), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_EQ(log.criticals(), 0U);
}

TEST_F(KitReply, VirtualFunctionMayDropLastReferenceOfItsDriver) {
  start();
  EXPECT_EQ(ask_auxiliary(AUXILIARY_UNREF), "{'command': <'auxiliary'>, 'name': <'unref'>, 'state': <uint32 1>}");
  driver_ = nullptr;
  EXPECT_FALSE(ptz_test::connect_to(path_));
}

// Runs the function in a thread of its own, to its end.
template <typename Function>
void run_in_thread(Function function) {
  const auto call = [](gpointer data) -> gpointer {
    (*static_cast<Function *>(data))();
    return nullptr;
  };
  g_thread_join(g_thread_new("worker", call, &function));
}

TEST_F(KitReply, DroppedInAnotherThreadIsError7FromMainContext) {
  start();
  ask_later();
  run_in_thread([this] { g_clear_object(&driver_->deferred); });
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
  EXPECT_TRUE(is_error(text_of(receive()), PTZ_KIT_ERROR_CODE_INTERNAL));
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, AnsweredInAnotherThreadIsSentFromMainContext) {
  start();
  ask_later();
  run_in_thread([this] {
    ptz_kit_reply_error(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "after %d s", 3);
    EXPECT_TRUE(ptz_kit_reply_is_answered(driver_->deferred));
    g_clear_object(&driver_->deferred);
  });
  EXPECT_FALSE(ptz_test::is_readable(client_.get()));
  EXPECT_EQ(text_of(receive()), "{'command': <'error'>, 'code': <uint32 8>, 'text': <'after 3 s'>}");
  EXPECT_TRUE(light_is_answered());
}

TEST_F(KitReply, AnswerOnItsWayFromAnotherThreadWhenDriverStopsIsError7) {
  start();
  ask_later();
  run_in_thread([this] {
    ptz_kit_reply_error_literal(driver_->deferred, PTZ_KIT_ERROR_CODE_DEVICE, "too late");
    g_clear_object(&driver_->deferred);
  });
  ptz_kit_driver_stop(kit());
  EXPECT_TRUE(is_error(text_of(receive()), PTZ_KIT_ERROR_CODE_INTERNAL));
  ptz_test::run_pending();
}

TEST_F(KitReply, RepliesDroppedInFourThreadsAreAllAnswered) {
  start();
  constexpr int workers = 4;
  constexpr int rounds = 200;
  GAsyncQueue *queue = g_async_queue_new();
  const auto drop = [](gpointer replies) -> gpointer {
    for (int count = 0; count < rounds; ++count) g_object_unref(g_async_queue_pop(static_cast<GAsyncQueue *>(replies)));
    return nullptr;
  };
  GThread *threads[workers];
  for (GThread *&thread : threads) thread = g_thread_new("worker", drop, queue);
  // More replies than fit into its socket would be lost to a client that does not read.
  constexpr int most_unread = 50;
  int wanted = 0, answers = 0;
  const auto has_read_enough = [&] {
    for (; ptz_test::is_readable(client_.get()); ++answers) EXPECT_TRUE(ptz_test::receive_frame(client_.get()));
    return answers >= wanted;
  };
  for (int count = 0; count < workers * rounds; ++count) {
    ask_later();
    g_async_queue_push(queue, g_steal_pointer(&driver_->deferred));
    wanted = count - most_unread;
    ASSERT_TRUE(ptz_test::run_until(has_read_enough)) << answers;
  }
  for (GThread *thread : threads) g_thread_join(thread);
  g_async_queue_unref(queue);
  wanted = workers * rounds;
  EXPECT_TRUE(ptz_test::run_until(has_read_enough)) << answers;
}

TEST_F(KitReply, AnswerThatDescriptionDoesNotAllowIsLoggedAndError7) {
  start();
  for (const char *request : {AUXILIARY_BAD_STATE, AUXILIARY_NO_NAME}) {
    const ptz_test::SyslogCapture log;
    EXPECT_TRUE(is_error(ask_auxiliary(request), PTZ_KIT_ERROR_CODE_INTERNAL)) << request;
    EXPECT_EQ(log.containing("the request \"auxiliary\" failed: "), 1U);
  }
}

class KitReplyBytes : public KitReply {
 protected:
  std::string answer_with(const std::string &body) {
    ask_later();
    GBytes *bytes = g_bytes_new(body.data(), body.size());
    ptz_kit_reply_send_bytes(driver_->deferred, bytes);
    g_bytes_unref(bytes);
    g_clear_object(&driver_->deferred);
    return receive();
  }
};

TEST_F(KitReplyBytes, AreSentAsTheyAre) {
  start();
  const std::string reply("\x09\0\0\0\4\0lamp\1\0\0\0", 14);
  EXPECT_EQ(answer_with(reply), reply);
  const std::string error("\xff\xff\xff\xff\x08\0\0\0\1\0x", 11);
  EXPECT_EQ(answer_with(error), error);
}

TEST_F(KitReplyBytes, ThatAreNoReplyToCommandAreLoggedAndError7) {
  start();
  for (const std::string &body : {std::string("\x09\0\0\0body", 8), std::string("\x09\0\0\0\4\0lamp\7\0\0\0", 14),
                                  std::string("\x0a\0\0\0\0\0\0\0", 8), std::string("\xff\xff\xff\xff", 4)}) {
    const ptz_test::SyslogCapture log;
    EXPECT_TRUE(is_error(text_of(answer_with(body)), PTZ_KIT_ERROR_CODE_INTERNAL));
    EXPECT_EQ(log.containing("the request \"auxiliary\" failed: "), 1U);
  }
}

}  // namespace
