// A command client that several threads use at once, beside a main loop.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <syslog.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "clock.h"
#include "command_ends.h"
#include "peers.h"
#include "select_hook.h"
#include "syslog_capture.h"

using namespace ptz_test;

namespace {

constexpr std::size_t many_requests = 1000;

// As a driver does: each reply is one attempt, and is lost if the socket has no room for it.
class EchoingDriver {
  int fd_;
  std::thread thread_;

 public:
  std::atomic<std::size_t> lost = 0;

  explicit EchoingDriver(int fd) : fd_(fd), thread_([this] { serve(); }) {}
  EchoingDriver(const EchoingDriver &) = delete;
  ~EchoingDriver() {
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
  }

 private:
  void serve() {
    while (const auto request = receive_frame(fd_)) {
      const std::string reply = frame(request->id, request->body);
      // In two pieces, as the library's server sends it.
      if (send(fd_, reply.data(), 8, MSG_DONTWAIT | MSG_NOSIGNAL) != 8 ||
          !send_all(fd_, std::string_view(reply).substr(8))) {
        ++lost;
      }
    }
  }
};

class SharedClient : public testing::Test {
 protected:
  Pair pair;
  std::vector<std::unique_ptr<Answer>> answers;  // outlives the client, which may release them
  CommandClient client{pair.ours.get()};
  GThread *main_thread = g_thread_self();

