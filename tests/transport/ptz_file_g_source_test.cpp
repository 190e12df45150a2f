#include "ptz_file_g_source.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>

#include "fixtures.h"
#include "handles.h"
#include "peers.h"

namespace {

using namespace ptz_test;

// A descriptor that keeps the main loop busy makes thousands.
constexpr int few_iterations = 50;
constexpr int look_ms = 30;

PTZFileGSource *file_source(GSource *source) { return reinterpret_cast<PTZFileGSource *>(source); }
PTZFileGSource *file_source(const Source &source) { return file_source(source.get()); }

bool is_watching(const Source &source) { return file_source(source)->tag != nullptr; }

static_assert(offsetof(PTZFileGSource, tag) == sizeof(GSource));
static_assert(offsetof(PTZFileGSource, fd) == offsetof(PTZFileGSource, tag) + sizeof(gpointer));
static_assert(offsetof(PTZFileGSource, mutex) == offsetof(PTZFileGSource, fd) + sizeof(gpointer));

// A source on the default main context that counts its calls and empties the descriptor.
class Watch {
  Source source_;
  int fd_;

 public:
  int calls = 0;
  std::string received;
  gboolean answer = TRUE;

  explicit Watch(int fd) : source_(ptz_file_g_source_new(fd)), fd_(fd) {
    g_source_set_callback(source_.get(), called, this, nullptr);
    g_source_attach(source_.get(), nullptr);
  }
  Watch(const Watch &) = delete;
  ~Watch() { g_source_destroy(source_.get()); }
  [[nodiscard]] const Source &source() const { return source_; }
  [[nodiscard]] GSource *get() const { return source_.get(); }

 private:
  static gboolean called(gpointer data) {
    auto *self = static_cast<Watch *>(data);
    ++self->calls;
    self->received += receive_waiting(self->fd_);
    return self->answer;
  }
};

// --- made, not attached -----------------------------------------------------------------------------------------

TEST(FileGSource, NewWatchesAndBelongsToTheCaller) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  EXPECT_EQ(source->ref_count, 1U);
  EXPECT_EQ(g_source_get_context(source.get()), nullptr);
  EXPECT_EQ(g_source_get_priority(source.get()), G_PRIORITY_DEFAULT);
  EXPECT_EQ(file_source(source)->fd, pair.ours.get());
  EXPECT_EQ(ptz_file_g_source_get_fd(source.get()), pair.ours.get());
  EXPECT_TRUE(is_watching(source));
  EXPECT_TRUE(g_mutex_trylock(&file_source(source)->mutex));
  g_mutex_unlock(&file_source(source)->mutex);
}

TEST(FileGSource, GetFdOfNothingIsMinusOne) {
  const GlibLogCapture log;
  EXPECT_EQ(ptz_file_g_source_get_fd(nullptr), -1);
}

TEST(FileGSource, PrepareAsksForNoTimeout) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  gint timeout_ms = 17;
  EXPECT_EQ(source->source_funcs->prepare(source.get(), &timeout_ms), FALSE);
  EXPECT_EQ(timeout_ms, -1);
}

TEST(FileGSource, CheckAndDispatchOfNothingAreCriticals) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  const GlibLogCapture log;
  EXPECT_EQ(source->source_funcs->check(nullptr), FALSE);
  EXPECT_EQ(source->source_funcs->dispatch(nullptr, nullptr, nullptr), FALSE);
  EXPECT_EQ(log.failed_check("ptz_file_g_source_check", "source != NULL"), 1U);
  EXPECT_EQ(log.failed_check("ptz_file_g_source_dispatch", "source != NULL"), 1U);
  EXPECT_EQ(log.criticals(), 2U);
}

// A callback that leaves its data where they are and runs a main loop.
struct NestedLoop {
  Source source;
  int calls = 0;
  int inner_iterations = 0;
  bool switch_off = false;

  explicit NestedLoop(int fd) : source(ptz_file_g_source_new(fd)) {
    g_source_set_callback(source.get(), called, this, nullptr);
    g_source_attach(source.get(), nullptr);
  }
  NestedLoop(const NestedLoop &) = delete;
  ~NestedLoop() { g_source_destroy(source.get()); }

