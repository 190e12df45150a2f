#include "ptz_timing_log.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "fake_store.h"
#include "fixtures.h"
#include "interpose.h"
#include "ptz_settings.h"
#include "ptz_status_cache.h"
#include "syslog_capture.h"

namespace {

pid_t pretended_process = 0;

// While it lives, the library takes this process for another.
class Pretend {
 public:
  explicit Pretend(pid_t process) { pretended_process = process; }
  Pretend(const Pretend &) = delete;
  ~Pretend() { pretended_process = 0; }
};

}  // namespace

INTERPOSE(pid_t, getpid, ()) {
  return pretended_process != 0 ? pretended_process : static_cast<pid_t>(syscall(SYS_getpid));
}

namespace {

using namespace ptz_test;

using Time = PTZStatusCacheTime;

constexpr char group[] = "a_path";

gint64 nanoseconds(const Time &time) { return gint64{time.seconds} * 1'000'000'000 + time.fraction; }

gint64 clock_ns(clockid_t clock) {
  timespec now{};
  EXPECT_EQ(clock_gettime(clock, &now), 0);
  return gint64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

guint16 low_bits(pid_t process) { return static_cast<guint16>(process); }

struct TimingLog : testing::Test {
  FakeStore store;
  SyslogCapture log;

  ~TimingLog() override { EXPECT_TRUE(log.lines().empty()) << "failures of the store are silent"; }

  Time time(const std::string &key, const std::string &of = group) const {
    return store.number<Time>(of, key).value_or(Time{0xFFFF, 0xFFFF});
  }
  guint16 process_of(const std::string &key) const { return store.number<guint16>(group, key).value_or(0xFFFF); }
  // A group as it is in the store, and nothing called yet.
  void given(Time start, guint16 starter, Time stop = {}, guint16 stopper = 0) {
    store.groups[group] = {172,
                           {{"start_time", stored("start_time", 5, start)},
                            {"start_pid", stored("start_pid", 1, starter)},
                            {"stop_time", stored("stop_time", 5, stop)},
                            {"stop_pid", stored("stop_pid", 1, stopper)}}};
    store.calls.clear();
  }
  void given_reset() { given({}, 0); }
};

// --- reset ------------------------------------------------------------------------------------------------------

TEST_F(TimingLog, AResetMakesTheGroupAndClearsIt) {
  log_time_reset(group);
  ASSERT_EQ(store.order(), "create set");
  EXPECT_EQ(store.calls[0].name, group);
  EXPECT_EQ(store.calls[0].size, 172U);
  EXPECT_EQ(store.calls[0].mode, 1);
  EXPECT_EQ(store.calls[1].name, group);
  EXPECT_EQ(store.calls[1].mode, 2);
  EXPECT_EQ(store.calls[1].values,
            (std::vector{stored("start_time", 5, Time{0, 0}), stored("start_pid", 1, guint16{0}),
                         stored("stop_time", 5, Time{0, 0}), stored("stop_pid", 1, guint16{0})}));
}

TEST_F(TimingLog, AResetClearsAGroupThatIsThere) {
  given({1, 2}, 3, {4, 5}, 6);
  log_time_reset(group);
  EXPECT_EQ(store.order(), "create set");
  EXPECT_EQ(nanoseconds(time("start_time")), 0);
  EXPECT_EQ(nanoseconds(time("stop_time")), 0);
  EXPECT_EQ(process_of("start_pid"), 0);
  EXPECT_EQ(process_of("stop_pid"), 0);
}

TEST_F(TimingLog, AResetThatCannotMakeTheGroupWritesNothing) {
  store.answer(Store::create, -1, ENOSPC);
  log_time_reset(group);
  EXPECT_EQ(store.order(), "create");
}

// --- start ------------------------------------------------------------------------------------------------------

TEST_F(TimingLog, AStartWritesTheMonotonicClockAndTheProcess) {
  log_time_reset(group);
  store.calls.clear();
  const auto before = clock_ns(CLOCK_MONOTONIC);
  log_time_start(group);
  const auto after = clock_ns(CLOCK_MONOTONIC);
  ASSERT_EQ(store.order(), "get set");
  EXPECT_EQ(store.calls[0].mode, 1);
  EXPECT_EQ(store.calls[0].values, (std::vector{stored("start_time", 5, Time{}), stored("start_pid", 1, guint16{0})}));
  EXPECT_EQ(store.calls[1].mode, 2);
  EXPECT_EQ(store.calls[1].values,
            (std::vector{stored("start_time", 5, time("start_time")), stored("start_pid", 1, low_bits(getpid()))}));
  EXPECT_GE(nanoseconds(time("start_time")), before);
  EXPECT_LE(nanoseconds(time("start_time")), after);
  EXPECT_EQ(nanoseconds(time("stop_time")), 0);
}

TEST_F(TimingLog, ASecondStartKeepsTheFirst) {
  given({7, 1}, 4711);
  log_time_start(group);
  log_time_start_process_timer(group);
  EXPECT_EQ(store.order(), "get get");
  EXPECT_EQ(nanoseconds(time("start_time")), 7'000'000'001);
}

TEST_F(TimingLog, AStartOnAWholeSecondCountsAsNone) {
  given({7, 0}, 4711);
  log_time_stop(group, TRUE);
  EXPECT_EQ(store.of(Store::set).size(), 0U);
  log_time_start(group);
  EXPECT_EQ(store.of(Store::set).size(), 1U);
  EXPECT_EQ(process_of("start_pid"), low_bits(getpid()));
}

TEST_F(TimingLog, AStartWithoutAGroupWritesNothing) {
  log_time_start(group);
  log_time_start_process_timer(group);
  EXPECT_EQ(store.order(), "get get");
}

TEST_F(TimingLog, AStartNeedsMoreThanNothingFromTheStore) {
  given_reset();
  store.answer(Store::get, 0);
  log_time_start(group);
  EXPECT_EQ(store.order(), "get");
  store.answer(Store::get, 1);
  log_time_start(group);
  EXPECT_EQ(store.order(), "get get set");
}

TEST_F(TimingLog, ProcessesAreKeptInSixteenBits) {
  given_reset();
  {
    const Pretend process(70'000);
    log_time_start(group);
    EXPECT_EQ(process_of("start_pid"), 4464);
    log_time_stop(group, FALSE);
  }
  EXPECT_EQ(process_of("stop_pid"), 4464);
}

// --- stop -------------------------------------------------------------------------------------------------------

TEST_F(TimingLog, AStopWritesTheMonotonicClockAndTheProcess) {
  log_time_reset(group);
  log_time_start(group);
  store.calls.clear();
  const auto before = clock_ns(CLOCK_MONOTONIC);
  log_time_stop(group, FALSE);
  const auto after = clock_ns(CLOCK_MONOTONIC);
  ASSERT_EQ(store.order(), "get get set");
  EXPECT_EQ(store.calls[0].mode, 1);
  EXPECT_EQ(store.calls[0].values[0].key, "start_time");
  EXPECT_EQ(store.calls[0].values[1].key, "start_pid");
  EXPECT_EQ(store.calls[1].mode, 1);
  EXPECT_EQ(store.calls[1].values, (std::vector{stored("stop_time", 5, Time{}), stored("stop_pid", 1, guint16{0})}));
  EXPECT_EQ(store.calls[2].mode, 2);
  EXPECT_EQ(store.calls[2].values,
            (std::vector{stored("stop_time", 5, time("stop_time")), stored("stop_pid", 1, low_bits(getpid()))}));
  EXPECT_GE(nanoseconds(time("stop_time")), before);
  EXPECT_LE(nanoseconds(time("stop_time")), after);
}

TEST_F(TimingLog, AStopBeforeAStartWritesNothing) {
  given_reset();
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get");
  log_time_stop(group, TRUE);
  EXPECT_EQ(store.order(), "get get");
}

TEST_F(TimingLog, ASecondStopKeepsTheFirst) {
  given({7, 1}, low_bits(getpid()), {8, 1}, 5);
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get get");
  EXPECT_EQ(nanoseconds(time("stop_time")), 8'000'000'001);
}

TEST_F(TimingLog, AStopOnAWholeSecondCountsAsNone) {
  given({7, 1}, low_bits(getpid()), {8, 0}, 5);
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get get set");
}

TEST_F(TimingLog, TheSwitchDecidesWhoMayStop) {
  const auto own = low_bits(getpid()), other = static_cast<guint16>(own + 1);
  struct Case {
    guint16 starter;
    gboolean other_process;
    bool writes;
  };
  for (const auto &[starter, other_process, writes] :
       {Case{own, FALSE, true}, Case{own, TRUE, false}, Case{other, FALSE, false}, Case{other, TRUE, true},
        Case{own, 2, false}, Case{other, 2, true}}) {
    given({7, 1}, starter);
    log_time_stop(group, other_process);
    EXPECT_EQ(store.order(), writes ? "get get set" : "get get") << starter << ' ' << other_process;
    EXPECT_EQ(process_of("stop_pid"), writes ? own : 0);
  }
}

TEST_F(TimingLog, AStopIsContentWithWhateverIsNotAFailure) {
  given({7, 1}, low_bits(getpid()));
  store.answer(Store::get, -1, EIO);
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get");
  store.answer(Store::get, 0);
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get get") << "nothing was read: not started";
}

TEST_F(TimingLog, AStopIsWrittenAlsoWhereTheGroupHasNoneYet) {
  const Pretend process(5);
  store.groups[group].values = {{"start_time", stored("start_time", 5, Time{7, 1})},
                                {"start_pid", stored("start_pid", 1, guint16{5})}};
  log_time_stop(group, FALSE);
  EXPECT_EQ(store.order(), "get get set");
}

// --- processor time ---------------------------------------------------------------------------------------------

TEST_F(TimingLog, AProcessTimerStartsWithTheOwnProcessorTime) {
  given_reset();
  const auto before = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  log_time_start_process_timer(group);
  const auto after = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  EXPECT_EQ(store.order(), "get set");
  EXPECT_EQ(store.calls[0].mode, 1);
  EXPECT_EQ(store.calls[1].mode, 2);
  EXPECT_GE(nanoseconds(time("start_time")), before);
  EXPECT_LE(nanoseconds(time("start_time")), after);
  EXPECT_EQ(process_of("start_pid"), low_bits(getpid()));
}

TEST_F(TimingLog, AProcessTimerStopsWithTheProcessorTimeOfItsStarter) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    for (;;) pause();
  }
  clockid_t childs_clock{};
  ASSERT_EQ(clock_getcpuclockid(child, &childs_clock), 0);
  // This process has used more time than a child that sleeps will ever use.
  while (clock_ns(CLOCK_PROCESS_CPUTIME_ID) < clock_ns(childs_clock) + 20'000'000) {
  }
  given({0, 1}, low_bits(child));
  const bool fits = child == low_bits(child);
  log_time_stop_process_timer(group);
  const auto after = clock_ns(childs_clock);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_EQ(store.order(), "get get set");
  EXPECT_EQ(store.calls[0].values[0].key, "stop_time");
  EXPECT_EQ(store.calls[0].values[1].key, "stop_pid");
  EXPECT_EQ(store.calls[1].values[0].key, "start_time");
  EXPECT_EQ(store.calls[1].values[1].key, "start_pid");
  EXPECT_EQ(process_of("stop_pid"), low_bits(getpid()));
  EXPECT_TRUE(!fits || nanoseconds(time("stop_time")) <= after);
}

TEST_F(TimingLog, AProcessTimerWhoseStarterHasGoneStopsWithTheOwnProcessorTime) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  if (child != low_bits(child)) GTEST_SKIP() << "a number of 16 bits may be anybody's here";
  given({0, 1}, low_bits(child));
  const auto before = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  log_time_stop_process_timer(group);
  const auto after = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  EXPECT_GE(nanoseconds(time("stop_time")), before);
  EXPECT_LE(nanoseconds(time("stop_time")), after);
  EXPECT_EQ(process_of("stop_pid"), low_bits(getpid()));
}

TEST_F(TimingLog, AProcessTimerIsStoppedOnceAndOnlyIfItRuns) {
  given_reset();
  log_time_stop_process_timer(group);
  given({7, 1}, low_bits(getpid()), {8, 1}, 1);
  log_time_stop_process_timer(group);
  EXPECT_EQ(store.order(), "get get");
  given({7, 1}, low_bits(getpid()));
  store.answer(Store::get, -1, EIO);
  log_time_stop_process_timer(group);
  EXPECT_TRUE(store.of(Store::set).empty());
  store.groups.clear();
  log_time_stop_process_timer(group);
  EXPECT_TRUE(store.of(Store::set).empty());
}

// --- drivers ----------------------------------------------------------------------------------------------------

struct Pair {
  std::string name;
  void (*start)(gint32);
  void (*stop)(gint32);
};

struct TimingLogDriver : testing::TestWithParam<Pair> {
  FakeStore store;
};
INSTANTIATE_TEST_SUITE_P(All, TimingLogDriver,
                         testing::Values(Pair{"req", log_time_start_driver_req, log_time_stop_driver_req},
                                         Pair{"move", log_time_start_driver_move, log_time_stop_driver_move},
                                         Pair{"reply", log_time_start_driver_reply, log_time_stop_driver_reply},
                                         Pair{"process", log_time_start_process_timer_driver, nullptr}),
                         [](const auto &info) { return info.param.name; });

TEST_P(TimingLogDriver, TheLastDigitOfItsNumberSelectsTheGroup) {
  const auto &[name, start, stop] = GetParam();
  for (const gint32 driver : {1, 2, 11, 12, 21, 1002}) {
    const auto expected = "ptzdt_driver_" + name + (driver % 10 == 1 ? "_d1" : "_d2");
    log_time_reset(expected.c_str());
    store.calls.clear();
    start(driver);
    ASSERT_EQ(store.order(), "get set");
    EXPECT_EQ(store.calls[1].name, expected);
    if (stop == nullptr) continue;
    stop(driver);
    ASSERT_EQ(store.order(), "get set get get set");
    EXPECT_EQ(store.calls[4].name, expected);
    log_time_reset(expected.c_str());
  }
}

TEST_P(TimingLogDriver, OtherDriversRecordNothing) {
  const auto &[name, start, stop] = GetParam();
  for (const gint32 driver : {0, 3, 10, 13, 20, -1, -9, -8}) {
    start(driver);
    if (stop != nullptr) stop(driver);
  }
  EXPECT_TRUE(store.calls.empty());
}

TEST_P(TimingLogDriver, AStopLeavesWhatAnotherProcessHasStarted) {
  const auto &[name, start, stop] = GetParam();
  if (stop == nullptr) return;
  log_time_reset(("ptzdt_driver_" + name + "_d1").c_str());
  {
    const Pretend other(getpid() + 1);
    start(1);
  }
  store.calls.clear();
  stop(1);
  EXPECT_EQ(store.order(), "get get");
}

TEST_F(TimingLog, WithoutANameNothingIsRecorded) {
  log_time_reset(nullptr);
  log_time_start(nullptr);
  log_time_stop(nullptr, FALSE);
  log_time_start_process_timer(nullptr);
  log_time_stop_process_timer(nullptr);
  log_counter_reset(1, nullptr);
  log_counter_update(1, nullptr, 1);
  EXPECT_TRUE(store.calls.empty());
}

// --- counters ---------------------------------------------------------------------------------------------------

const std::string reset_warning = "log_counter_reset: Failed to get NbrOfDrivers";
const std::string update_warning = "log_counter_update: Failed to get NbrOfDrivers";

struct CounterLog : testing::Test {
  TempDir dir;
  FakeStore store;
  SyslogCapture log;

  CounterLog() { load(""); }
  ~CounterLog() override { load(""); }

  void load(const std::string &text) const {
    const auto path = dir.file("settings");
    ASSERT_TRUE(g_file_set_contents(path.c_str(), text.c_str(), -1, nullptr));
    const PTZSettingsFile files[] = {{path.c_str(), TRUE}, {}};
    ptz_settings_load_config_gkf(files, nullptr);
  }
  void load_drivers(int count) const { load("[PTZDriverManager]\nNbrOfDrivers=" + std::to_string(count) + "\n"); }
  void given(const std::string &name, guint32 value, gint32 owner) {
    store.groups[name] = {
        78, {{"counter_value", stored("counter_value", 1, value)}, {"counter_pid", stored("counter_pid", 1, owner)}}};
    store.calls.clear();
  }
  gint64 value(const std::string &name) const {
    const auto found = store.number<guint32>(name, "counter_value");
    return found ? gint64{*found} : -1;
  }
  gint32 owner(const std::string &name) const { return store.number<gint32>(name, "counter_pid").value_or(-1); }
  // The warnings since the last call.
  std::vector<LogLine> warnings() {
    const auto lines = log.lines();
    log = SyslogCapture();
    return lines;
  }
};

using Lines = std::vector<LogLine>;

TEST_F(CounterLog, AResetMakesTheCounterAndTakesIt) {
  log_counter_reset(3, "moves");
  ASSERT_EQ(store.order(), "create set");
  EXPECT_EQ(store.calls[0].name, "moves3");
  EXPECT_EQ(store.calls[0].size, 78U);
  EXPECT_EQ(store.calls[0].mode, 0);
  EXPECT_EQ(store.calls[1].name, "moves3");
  EXPECT_EQ(store.calls[1].mode, 2);
  EXPECT_EQ(store.calls[1].values,
            (std::vector{stored("counter_value", 1, guint32{0}), stored("counter_pid", 1, gint32{getpid()})}));
  EXPECT_EQ(warnings(), Lines{}) << "the settings are not asked";
}

TEST_F(CounterLog, AResetOfACounterThatIsThereTakesItWithOneDriver) {
  load_drivers(1);
  given("moves1", 5, 1);
  log_counter_reset(1, "moves");
  EXPECT_EQ(store.order(), "create set");
  EXPECT_EQ(value("moves1"), 0);
  EXPECT_EQ(owner("moves1"), getpid());
  EXPECT_EQ(warnings(), Lines{});
}

TEST_F(CounterLog, AResetWithoutTheSettingWarnsAndTakesOneDriverForGranted) {
  given("moves1", 5, 1);
  log_counter_reset(1, "moves");
  EXPECT_EQ(store.order(), "create set");
  EXPECT_EQ(owner("moves1"), getpid());
  EXPECT_EQ(warnings(), (Lines{{LOG_WARNING, reset_warning}}));
}

TEST_F(CounterLog, ASettingThatIsNoNumberIsNoSetting) {
  load("[PTZDriverManager]\nNbrOfDrivers=two\n");
  given("moves1", 5, 1);
  log_counter_reset(1, "moves");
  EXPECT_EQ(owner("moves1"), getpid());
  EXPECT_EQ(warnings(), (Lines{{LOG_WARNING, reset_warning}}));
}

TEST_F(CounterLog, WithSeveralDriversASecondProcessTakesTheSecondCounter) {
  for (const int drivers : {2, 3}) {
    store.groups.clear();
    load_drivers(drivers);
    given("moves1", 5, 1);
    log_counter_reset(1, "moves");
    EXPECT_EQ(store.order(), "create create set");
    EXPECT_EQ(store.calls[1].name, "moves2");
    EXPECT_EQ(store.calls[1].size, 78U);
    EXPECT_EQ(store.calls[1].mode, 0);
    EXPECT_EQ(store.calls[2].mode, 2);
    EXPECT_EQ(value("moves1"), 5);
    EXPECT_EQ(owner("moves1"), 1);
    EXPECT_EQ(value("moves2"), 0);
    EXPECT_EQ(owner("moves2"), getpid());
    // Once.
    store.calls.clear();
    log_counter_reset(1, "moves");
    EXPECT_EQ(store.order(), "create create");
  }
  EXPECT_EQ(warnings(), Lines{});
}

TEST_F(CounterLog, WithSeveralDriversAnotherCounterThatIsThereIsTaken) {
  load_drivers(2);
  for (const gint32 driver : {2, 11}) {
    const auto name = "moves" + std::to_string(driver);
    given(name, 5, 1);
    log_counter_reset(driver, "moves");
    EXPECT_EQ(store.order(), "create set");
    EXPECT_EQ(owner(name), getpid());
  }
}

TEST_F(CounterLog, AResetThatCannotMakeTheCounterWritesNothing) {
  load_drivers(2);
  store.answer(Store::create, -1, ENOSPC);
  log_counter_reset(1, "moves");
  EXPECT_EQ(store.order(), "create");
  given("moves1", 5, 1);
  store.answer(Store::create, -1, EEXIST);
  store.answer(Store::create, -1, ENOSPC);
  log_counter_reset(1, "moves");
  EXPECT_EQ(store.order(), "create create");
  EXPECT_EQ(warnings(), Lines{});
}

TEST_F(CounterLog, AnUpdateOfTheOwnCounterWritesIt) {
  given("moves4", 5, getpid());
  log_counter_update(4, "moves", 4294967295U);
  ASSERT_EQ(store.order(), "get set");
  EXPECT_EQ(store.calls[0].mode, 0);
  EXPECT_EQ(store.calls[1].mode, 1);
  EXPECT_EQ(store.calls[1].values, (std::vector{stored("counter_value", 1, guint32{4294967295U})}));
  EXPECT_EQ(value("moves4"), 4294967295);
  EXPECT_EQ(owner("moves4"), getpid());
  EXPECT_EQ(warnings(), Lines{}) << "the settings are not asked";
}

TEST_F(CounterLog, AnUpdateWithoutACounterStops) {
  load_drivers(2);
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get");
  EXPECT_EQ(warnings(), Lines{});
}

TEST_F(CounterLog, AnUpdateOfAnothersCounterWritesNothingWithOneDriver) {
  load_drivers(1);
  given("moves2", 7, getpid());
  given("moves1", 5, 1);
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get");
  EXPECT_EQ(warnings(), Lines{});
  load("");
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get get");
  EXPECT_EQ(warnings(), (Lines{{LOG_WARNING, update_warning}}));
}

TEST_F(CounterLog, WithSeveralDriversUpdatesOfTheFirstLandInTheOwnSecond) {
  load_drivers(2);
  given("moves2", 7, getpid());
  given("moves1", 5, 1);
  log_counter_update(1, "moves", 6);
  ASSERT_EQ(store.order(), "get get set");
  EXPECT_EQ(store.calls[1].mode, 0);
  EXPECT_EQ(store.calls[2].mode, 1);
  EXPECT_EQ(value("moves1"), 5);
  EXPECT_EQ(value("moves2"), 6);
}

TEST_F(CounterLog, WithSeveralDriversOnlyTheFirstLeadsToTheSecond) {
  load_drivers(2);
  given("moves2", 7, getpid());
  given("moves11", 5, 1);
  log_counter_update(11, "moves", 6);
  EXPECT_EQ(store.order(), "get");
  given("moves2", 7, 1);
  log_counter_update(2, "moves", 6);
  EXPECT_EQ(store.order(), "get");
}

TEST_F(CounterLog, ASecondCounterThatIsMissingOrAnothersIsLeft) {
  load_drivers(2);
  given("moves1", 5, 1);
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get get");
  given("moves2", 7, 1);
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get get");
  EXPECT_EQ(value("moves2"), 7);
}

TEST_F(CounterLog, ACounterWithoutAnOwnerIsNobodys) {
  load_drivers(1);
  store.groups["moves1"] = {};
  log_counter_update(1, "moves", 6);
  EXPECT_EQ(store.order(), "get");
}

TEST_F(CounterLog, TwoProcessesHaveACounterEach) {
  load_drivers(2);
  const pid_t first = getpid(), second = first + 65'536;  // alike in 16 bits, which counters do not go by
  log_counter_reset(1, "moves");
  {
    const Pretend process(second);
    log_counter_reset(1, "moves");
    log_counter_update(1, "moves", 20);
  }
  log_counter_update(1, "moves", 10);
  EXPECT_EQ(value("moves1"), 10);
  EXPECT_EQ(owner("moves1"), first);
  EXPECT_EQ(value("moves2"), 20);
  EXPECT_EQ(owner("moves2"), second);
}

}  // namespace
