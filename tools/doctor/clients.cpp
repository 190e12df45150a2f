// The clients of a driver, from the driver's own figures: floods, refused requests, replies that cannot be sent.
#include <ptz_kit_monitor.h>

#include <map>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr guint sample_ms = 500;
constexpr double flood_per_s = 300;
constexpr double most_errors_per_s = 5;

struct Counters {
  guint64 requests = 0, errors = 0, unsent = 0, timeouts = 0;
  gint32 pid = 0;
  std::string program;
};

struct Figures {
  Counters all;
  std::map<guint32, Counters> clients;
  gint64 now_us = 0;
};

Counters counters_of(GVariant *dictionary) {
  Counters counters;
  const char *program = "";
  g_variant_lookup(dictionary, "requests", "t", &counters.requests);
  g_variant_lookup(dictionary, "errors", "t", &counters.errors);
  g_variant_lookup(dictionary, "unsent-replies", "t", &counters.unsent);
  g_variant_lookup(dictionary, "timeouts", "t", &counters.timeouts);
  g_variant_lookup(dictionary, "pid", "i", &counters.pid);
  g_variant_lookup(dictionary, "program", "&s", &program);
  counters.program = tools::plain_text(program);
  return counters;
}

Figures figures_of(GVariant *dictionary) {
  Figures figures;
  figures.all = counters_of(dictionary);
  g_variant_lookup(dictionary, "now", "x", &figures.now_us);
  const tools::Variant clients(g_variant_lookup_value(dictionary, "clients", G_VARIANT_TYPE("aa{sv}")));
  for (gsize i = 0; clients != nullptr && i < g_variant_n_children(clients.get()); ++i) {
    const tools::Variant client(g_variant_get_child_value(clients.get(), i));
    guint32 number = 0;
    if (g_variant_lookup(client.get(), "client", "u", &number) != FALSE)
      figures.clients[number] = counters_of(client.get());
  }
  return figures;
}

std::string command_that_ends(pid_t pid) {
  const std::string unit = unit_of(pid);
  const auto facts = facts_of(pid);
  return !unit.empty() && facts && facts->parent == 1 ? "systemctl restart " + quoted(unit)
                                                      : "kill " + std::to_string(pid);
}

void compare(const Driver &driver, const Figures &first, const Figures &second, Findings &findings) {
  const double elapsed_s = static_cast<double>(second.now_us - first.now_us) / G_USEC_PER_SEC;
  if (elapsed_s <= 0) return;
  for (const auto &[number, now] : second.clients) {
    const auto found = first.clients.find(number);
    const Counters before = found != first.clients.end() ? found->second : Counters{};
    const double requests_per_s = static_cast<double>(now.requests - before.requests) / elapsed_s;
    const double errors_per_s = static_cast<double>(now.errors - before.errors) / elapsed_s;
    const std::string who = "Process " + name_of_process(now.pid) + ", " + now.program + ", ";
    if (requests_per_s >= flood_per_s) {
      findings.warning({.id = "clients.flood",
                        .subject = driver.label(),
                        .what = who + format("sends %.0f requests a second.", requests_per_s),
                        .why = "The driver and the other clients wait for it. The status store gives positions without "
                               "a request.",
                        .command = command_that_ends(now.pid)});
    } else if (errors_per_s >= most_errors_per_s) {
      findings.warning({.id = "clients.errors",
                        .subject = driver.label(),
                        .what = who + format("has %.0f requests a second refused.", errors_per_s),
                        .why = "It asks for what the driver does not do, again and again.",
                        .command = "ptzctl tap --errors --socket " + quoted(driver.socket)});
    }
    if (now.unsent > before.unsent) {
      findings.warning({.id = "clients.unsent-replies",
                        .subject = driver.label(),
                        .what = who + "does not read its replies.",
                        .why = "The driver drops them; the client waits for them.",
                        .command = command_that_ends(now.pid)});
    }
  }
  if (second.all.timeouts == first.all.timeouts) return;
  findings.warning({.id = "clients.timeouts",
                    .subject = driver.label(),
                    .what = "Requests have met the driver's own deadline.",
                    .why = "Its device does not answer.",
                    .command = "ptzctl tap --errors --socket " + quoted(driver.socket)});
}

}  // namespace

void examine_clients(const Surroundings &system, const Driver &driver, Findings &findings) {
  if (!driver.runs() || is_halted(driver.pid)) return;
  const tools::Object<PTZKitMonitor> monitor(ptz_kit_monitor_new(driver.socket.c_str()));
  tools::Error error;
  if (ptz_kit_monitor_open(monitor.get(), tools::out(error)) == FALSE) {
    findings.note(
        {.id = "clients.no-monitor",
         .subject = driver.label(),
         .what = "The driver has no monitor socket that can be used: " + tools::plain_text(error->message) + ".",
         .why = "Its clients were not examined. Drivers that are written without the kit have none.",
         .command = ""});
    return;
  }
  const auto figures = [&] {
    return tools::Variant(ptz_kit_monitor_get_figures(monitor.get(), system.timeout_ms, nullptr, tools::out(error)));
  };
  const tools::Variant first = figures();
  if (first == nullptr) return;  // the examination of the handshake tells that the driver hangs
  g_usleep(sample_ms * 1000);
  const tools::Variant second = figures();
  if (second != nullptr) compare(driver, figures_of(first.get()), figures_of(second.get()), findings);
}

}  // namespace ptzctl