  static gboolean called(gpointer data) {
    auto *self = static_cast<NestedLoop *>(data);
    if (++self->calls > 1) {
      ptz_file_g_source_remove_poll(self->source.get());
      return TRUE;
    }
    self->inner_iterations = iterations_within(look_ms);
    if (self->switch_off) ptz_file_g_source_remove_poll(self->source.get());
    return TRUE;
  }
};

TEST(FileGSource, AMainLoopInsideTheCallbackNeitherCallsItAgainNorSpins) {
  const Pair pair;
  NestedLoop loop(pair.ours.get());
  send_all(pair.theirs.get(), "x");
  EXPECT_TRUE(run_until([&] { return loop.calls == 1; }));
  EXPECT_LT(loop.inner_iterations, few_iterations);
  EXPECT_TRUE(is_watching(loop.source));
  EXPECT_TRUE(run_until([&] { return loop.calls == 2; }));
}

TEST(FileGSource, StaysOffWhereACallbackWithAMainLoopInItSwitchedItOff) {
  const Pair pair;
  NestedLoop loop(pair.ours.get());
  loop.switch_off = true;
  send_all(pair.theirs.get(), "x");
  EXPECT_TRUE(run_until([&] { return loop.calls == 1; }));
  EXPECT_FALSE(is_watching(loop.source));
}

TEST(FileGSource, WithoutEventsItIsNotReadyAndDispatchKeepsIt) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  g_source_attach(source.get(), nullptr);
  const auto unwanted = [](gpointer) -> gboolean {
    ADD_FAILURE();
    return FALSE;
  };
  EXPECT_EQ(source->source_funcs->check(source.get()), FALSE);
  EXPECT_EQ(source->source_funcs->dispatch(source.get(), unwanted, nullptr), TRUE);
  EXPECT_TRUE(is_watching(source));
  g_source_destroy(source.get());
}

TEST(FileGSource, SwitchedOffItIsNotReadyAndDispatchKeepsIt) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  g_source_attach(source.get(), nullptr);
  ptz_file_g_source_remove_poll(source.get());
  const auto unwanted = [](gpointer) -> gboolean {
    ADD_FAILURE();
    return FALSE;
  };
  EXPECT_EQ(source->source_funcs->check(source.get()), FALSE);
  EXPECT_EQ(source->source_funcs->dispatch(source.get(), unwanted, nullptr), TRUE);
  g_source_destroy(source.get());
}

// --- on the main loop -------------------------------------------------------------------------------------------

TEST(FileGSource, CallsTheCallbackWhenDataCanBeRead) {
  const Pair pair;
  Watch watch(pair.ours.get());
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(watch.calls, 0);
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  EXPECT_EQ(watch.received, "abc");
  send_all(pair.theirs.get(), "def");
  EXPECT_TRUE(run_until([&] { return watch.calls > 1; }));
  EXPECT_EQ(watch.received, "abcdef");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(watch.calls, 2);
}

TEST(FileGSource, ACallbackThatReturnsFalseRemovesTheSource) {
  const Pair pair;
  Watch watch(pair.ours.get());
  watch.answer = FALSE;
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  EXPECT_TRUE(g_source_is_destroyed(watch.get()));
  send_all(pair.theirs.get(), "def");
  run_pending();
  EXPECT_EQ(watch.calls, 1);
}

TEST(FileGSource, CallsTheCallbackWithoutTheMutex) {
  const Pair pair;
  struct Look {
    Source source;
    bool was_free = false;
    bool called = false;
  } look{Source(ptz_file_g_source_new(pair.ours.get()))};
  g_source_set_callback(
      look.source.get(),
      [](gpointer data) -> gboolean {
        auto *seen = static_cast<Look *>(data);
        GMutex *mutex = &file_source(seen->source)->mutex;
        seen->called = true;
        seen->was_free = g_mutex_trylock(mutex) != FALSE;
        if (seen->was_free) g_mutex_unlock(mutex);
        ptz_file_g_source_remove_poll(seen->source.get());
        return TRUE;
      },
      &look, nullptr);
  g_source_attach(look.source.get(), nullptr);
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return look.called; }));
  EXPECT_TRUE(look.was_free);
  EXPECT_FALSE(is_watching(look.source));
  g_source_destroy(look.source.get());
}

