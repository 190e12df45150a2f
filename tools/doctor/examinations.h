// tools/doctor/examinations.h - the examinations, each in a file of its own.
#pragma once
#include "doctor/finding.h"

namespace ptzctl {

// Finds the drivers, which it adds to the findings.
void examine_registry(const Surroundings &system, Findings &findings);
// Adds the drivers of the system that have ended, were started again or have lost their path since.
void find_changed_drivers(const Surroundings &system, Findings &findings);

// Of one driver.
void examine_process(const Surroundings &system, const Driver &driver, Findings &findings);
void examine_socket_path(const Surroundings &system, const Driver &driver, Findings &findings);
void examine_backlog(const Surroundings &system, const Driver &driver, Findings &findings);
void examine_handshake(const Surroundings &system, const Driver &driver, Findings &findings);
void examine_clients(const Surroundings &system, const Driver &driver, Findings &findings);
void examine_settings(const Surroundings &system, const Driver &driver, Findings &findings);

// Of the whole system.
void examine_status(const Surroundings &system, Findings &findings);
void examine_timings(const Surroundings &system, Findings &findings);
void examine_parameters(const Surroundings &system, Findings &findings);
void examine_free_space(const Surroundings &system, Findings &findings);
void examine_units(const Surroundings &system, Findings &findings);
void examine_bus(const Surroundings &system, Findings &findings);

// The figure of examine_handshake(): the median latency in microseconds, by the driver's label.
void compare_latencies(Findings &findings);

}  // namespace ptzctl
