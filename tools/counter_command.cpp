#include <cstdio>
#include <cstdlib>

#include "commands.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr const char *driver_counters[] = {"ptzdt_driver_commands_d1", "ptzdt_driver_commands_d2"};

int run_show(const std::string &words, int argc, char **argv) {
  gboolean as_json = FALSE;
  const GOptionEntry entries[] = {
      {"json", 'j', G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &as_json, "One object a line", nullptr}, {}};
  Options options(words, "[COUNTER...]",
                  "Shows counters and the processes that own them; without a name, the drivers' counters of commands.",
                  entries);
  auto counters = options.parse(argc, argv, G_MAXINT);
  if (!counters) return exit_usage;
  const bool is_asked_for = !counters->empty();
  if (!is_asked_for) counters->assign(std::begin(driver_counters), std::end(driver_counters));
  int status = EXIT_SUCCESS;
  for (const auto &counter : *counters) {
    std::vector<StoredValue> values = {{"counter_value", 4, integer}, {"counter_pid", 4, integer}};
    const auto reading = read_group(counter, values);
    if (reading == Reading::failed || (reading == Reading::no_group && is_asked_for)) {
      status = complain_of_reading(counter);
    }
    if (reading != Reading::done) continue;
    const auto value = static_cast<guint32>(values[0].value.number);
    if (as_json != FALSE) {
      const JsonLine json;
      json_builder_begin_object(json.get());
      json.member("counter", counter.c_str());
      json.member("value", gint64{value});
      json.member("process", gint64{values[1].value.number});
      json_builder_end_object(json.get());
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
  return run_one_of(subcommands, words, argc, argv);
}

}  // namespace ptzctl