TEST(FileGSource, AddAttachesToTheDefaultMainContextWhichOwnsIt) {
  const Pair pair;
  int calls = 0;
  const Context other(g_main_context_new());
  g_main_context_push_thread_default(other.get());
  const guint id = ptz_file_g_source_add(
      pair.ours.get(),
      [](gpointer data) -> gboolean {
        ++*static_cast<int *>(data);
        return FALSE;
      },
      &calls);
  g_main_context_pop_thread_default(other.get());
  GSource *source = g_main_context_find_source_by_id(nullptr, id);
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(ptz_file_g_source_get_fd(source), pair.ours.get());
  EXPECT_EQ(source->ref_count, 1U);
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return calls > 0; }));
  EXPECT_EQ(g_main_context_find_source_by_id(nullptr, id), nullptr);
}

TEST(FileGSource, AddedSourceCanBeRemovedById) {
  const Pair pair;
  const guint id = ptz_file_g_source_add(
      pair.ours.get(),
      [](gpointer) -> gboolean {
        ADD_FAILURE();
        return FALSE;
      },
      nullptr);
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(g_source_remove(id));
  run_pending();
}

TEST(FileGSource, WithoutACallbackWaitingDataDoNotSpin) {
  const Pair pair;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  g_source_attach(source.get(), nullptr);
  send_all(pair.theirs.get(), "abc");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  g_source_destroy(source.get());
}

// --- off and on -------------------------------------------------------------------------------------------------

TEST(FileGSource, SwitchedOffItNeitherCallsNorSpins) {
  const Pair pair;
  const Watch watch(pair.ours.get());
  ptz_file_g_source_remove_poll(watch.get());
  EXPECT_FALSE(is_watching(watch.source()));
  send_all(pair.theirs.get(), "abc");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(watch.calls, 0);
}

TEST(FileGSource, SwitchedOnAgainItDeliversWhatWaited) {
  const Pair pair;
  const Watch watch(pair.ours.get());
  ptz_file_g_source_remove_poll(watch.get());
  send_all(pair.theirs.get(), "abc");
  run_pending();
  ptz_file_g_source_add_poll(watch.get());
  EXPECT_TRUE(is_watching(watch.source()));
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  EXPECT_EQ(watch.received, "abc");
}

TEST(FileGSource, SwitchingTwiceIsHarmless) {
  const Pair pair;
  const Watch watch(pair.ours.get());
  const gpointer tag = file_source(watch.source())->tag;
  ptz_file_g_source_add_poll(watch.get());
  EXPECT_EQ(file_source(watch.source())->tag, tag);
  ptz_file_g_source_remove_poll(watch.get());
  ptz_file_g_source_remove_poll(watch.get());
  EXPECT_FALSE(is_watching(watch.source()));
  ptz_file_g_source_add_poll(watch.get());
  ptz_file_g_source_add_poll(watch.get());
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  ptz_file_g_source_remove_poll(watch.get());
  send_all(pair.theirs.get(), "def");
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(watch.calls, 1);
}

TEST(FileGSource, SwitchingADestroyedSourceHasNoEffect) {
  const Pair pair;
  const GlibLogCapture log;
  const Source source(ptz_file_g_source_new(pair.ours.get()));
  g_source_attach(source.get(), nullptr);
  g_source_destroy(source.get());
  ptz_file_g_source_remove_poll(source.get());
  ptz_file_g_source_add_poll(source.get());
  ptz_file_g_source_remove_poll(source.get());
  EXPECT_TRUE(log.messages().empty());
}

