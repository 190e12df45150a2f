#include "doctor/supervision.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace ptzctl {

namespace {

constexpr std::size_t most_at_once = 64;
constexpr std::size_t most_output = 64 * 1024;

gint64 now_ms() { return g_get_monotonic_time() / 1000; }

void write_all(int fd, GBytes *bytes) {
  gsize size = 0;
  const auto *data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  while (size > 0) {
    const ssize_t count = write(fd, data, size);
    if (count < 0 && errno != EINTR) return;
    if (count <= 0) continue;
    data += count;
    size -= static_cast<gsize>(count);
  }
}

struct Child {
  const Job *job;
  Findings *result;
  pid_t pid;
  tools::UniqueFd pipe;
  gint64 deadline_ms;
  std::string received;
};

// The group is killed with the child, so that no program that it has started is left behind.
void kill_group(pid_t pid) {
  kill(-pid, SIGKILL);
  kill(pid, SIGKILL);
}

[[noreturn]] void run_in_child(const Job &job, int pipe) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Findings findings;
  job.examine(findings);
  write_all(pipe, findings.serialized().get());
  _exit(0);
}

void add_failure(const Job &job, bool is_late, guint deadline_ms, Findings &findings) {
  const std::string of = job.subject.empty() ? "" : " of " + job.subject;
  if (is_late) {
    findings.fault({.id = "doctor.no-answer",
                    .subject = job.subject,
                    .what = format("The examination of the %s%s did not end within %u ms.", job.name.c_str(),
                                   of.c_str(), deadline_ms),
                    .why = "A file system, a service or a device that it looked at does not answer. A driver that "
                           "uses it hangs, too.",
                    .command = "dmesg --level=err,warn | tail --lines=20"});
    return;
  }
  findings.warning({.id = "doctor.failed",
                    .subject = job.subject,
                    .what = format("The examination of the %s%s ended without a result.", job.name.c_str(), of.c_str()),
                    .why = "Faults of this kind are not seen.",
                    .command = ""});
}

// Collects the exit status. A process in an uninterruptible sleep stays behind; it is not waited for.
void bury(const Child &child) {
  constexpr int attempts = 20;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (waitpid(child.pid, nullptr, WNOHANG) != 0) return;
    g_usleep(1000);
  }
}

std::optional<Child> start(const Job &job, Findings &result, guint deadline_ms) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  tools::UniqueFd reading(ends[0]);
  const tools::UniqueFd writing(ends[1]);
  const pid_t pid = fork();
  if (pid < 0) return std::nullopt;
  if (pid == 0) run_in_child(job, writing.get());
  return Child{&job, &result, pid, std::move(reading), now_ms() + deadline_ms, {}};
}

// True at the end of the pipe.
bool receive(Child &child) {
  char buffer[4096];
  const ssize_t count = read(child.pipe.get(), buffer, sizeof buffer);
  if (count > 0) child.received.append(buffer, static_cast<std::size_t>(count));
  return count == 0 || (count < 0 && errno != EINTR);
}

void finish(Child &child, bool is_late, guint deadline_ms) {
  if (is_late) kill_group(child.pid);
  bury(child);
  const tools::Bytes bytes(g_bytes_new(child.received.data(), child.received.size()));
  if (is_late || !child.result->add_serialized(bytes.get()))
    add_failure(*child.job, is_late, deadline_ms, *child.result);
}

void wait_for_some(std::vector<Child> &children, guint deadline_ms) {
  std::vector<pollfd> files;
  gint64 next_ms = children.front().deadline_ms;
  for (const auto &each : children) {
    files.push_back({each.pipe.get(), POLLIN, 0});
    next_ms = std::min(next_ms, each.deadline_ms);
  }
  poll(files.data(), files.size(), static_cast<int>(std::max(gint64{0}, next_ms - now_ms())));
  for (std::size_t i = children.size(); i-- > 0;) {
    Child &child = children[i];
    const bool is_done = files[i].revents != 0 && receive(child);
    const bool is_late = !is_done && now_ms() >= child.deadline_ms;
    if (!is_done && !is_late) continue;
    finish(child, is_late, deadline_ms);
    children.erase(children.begin() + static_cast<std::ptrdiff_t>(i));
  }
}

