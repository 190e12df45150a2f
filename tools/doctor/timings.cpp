// Measurements that were started and not stopped.
#include <algorithm>
#include <cerrno>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

constexpr gint64 long_request_ms = 10'000;

struct Measurement {
  const char *what;
  bool is_request;
};
constexpr Measurement measurements[] = {{"req", true}, {"move", false}, {"reply", true}, {"process", false}};

// Groups hold 16 bits of the number of a process.
std::vector<pid_t> owners(guint16 number) {
  std::vector<pid_t> found = all_processes();
  std::erase_if(found, [number](pid_t pid) { return static_cast<guint16>(pid) != number; });
  return found;
}

std::string subject_of(const Surroundings &system, guint digit, const std::string &group) {
  const auto found = std::ranges::find_if(
      system.drivers, [digit](const Driver &driver) { return driver.instance != 0 && driver.instance % 10 == digit; });
  return found != system.drivers.end() ? found->label() : group;
}

void examine_group(const Surroundings &system, const Measurement &measurement, guint digit, Findings &findings) {
  const std::string group = std::string("ptzdt_driver_") + measurement.what + "_d" + std::to_string(digit);
  std::vector<StoredValue> values = {
      {"start_time", 8, seconds_and_nanoseconds}, {"start_pid", 2, integer}, {"stop_time", 8, seconds_and_nanoseconds}};
  if (read_group(group, values) != Reading::done) return;  // a driver need not measure
  const auto has_time = [](const StoredValue &value) { return value.found && value.value.time.fraction != 0; };
  if (!has_time(values[0]) || has_time(values[2])) return;
  const guint16 number = values[1].value.process;
  const std::string subject = subject_of(system, digit, group);
  if (values[1].found && owners(number).empty()) {
    findings.warning({.id = "timing.dead-owner",
                      .subject = subject,
                      .what = format("The measurement %s was started by a process that has ended (number %u, modulo "
                                     "65536), and was not stopped.",
                                     group.c_str(), number),
                      .why = "That process ended in the middle of its work, and the group measures nothing until a "
                             "driver resets it.",
                      .command = "rm -- " + quoted(system.runtime + "/" + group + ".status")});
    return;
  }
  const auto &start = values[0].value.time;
  const gint64 age_ms = g_get_monotonic_time() / 1000 - (start.seconds * gint64{1000} + start.fraction / 1'000'000);
  if (!measurement.is_request || age_ms < long_request_ms) return;
  findings.warning(
      {.id = "timing.long-request",
       .subject = subject,
       .what = format("The measurement %s runs since %.0f s.", group.c_str(), static_cast<double>(age_ms) / 1000),
       .why = "The driver is still at this request, or has forgotten to answer it.",
       .command = "ptzctl tap --errors"});
}

}  // namespace

void examine_timings(const Surroundings &system, Findings &findings) {
  for (const auto &measurement : measurements) {
    for (const guint digit : {1U, 2U}) examine_group(system, measurement, digit, findings);
  }
}

}  // namespace ptzctl