TEST(FileGSource, WatchIsSwitchedFromAnotherThreadWhileTheLoopSleeps) {
  const Pair pair;
  const Watch watch(pair.ours.get());
  ptz_file_g_source_remove_poll(watch.get());
  send_all(pair.theirs.get(), "abc");
  std::thread worker([&] {
    g_usleep(10'000);
    ptz_file_g_source_add_poll(watch.get());
  });
  const guint limit = g_timeout_add(
      10'000, [](gpointer) -> gboolean { return TRUE; }, nullptr);
  while (watch.calls == 0) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(limit);
  worker.join();
  EXPECT_EQ(watch.received, "abc");
}

TEST(FileGSource, WatchMayBeToggledWhileTheLoopRuns) {
  const Pair pair;
  const Watch watch(pair.ours.get());
  std::atomic<bool> done = false;
  constexpr int rounds = 2'000;
  std::thread toggler([&] {
    for (int i = 0; i < rounds; ++i) {
      send_all(pair.theirs.get(), "x");
      ptz_file_g_source_remove_poll(watch.get());
      ptz_file_g_source_add_poll(watch.get());
    }
    done = true;
  });
  EXPECT_TRUE(run_until([&] { return done && watch.received.size() == rounds; }));
  toggler.join();
  EXPECT_TRUE(is_watching(watch.source()));
}

// --- dead descriptors -------------------------------------------------------------------------------------------

void expect_switched_off(const Watch &watch) {
  EXPECT_TRUE(run_until([&] { return !is_watching(watch.source()); }, 2'000));
  EXPECT_EQ(watch.calls, 0);
  EXPECT_FALSE(g_source_is_destroyed(watch.get()));
  EXPECT_LT(iterations_within(look_ms), few_iterations);
}

TEST(FileGSource, AHangUpSwitchesTheWatchOff) {
  Pair pair;
  const Watch watch(pair.ours.get());
  pair.theirs.reset();
  expect_switched_off(watch);
}

TEST(FileGSource, AHangUpDoesNotReachTheCallbackThoughDataAreThere) {
  Pair pair;
  const Watch watch(pair.ours.get());
  send_all(pair.theirs.get(), "abc");
  pair.theirs.reset();
  expect_switched_off(watch);
}

TEST(FileGSource, AfterAHangUpTheWatchCanBeSwitchedOnAgain) {
  Pair pair;
  const Watch watch(pair.ours.get());
  pair.theirs.reset();
  expect_switched_off(watch);
  ptz_file_g_source_add_poll(watch.get());
  EXPECT_TRUE(is_watching(watch.source()));
  expect_switched_off(watch);
}

TEST(FileGSource, AnErrorSwitchesTheWatchOff) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
  Descriptor reading(ends[0]);
  const Descriptor writing(ends[1]);
  const Watch watch(writing.get());
  reading.reset();  // an error for whoever writes, and no hang-up
  expect_switched_off(watch);
}

TEST(FileGSource, AnErrorOfAConnectionSwitchesTheWatchOff) {
  Pair pair;
  const Watch watch(pair.ours.get());
  send_all(pair.ours.get(), "never read");
  pair.theirs.reset();  // with data unread: a connection reset
  expect_switched_off(watch);
}

TEST(FileGSource, ADescriptorClosedUnderTheWatchSwitchesItOff) {
  Pair pair;
  const Watch watch(pair.ours.get());
  run_pending();
  pair.ours.reset();
  expect_switched_off(watch);
}

TEST(FileGSource, AClosedDescriptorIsWatchedAgainOnceItsNumberIsInUse) {
  Pair pair;
  const Pair next;
  const int number = pair.ours.get();
  const Watch watch(number);
  pair.ours.reset();
  expect_switched_off(watch);
  const Descriptor reused(dup2(next.ours.get(), number));
  ptz_file_g_source_add_poll(watch.get());
  send_all(next.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  EXPECT_EQ(watch.received, "abc");
}

TEST(FileGSource, MinusOneWatchesNothing) {
  const GlibLogCapture log;
  const Watch watch(-1);
  EXPECT_EQ(ptz_file_g_source_get_fd(watch.get()), -1);
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  ptz_file_g_source_remove_poll(watch.get());
  ptz_file_g_source_add_poll(watch.get());
  EXPECT_LT(iterations_within(look_ms), few_iterations);
  EXPECT_EQ(watch.calls, 0);
  EXPECT_TRUE(log.messages().empty());
}

TEST(FileGSource, WatchesDescriptorsAbove1023) {
  Pair pair;
  const auto high = move_up(std::move(pair.ours), 1'500);
  if (!high) GTEST_SKIP() << "this system allows too few descriptors";
  const Watch watch(high.get());
  send_all(pair.theirs.get(), "abc");
  EXPECT_TRUE(run_until([&] { return watch.calls > 0; }));
  EXPECT_EQ(watch.received, "abc");
}

}  // namespace
