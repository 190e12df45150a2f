// Requests between two processes: the command channel beside a bare stream, its own system calls and GDBus, in rounds
// by turns, so that whatever else the machine does falls on all of them alike. Ratios compare medians of the same
// round.
#include <glib.h>
#include <sched.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "answering_process.h"
#include "contender.h"
#include "handles.h"
#include "main_loop.h"
#include "statistics.h"

namespace {

using bench::Bytes;

constexpr double floor_aim = 2.0;                                           // times as long at most
constexpr double gdbus_aim = 5.0;                                           // times as fast at least
constexpr double prescribed_aim_on_one_core = 1.15, prescribed_aim = 1.05;  // times as long at most
constexpr std::array<std::size_t, 2> body_sizes = {64, bench::body_max};
constexpr std::array<unsigned, 3> crowds = {0, 10, 200};

struct Effort {
  gint rounds = 20;
  gint round_trips = 2000;  // in a round
  gint requests = 5000;     // in a round, asynchronously
  gint outstanding = 32;
  double calls_aim = prescribed_aim;
};

double now_us() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

std::vector<std::uint8_t> body_of(std::size_t size) {
  std::vector<std::uint8_t> body(size);
  for (std::size_t i = 0; i < size; ++i) body[i] = static_cast<std::uint8_t>(i * 7 + 1);
  return body;
}

bool on_one_core() {
  cpu_set_t cores;
  return sched_getaffinity(0, sizeof cores, &cores) == 0 && CPU_COUNT(&cores) == 1;
}

const char *verdict(bool met) { return met ? "met" : "MISSED"; }

// A JSON array of the results, where one was asked for.
class Results {
  std::FILE *file_ = nullptr;
  const char *before_next_ = "[\n";

 public:
  explicit Results(const gchar *path) {
    if (path != nullptr && (file_ = std::fopen(path, "w")) == nullptr) bench::give_up(path);
  }
  Results(Results &&) = delete;
  ~Results() {
    if (file_ == nullptr) return;
    std::fputs("\n]\n", file_);
    std::fclose(file_);
  }
  G_GNUC_PRINTF(2, 3) void add(const char *object, ...) {
    if (file_ == nullptr) return;
    std::fputs(std::exchange(before_next_, ",\n"), file_);
    va_list arguments;
    va_start(arguments, object);
    std::vfprintf(file_, object, arguments);
    va_end(arguments);
  }
};

struct Times {
  double median_us, p99_us, best_us;  // the best: the median of the quietest round
};

class RoundTrips {
  const char *name_;
  bench::Caller *caller_;
  bool beside_a_main_loop_;
  std::vector<double> times_us_, medians_us_;

 public:
  RoundTrips(const char *name, bench::Caller *caller, bool beside_a_main_loop = false)
      : name_(name), caller_(caller), beside_a_main_loop_(beside_a_main_loop) {}

