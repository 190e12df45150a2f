// The live state of every instance, and the timings and counters.
#include <algorithm>
#include <set>

#include "report/report.h"
#include "stored_values.h"

namespace ptzctl {

namespace {

using tools::Mood;

constexpr guint looked_for = 16;  // instances that no driver in the registry publishes

std::string axes_text(const StatusGroup &position) {
  constexpr const char *names[] = {"pan", "tilt", "zoom"}, *units[] = {" °", " °", " ×"};
  std::string text;
  for (std::size_t axis = 0; axis < std::size(names); ++axis) {
    text += std::string(axis > 0 ? ", " : "") + names[axis] + " " +
            tools::number_text(static_cast<double>(position.position(axis)), 2) + units[axis] + " " +
            position.status(axis);
  }
  return text;
}

void add_instance(guint instance, tools::Section &section) {
  std::vector<tools::Table> tables;
  tools::Facts facts;
  std::string trouble;
  for (const StatusKind *kind : {&position_kind, &various_kind, &limit_kind}) {
    StatusGroup group(*kind, instance);
    const Reading reading = read_group(group.name, group.values);
    if (reading == Reading::failed) trouble = group.name + " cannot be read: " + g_strerror(errno);
    if (reading != Reading::done) continue;
    tools::Table table = {"Published in " + group.name, {{"value"}, {"is", true}}, {}};
    for (const auto &value : group.values) {
      if (value.found) table.rows.push_back({{value.key}, {value.text()}});
    }
    if (!table.rows.empty()) tables.push_back(std::move(table));
    if (kind != &position_kind) continue;
    const auto publishers = publishers_of(instance);
    if (trouble.empty()) trouble = trouble_with(publishers);
    const auto age = group.age_ms();
    if (trouble.empty() && group.is_stale()) trouble = "the position is stale";
    facts.rows = {{"position", axes_text(group)},
                  {"age", age ? tools::duration_text(static_cast<double>(*age) * 1000) : "unknown"},
                  {"updates", std::to_string(group.update_rate()) + " a second"},
                  {"publisher", text_of(publishers).empty() ? "not in the registry" : text_of(publishers)}};
  }
  if (tables.empty() && trouble.empty()) return;
  section.blocks.emplace_back(tools::Heading{"Instance " + std::to_string(instance)});
  if (!trouble.empty()) {
    section.mood = Mood::bad;
    section.blocks.emplace_back(tools::Paragraph{trouble, Mood::bad});
  }
  if (!facts.rows.empty()) section.blocks.emplace_back(std::move(facts));
  for (auto &table : tables) section.blocks.emplace_back(std::move(table));
}

gint64 ns_of(const StoredTime &time) { return time.seconds * gint64{1'000'000'000} + time.fraction; }

void add_timing(const std::string &name, tools::Table &table) {
  std::vector<StoredValue> values = {{"start_time", 8, seconds_and_nanoseconds},
                                     {"start_pid", 2, integer},
                                     {"stop_time", 8, seconds_and_nanoseconds},
                                     {"stop_pid", 2, integer}};
  if (read_group(name, values) != Reading::done) return;
  const bool has_started = values[0].value.time.fraction != 0, has_stopped = values[2].value.time.fraction != 0;
  const double us = static_cast<double>(ns_of(values[2].value.time) - ns_of(values[0].value.time)) / 1000;
  table.rows.push_back({{name},
                        {!has_started  ? "not started"
                         : has_stopped ? tools::duration_text(us)
                                       : "running"},
                        {has_started ? values[1].text() : ""}});
}

void add_counter(const std::string &name, tools::Table &table) {
  std::vector<StoredValue> values = {{"counter_value", 4, integer}, {"counter_pid", 4, integer}};
  if (read_group(name, values) != Reading::done) return;
  table.rows.push_back({{name}, {std::to_string(static_cast<guint32>(values[0].value.number))}, {values[1].text()}});
}

}  // namespace

tools::Section status_section(const ReportedDrivers &drivers) {
  tools::Section section = {"status", "Status", {}};
  std::set<guint> instances;
  for (guint instance = 0; instance < looked_for; ++instance) instances.insert(instance);
  for (const auto *entry : drivers.entries) {
    if (entry->instance != 0) instances.insert(entry->instance);
  }
  for (const guint instance : instances) add_instance(instance, section);
  if (section.blocks.empty()) section.blocks.emplace_back(tools::Paragraph{"Nothing is published."});
  return section;
}

tools::Section timings_section() {
  tools::Section section = {"timings", "Timings and counters", {}};
  tools::Table table = {"Of the drivers", {{"group"}, {"value", true}, {"process", true}}, {}};
  for (const char *what : {"req", "move", "reply", "process"}) {
    for (const char *driver : {"_d1", "_d2"}) add_timing(std::string("ptzdt_driver_") + what + driver, table);
  }
  for (const char *driver : {"_d1", "_d2"}) add_counter(std::string("ptzdt_driver_commands") + driver, table);
  if (table.rows.empty()) {
    section.blocks.emplace_back(tools::Paragraph{"No driver measures or counts."});
  } else {
    section.blocks.emplace_back(std::move(table));
  }
  return section;
}

}  // namespace ptzctl
