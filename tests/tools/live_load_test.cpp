// What top makes of the figures: loads, order, filter, lines.
#include <gtest/gtest.h>

#include "live/load.h"
#include "live/tap_line.h"
#include "live/top_view.h"
#include "time_text.h"

namespace {

using namespace ptzctl;

Counters counters(guint64 requests, std::vector<guint32> latency = {}) {
  Counters result;
  result.requests = requests;
  result.bytes = requests * 10;
  result.latency = std::move(latency);
  return result;
}

TEST(LoadHistory, OfTheFirstLookThereAreNoRates) {
  LoadHistory history;
  const Load load = history.load_of("a", 1'000'000, counters(5, {5, 0}));
  EXPECT_LT(load.requests_per_s, 0);
  EXPECT_LT(load.p50_us, 0);
  EXPECT_EQ(load.total.requests, 5U);
}

TEST(LoadHistory, RatesAreOfTheLastInterval) {
  LoadHistory history;
  (void)history.load_of("a", 1'000'000, counters(5));
  (void)history.load_of("a", 2'000'000, counters(500));
  const Load load = history.load_of("a", 4'000'000, counters(600));
  EXPECT_DOUBLE_EQ(load.requests_per_s, 50);
  EXPECT_DOUBLE_EQ(load.bytes_per_s, 500);
}

TEST(LoadHistory, QuantilesAreOfWhatWasAnsweredSinceTheFirstOfTheLastLooks) {
  LoadHistory history;
  std::vector<guint32> latency(40, 0);
  latency[30] = 1000;  // long ago
  (void)history.load_of("a", 1'000'000, counters(5, latency));
  EXPECT_LT(history.load_of("a", 2'000'000, counters(5, latency)).p99_us, 0);
  latency[4] = 100;
  const Load load = history.load_of("a", 3'000'000, counters(105, latency));
  EXPECT_GT(load.p99_us, 0);
  EXPECT_LE(load.p99_us, static_cast<double>(ptz_kit_latency_bucket_limit(4)));
  for (int i = 0; i < 12; ++i) (void)history.load_of("a", 4'000'000 + i * 1'000'000, counters(105, latency));
  EXPECT_LT(history.load_of("a", 30'000'000, counters(105, latency)).p99_us, 0) << "that is over";
}

TEST(LoadHistory, ADriverThatCountsAnewHasNoNegativeRate) {
  LoadHistory history;
  (void)history.load_of("a", 1'000'000, counters(500, {9}));
  EXPECT_DOUBLE_EQ(history.load_of("a", 2'000'000, counters(5, {1})).requests_per_s, 0);
}

TEST(LoadHistory, ForgetsWhatIsNoLongerThere) {
  LoadHistory history;
  (void)history.load_of("a", 1'000'000, counters(5));
  history.end_of_round();
  history.keep("a");
  history.end_of_round();
  EXPECT_GE(history.load_of("a", 2'000'000, counters(5)).requests_per_s, 0) << "it was kept";
  history.end_of_round();
  history.end_of_round();
  EXPECT_LT(history.load_of("a", 3'000'000, counters(5)).requests_per_s, 0) << "it was forgotten";
}

DriverSight driver(const char *name, double requests, double p99, guint64 errors, guint32 pending) {
  DriverSight sight;
  sight.name = name;
  sight.pid = 100;
  sight.state = ProcessState::sleeping;
  sight.load.requests_per_s = requests;
  sight.load.p99_us = p99;
  sight.load.total.errors = errors;
  sight.load.total.pending = pending;
  return sight;
}

std::string names_by(TopOrder order) {
  std::vector<DriverSight> drivers = {driver("b", 1, 9, 0, 5), driver("a", 2, 8, 0, 6), driver("c", 3, 7, 1, 0)};
  sort_by(order, drivers);
  return drivers[0].name + drivers[1].name + drivers[2].name;
}

TEST(TopView, SortsByEachKey) {
  EXPECT_EQ(names_by(TopOrder::requests), "cab");
  EXPECT_EQ(names_by(TopOrder::latency), "bac");
  EXPECT_EQ(names_by(TopOrder::errors), "cab") << "of equals, by name";
  EXPECT_EQ(names_by(TopOrder::pending), "abc");
  EXPECT_EQ(names_by(TopOrder::name), "abc");
}

TEST(TopView, EachOrderHasAKeyAndAName) {
  for (const TopOrder order :
       {TopOrder::requests, TopOrder::latency, TopOrder::errors, TopOrder::pending, TopOrder::name}) {
    EXPECT_EQ(top_order_named(name_of(order)), order);
    EXPECT_EQ(top_order_of_key(name_of(order)[0]), order);
  }
  EXPECT_FALSE(top_order_of_key('x'));
  EXPECT_FALSE(top_order_named(""));
}

TEST(TopView, FilterKeepsADriverWithItsClientsOrOnlyTheClientThatFits) {
  DriverSight one = driver("head", 0, 0, 0, 0);
  ClientSight client;
  client.program = "/usr/bin/Daemon";
  client.pid = 4711;
  one.clients = {client, {}};
  EXPECT_EQ(chosen({one}, "HEAD").at(0).clients.size(), 2U);
  EXPECT_EQ(chosen({one}, "daemon").at(0).clients.size(), 1U);
  EXPECT_EQ(chosen({one}, "4711").at(0).clients.size(), 1U);
  EXPECT_TRUE(chosen({one}, "other").empty());
  EXPECT_EQ(chosen({one}, "").size(), 1U);
}

TEST(TopView, NamesCannotControlATerminal) {
  DriverSight one = driver("a\x1b[2J", 0, 0, 0, 0);
  ClientSight client;
  client.program = "/x\n\x1b";
  one.clients = {client};
  one.problem = "\x1b";
  for (const auto &line : top_lines({one})) {
    EXPECT_EQ(line.text.find_first_of("\x1b\n"), std::string::npos) << line.text;
  }
}

TEST(TopView, StaleStatusAndProblemsStandAtTheEnd) {
  DriverSight one = driver("a", 1, 1, 0, 0);
  one.instance = 3;
  one.status_age_ms = 5000;
  one.is_status_stale = true;
  EXPECT_NE(top_lines({one}).at(0).text.find("  status 5.00s stale"), std::string::npos);
  one.problem = "does not answer";
  const auto line = top_lines({one}).at(0);
  EXPECT_NE(line.text.find("  does not answer, status 5.00s stale"), std::string::npos) << line.text;
  EXPECT_EQ(line.look, Look::bad);
}

TEST(TopView, ColumnsAreLeftOutWholeIfTheyDoNotFit) {
  DriverSight one = driver("a", 1, 1, 0, 0);
  one.problem = std::string(200, 'x');
  EXPECT_EQ(top_titles(124), top_titles());
  for (std::size_t width = 20; width < 130; ++width) {
    std::string titles = top_titles(width);
    EXPECT_LE(titles.size(), width);
    EXPECT_LE(top_lines({one}, width).at(0).text.size(), width);
    EXPECT_EQ(titles.find("DRIVER, #CLIENT"), 0U) << titles;
    for (const std::string title : {"DRIVER, #CLIENT", "PID", "STATUS, LAST COMMAND", "STATE", "REQ/S", "P50", "P99",
                                    "ERRORS", "BYTES/S", "PENDING", "UNSENT"}) {
      if (const std::size_t at = titles.find(title); at != std::string::npos) titles.erase(at, title.size());
    }
    EXPECT_EQ(titles.find_first_not_of(' '), std::string::npos) << width << ": cut: " << titles;
  }
}

TEST(TopView, TheMostUsefulColumnsFitATerminalOf80Columns) {
  for (const char *title : {"STATE", "REQ/S", "P99", "ERRORS", "STATUS, LAST COMMAND"}) {
    EXPECT_NE(top_titles(80).find(title), std::string::npos) << title << " in " << top_titles(80);
  }
}

TEST(TopView, KeysAreWrappedAtTheWidth) {
  EXPECT_EQ(wrapped({"ab", "cd", "ef"}, 6), (std::vector<std::string>{"ab  cd", "ef"}));
  EXPECT_EQ(wrapped({"abcdef"}, 3), std::vector<std::string>{"abcdef"});
}

TEST(TopView, CountsAreWholeNumbers) {
  DriverSight one = driver("a", 1, 1, 8, 0);
  EXPECT_EQ(top_lines({one}).at(0).text.find("8.0"), std::string::npos) << top_lines({one}).at(0).text;
}

TEST(TopView, ClientsOfADriverWithoutFiguresHaveNone) {
  DriverSight one = driver("a", 1, 1, 8, 0);
  ClientSight client;
  client.load.requests_per_s = 19;
  one.clients = {client};
  one.problem = "does not answer";
  EXPECT_EQ(top_lines({one}).at(1).text.find("19"), std::string::npos) << top_lines({one}).at(1).text;
}

TEST(TapLine, TimesAndClientsReadAsInAReport) {
  FrameView frame;
  frame.time_ns = 123'456'789;
  frame.latency_ns = 2'500'000;
  frame.is_reply = true;
  frame.client = 3;
  frame.pid = 731;
  frame.program = "/usr/bin/daemon";
  const std::string line = tap_line(frame, {"Move", "", false});
  EXPECT_NE(line.find(tools::clock_text(frame.time_ns) + "  #3 daemon[731] ← "), std::string::npos) << line;
  EXPECT_NE(line.find("(2.50 ms)"), std::string::npos) << line;
}

}  // namespace