  void run(Bytes body, int count) {
    std::optional<bench::RunningMainLoop> loop;
    if (beside_a_main_loop_) loop.emplace();
    std::vector<double> times_us;
    for (int i = -count / 10; i < count; ++i) {  // caches and the scheduler settle before the first that counts
      const double start_us = now_us();
      const Bytes answer = caller_->ask(body);
      const double end_us = now_us();
      if (!std::ranges::equal(answer, body)) bench::give_up(name_);
      if (i >= 0) times_us.push_back(end_us - start_us);
    }
    medians_us_.push_back(bench::median(times_us));
    times_us_.insert(times_us_.end(), times_us.begin(), times_us.end());
  }
  [[nodiscard]] const char *name() const { return name_; }
  [[nodiscard]] Times times() const {
    return {bench::median(times_us_), bench::quantile(times_us_, 0.99), std::ranges::min(medians_us_)};
  }
  [[nodiscard]] double as_long_as(const RoundTrips &other) const {
    return bench::ratio(medians_us_, other.medians_us_);
  }
};

// The order of the rows: what the others are held against has its place.
enum RoundTripRow { floor_row, prescribed_row, channel_row, channel_and_loop_row, gdbus_row, round_trip_rows };

using RoundTripRows = std::array<RoundTrips, round_trip_rows>;

void report_round_trips(std::size_t size, const RoundTripRows &rows, double calls_aim, Results &results) {
  std::printf(
      "\nRound trip with a body of %zu bytes (aims: at most %.0f times the floor, at most %.2f times the prescribed "
      "calls without a main loop, GDBus at least %.0f times it)\n",
      size, floor_aim, calls_aim, gdbus_aim);
  std::printf("%-36s %10s %10s %10s %14s %14s %14s\n", "", "median us", "p99 us", "best us", "x the floor",
              "x prescribed", "GDBus / it");
  for (int i = 0; i < round_trip_rows; ++i) {
    const auto &row = rows[i];
    const bool is_channel = i == channel_row || i == channel_and_loop_row;
    const Times times = row.times();
    const double of_floor = row.as_long_as(rows[floor_row]), of_prescribed = row.as_long_as(rows[prescribed_row]),
                 gdbus_of_it = rows[gdbus_row].as_long_as(row);
    std::printf("%-36s %10.2f %10.2f %10.2f %7.2f %-6s %7.2f %-6s %7.2f %-6s\n", row.name(), times.median_us,
                times.p99_us, times.best_us, of_floor, is_channel ? verdict(of_floor <= floor_aim) : "", of_prescribed,
                i == channel_row ? verdict(of_prescribed <= calls_aim) : "", gdbus_of_it,
                is_channel ? verdict(gdbus_of_it >= gdbus_aim) : "");
    results.add(
        "{\"measure\": \"round trip\", \"body\": %zu, \"way\": \"%s\", \"median_us\": %.3f, \"p99_us\": %.3f, "
        "\"best_us\": %.3f, \"of_floor\": %.3f, \"of_prescribed\": %.3f, \"gdbus_of_it\": %.3f}",
        size, row.name(), times.median_us, times.p99_us, times.best_us, of_floor, of_prescribed, gdbus_of_it);
  }
}

void measure_round_trips(std::size_t size, const Effort &effort, Results &results) {
  const auto body = body_of(size);
  const auto bare = bench::bare_stream(), prescribed = bench::prescribed_calls(), command = bench::command_channel(),
             gdbus = bench::gdbus_peer();
  RoundTripRows rows = {{
      {"bare stream", bare.get()},
      {"prescribed calls", prescribed.get()},
      {"command channel", command.get()},
      {"command channel, main loop running", command.get(), true},
      {"GDBus peer to peer", gdbus.get()},
  }};
  for (gint round = 0; round < effort.rounds; ++round) {
    for (auto &row : rows) row.run(body, effort.round_trips);
  }
  report_round_trips(size, rows, effort.calls_aim, results);
}

// What it costs a server to watch clients that say nothing.
void measure_crowds(std::size_t size, const Effort &effort, Results &results) {
  const auto body = body_of(size);
  std::vector<std::unique_ptr<bench::Caller>> callers;
  std::vector<RoundTrips> rows;
  for (const unsigned others : crowds) {
    callers.push_back(bench::command_channel(others));
    rows.emplace_back("command channel among others", callers.back().get());
  }
  for (gint round = 0; round < effort.rounds; ++round) {
    for (auto &row : rows) row.run(body, effort.round_trips / 4 + 1);
  }

  std::printf("\nRound trip on the command channel with a body of %zu bytes, other clients connected\n", size);
  std::printf("%-36s %10s %10s %10s %14s\n", "", "median us", "p99 us", "best us", "x alone");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Times times = rows[i].times();
    const double of_alone = rows[i].as_long_as(rows.front());
    std::printf("%3u others %25s %10.2f %10.2f %10.2f %7.2f\n", crowds[i], "", times.median_us, times.p99_us,
                times.best_us, of_alone);
    results.add(
        "{\"measure\": \"among others\", \"body\": %zu, \"others\": %u, \"median_us\": %.3f, \"p99_us\": %.3f, "
        "\"best_us\": %.3f, \"of_alone\": %.3f}",
        size, crowds[i], times.median_us, times.p99_us, times.best_us, of_alone);
  }
}

struct Pipeline {
  const char *name;
  std::unique_ptr<bench::PipelinedCaller> caller;
  std::vector<double> rates_per_s = {};

  void run(Bytes body, const Effort &effort) {
    const auto outstanding = static_cast<unsigned>(effort.outstanding);
    const auto requests = std::max(static_cast<unsigned>(effort.requests), outstanding);
    if (!caller->ask_all(body, outstanding, outstanding)) bench::give_up(name);
    const double start_us = now_us();
    if (!caller->ask_all(body, requests, outstanding)) bench::give_up(name);
    rates_per_s.push_back(requests / (now_us() - start_us) * 1e6);
  }
};

void measure_pipelines(std::size_t size, const Effort &effort, Results &results) {
  const auto body = body_of(size);
  std::array<Pipeline, 2> rows = {{
      {"command channel", bench::pipelined_command_channel()},
      {"GDBus peer to peer", bench::pipelined_gdbus_peer()},
  }};
  for (gint round = 0; round < effort.rounds; ++round) {
    for (auto &row : rows) row.run(body, effort);
  }

  std::printf("\nAsynchronous requests, %d outstanding, with a body of %zu bytes (aim: at least %.0f times GDBus)\n",
              effort.outstanding, size, gdbus_aim);
  std::printf("%-36s %10s %10s %10s %14s\n", "", "median /s", "worst /s", "best /s", "it / GDBus");
  for (const auto &row : rows) {
    const double typical = bench::median(row.rates_per_s), worst = std::ranges::min(row.rates_per_s),
                 best = std::ranges::max(row.rates_per_s);
    const double of_gdbus = bench::ratio(row.rates_per_s, rows.back().rates_per_s);
    std::printf("%-36s %10.0f %10.0f %10.0f %7.2f %-6s\n", row.name, typical, worst, best, of_gdbus,
                &row == &rows.back() ? "" : verdict(of_gdbus >= gdbus_aim));
    results.add(
        "{\"measure\": \"asynchronous\", \"body\": %zu, \"way\": \"%s\", \"outstanding\": %d, \"median_per_s\": %.0f, "
        "\"worst_per_s\": %.0f, \"best_per_s\": %.0f, \"of_gdbus\": %.3f}",
        size, row.name, effort.outstanding, typical, worst, best, of_gdbus);
  }
}

