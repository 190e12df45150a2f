// The conversation with a driver: its name, capabilities and protocol version, and how long it takes.
#include <ptz_enum_types.h>
#include <ptz_kit_link.h>
#include <ptz_kit_link_calls.h>

#include <algorithm>
#include <vector>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "doctor/socket_probe.h"
#include "plain_text.h"

namespace ptzctl {

namespace {

constexpr int requests = 21;
constexpr gulong second_look_us = 300'000;
constexpr double slow_us = 50'000;
constexpr double noticeable_us = 2'000;
constexpr double slower_than_others = 10;

using Position = tools::Handle<PTZKitQueryPositionReply, ptz_kit_query_position_reply_free>;
using Name = tools::Handle<PTZKitGetDriverNameReply, ptz_kit_get_driver_name_reply_free>;

void report_failure(const Driver &driver, const GError &error, guint timeout_ms, Findings &findings) {
  const bool is_late = g_error_matches(&error, PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT);
  if (is_late) {
    findings.fault(
        {.id = "handshake.no-answer",
         .subject = driver.label(),
         .what = format("The driver did not answer within %u ms.", timeout_ms),
         .why = "Its main loop is stuck. A debugger tells where: gdb --pid " + std::to_string(driver.pid) + ".",
         .command = restart_command(driver)});
  } else {
    findings.fault({.id = "handshake.failed",
                    .subject = driver.label(),
                    .what = "The driver does not answer as one: " + tools::plain_text(error.message) + ".",
                    .why = "Another program listens there, or the driver is damaged.",
                    .command = "ptz-compliance --only replies --socket " + quoted(driver.socket)});
  }
}

// Null if the driver cannot be asked; findings tell why.
tools::Object<PTZKitLink> connected_link(const Surroundings &system, const Driver &driver, Findings &findings) {
  tools::Object<PTZKitLink> link(PTZ_KIT_LINK(g_object_new(PTZ_KIT_TYPE_LINK, "socket-path", driver.socket.c_str(),
                                                           "handshake-deadline", system.timeout_ms, nullptr)));
  ptz_kit_link_open(link.get());
  const gint64 end_us = g_get_monotonic_time() + gint64{system.timeout_ms} * 1000;
  // The first failure tells the reason; the link itself would try again.
  while (ptz_kit_link_get_state(link.get()) == PTZ_KIT_LINK_STATE_CONNECTING && g_get_monotonic_time() < end_us) {
    if (g_main_context_iteration(nullptr, FALSE) == FALSE) g_usleep(500);
  }
  if (ptz_kit_link_get_state(link.get()) == PTZ_KIT_LINK_STATE_READY) return link;
  tools::Error error;
  if (g_get_monotonic_time() >= end_us) {
    g_set_error_literal(tools::out(error), PTZ_KIT_ERROR, PTZ_KIT_ERROR_TIMED_OUT, "");
    report_failure(driver, *error, system.timeout_ms, findings);
    return nullptr;
  }
  if (ptz_kit_link_wait_ready(link.get(), 1, tools::out(error)) != FALSE) return link;
  const tools::Error reason(g_error_new_literal(PTZ_KIT_ERROR, PTZ_KIT_ERROR_LOST, error->message));
  report_failure(driver, *reason, system.timeout_ms, findings);
  return nullptr;
}

void check_name(PTZKitLink *link, const Driver &driver, Findings &findings) {
  const tools::Text name(ptz_kit_link_dup_driver_name(link));
  if (!driver.is_registered || driver.name == name.get()) return;
  findings.warning({.id = "handshake.other-name",
                    .subject = driver.label(),
                    .what = "The driver at " + driver.socket + " calls itself '" + tools::plain_text(name.get()) + "'.",
                    .why = "Its entry has another name: another driver may have taken the path.",
                    .command = restart_command(driver)});
}

void check_version(PTZKitLink *link, const Driver &driver, Findings &findings) {
  const guint version = ptz_kit_link_get_protocol_version(link);
  constexpr guint known = PTZ_PROTOCOL_VERSION_PROTOCOL_VERSION_LAST;
  if (version <= known) return;
  findings.warning(
      {.id = "handshake.protocol-version",
       .subject = driver.label(),
       .what = format("The driver speaks version %u of the protocol, and this release knows %u.", version, known),
       .why = "Daemons of this release may not understand it.",
       .command = "apt policy ptznimbo-tools libptznimbo-kit0"});
}

void measure(PTZKitLink *link, const Surroundings &system, const Driver &driver, Findings &findings) {
  std::vector<double> latencies_us;
  const gint64 end_us = g_get_monotonic_time() + gint64{system.timeout_ms} * 1000;
  for (int i = 0; i < requests && g_get_monotonic_time() < end_us; ++i) {
    tools::Error error;
    const gint64 start_us = g_get_monotonic_time();
    const Name reply(ptz_kit_link_get_driver_name(link, system.timeout_ms, nullptr, tools::out(error)));
    if (error != nullptr) return report_failure(driver, *error, system.timeout_ms, findings);
    latencies_us.push_back(static_cast<double>(g_get_monotonic_time() - start_us));
  }
  if (latencies_us.empty()) return;
  std::ranges::sort(latencies_us);
  const double median_us = latencies_us[latencies_us.size() / 2];
  findings.figure(driver.label(), median_us);
  if (median_us < slow_us) return;
  findings.warning({.id = "handshake.slow",
                    .subject = driver.label(),
                    .what = format("The driver takes %.0f ms for a request that costs no work.", median_us / 1000),
                    .why = "It waits for its device within the main loop, it is flooded, or the processor is busy. "
                           "Every client waits as long.",
                    .command = "ptzctl top"});
}

// Whether the driver says that its device does not answer.
bool is_device_lost(PTZKitLink *link, const Surroundings &system, std::string &message) {
  tools::Error error;
  const Position reply(ptz_kit_link_query_position(link, system.timeout_ms, nullptr, tools::out(error)));
  if (!g_error_matches(error.get(), PTZ_KIT_REFUSAL, PTZ_KIT_ERROR_CODE_DEVICE)) return false;
  message = tools::plain_text(error->message);
  return true;
}

void check_device(PTZKitLink *link, const Surroundings &system, const Driver &driver, Findings &findings) {
  std::string message;
  if (!is_device_lost(link, system, message)) return;
  g_usleep(second_look_us);  // one answer may be lost on the line
  if (!is_device_lost(link, system, message)) return;
  findings.fault({.id = "handshake.no-device",
                  .subject = driver.label(),
                  .what = "The driver runs, and its device does not answer: " + message + ".",
                  .why = "The head does not obey, and a position that is still published is of the past. Look whether "
                         "the camera is switched on, at its cable, and at the address that the driver was given.",
                  .command = ""});
}

}  // namespace

void examine_handshake(const Surroundings &system, const Driver &driver, Findings &findings) {
  if (!driver.runs() || is_halted(driver.pid) || !is_listened_on(driver.socket)) return;  // other findings tell
  const auto link = connected_link(system, driver, findings);
  if (link == nullptr) return;
  check_name(link.get(), driver, findings);
  check_version(link.get(), driver, findings);
  measure(link.get(), system, driver, findings);
  check_device(link.get(), system, driver, findings);
}

void compare_latencies(Findings &findings) {
  const auto figures = findings.figures();
  for (const auto &[label, latency_us] : figures) {
    std::vector<double> others;
    for (const auto &[other, value] : figures) {
      if (other != label) others.push_back(value);
    }
    if (others.empty()) continue;
    std::ranges::sort(others);
    const double usual_us = others[others.size() / 2];
    if (latency_us < noticeable_us || latency_us >= slow_us || latency_us < slower_than_others * usual_us) continue;
    findings.warning({.id = "handshake.slower-than-others",
                      .subject = label,
                      .what = format("The driver takes %.1f ms for a request, and the others %.1f ms.",
                                     latency_us / 1000, usual_us / 1000),
                      .why = "It waits for its device within the main loop, or it is flooded.",
                      .command = "ptzctl top"});
  }
}

}  // namespace ptzctl
