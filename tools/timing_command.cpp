#include <cstdio>

#include "commands.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr const char *driver_groups[] = {"ptzdt_driver_req_d1",     "ptzdt_driver_req_d2",    "ptzdt_driver_move_d1",
                                         "ptzdt_driver_move_d2",    "ptzdt_driver_reply_d1",  "ptzdt_driver_reply_d2",
                                         "ptzdt_driver_process_d1", "ptzdt_driver_process_d2"};

struct Timing {
  StoredValue start_time, start_process, stop_time, stop_process;

  [[nodiscard]] bool has_started() const { return start_time.value.time.fraction != 0; }
  [[nodiscard]] bool has_stopped() const { return stop_time.value.time.fraction != 0; }
  [[nodiscard]] const char *state() const {
    if (!has_started()) return "not started";
    return has_stopped() ? "stopped" : "running";
  }
  [[nodiscard]] double duration_ms() const {
    const auto ns = [](const StoredTime &time) { return time.seconds * gint64{1'000'000'000} + time.fraction; };
    return static_cast<double>(ns(stop_time.value.time) - ns(start_time.value.time)) / 1e6;
  }
};

void print_json(const std::string &group, const Timing &timing) {
  const JsonLine json;
  json.member("group", group);
  json.member("state", timing.state());
  if (timing.has_started()) {
    timing.start_time.add_to(json);
    timing.start_process.add_to(json);
  }
  if (timing.has_started() && timing.has_stopped()) {
    timing.stop_time.add_to(json);
    timing.stop_process.add_to(json);
    json.member("duration_ms", timing.duration_ms());
  }
  json.print();
}

void print_line(const std::string &group, const Timing &timing) {
  std::printf("%-25s ", group.c_str());
  if (!timing.has_started()) {
    std::printf("not started\n");
    return;
  }
  std::printf("%18s by %-6s", timing.start_time.text().c_str(), timing.start_process.text().c_str());
  if (!timing.has_stopped()) {
    std::printf(" %s\n", painted(Look::notice, "running").c_str());
    return;
  }
  std::printf(" %18s by %-6s %12.6f ms\n", timing.stop_time.text().c_str(), timing.stop_process.text().c_str(),
              timing.duration_ms());
}

int run_show(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"[GROUP...]",
                   "Shows when measurements were started and stopped, by which process (its number's low 16 bits), and "
                   "what is between;\nof the named groups, or of those of the drivers.",
                   " ptzdt_driver_req_d1"},
                  Asks::none);
  auto groups = options.parse(argc, argv);
  if (!groups) return exit_usage;
  const bool is_asked_for = !groups->empty();
  if (!is_asked_for) groups->assign(std::begin(driver_groups), std::end(driver_groups));
  int status = EXIT_SUCCESS;
  bool is_header_due = !options.as_json();
  for (const auto &group : *groups) {
    std::vector<StoredValue> values = {{"start_time", 8, seconds_and_nanoseconds},
                                       {"start_pid", 2, integer},
                                       {"stop_time", 8, seconds_and_nanoseconds},
                                       {"stop_pid", 2, integer}};
    const auto reading = read_group(group, values);
    if (reading == Reading::failed || (reading == Reading::no_group && is_asked_for)) {
      status = complain_of_reading(group, reading);
    }
    if (reading != Reading::done) continue;
    const Timing timing = {values[0], values[1], values[2], values[3]};
    if (options.as_json()) {
      print_json(group, timing);
      continue;
    }
    if (is_header_due) {
      const tools::Text header(
          g_strdup_printf("%-25s %18s %-9s %18s %-9s %15s", "group", "start", "", "stop", "", "duration"));
      std::printf("%s\n", painted(Look::heading, header.get()).c_str());
    }
    is_header_due = false;
    print_line(group, timing);
  }
  return status;
}

}  // namespace

int run_timing(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {{"show", "the measurements as they are", run_show}};
  return run_one_of(subcommands, "Example: ptzctl timing show --json", words, argc, argv);
}

}  // namespace ptzctl