struct Options {
  Effort effort;
  gboolean quick = FALSE, apart = FALSE, prescribed = FALSE, beside_a_main_loop = FALSE;
  gint size = 0, only_ask = 0, outstanding = 0;
  ptz_test::Text json;
};

// False after a message if an argument is wrong.
bool parse(int argc, char **argv, Options &options) {
  auto &effort = options.effort;
  gchar *json = nullptr;
  const GOptionEntry entries[] = {
      {"quick", 0, 0, G_OPTION_ARG_NONE, &options.quick, "Only see that everything works", nullptr},
      {"rounds", 0, 0, G_OPTION_ARG_INT, &effort.rounds, "Rounds (20)", "N"},
      {"round-trips", 0, 0, G_OPTION_ARG_INT, &effort.round_trips, "Round trips in a round (2000)", "N"},
      {"requests", 0, 0, G_OPTION_ARG_INT, &effort.requests, "Asynchronous requests in a round (5000)", "N"},
      {"body", 0, 0, G_OPTION_ARG_INT, &options.size, "Only with a body of this size, 1 to 2552 (64 and 2552)",
       "BYTES"},
      {"apart", 0, 0, G_OPTION_ARG_NONE, &options.apart, "Keep the two processes on different cores", nullptr},
      {"json", 0, 0, G_OPTION_ARG_FILENAME, &json, "Also write the results there, as a JSON array", "FILE"},
      {"only-ask", 0, 0, G_OPTION_ARG_INT, &options.only_ask, "Measure nothing, send N requests on the command channel",
       "N"},
      {"prescribed", 0, 0, G_OPTION_ARG_NONE, &options.prescribed, "... by the prescribed calls alone", nullptr},
      {"main-loop", 0, 0, G_OPTION_ARG_NONE, &options.beside_a_main_loop, "... beside a running main loop", nullptr},
      {"outstanding", 0, 0, G_OPTION_ARG_INT, &options.outstanding, "... asynchronously, N at once", "N"},
      {},
  };
  const std::unique_ptr<GOptionContext, ptz_test::FreeWith<g_option_context_free>> context(
      g_option_context_new(nullptr));
  g_option_context_add_main_entries(context.get(), entries, nullptr);
  GError *error = nullptr;
  const gboolean parsed = g_option_context_parse(context.get(), &argc, &argv, &error);
  options.json.reset(json);
  if (!parsed) {
    std::fprintf(stderr, "%s\n", error->message);
    g_error_free(error);
    return false;
  }
  if (options.size < 0 || static_cast<std::size_t>(options.size) > bench::body_max || effort.rounds < 1 ||
      effort.round_trips < 1) {
    std::fprintf(stderr, "A number is out of its range, see --help\n");
    return false;
  }
  return true;
}

// For a tracer or a profiler: nothing but that many requests on the command channel, or by its calls alone.
int only_ask(std::size_t size, const Options &options) {
  const auto body = body_of(size);
  if (options.outstanding > 0) {
    const auto command = bench::pipelined_command_channel();
    return command->ask_all(body, static_cast<unsigned>(options.only_ask), static_cast<unsigned>(options.outstanding))
               ? 0
               : 1;
  }
  const auto caller = options.prescribed ? bench::prescribed_calls() : bench::command_channel();
  std::optional<bench::RunningMainLoop> loop;
  if (options.beside_a_main_loop) loop.emplace();
  for (gint i = 0; i < options.only_ask; ++i) {
    if (caller->ask(body).size() != body.size()) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (const auto status = bench::answer_if_asked_to(argc, argv)) return *status;
  Options options;
  if (!parse(argc, argv, options)) return 2;
  auto &effort = options.effort;
  if (options.quick) {
    effort = {.rounds = 1, .round_trips = 20, .requests = 64};
    std::printf("Too few requests for a time or a ratio below to mean anything\n");
  }
  if (on_one_core()) effort.calls_aim = prescribed_aim_on_one_core;
  if (options.apart && !bench::stay_apart()) {
    std::fprintf(stderr, "--apart needs two cores\n");
    return 2;
  }

  std::vector<std::size_t> sizes(body_sizes.begin(), body_sizes.end());
  if (options.size > 0) sizes = {static_cast<std::size_t>(options.size)};
  if (options.only_ask > 0) return only_ask(sizes.front(), options);
  Results results(options.json.get());
  for (const std::size_t each : sizes) measure_round_trips(each, effort, results);
  for (const std::size_t each : sizes) measure_pipelines(each, effort, results);
  measure_crowds(sizes.front(), effort, results);
  return 0;
}
