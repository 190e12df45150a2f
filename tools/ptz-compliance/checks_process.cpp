// The driver as a process: its socket, its idle hours, its end and its return.
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstring>
#include <ctime>

#include "head.h"

namespace compliance {

namespace {

constexpr gulong between_looks_us = 5'000;
constexpr int looks_while_idle = 40;
constexpr double idle_limit = 0.15;  // of a processor

void permissions(Probe &probe) {
  struct stat entry {};
  if (stat(probe.subject().path().c_str(), &entry) != 0) return probe.fail("there is no socket at the path");
  const unsigned mode = entry.st_mode & 0777;
  probe.fail_unless((mode & 0666) == 0666, "the socket has the mode %04o: a daemon of another user cannot connect",
                    mode);
}

// What a process has had of the processors; -1 if that cannot be seen.
gint64 processor_time_us(pid_t process) {
  clockid_t clock = 0;
  timespec time{};
  if (clock_getcpuclockid(process, &clock) != 0 || clock_gettime(clock, &time) != 0) return -1;
  return gint64{time.tv_sec} * G_USEC_PER_SEC + time.tv_nsec / 1000;
}

// Its main thread runs, or would run if a processor were free.
bool is_runnable(pid_t process) {
  Text text;
  const std::string file = "/proc/" + std::to_string(process) + "/stat";
  if (!g_file_get_contents(file.c_str(), tools::out(text), nullptr, nullptr)) return false;
  const char *const name_end = std::strrchr(text.get(), ')');
  return name_end != nullptr && std::strncmp(name_end, ") R", 3) == 0;
}

// On a machine that is busy itself, a busy wait has little of the processors, but is always seen waiting for them.
void idle(Probe &probe) {
  Link link = probe.connect();
  link.ask(harmless_request());
  const pid_t process = Subject::listener(link.fd());
  const gint64 before_us = processor_time_us(process);
  if (before_us < 0) return probe.not_applicable("", "the driver's processor time cannot be seen by this user");
  const gint64 start = g_get_monotonic_time();
  int runnable = 0;
  for (int look = 0; look < looks_while_idle; ++look) {
    g_usleep(between_looks_us);
    runnable += is_runnable(process) ? 1 : 0;
  }
  const double taken_us = static_cast<double>(processor_time_us(process) - before_us);
  const double share = taken_us / static_cast<double>(g_get_monotonic_time() - start);
  probe.fail_unless(share <= idle_limit && runnable <= looks_while_idle / 2,
                    "without a request, the driver takes %.0f %% of a processor, and runs at %d of %d looks",
                    share * 100, runnable, looks_while_idle);
  probe.note("%.1f %% of a processor", share * 100);
}

// A driver that has only just begun to listen need not be ready for signals yet.
void wait_until_ready(Probe &probe) { probe.connect().ask(harmless_request()); }

bool can_be_ended(Probe &probe) {
  if (!probe.subject().started_by_us()) probe.not_applicable("", "the driver was not started by this tool");
  return !probe.decided();
}

// The wait status of a driver that ends on SIGTERM.
std::optional<int> terminate(Probe &probe) {
  if (!can_be_ended(probe)) return std::nullopt;
  probe.subject().signal(SIGTERM);
  return probe.subject().wait(probe.timeout_ms());
}

void expect_end(Probe &probe, const char *when) {
  const gint64 start = g_get_monotonic_time();
  const auto status = terminate(probe);
  probe.fail_unless(status.has_value(), "the driver still runs %d ms after SIGTERM%s", probe.timeout_ms(), when);
  probe.note("within %.0f ms", static_cast<double>(g_get_monotonic_time() - start) / 1000);
}

void sigterm(Probe &probe) {
  wait_until_ready(probe);
  expect_end(probe, "");
}

void sigterm_with_clients(Probe &probe) {
  Link idle = probe.connect();
  Link half = probe.connect();
  idle.ask(harmless_request());
  half.send(header(20, probe.new_id()));
  expect_end(probe, " while clients are connected");
}

void sigterm_while_moving(Probe &probe) {
  {
    Head head(probe);
    const AxisIndex axis = head.axis_for(PTZ_MOVE_CONTINUOUS);
    head.make_room(axis);
    head.order(head.run_slowly(axis, 1));
  }
  expect_end(probe, " while the head moves");
}

void sigterm_status(Probe &probe) {
  wait_until_ready(probe);
  const auto status = terminate(probe);
  if (!status) return probe.not_applicable("", "the driver does not end on SIGTERM");
  probe.fail_unless(WIFEXITED(*status) && WEXITSTATUS(*status) == 0, "on SIGTERM the driver %s",
                    describe_end(*status).c_str());
}

void sigterm_removes_socket(Probe &probe) {
  wait_until_ready(probe);
  if (!terminate(probe)) return probe.not_applicable("", "the driver does not end on SIGTERM");
  struct stat entry {};
  probe.fail_unless(lstat(probe.subject().path().c_str(), &entry) != 0, "the driver leaves its socket behind");
}

void restart_same_socket(Probe &probe) {
  if (!can_be_ended(probe)) return;
  probe.subject().kill();
  if (const auto reason = probe.subject().start()) return probe.fail("after it was killed, %s", reason->c_str());
  probe.connect().ask(harmless_request());
}

constexpr Check socket_rows[] = {
    {"socket.permissions", "every user may connect to the socket", permissions},
    {"process.idle", "a driver without requests takes no processor time", idle},
};
constexpr Check process_rows[] = {
    {"process.sigterm", "SIGTERM ends the driver", sigterm},
    {"process.sigterm-with-clients", "SIGTERM ends the driver while clients are connected", sigterm_with_clients},
    {"process.sigterm-while-moving", "SIGTERM ends the driver while the head moves", sigterm_while_moving},
    {"process.sigterm-status", "a driver that SIGTERM ends has the exit status 0", sigterm_status},
    {"process.sigterm-removes-socket", "a driver that SIGTERM ends removes its socket", sigterm_removes_socket},
    {"process.restart-same-socket", "a driver that was killed can be started again on the same path",
     restart_same_socket},
};

}  // namespace

const Checks socket_checks(socket_rows);
const Checks process_checks(process_rows);

}  // namespace compliance