[[noreturn]] void become(const std::vector<std::string> &arguments, const RunAs &as, pid_t parent, int output) {
  setpgid(0, 0);
  std::vector<char *> words, environment;
  for (const auto &each : arguments) words.push_back(const_cast<char *>(each.c_str()));
  words.push_back(nullptr);
  const std::string path = std::string("PATH=") + (g_getenv("PATH") != nullptr ? g_getenv("PATH") : "/usr/bin:/bin");
  environment.push_back(const_cast<char *>(path.c_str()));
  environment.push_back(const_cast<char *>("LC_ALL=C"));
  for (const auto &each : as.environment) environment.push_back(const_cast<char *>(each.c_str()));
  environment.push_back(nullptr);
  const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (dup2(nothing, STDIN_FILENO) < 0 || dup2(output, STDOUT_FILENO) < 0 || dup2(output, STDERR_FILENO) < 0) _exit(127);
  if (as.uid && (setgroups(as.groups.size(), as.groups.data()) != 0 || setresgid(as.gid, as.gid, as.gid) != 0 ||
                 setresuid(*as.uid, *as.uid, *as.uid) != 0)) {
    _exit(127);
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a change of user clears it
  if (getppid() != parent) _exit(127);
  if (!as.folder.empty() && chdir(as.folder.c_str()) != 0) _exit(127);
  execvpe(words.front(), words.data(), environment.data());
  _exit(127);
}

}  // namespace

void run_jobs(const std::vector<Job> &jobs, guint deadline_ms, Findings &findings) {
  std::vector<Findings> results(jobs.size());
  std::vector<Child> running;
  std::size_t next = 0;
  while (next < jobs.size() || !running.empty()) {
    for (; next < jobs.size() && running.size() < most_at_once; ++next) {
      if (auto child = start(jobs[next], results[next], deadline_ms)) {
        running.push_back(std::move(*child));
      } else {
        add_failure(jobs[next], false, deadline_ms, results[next]);
      }
    }
    if (!running.empty()) wait_for_some(running, deadline_ms);
  }
  for (auto &each : results) findings.append(std::move(each));
}

ProgramResult run_program(const std::vector<std::string> &arguments, guint deadline_ms, const RunAs &as) {
  ProgramResult result;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return result;
  tools::UniqueFd reading(ends[0]), writing(ends[1]);
  const pid_t parent = getpid(), pid = fork();
  if (pid == 0) become(arguments, as, parent, writing.get());
  writing = tools::UniqueFd();
  if (pid < 0) return result;
  const gint64 end_ms = now_ms() + deadline_ms;
  bool is_open = true;
  while (is_open && now_ms() < end_ms) {
    pollfd file = {reading.get(), POLLIN, 0};
    if (poll(&file, 1, static_cast<int>(end_ms - now_ms())) <= 0) continue;
    char buffer[4096];
    const ssize_t count = read(reading.get(), buffer, sizeof buffer);
    is_open = count > 0 || (count < 0 && errno == EINTR);
    if (count > 0 && result.output.size() < most_output) result.output.append(buffer, static_cast<std::size_t>(count));
  }
  int status = 0;
  pid_t ended = 0;
  while ((ended = waitpid(pid, &status, WNOHANG)) == 0 && now_ms() < end_ms) g_usleep(1000);
  if (ended == 0) {
    result.is_late = true;
    kill_group(pid);
    g_usleep(1000);
    waitpid(pid, nullptr, WNOHANG);
    return result;
  }
  result.status = ended == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

}  // namespace ptzctl
