#include "ptz_tessel_async.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "fixtures.h"
#include "interpose.h"
#include "param_service_fake.h"
#include "ptz_tessel.h"
#include "syslog_capture.h"

namespace {

using namespace ptz_test;
using Calls = FakeService::Calls;
using Lines = std::vector<LogLine>;

std::atomic<bool> worker_fails = false;

constexpr char last_path[] = "root.Last";

struct TesselAsync : testing::Test {
  SyslogCapture log;
  GlibLogCapture glib;
  FakeService service;
  static inline int last_value = 0;

  // The calls of all that was pushed, when it was carried out.
  Calls carried_out() {
    const std::string value = std::to_string(++last_value);
    ptz_tessel_async_push_set_param(value.c_str(), last_path);
    EXPECT_TRUE(run_until([&] { return service.value(last_path) == value; }));
    auto calls = service.calls();
    EXPECT_FALSE(calls.empty());
    if (!calls.empty()) calls.pop_back();
    return calls;
  }
  ~TesselAsync() override {
    service.error = {};
    service.keeps_sets = true;
    carried_out();
    EXPECT_TRUE(glib.messages().empty()) << glib.messages()[0].text;
  }
};

// Keeps the worker waiting at one of its calls.
struct Gate {
  std::promise<void> reached, opened;
  std::atomic<bool> used = false;
  void wait() {
    if (used.exchange(true)) return;
    reached.set_value();
    opened.get_future().wait();
  }
};

TEST_F(TesselAsync, EveryPushBecomesACallOfTheService) {
  ptz_tessel_async_push_set_param("v", "root.%s", "A");
  ptz_tessel_async_push_set_boolean(-1, "root.%s", "B");
  ptz_tessel_async_push_set_boolean(FALSE, "root.%s", "B");
  ptz_tessel_async_push_set_int(-2147483647 - 1, "root.%s", "C");
  ptz_tessel_async_push_set_int(2147483647, "root.%s", "C");
  ptz_tessel_async_push_add_param_group(7, "sim1_preset", "root.PTZ.%s", "Preset");
  ptz_tessel_async_push_add_param_group(-1, "t", "root.D");
  ptz_tessel_async_delete_group("root.%s", "E");
  EXPECT_EQ(carried_out(), (Calls{"set root.A=v mode=12", "set root.B=true mode=12", "set root.B=false mode=12",
                                  "set root.C=-2147483648 mode=12", "set root.C=2147483647 mode=12",
                                  "create root.PTZ.Preset from sim1_preset mode=12 number=7",
                                  "create root.D from t mode=12 number=-1", "delete root.E mode=12"}));
  EXPECT_EQ(sleeps(), std::vector<unsigned>{});
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(TesselAsync, ALaterWriteIsAppliedAfterAnEarlierOne) {
  Calls expected;
  for (int i = 0; i < 1000; ++i) {
    ptz_tessel_async_push_set_int(i, "root.A");
    expected.push_back("set root.A=" + std::to_string(i) + " mode=12");
  }
  EXPECT_EQ(carried_out(), expected);
  EXPECT_EQ(service.value("root.A"), "999");
}

TEST_F(TesselAsync, WritesOfManyThreadsAreAllCarriedOutInTheOrderOfEach) {
  ptz_tessel_async_get_waiting_threads();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 250; ++i) ptz_tessel_async_push_set_int(i, "root.T%d", t);
    });
  }
  for (auto &thread : threads) thread.join();
  const auto calls = carried_out();
  EXPECT_EQ(calls.size(), 1000U);
  std::vector<int> next(4);
  for (const auto &call : calls) {
    const int t = call[10] - '0';
    EXPECT_EQ(call, "set root.T" + std::to_string(t) + "=" + std::to_string(next.at(t)++) + " mode=12");
  }
}

TEST_F(TesselAsync, AValueMayHoldColonsAndAPathMayNot) {
  ptz_tessel_async_push_set_param("a:b::c:", "root.A");
  ptz_tessel_async_push_set_param("v", "root.A:B");
  ptz_tessel_async_push_set_param("", "root.A");
  EXPECT_EQ(carried_out(), (Calls{"set root.A=a:b::c: mode=12", "set root.A=B:v mode=12", "set root.A= mode=12"}));
}

TEST_F(TesselAsync, ColonsInACreationShiftItsFields) {
  ptz_tessel_async_push_add_param_group(7, "t", "root.A:B");
  ptz_tessel_async_push_add_param_group(7, "t:12x", "root.A");
  ptz_tessel_async_delete_group("root.A:B");
  EXPECT_EQ(carried_out(), (Calls{"create root.A from B mode=12 number=0", "create root.A from t mode=12 number=12",
                                  "delete root.A:B mode=12"}));
}

