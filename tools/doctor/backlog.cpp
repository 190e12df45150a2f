// Connections that wait to be accepted.
#include <cerrno>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"
#include "doctor/socket_probe.h"

namespace ptzctl {

void examine_backlog(const Surroundings &, const Driver &driver, Findings &findings) {
  if (!driver.runs()) return;
  const auto backlog = backlog_of(driver.socket);
  // A connection is tried only if the kernel does not tell: it would wait in the backlog, too.
  const bool is_probed = !backlog && !is_halted(driver.pid);
  const bool is_full = backlog ? backlog->waiting > backlog->most : is_probed && probe(driver.socket).error == EAGAIN;
  const bool is_long = backlog && backlog->waiting > backlog->most / 2;
  if (!is_full && !is_long) return;
  const std::string numbers = backlog ? format("%u connections wait to be accepted at %s, which takes %u.",
                                               backlog->waiting, driver.socket.c_str(), backlog->most)
                                      : "The backlog of " + driver.socket + " is full.";
  Finding finding = {.id = is_full ? "socket.backlog-full" : "socket.backlog",
                     .subject = driver.label(),
                     .what = numbers,
                     .why = is_full ? "The driver accepts no connection: further clients fail at once or wait without "
                                      "end. It hangs, or is out of descriptors."
                                    : "The driver is slow to accept connections.",
                     .command = restart_command(driver)};
  is_full ? findings.fault(std::move(finding)) : findings.warning(std::move(finding));
}

}  // namespace ptzctl
