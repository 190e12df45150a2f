#include <cstdio>

#include "commands.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr const char *driver_counters[] = {"ptzdt_driver_commands_d1", "ptzdt_driver_commands_d2"};

int run_show(const std::string &words, int argc, char **argv) {
  Options options(words,
                  {"[COUNTER...]",
                   "Shows counters and the processes that own them; without a name, the drivers' counters of commands.",
                   " ptzdt_driver_commands_d1"},
                  Asks::none);
  auto counters = options.parse(argc, argv);
  if (!counters) return exit_usage;
  const bool is_asked_for = !counters->empty();
  if (!is_asked_for) counters->assign(std::begin(driver_counters), std::end(driver_counters));
  int status = EXIT_SUCCESS;
  for (const auto &counter : *counters) {
    std::vector<StoredValue> values = {{"counter_value", 4, integer}, {"counter_pid", 4, integer}};
    const auto reading = read_group(counter, values);
    if (reading == Reading::failed || (reading == Reading::no_group && is_asked_for)) {
      status = complain_of_reading(counter, reading);
    }
    if (reading != Reading::done) continue;
    const auto value = static_cast<guint32>(values[0].value.number);
    if (options.as_json()) {
      const JsonLine json;
      json.member("counter", counter);
      json.member("value", gint64{value});
      json.member("process", gint64{values[1].value.number});
      json.print();
    } else {
      std::printf("%-25s %10u  of process %d\n", counter.c_str(), value, values[1].value.number);
    }
  }
  return status;
}

}  // namespace

int run_counter(const std::string &words, int argc, char **argv) {
  static constexpr Subcommand subcommands[] = {{"show", "the counters as they are", run_show}};
  return run_one_of(subcommands, "Example: ptzctl counter show --json", words, argc, argv);
}

}  // namespace ptzctl
