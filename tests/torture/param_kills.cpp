// A process that works on the parameter tree is killed before and after each of its system calls. Then another process
// has to read and to write at once, it has to find the tree as it was before the operation or after it, and it must
// not log an error. What was synced has to be in the database file alone.
//
//   param_kills [--action=NAME] [--step=N] [--every=N]
#include <fcntl.h>
#include <sys/stat.h>

#include "param_actions.h"
#include "param_lock.h"
#include "traced.h"

namespace {

using namespace torture;

constexpr std::int64_t limit_us = 1'000'000;

enum class Next { fresh, connected, after_restart };
constexpr const char *names_of_next[] = {"a new process", "a connected process", "a new process after a restart"};

struct Report {
  char before[100'000], found[100'000], later[100'000];
  std::int64_t read_us, write_us, sync_us;
  int read_error, write_error, sync_error;
};

struct Totals {
  long kills = 0, faults = 0;
  std::int64_t longest_us = 0;
};

void copy_text(char (&to)[100'000], const std::string &text) {
  to[std::min<std::size_t>(text.copy(to, sizeof to - 1), sizeof to - 1)] = '\0';
}

// What the next process does, and how long it takes.
int examine(Report &report) {
  int error = 0;
  std::int64_t begun_us = now_us();
  const std::string found = content(error);
  report.read_us = now_us() - begun_us;
  report.read_error = error;
  copy_text(report.found, found);
  begun_us = now_us();
  report.write_error = set("root.Next", "1");
  report.write_us = now_us() - begun_us;
  begun_us = now_us();
  report.sync_error = sync_tree();
  report.sync_us = now_us() - begun_us;
  copy_text(report.later, content(error));
  return 0;
}

// As if the system had started anew since: the record is of another boot.
void restart(const TreeFolder &folder) {
  const std::string path = folder.database() + "-lock";
  struct stat status = {};
  ptz::platform::Record record;
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  fstat(fd, &status);
  if (pread(fd, &record, sizeof record, 0) == static_cast<ssize_t>(sizeof record)) {
    record.boot = 4711;
    static_cast<void>(!pwrite(fd, &record, sizeof record, 0));
    const timespec times[] = {status.st_atim, status.st_mtim};
    futimens(fd, times);
  }
  close(fd);
}

// Runs the action as far as `steps` calls, kills it, and lets the next process do its work. Returns false if the action
// ended before.
class Round {
  const TreeFolder &folder_;
  const Action &action_;
  Report &report_;
  std::string where_;

  bool run_in_child(const std::function<bool()> &run) const {
    return wait_for(start([&] { return run() ? 0 : 1; })) == 0;
  }

 public:
  Round(const TreeFolder &folder, const Action &action, Report &report)
      : folder_(folder), action_(action), report_(report) {}
  [[nodiscard]] const std::string &where() const { return where_; }

  bool run(int steps, Next next) {
    folder_.empty();
    report_ = {};
    if (!run_in_child([&] { return action_.prepare(folder_); })) std::abort();
    int pipe_ends[2] = {-1, -1};
    pid_t survivor = -1;
    if (next == Next::connected) {
      if (pipe(pipe_ends) != 0) std::abort();
      survivor = start([&] {
        close(pipe_ends[1]);
        std::string value;
        get("root.G1.P1", value);
        char byte = 0;
        static_cast<void>(!::read(pipe_ends[0], &byte, 1));
        return examine(report_);
      });
      close(pipe_ends[0]);
      usleep(2000);
    }
    bool reached = false;
    {
      Traced traced([&] {
        if (pipe_ends[1] >= 0) close(pipe_ends[1]);
        if (!action_.warm_up(folder_)) return 2;
        begin_steps();
        return action_.run(folder_) ? 0 : 1;
      });
      reached = steps < 0 ? traced.finish() == 0 : traced.step(steps);
      if (steps >= 0) where_ = traced.has_ended() ? "the end" : traced.call();
      if (steps < 0 && !reached) std::printf("%s does not succeed by itself\n", action_.name.c_str());
    }
    static_cast<void>(take_log());
    if (next == Next::after_restart) restart(folder_);
    if (survivor >= 0) {
      close(pipe_ends[1]);
      wait_for(survivor);
    } else {
      wait_for(start([&] { return examine(report_); }));
    }
    return reached;
  }
};

std::string check(const Report &report, const std::string &before, const std::string &after, Noise noise,
                  const Logged &logged, const TreeFolder &folder) {
  const std::string found = report.found, later = report.later;
  if (report.read_error != 0) return "cannot be read: " + std::to_string(report.read_error);
  if (report.write_error != 0) return "cannot be written: " + std::to_string(report.write_error);
  if (report.sync_error != 0) return "cannot be synced: " + std::to_string(report.sync_error);
  if (report.read_us > limit_us) return "is read after " + std::to_string(report.read_us / 1000) + " ms";
  if (report.write_us > limit_us) return "is written after " + std::to_string(report.write_us / 1000) + " ms";
  if (report.sync_us > limit_us) return "is synced after " + std::to_string(report.sync_us / 1000) + " ms";
  if (found != before && found != after) return "is neither the old tree nor the new one:\n" + found;
  if (later != "root.Next=1\n" + found && later.find("root.Next=1\n") == later.npos) return "has lost a write";
  if (content_of_file(folder.database(), folder.file("alone")) != later) return "is not whole in the file alone";
  if (noise != Noise::errors && logged.errors > 0) return "is an error: " + logged.last;
  if (noise == Noise::none && logged.warnings > 0) return "is a warning: " + logged.last;
  if (noise == Noise::none && !folder.left_over_files().empty()) return "leaves files:" + folder.left_over_files();
  return "";
}

void interrupt(const Action &action, Next next, int first, int last, int every, Totals &totals) {
  const TreeFolder folder;
  auto *report = shared<Report>();
  Round round(folder, action, *report);
  // What is there before the operation and after it.
  const std::string mode = std::string(action.name) + ", then " + names_of_next[static_cast<int>(next)];
  round.run(0, Next::fresh);
  const std::string before = report->found;
  round.run(-1, Next::fresh);
  const std::string after = report->found;
  int steps = first;
  const long faults_before = totals.faults;
  for (bool reached = true; reached && steps <= last; steps += every) {
    std::string fault;
    // Other programs may keep the disk or the processor busy: a wait counts if it happens three times.
    for (int attempt = 0; attempt < 3; ++attempt) {
      reached = round.run(steps, next);
      fault = check(*report, before, after, action.noise, take_log(), folder);
      if (std::max({report->read_us, report->write_us, report->sync_us}) <= limit_us) break;
    }
    ++totals.kills;
    for (const auto us : {report->read_us, report->write_us}) totals.longest_us = std::max(totals.longest_us, us);
    if (fault.empty()) continue;
    ++totals.faults;
    note("%s: killed at step %d, %s: the tree %s", mode.c_str(), steps, round.where().c_str(), fault.c_str());
  }
  std::printf("%-60s %4d steps, %ld faults\n", mode.c_str(), steps - first, totals.faults - faults_before);
  std::fflush(stdout);
  munmap(report, sizeof *report);
}

}  // namespace

int main(int argc, char **argv) {
  const long step = amount(argc, argv, "step", -1), every = amount(argc, argv, "every", 1);
  std::string wanted;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--action=", 9) == 0) wanted = argv[i] + 9;
  }
  begin_log();
  shorten_waits();
  Totals totals;
  for (const auto &action : actions()) {
    if (!wanted.empty() && action.name != wanted) continue;
    for (const Next next : {Next::fresh, Next::connected, Next::after_restart}) {
      const int first = step >= 0 ? static_cast<int>(step) : 0;
      interrupt(action, next, first, step >= 0 ? first : 100'000, static_cast<int>(every), totals);
    }
  }
  return finish(totals.faults == 0,
                "%ld kills in %zu operations: %ld faults; the next process reads and writes within %.1f ms",
                totals.kills, actions().size(), totals.faults, static_cast<double>(totals.longest_us) / 1000);
}
