// Blocking calls of a link, alone, side by side, and beside asynchronous ones.
#include <chrono>
#include <thread>

#include "answering_driver.h"
#include "clock.h"

namespace kit_link_test {
namespace {

using ptz_test::run_until;

class RunningLoop {
  GMainLoop *loop_ = g_main_loop_new(nullptr, FALSE);
  std::thread thread_{[this] { g_main_loop_run(loop_); }};

 public:
  RunningLoop() = default;
  RunningLoop(RunningLoop &&) = delete;
  ~RunningLoop() {
    const auto quit = [](gpointer loop) {
      g_main_loop_quit(static_cast<GMainLoop *>(loop));
      return G_SOURCE_REMOVE;
    };
    g_idle_add(quit, loop_);
    thread_.join();
    g_main_loop_unref(loop_);
  }
};

// The result of one blocking query.
struct Answer {
  std::optional<gint32> pan;
  Error error = nullptr;

  [[nodiscard]] bool failed_with(PTZKitError code) const { return g_error_matches(error.get(), PTZ_KIT_ERROR, code); }
};

Answer query(PTZKitLink *link, guint deadline_ms = 0, GCancellable *cancellable = nullptr) {
  GError *error = nullptr;
  PTZKitQueryPositionReply *reply = ptz_kit_link_query_position(link, deadline_ms, cancellable, &error);
  Answer answer{.pan = std::nullopt, .error = Error(error)};
  if (reply != nullptr) answer.pan = reply->position[PTZ_KIT_AXIS_PAN];
  ptz_kit_query_position_reply_free(reply);
  return answer;
}

class KitLinkBlocking : public LinkTest {
 protected:
  std::atomic<int> requests_ = 0;
  std::atomic<int> step_ = 0;
  std::unique_ptr<AnsweringDriver> driver_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();

  // A thread that is not woken waits for the deadline of its call.
  void TearDown() override {
    LinkTest::TearDown();
    EXPECT_LT(std::chrono::steady_clock::now() - start_, std::chrono::seconds(8));
  }

  void connect_to_driver(AnsweringDriver::Answer answer, guint max_pending = 16) {
    driver_ =
        std::make_unique<AnsweringDriver>(path_, [this, answer = std::move(answer)](int fd, const Frame &request) {
          answer(fd, request);
          ++requests_;
        });
    open_link(max_pending);
    ASSERT_TRUE(ptz_kit_link_wait_ready(link_.get(), 0, nullptr));
  }
  void connect_to_silent_driver() {
    connect_to_driver([](int, const Frame &) {});
  }
  void wait_for_step(int step) const {
    while (step_ < step) std::this_thread::yield();
  }
  void wait_for_requests(int count) const {
    while (requests_ < count) std::this_thread::yield();
  }
};

TEST_F(KitLinkBlocking, CallReturnsReplyWhileNoMainLoopRuns) {
  connect_to_driver([](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, position_reply(42)); });
  EXPECT_EQ(query(link_.get()).pan, 42);
}

TEST_F(KitLinkBlocking, CommandWithoutReplyFieldsReturnsTrue) {
  connect_to_driver(
      [](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, request.body.substr(0, 4)); });
  EXPECT_TRUE(ptz_kit_link_stop(link_.get(), 0, nullptr, nullptr));
}

TEST_F(KitLinkBlocking, BytesBehindReplyWithoutFieldsAreMalformed) {
  connect_to_driver([](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, request.body + "x"); });
  GError *error = nullptr;
  EXPECT_FALSE(ptz_kit_link_stop(link_.get(), 0, nullptr, &error));
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_MALFORMED));
  g_clear_error(&error);
}

TEST_F(KitLinkBlocking, CallOfBodyReturnsBodyOfReplyOrRefusal) {
  connect_to_driver([](int fd, const Frame &request) {
    AnsweringDriver::reply(fd, request, command_of(request.body) == 999 ? request.body : error_reply(77, "new"));
  });
  const std::string known = word(999) + "any", refused = word(998);
  const Bytes first(g_bytes_new(known.data(), known.size())), second(g_bytes_new(refused.data(), refused.size()));
  const Bytes reply(ptz_kit_link_call(link_.get(), first.get(), 0, nullptr, nullptr));
  ASSERT_NE(reply, nullptr);
  EXPECT_TRUE(g_bytes_equal(reply.get(), first.get()));
  GError *error = nullptr;
  EXPECT_EQ(ptz_kit_link_call(link_.get(), second.get(), 0, nullptr, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, PTZ_KIT_REFUSAL, 77));
  g_clear_error(&error);
}

TEST_F(KitLinkBlocking, RefusalHasCodeOfDriver) {
  connect_to_driver([](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, error_reply(2, "no")); });
  EXPECT_TRUE(g_error_matches(query(link_.get()).error.get(), PTZ_KIT_REFUSAL, PTZ_KIT_ERROR_CODE_UNSUPPORTED));
}