  Answer &prepare_answer() {
    answers.push_back(std::make_unique<Answer>());
    return *answers.back();
  }
  std::vector<Answer *> prepare_answers(std::size_t count) {
    std::vector<Answer *> prepared;
    for (std::size_t i = 0; i < count; ++i) prepared.push_back(&prepare_answer());
    return prepared;
  }
  void send_each(const std::vector<Answer *> &to) {
    for (Answer *answer : to) EXPECT_TRUE(client.send("question", answer));
  }
  void expect_replies_here(const std::vector<Answer *> &expected) {
    for (const Answer *answer : expected) {
      EXPECT_TRUE(answer->replied());
      EXPECT_EQ(answer->thread, main_thread);
    }
  }
};

TEST_F(SharedClient, ManySendsInsideAReplyCallbackLoseNoReply) {
  EchoingDriver driver(pair.theirs.get());
  const auto later = prepare_answers(many_requests);
  Answer &first = prepare_answer();
  first.then = [&] { send_each(later); };
  ASSERT_TRUE(client.send("first", &first));
  EXPECT_TRUE(run_until([this] { return client.pending_count() == 0; }, 60'000));
  EXPECT_EQ(driver.lost, 0u);
  expect_replies_here(later);
}

TEST_F(SharedClient, ManySendsOfAThreadDuringAReplyCallbackLoseNoReply) {
  EchoingDriver driver(pair.theirs.get());
  const auto later = prepare_answers(many_requests);
  Answer &first = prepare_answer();
  first.then = [&] { in_thread([&] { send_each(later); }).wait(); };
  ASSERT_TRUE(client.send("first", &first));
  EXPECT_TRUE(run_until([this] { return client.pending_count() == 0; }, 60'000));
  EXPECT_EQ(driver.lost, 0u);
  expect_replies_here(later);
}

TEST_F(SharedClient, SendInsideAReplyCallbackHandsRepliesToTheMainLoop) {
  Answer &first = prepare_answer(), &second = prepare_answer();
  ASSERT_TRUE(client.send("first", &first));
  ASSERT_TRUE(client.send("second", &second));
  first.then = [&] {
    EXPECT_TRUE(client.send("third", nullptr));
    EXPECT_TRUE(second.untouched());
    EXPECT_FALSE(is_readable(client.fd()));  // the reply was drained
  };
  send_all(pair.theirs.get(), frame(0, "one") + frame(1, "two"));
  iterate();
  EXPECT_TRUE(first.replied());
  EXPECT_TRUE(second.untouched());
  run_pending();
  EXPECT_EQ(second.body, "two");
}

// A loop that runs in the main thread while `work` does in another.
void run_loop_beside(const std::function<void()> &work) {
  GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
  std::thread worker([&] {
    while (!g_main_loop_is_running(loop)) std::this_thread::yield();
    work();
    g_idle_add(
        [](gpointer user_data) -> gboolean {
          g_main_loop_quit(static_cast<GMainLoop *>(user_data));
          return G_SOURCE_REMOVE;
        },
        loop);
  });
  g_main_loop_run(loop);
  worker.join();
  g_main_loop_unref(loop);
}

TEST_F(SharedClient, ReplyDrainedInAnotherThreadIsDeliveredByTheRunningLoop) {
  Answer &answer = prepare_answer();
  ASSERT_TRUE(client.send("question", &answer));
  ptz_socket_client_remove_poll(client.base());
  send_all(pair.theirs.get(), frame(0, "answer"));
  run_loop_beside([&] {
    EXPECT_TRUE(client.send("another", nullptr));
    EXPECT_FALSE(is_readable(client.fd()));
  });
  run_pending();
  EXPECT_TRUE(answer.replied());
  EXPECT_EQ(answer.thread, main_thread);
}

TEST_F(SharedClient, ReplyDrainedInAnotherThreadIsDeliveredThereIfNoThreadRunsTheLoop) {
  Answer &answer = prepare_answer();
  ASSERT_TRUE(client.send("question", &answer));
  send_all(pair.theirs.get(), frame(0, "answer"));
  in_thread([&] { EXPECT_TRUE(client.send("another", nullptr)); }).wait();
  EXPECT_TRUE(answer.replied());
  EXPECT_NE(answer.thread, main_thread);
}

// Several synchronous calls at once. The peer is this thread.
class SharedClientSyncSend : public SharedClient {
 protected:
  static constexpr int callers = 3;
  std::vector<std::future<std::optional<std::string>>> replies;

  void start_callers() {
    for (int i = 0; i < callers; ++i) {
      replies.push_back(in_thread([this, i] { return client.sync_send("caller " + std::to_string(i)); }));
    }
  }
  std::vector<Frame> take_requests() {
    std::vector<Frame> requests;
    for (int i = 0; i < callers; ++i) {
      auto request = receive_frame(pair.theirs.get());
      if (request) requests.push_back(*request);
    }
    EXPECT_EQ(requests.size(), static_cast<std::size_t>(callers));
    return requests;
  }
  void reply_to(const Frame &request) { send_all(pair.theirs.get(), frame(request.id, "for " + request.body)); }
  void expect_all_answered() {
    for (int i = 0; i < callers; ++i) EXPECT_EQ(replies[i].get(), "for caller " + std::to_string(i));
  }
  void expect_all_failed() {
    for (auto &reply : replies) EXPECT_FALSE(reply.get());
  }
};

TEST_F(SharedClientSyncSend, EachCallerGetsItsReplyInAnyOrder) {
  start_callers();
  const auto requests = take_requests();
  for (auto request = requests.rbegin(); request != requests.rend(); ++request) reply_to(*request);
  expect_all_answered();
  EXPECT_TRUE(client.watched());
}

TEST_F(SharedClientSyncSend, TheOthersGoOnWhenTheReaderHasItsReply) {
  start_callers();
  for (const Frame &request : take_requests()) {
    reply_to(request);
    // Time for the caller to leave, and for another to become the reader.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  expect_all_answered();
}

TEST_F(SharedClientSyncSend, AnAsynchronousReplyGoesToTheMainLoopMeanwhile) {
  Answer &answer = prepare_answer();
  ASSERT_TRUE(client.send("asynchronous", &answer));
  ASSERT_TRUE(receive_frame(pair.theirs.get()));
  start_callers();
  const auto requests = take_requests();
  send_all(pair.theirs.get(), frame(0, "answer"));
  for (const Frame &request : requests) reply_to(request);
  expect_all_answered();
  EXPECT_TRUE(answer.untouched());
  run_pending();
  EXPECT_TRUE(answer.replied());
}

TEST_F(SharedClientSyncSend, RepliesThatAPeerRepeatsAreDeferredOnce) {
  Answer &answer = prepare_answer();
  ASSERT_TRUE(client.send("asynchronous", &answer));
  ASSERT_TRUE(receive_frame(pair.theirs.get()));
  start_callers();
  const auto requests = take_requests();
  for (int i = 0; i < 100; ++i) send_all(pair.theirs.get(), frame(0, body_of(PTZ_SOCKET_BODY_MAX)));
  for (const Frame &request : requests) reply_to(request);
  expect_all_answered();
  // Deferred with the main loop at a standstill: one copy, which leaves nothing behind once it is delivered.
  EXPECT_TRUE(answer.untouched());
  EXPECT_EQ(ptz_socket_client_command_async_send(client.get(), "q", 1, nullptr), TRUE);
  run_pending();
  EXPECT_TRUE(answer.replied());
}

TEST_F(SharedClientSyncSend, EveryCallerIsBackTenSecondsAfterItsOwnCall) {
  const SyslogCapture log;
  std::atomic<int> waits = 0;
  std::atomic<bool> all_sent = false;
  const SelectHook hook([&](long timeout_ms) -> std::optional<int> {
    ++waits;
    while (!all_sent) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the others begin to wait
    advance_clock(timeout_ms);
    return 0;
  });
  const auto start = real_time_ms();
  start_callers();
  take_requests();
  all_sent = true;
  expect_all_failed();
  EXPECT_EQ(waits, 1);  // the others see that their time is over too
  EXPECT_LT(real_time_ms() - start, 5000);
  EXPECT_EQ(log.containing("Timeout waiting for response to message"), 3u);
  EXPECT_TRUE(client.watched());
}

TEST_F(SharedClientSyncSend, EndOfFileEndsEveryCallAtOnce) {
  const auto start = real_time_ms();
  start_callers();
  take_requests();
  pair.theirs.reset();
  expect_all_failed();
  EXPECT_LT(real_time_ms() - start, 5000);
}

TEST_F(SharedClientSyncSend, MalformedFrameEndsEveryCallAtOnce) {
  const auto start = real_time_ms();
  start_callers();
  take_requests();
  send_all(pair.theirs.get(), frame_claiming(3, 0, ""));
  expect_all_failed();
  EXPECT_LT(real_time_ms() - start, 5000);
  EXPECT_FALSE(client.watched());
}

TEST_F(SharedClientSyncSend, ThousandsOfCallsOfFourThreadsAreEachAnswered) {
  constexpr int calls = 500;
  EchoingDriver driver(pair.theirs.get());
  std::atomic<int> matched = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&, number] {
      for (int i = 0; i < calls; ++i) {
        const std::string body = body_of(1 + static_cast<std::size_t>(i) * 5, static_cast<unsigned>(number));
        matched += client.sync_send(body) == body ? 1 : 0;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(matched, 4 * calls);
}

}  // namespace