TEST_F(TesselAsync, AMegabyteOfAnyBytesIsWrittenWhole) {
  std::string value;
  for (int byte = 1; byte < 256; ++byte) value.push_back(static_cast<char>(byte));
  value.append(1U << 20U, '%');
  ptz_tessel_async_push_set_param(value.c_str(), "root.A");
  carried_out();
  EXPECT_EQ(service.value("root.A"), value);
}

TEST_F(TesselAsync, PercentSignsOfAFormattedPathAreNotFormattedAgain) {
  ptz_tessel_async_push_set_param("v", "root.%s", "%%A%d");
  ptz_tessel_async_push_set_boolean(TRUE, "root.%s", "%%%%A%s%n");
  ptz_tessel_async_push_set_int(1, "root.%s", "%%%%A%");
  ptz_tessel_async_push_add_param_group(1, "%s%%", "root.%s", "%%A");
  ptz_tessel_async_delete_group("root.%s", "%%%%A");
  EXPECT_EQ(carried_out(),
            (Calls{"set root.%%A%d=v mode=12", "set root.%%%%A%s%n=true mode=12", "set root.%%%%A%=1 mode=12",
                   "create root.%%A from %s%% mode=12 number=1", "delete root.%%%%A mode=12"}));
}

TEST_F(TesselAsync, AWriteIsTriedTenTimesWithLongerAndLongerWaits) {
  service.tree["root.A"] = "old";
  service.error = [](const std::string &call) { return call.starts_with("set root.A") ? service_failure : 0; };
  ptz_tessel_async_push_set_param("new", "root.A");
  ptz_tessel_async_push_set_param("v", "root.B");
  Calls expected;
  for (int attempt = 0; attempt < 10; ++attempt) {
    expected.insert(expected.end(), {"set root.A=new mode=12", "get root.A"});
  }
  expected.emplace_back("set root.B=v mode=12");
  EXPECT_EQ(carried_out(), expected);
  EXPECT_EQ(sleeps(), (std::vector<unsigned>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
  EXPECT_EQ(log.lines(), Lines(10, {LOG_WARNING, "Could not set parameter root.A to \"new\", err = -77"}));
}

TEST_F(TesselAsync, AWriteThatIsRefusedForItsLongPathIsTriedOnce) {
  constexpr gint32 bad_path = -5;
  const std::string path = "root." + std::string(123, 'x'), set = "set " + path + "=v mode=12";
  service.error = [&](const std::string &call) { return call == set ? bad_path : 0; };
  ptz_tessel_async_push_set_param("v", "%s", path.c_str());
  EXPECT_EQ(carried_out(), Calls{set});
  EXPECT_EQ(sleeps(), std::vector<unsigned>{});
}

TEST_F(TesselAsync, AWriteThatSucceedsAtLastIsNotTriedAgain) {
  service.tree["root.A"] = "old";
  std::atomic<int> attempts = 0;
  service.error = [&](const std::string &call) {
    return call.starts_with("set root.A") && ++attempts < 3 ? service_failure : 0;
  };
  ptz_tessel_async_push_set_param("new", "root.A");
  carried_out();
  EXPECT_EQ(attempts, 3);
  EXPECT_EQ(service.value("root.A"), "new");
  EXPECT_EQ(sleeps(), (std::vector<unsigned>{0, 1}));
}

TEST_F(TesselAsync, CreationsAndDeletionsAreTriedOnce) {
  service.error = [](const std::string &call) { return call.starts_with("set") ? 0 : service_failure; };
  ptz_tessel_async_push_add_param_group(7, "t", "root.A");
  ptz_tessel_async_delete_group("root.A");
  EXPECT_EQ(carried_out(), (Calls{"create root.A from t mode=12 number=7", "delete root.A mode=12"}));
  EXPECT_EQ(sleeps(), std::vector<unsigned>{});
  EXPECT_EQ(log.lines(), (Lines{{LOG_WARNING, "Failed to create root.A from t err -77"}}));
}

TEST_F(TesselAsync, PushesDoNotWaitForTheServiceAndWaitingOnesAreCounted) {
  EXPECT_EQ(ptz_tessel_async_get_waiting_threads(), 0U);
  Gate gate;
  service.error = [&](const std::string &call) {
    if (call.starts_with("set root.Slow")) gate.wait();
    return 0;
  };
  ptz_tessel_async_push_set_param("v", "root.Slow");
  gate.reached.get_future().wait();
  EXPECT_EQ(ptz_tessel_async_get_waiting_threads(), 0U) << "the one that is being carried out does not wait";
  ptz_tessel_async_push_set_param("v", "root.A");
  ptz_tessel_async_push_add_param_group(1, "t", "root.B");
  ptz_tessel_async_delete_group("root.C");
  EXPECT_EQ(ptz_tessel_async_get_waiting_threads(), 3U);
  EXPECT_EQ(service.calls(), (Calls{"set root.Slow=v mode=12"}));
  gate.opened.set_value();
  EXPECT_EQ(carried_out().size(), 3U);
  EXPECT_EQ(ptz_tessel_async_get_waiting_threads(), 0U);
}

TEST_F(TesselAsync, AllChangesAreMadeByOneThread) {
  std::promise<std::thread::id> first, second;
  service.error = [&](const std::string &call) {
    if (call.starts_with("set root.A")) first.set_value(std::this_thread::get_id());
    if (call.starts_with("delete root.B")) second.set_value(std::this_thread::get_id());
    return 0;
  };
  ptz_tessel_async_push_set_param("v", "root.A");
  auto first_id = first.get_future(), second_id = second.get_future();
  first_id.wait();
  ptz_tessel_async_delete_group("root.B");
  const auto worker = first_id.get();
  EXPECT_EQ(worker, second_id.get());
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST_F(TesselAsync, ANullArgumentIsLoggedByTheNameOfThePush) {
  const gchar *volatile null = nullptr;
  ptz_tessel_async_push_set_param(null, "root.A");
  ptz_tessel_async_push_set_param("v", null);
  ptz_tessel_async_push_set_boolean(TRUE, null);
  ptz_tessel_async_push_set_int(1, null);
  ptz_tessel_async_push_add_param_group(1, null, "root.A");
  ptz_tessel_async_push_add_param_group(1, "t", null);
  ptz_tessel_async_delete_group(null);
  EXPECT_EQ(carried_out(), Calls{});
  EXPECT_EQ(log.lines(), (Lines{{LOG_ERR, "ptz_tessel_async_push_set_param: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_push_set_param: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_push_set_boolean: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_push_set_int: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_push_add_param_group: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_push_add_param_group: NULL pointer in argument"},
                                {LOG_ERR, "ptz_tessel_async_delete_group: NULL pointer in argument"}}));
}

TEST_F(TesselAsync, APathThatCannotBeFormattedIsLoggedLikeANullArgument) {
  // "%lc" has no representation for this character in the C locale.
  constexpr wint_t no_character = 0x20AC;
  ptz_tessel_async_push_set_param("v", "root.%lc", no_character);
  ptz_tessel_async_push_set_boolean(TRUE, "root.%lc", no_character);
  ptz_tessel_async_push_set_int(1, "root.%lc", no_character);
  ptz_tessel_async_push_add_param_group(1, "t", "root.%lc", no_character);
  ptz_tessel_async_delete_group("root.%lc", no_character);
  EXPECT_EQ(carried_out(), Calls{});
  EXPECT_EQ(log.containing(": NULL pointer in argument"), 5U);
}

// --- a process that cannot start the worker ---------------------------------------------------------------------

void push_without_a_worker() {
  FakeService service;
  const SyslogCapture log;
  worker_fails = true;
  ptz_tessel_async_push_set_param("v", "root.A");
  EXPECT_EQ(log.lines(), (Lines{{LOG_WARNING, "ptz_tessel_async_get_thread_pool: no thread left"}}));
  EXPECT_EQ(service.calls(), Calls{});
  EXPECT_EQ(ptz_tessel_async_get_waiting_threads(), 0U);
  std::exit(testing::Test::HasFailure() ? 1 : 0);
}

TEST(TesselAsyncOfAFreshProcessDeathTest, WarnsOfAWorkerThatCannotBeStarted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(push_without_a_worker(), testing::ExitedWithCode(0), "");
}

}  // namespace

INTERPOSE(GThreadPool *, g_thread_pool_new,
          (GFunc function, gpointer user_data, gint max_threads, gboolean exclusive, GError **error)) {
  if (!worker_fails) return REAL(g_thread_pool_new)(function, user_data, max_threads, exclusive, error);
  g_set_error_literal(error, G_THREAD_ERROR, G_THREAD_ERROR_AGAIN, "no thread left");
  return nullptr;
}
