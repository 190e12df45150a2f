// The process of a driver.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "doctor/examinations.h"
#include "doctor/process_facts.h"
#include "doctor/shell_text.h"

namespace ptzctl {

namespace {

constexpr guint sample_ms = 400;
constexpr double busy_share = 0.9;
constexpr double least_share = 0.05;
constexpr std::size_t reserved_descriptors = 8;  // a server of the library accepts no client with fewer

// A parent that works collects the exit status at once: a zombie is one that is seen twice.
std::optional<ProcessFacts> zombie_facts(pid_t pid) {
  auto facts = facts_of(pid);
  if (!facts || !facts->is_ending) return std::nullopt;
  const double start_s = facts->start_s;
  g_usleep(sample_ms * 1000);
  facts = facts_of(pid);
  return facts && facts->state == 'Z' && facts->start_s == start_s ? facts : std::nullopt;
}

void report_dead(const Surroundings &system, const Driver &driver, Findings &findings) {
  const auto facts = zombie_facts(driver.pid);
  const std::string pid = std::to_string(driver.pid);
  if (facts) {
    const bool is_init = facts->parent <= 1;
    findings.fault({.id = "process.zombie",
                    .subject = driver.label(),
                    .what = "Process " + pid + " has ended and is a zombie: its parent, process " +
                            name_of_process(facts->parent) + ", has not collected its exit status.",
                    .why = "The parent does not notice that the driver has ended, and does not start it again. If the "
                           "parent ends, the zombie goes.",
                    .command = is_init ? "" : "kill " + std::to_string(facts->parent)});
  }
  const std::string command = start_command(driver, system.timeout_ms);
  findings.fault({.id = "process.dead",
                  .subject = driver.label(),
                  .what = "The driver was killed: process " + pid + " has ended and has left its entry" +
                          (access(driver.socket.c_str(), F_OK) == 0 ? " and its socket " + driver.socket + "." : "."),
                  .why = std::string("Clients are refused, and the status that it has published is of the past. The "
                                     "system log may tell why it was killed.") +
                         (command.empty() ? " No unit is known, nor the options that it had: start " + driver.program +
                                                " as it was started before."
                                          : ""),
                  .command = command});
}

void report_state(const Driver &driver, const ProcessFacts &facts, Findings &findings) {
  const std::string pid = std::to_string(driver.pid);
  if (facts.state == 't' || (facts.state == 'T' && facts.tracer != 0)) {
    findings.fault(
        {.id = "process.traced",
         .subject = driver.label(),
         .what = "Process " + pid + " is stopped by a debugger, process " + name_of_process(facts.tracer) + ".",
         .why = "It answers nothing until the debugger lets it go on.",
         .command = "kill " + std::to_string(facts.tracer)});
  } else if (facts.state == 'T') {
    findings.fault({.id = "process.stopped",
                    .subject = driver.label(),
                    .what = "Process " + pid + " is stopped, by SIGSTOP or by a terminal.",
                    .why = "It answers nothing and publishes nothing until it is continued.",
                    .command = "kill -CONT " + pid});
  } else if (facts.tracer != 0) {
    findings.note(
        {.id = "process.watched",
         .subject = driver.label(),
         .what = "A debugger is attached to process " + pid + ": process " + name_of_process(facts.tracer) + ".",
         .why = "It slows the driver down.",
         .command = ""});
  }
}

void report_program(const Driver &driver, Findings &findings) {
  const std::string program = target_of("/proc/" + std::to_string(driver.pid) + "/exe");
  constexpr std::string_view deleted = " (deleted)";
  if (program.empty() && !is_gone(driver.pid)) {
    findings.note({.id = "process.hidden",
                   .subject = driver.label(),
                   .what = "The program of process " + std::to_string(driver.pid) + " cannot be seen by this user.",
                   .why = std::string("Its descriptors and its program were not examined.") +
                          (geteuid() != 0 ? " Run the doctor as root." : ""),
                   .command = ""});
  } else if (program.ends_with(deleted)) {
    findings.note(
        {.id = "process.old-program",
         .subject = driver.label(),
         .what = program.substr(0, program.size() - deleted.size()) + " was replaced since the driver started.",
         .why = "The driver runs the old program until it is restarted.",
         .command = restart_command(driver)});
  } else if (!driver.program.empty() && program != driver.program) {
    findings.warning(
        {.id = "process.other-program",
         .subject = driver.label(),
         .what = "Process " + std::to_string(driver.pid) + " runs " + program + ", and its entry names " +
                 driver.program + ".",
         .why = "Another program has the number of the driver's process, or the driver has replaced itself.",
         .command = "ptzctl driver info --socket " + quoted(driver.socket)});
  }
}

// The clock of the entry may have been set since, as at the first start of a camera: this is no more than a note.
void report_start_time(const Driver &driver, const ProcessFacts &facts, Findings &findings) {
  constexpr double tolerance_s = 5;
  timespec up = {};
  clock_gettime(CLOCK_BOOTTIME, &up);
  const double age_s = static_cast<double>(up.tv_sec) - facts.start_s;
  const double entry_age_s = static_cast<double>(g_get_real_time() - driver.since_us) / G_USEC_PER_SEC;
  if (!driver.is_registered || entry_age_s - age_s < tolerance_s) return;
  findings.note(
      {.id = "process.start-time",
       .subject = driver.label(),
       .what = format("Process %d was started %.0f s after its entry was made.", driver.pid, entry_age_s - age_s),
       .why = "Another program has the number of the driver's process, or the clock was set since.",
       .command = ""});
}

struct FileLimit {
  guint64 soft = 0, hard = 0;  // 0 if they are not known; "unlimited" is read as 0, too
};

FileLimit file_limit(pid_t pid) {
  const std::string limits = beginning_of("/proc/" + std::to_string(pid) + "/limits");
  constexpr char name[] = "Max open files";
  const auto at = limits.find(name);
  if (at == std::string::npos) return {};
  char *end = nullptr;
  const guint64 soft = g_ascii_strtoull(limits.c_str() + at + std::strlen(name), &end, 10);
  return {soft, g_ascii_strtoull(end, nullptr, 10)};
}

void report_descriptors(const Driver &driver, Findings &findings) {
  const std::string folder = "/proc/" + std::to_string(driver.pid) + "/fd";
  if (access(folder.c_str(), R_OK | X_OK) != 0) return;
  const auto used = names_in(folder).size();
  const auto [limit, hard_limit] = file_limit(driver.pid);
  if (limit == 0 || (used * 10 < limit * 8 && used + reserved_descriptors < limit)) return;
  const bool is_full = used + reserved_descriptors >= limit;
  Finding finding = {
      .id = is_full ? "process.descriptors-used-up" : "process.descriptors",
      .subject = driver.label(),
      .what = format("Process %d has %zu open files of at most %" G_GUINT64_FORMAT ".", driver.pid, used, limit),
      .why =
          "Each client takes a descriptor, and a few are kept in reserve. At the limit the driver "
          "closes further connections. LimitNOFILE= in its unit makes a higher limit last."};
  // The hard limit is raised only if it is in the way.
  const guint64 enough = 4 * limit;
  const std::string hard = hard_limit != 0 && hard_limit < enough ? std::to_string(enough) : "";
  finding.command = format("prlimit --pid %d --nofile=%" G_GUINT64_FORMAT ":%s", driver.pid, enough, hard.c_str());
  is_full ? findings.fault(std::move(finding)) : findings.warning(std::move(finding));
}

// Two looks at the process: a short sleep or a burst of work is no fault.
void report_activity(const Driver &driver, const ProcessFacts &first, Findings &findings) {
  const gint64 start_us = g_get_monotonic_time();
  g_usleep(sample_ms * 1000);
  const auto second = facts_of(driver.pid);
  if (!second || second->start_s != first.start_s) return;
  const double elapsed_s = static_cast<double>(g_get_monotonic_time() - start_us) / G_USEC_PER_SEC;
  const double share = (second->cpu_s - first.cpu_s) / elapsed_s;
  // On a machine with more to do than it can, a loop without end gets a part of a processor only.
  const double runnable = (second->runnable_s - first.runnable_s) / elapsed_s;
  const bool is_busy = share >= busy_share || (share >= least_share && runnable >= busy_share);
  if (first.state == 'D' && second->state == 'D') {
    const std::string place = beginning_of("/proc/" + std::to_string(driver.pid) + "/wchan");
    findings.fault({.id = "process.uninterruptible",
                    .subject = driver.label(),
                    .what = format("Process %d waits in the kernel%s%s and cannot be interrupted.", driver.pid,
                                   place.empty() || place == "0" ? "" : ", in ", place == "0" ? "" : place.c_str()),
                    .why = "A device, a disk or a network file system does not answer. No signal ends the process.",
                    .command = "dmesg --level=err,warn | tail --lines=20"});
  } else if (is_busy) {
    findings.warning(
        {.id = "process.busy",
         .subject = driver.label(),
         .what = format("Process %d is never idle; it uses %.0f %% of a processor.", driver.pid, share * 100),
         .why = "A client floods it, or it is in a loop that does not end: it answers late or never.",
         .command = restart_command(driver)});
  }
}

// The doctor has waited for a process that was ending.
void report_missing(const Driver &driver, Findings &findings) {
  findings.warning(
      {.id = "process.missing",
       .subject = driver.label(),
       .what = "There is no process " + std::to_string(driver.pid) + ", and the lock of its entry is held.",
       .why = "A child of the driver has outlived it, or the driver runs in a container with process "
              "numbers of its own. lslocks names the holder of the lock.",
       .command = ""});
}

}  // namespace

void examine_process(const Surroundings &system, const Driver &driver, Findings &findings) {
  if (!driver.runs()) return report_dead(system, driver, findings);
  if (driver.pid == 0 && !driver.is_registered) return;  // nothing listens, which the examination of the socket tells
  const auto facts = facts_of(driver.pid);
  if (!facts || facts->is_ending) return report_missing(driver, findings);
  report_state(driver, *facts, findings);
  report_program(driver, findings);
  report_start_time(driver, *facts, findings);
  report_descriptors(driver, findings);
  report_activity(driver, *facts, findings);
}

}  // namespace ptzctl