TEST_F(KitLinkBlocking, CallEndsAtDeadline) {
  connect_to_silent_driver();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(query(link_.get(), 30).failed_with(PTZ_KIT_ERROR_TIMED_OUT));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST_F(KitLinkBlocking, LateReplyIsNotTakenForReplyToNextCall) {
  connect_to_driver([first = std::optional<Frame>()](int fd, const Frame &request) mutable {
    if (!first) {
      first = request;
      return;
    }
    AnsweringDriver::reply(fd, *first, position_reply(1));
    AnsweringDriver::reply(fd, request, position_reply(2));
  });
  EXPECT_TRUE(query(link_.get(), 10).failed_with(PTZ_KIT_ERROR_TIMED_OUT));
  EXPECT_EQ(query(link_.get()).pan, 2);
}

TEST_F(KitLinkBlocking, EachOfManyThreadsReceivesItsOwnReply) {
  // If two requests are there, the second one is answered first.
  connect_to_driver([held = std::optional<Frame>()](int fd, const Frame &request) mutable {
    if (!held && ptz_test::is_readable(fd)) {
      held = request;
      return;
    }
    AnsweringDriver::reply(fd, request, request.body);
    if (held) AnsweringDriver::reply(fd, *held, held->body);
    held.reset();
  });
  std::atomic<int> right = 0;
  std::vector<std::thread> threads;
  constexpr int thread_count = 8, call_count = 100;
  for (int number = 0; number < thread_count; ++number) {
    threads.emplace_back([this, number, &right] {
      for (int i = 0; i < call_count; ++i) {
        const std::string body = word(900 + number) + word(i);
        const Bytes request(g_bytes_new(body.data(), body.size()));
        const Bytes reply(ptz_kit_link_call(link_.get(), request.get(), 0, nullptr, nullptr));
        if (reply != nullptr && g_bytes_equal(reply.get(), request.get())) ++right;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(right, thread_count * call_count);
}

TEST_F(KitLinkBlocking, CancellationWakesThreadThatReadsAndThreadThatWaits) {
  connect_to_silent_driver();
  const Object<GCancellable> cancellables[] = {Object<GCancellable>(g_cancellable_new()),
                                               Object<GCancellable>(g_cancellable_new())};
  std::atomic<int> cancelled = 0;
  std::vector<std::thread> threads;
  for (const auto &cancellable : cancellables) {
    threads.emplace_back([&] {
      const Answer answer = query(link_.get(), 0, cancellable.get());
      if (g_error_matches(answer.error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED)) ++cancelled;
    });
    wait_for_requests(static_cast<int>(threads.size()));
  }
  for (const int index : {1, 0}) {
    g_cancellable_cancel(cancellables[index].get());
    threads[static_cast<std::size_t>(index)].join();
  }
  EXPECT_EQ(cancelled, 2);
}

TEST_F(KitLinkBlocking, WaitingThreadReadsOnWhenReaderTimesOut) {
  connect_to_driver([this](int fd, const Frame &request) {
    if (requests_ == 0) return;
    wait_for_step(1);
    AnsweringDriver::reply(fd, request, position_reply(8));
  });
  std::thread reader([this] { EXPECT_TRUE(query(link_.get(), 50).failed_with(PTZ_KIT_ERROR_TIMED_OUT)); });
  wait_for_requests(1);
  std::thread waiting([this] { EXPECT_EQ(query(link_.get()).pan, 8); });
  reader.join();
  step_ = 1;
  waiting.join();
}

TEST_F(KitLinkBlocking, WaitingCallIsSentWhenPlaceOfUnansweredRequestIsFreeAgain) {
  connect_to_driver(
      [this, first = std::optional<Frame>()](int fd, const Frame &request) mutable {
        if (!first) first = request;
        if (requests_ < 2) return;
        AnsweringDriver::reply(fd, request, position_reply(3));
        AnsweringDriver::reply(fd, *first, position_reply(1));
      },
      2);
  std::thread reader([this] { EXPECT_EQ(query(link_.get(), 60'000).pan, 1); });
  wait_for_requests(1);
  EXPECT_TRUE(query(link_.get(), 10).failed_with(PTZ_KIT_ERROR_TIMED_OUT));
  ptz_test::advance_clock(9'950);
  start_ += std::chrono::milliseconds(9'950);
  EXPECT_EQ(query(link_.get()).pan, 3);
  reader.join();
}

TEST_F(KitLinkBlocking, RequestsBehindFullSocketAreSentWhileAnotherThreadReads) {
  constexpr int large_requests = 400;
  connect_to_driver(
      [this, first = std::optional<Frame>()](int fd, const Frame &request) mutable {
        if (!first) step_ = 1;
        wait_for_step(2);
        if (!first) first = request;
        if (requests_ == large_requests) AnsweringDriver::reply(fd, *first, position_reply(1));
      },
      1000);
  std::thread reader([this] { EXPECT_EQ(query(link_.get(), 3000).pan, 1); });
  wait_for_step(1);
  const std::string body = word(900) + std::string(2548, 'x');
  const Bytes bytes(g_bytes_new(body.data(), body.size()));
  for (int i = 0; i < large_requests; ++i) {
    ptz_kit_link_call_async(link_.get(), bytes.get(), 0, nullptr, nullptr, nullptr);
  }
  step_ = 2;
  reader.join();
}

TEST_F(KitLinkBlocking, LostDriverAndCloseWakeAllThreads) {
  for (const bool close : {false, true}) {
    driver_.reset();
    std::remove(path_.c_str());
    requests_ = 0;
    connect_to_silent_driver();
    std::atomic<int> lost = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] { lost += query(link_.get()).failed_with(PTZ_KIT_ERROR_LOST) ? 1 : 0; });
    }
    wait_for_requests(3);
    if (close) {
      ptz_kit_link_close(link_.get());
    } else {
      driver_->hang_up();
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(lost, 3) << close;
  }
}

TEST_F(KitLinkBlocking, CallbackOfAsyncCallDoesNotRunInsideBlockingCall) {
  connect_to_driver([held = std::optional<Frame>()](int fd, const Frame &request) mutable {
    if (held) {
      AnsweringDriver::reply(fd, *held, position_reply(1));
      AnsweringDriver::reply(fd, request, position_reply(2));
    }
    held = request;
  });
  struct Calls {
    PTZKitLink *link;
    Query asynchronous = {};
    Answer blocking = {};
    bool ended_inside = true;
  } calls{link_.get()};
  calls.asynchronous.start(link_.get());
  // In a callback of the loop, because GLib itself defers what ends outside of one.
  g_idle_add(
      [](gpointer data) {
        auto &self = *static_cast<Calls *>(data);
        self.blocking = query(self.link);
        self.ended_inside = self.asynchronous.ended();
        return G_SOURCE_REMOVE;
      },
      &calls);
  ASSERT_TRUE(run_until([&] { return calls.asynchronous.ended(); }));
  EXPECT_FALSE(calls.ended_inside);
  EXPECT_EQ(calls.blocking.pan, 2);
  EXPECT_EQ(calls.asynchronous.pan(), 1);
}

TEST_F(KitLinkBlocking, ThreadsAndMainLoopShareOneLink) {
  connect_to_driver([](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, position_reply(6)); }, 2);
  std::atomic<int> answered = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < 50; ++call) answered += query(link_.get()).pan == 6 ? 1 : 0;
    });
  }
  for (int i = 0; i < 50; ++i) {
    Query asynchronous;
    asynchronous.start(link_.get());
    ASSERT_TRUE(run_until([&] { return asynchronous.ended(); }));
    EXPECT_EQ(asynchronous.pan(), 6);
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(answered, 200);
}

TEST_F(KitLinkBlocking, MainLoopReadsOnWhenBlockingCallHasEnded) {
  connect_to_driver([this, held = std::optional<Frame>()](int fd, const Frame &request) mutable {
    if (!held) {
      held = request;
      return;
    }
    wait_for_step(1);
    AnsweringDriver::reply(fd, request, position_reply(1));
    wait_for_step(2);
    AnsweringDriver::reply(fd, *held, position_reply(2));
  });
  Query asynchronous;
  asynchronous.start(link_.get());
  const RunningLoop loop;
  std::thread blocking([this] { EXPECT_EQ(query(link_.get()).pan, 1); });
  wait_for_requests(1);
  // The loop has prepared its sources again after this, while the other thread reads.
  const auto count = [](gpointer iterations) {
    return ++*static_cast<std::atomic<int> *>(iterations) < 3 ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  };
  std::atomic<int> iterations = 0;
  g_timeout_add(5, count, &iterations);
  while (iterations < 3) std::this_thread::yield();
  step_ = 1;
  blocking.join();
  step_ = 2;
  while (!asynchronous.ended()) std::this_thread::yield();
  EXPECT_EQ(asynchronous.pan(), 2);
}

TEST_F(KitLinkBlocking, CallsDoNotWakeMainLoopOfAnotherThread) {
  connect_to_driver([](int fd, const Frame &request) { AnsweringDriver::reply(fd, request, position_reply(1)); });
  struct Counter {
    GSource source;
    std::atomic<int> preparations;
  };
  static GSourceFuncs functions = {[](GSource *source, gint *) -> gboolean {
                                     ++reinterpret_cast<Counter *>(source)->preparations;
                                     return FALSE;
                                   },
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr,
                                   nullptr};
  GSource *source = g_source_new(&functions, sizeof(Counter));
  const auto &preparations = reinterpret_cast<Counter *>(source)->preparations;
  g_source_attach(source, nullptr);
  {
    const RunningLoop loop;
    while (preparations == 0) std::this_thread::yield();
    const int before = preparations;
    for (int i = 0; i < 100; ++i) EXPECT_EQ(query(link_.get()).pan, 1);
    EXPECT_LE(preparations - before, 5);
  }
  g_source_destroy(source);
  g_source_unref(source);
}

TEST_F(KitLinkBlocking, WaitReadyWaitsForMainLoopOfAnotherThread) {
  AnsweringDriver driver(path_, [](int, const Frame &) {});
  open_link();
  {
    const RunningLoop loop;
    EXPECT_TRUE(ptz_kit_link_wait_ready(link_.get(), 0, nullptr));
  }
  ptz_kit_link_close(link_.get());
}

}  // namespace
}  // namespace kit_link_test
