// Two processes work on one parameter tree. The first one is stopped before and after each of its system calls while
// the other one reads and does an operation of its own. Reads have to be answered at once; the operation has to
// succeed, or to fail because the tree is locked. The first one then goes on and has to succeed. Afterwards the tree is
// as after both operations, in one order or the other.
//
//   param_pauses [--action=NAME] [--other=NAME] [--step=N] [--every=N] [--ending=kill]
//
// With --ending=kill the first process is killed instead of going on.
#include <string_view>

#include "param_actions.h"
#include "param_tree.h"
#include "traced.h"

namespace {

using namespace torture;

constexpr std::int64_t busy_limit_us = 30'000, read_limit_us = 100'000;
constexpr std::size_t text_size = 100'000;

struct Report {
  char content[text_size];
  std::int64_t read_us, run_us;
  int read_error, final_error;
  bool has_run;
};

struct Totals {
  long pauses = 0, refused = 0, unread = 0, faults = 0;
  std::int64_t longest_read_us = 0;
};

std::string text_argument(int argc, char **argv, const char *name) {
  const std::string prefix = std::string("--") + name + '=';
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]).starts_with(prefix)) return argv[i] + prefix.size();
  }
  return "";
}

const Action *find(const std::string &name) {
  for (const auto &action : actions()) {
    if (action.name == name) return &action;
  }
  return nullptr;
}

bool in_child(const std::function<bool()> &run) {
  return wait_for(start([&] { return run() ? 0 : 1; })) == 0;
}

// Both processes are of the newer release then.
bool raise_version(const Action &action) {
  const TreeFolder *none = nullptr;
  return action.name != "upgrade" || action.warm_up(*none);
}

// The second process: connected before the first one begins, or not.
class Other {
  int ends_[2] = {-1, -1};
  pid_t pid_ = -1;

 public:
  Other(const TreeFolder &folder, const Action &first, const Action &action, bool is_connected, Report &report) {
    if (pipe(ends_) != 0) std::abort();
    pid_ = start([&] {
      close(ends_[1]);
      std::string value;
      raise_version(first);
      if (is_connected) get("root.G1.P1", value);
      char byte = 0;
      static_cast<void>(!read(ends_[0], &byte, 1));
      ptz::platform::tree_times.busy_limit_us = busy_limit_us;
      std::int64_t begun_us = now_us();
      report.read_error = get("root.G1.P1", value);
      report.read_us = now_us() - begun_us;
      begun_us = now_us();
      report.has_run = action.run(folder);
      report.run_us = now_us() - begun_us;
      return 0;
    });
    close(ends_[0]);
    if (is_connected) usleep(1500);
  }
  void leave() const { close(ends_[1]); }  // in another child
  void go() const {
    close(ends_[1]);
    wait_for(pid_);
  }
};

std::string final_content(const Action &first, Report &report) {
  wait_for(start([&] {
    raise_version(first);
    int error = 0;
    const std::string text = content(error);
    report.final_error = error;
    report.content[text.copy(report.content, text_size - 1)] = '\0';
    return 0;
  }));
  return report.content;
}

// What is restored.
void keep_backup(const TreeFolder &folder) {
  if (!read_file(folder.file("kept")).empty() || read_file(folder.database()).empty()) return;
  in_child([&] { return backup(folder.file("kept")); });
}

std::string serial(const TreeFolder &folder, const Action &prepared, std::initializer_list<const Action *> order,
                   Report &report) {
  folder.empty();
  in_child([&] { return prepared.prepare(folder); });
  keep_backup(folder);
  in_child([&] { return prepared.warm_up(folder); });
  for (const auto *action : order) in_child([&] { return raise_version(prepared) && action->run(folder); });
  return final_content(prepared, report);
}

struct Expected {
  std::string before, first_only, first_last, last_first, other_only;
};

class Pair {
  const TreeFolder folder_;
  const Action &first_, &other_;
  bool is_connected_, kills_;
  Report &report_;
  Expected expected_;
  std::string where_;
  // A tree that has to be made, put in place or brought up to date is not readable until that is done.
  bool is_readable_ = first_.noise == Noise::none && first_.name != "first-creation" && first_.name != "upgrade";

  std::string check(int first_status) const {
    const std::string found = report_.content;
    if (first_status != 0 && !kills_) return "the first process failed: " + std::to_string(first_status);
    if (report_.final_error != 0) return "the tree cannot be read afterwards";
    if (report_.read_error == 0 && report_.read_us > read_limit_us)
      return "a read took " + std::to_string(report_.read_us / 1000) + " ms";
    const bool other_counts = report_.has_run;
    bool is_right = found == (other_counts ? expected_.first_last : expected_.first_only) ||
                    (other_counts && found == expected_.last_first);
    if (kills_) is_right = is_right || found == (other_counts ? expected_.other_only : expected_.before);
    if (is_right) return "";
    return (other_counts ? "both have run, and the tree is\n" : "one has run, and the tree is\n") + found;
  }

 public:
  Pair(const Action &first, const Action &other, bool is_connected, bool kills, Report &report)
      : first_(first), other_(other), is_connected_(is_connected), kills_(kills), report_(report) {
    expected_ = {serial(folder_, first_, {}, report_), serial(folder_, first_, {&first_}, report_),
                 serial(folder_, first_, {&first_, &other_}, report_),
                 serial(folder_, first_, {&other_, &first_}, report_), serial(folder_, first_, {&other_}, report_)};
  }
  [[nodiscard]] bool is_readable() const { return is_readable_; }
  [[nodiscard]] const std::string &where() const { return where_; }

  // Returns false if the first process ended before so many steps.
  bool run(int steps, std::string &fault) {
    folder_.empty();
    report_ = {};
    if (!in_child([&] { return first_.prepare(folder_); })) std::abort();
    keep_backup(folder_);
    const Other other(folder_, first_, other_, is_connected_, report_);
    int status = 0;
    bool reached = false;
    {
      Traced traced([&] {
        other.leave();
        if (!first_.warm_up(folder_)) return 2;
        begin_steps();
        return first_.run(folder_) ? 0 : 1;
      });
      reached = traced.step(steps);
      where_ = traced.has_ended() ? "the end" : traced.call();
      static_cast<void>(take_log());
      other.go();
      if (kills_) {
        traced.kill();
      } else {
        status = traced.finish();
      }
    }
    final_content(first_, report_);
    fault = check(status);
    return reached;
  }
};

void pause_at_each(const Action &first, const Action &other, bool is_connected, bool kills, int begin, int last,
                   int every, Totals &totals) {
  auto *report = shared<Report>();
  Pair pair(first, other, is_connected, kills, *report);
  const std::string title =
      first.name + (kills ? " killed" : " stopped") + ", " + other.name + (is_connected ? " (connected)" : "");
  const long faults_before = totals.faults, refused_before = totals.refused, unread_before = totals.unread;
  int steps = begin;
  for (bool reached = true; reached && steps <= last; steps += every) {
    std::string fault;
    reached = pair.run(steps, fault);
    ++totals.pauses;
    totals.refused += report->has_run ? 0 : 1;
    if (report->read_error != 0 && pair.is_readable()) {
      ++totals.unread;
    }
    totals.longest_read_us = std::max(totals.longest_read_us, report->read_us);
    if (fault.empty()) continue;
    ++totals.faults;
    note("%s: step %d, %s: %s (%s)", title.c_str(), steps, pair.where().c_str(), fault.c_str(),
         take_log().last.c_str());
  }
  std::printf("%-60s %4d steps, %ld refused, %ld reads refused, %ld faults\n", title.c_str(), steps - begin,
              totals.refused - refused_before, totals.unread - unread_before, totals.faults - faults_before);
  std::fflush(stdout);
  munmap(report, sizeof *report);
}

}  // namespace

int main(int argc, char **argv) {
  const long step = amount(argc, argv, "step", -1), every = amount(argc, argv, "every", 1);
  const std::string wanted = text_argument(argc, argv, "action"), others = text_argument(argc, argv, "other");
  const bool kills = text_argument(argc, argv, "ending") == "kill";
  begin_log();
  shorten_waits();
  Totals totals;
  for (const auto &action : actions()) {
    // A read is several calls, between which the tree may change.
    const bool is_left_out = action.noise == Noise::errors || action.name == "read";
    if (wanted.empty() ? is_left_out : action.name != wanted) continue;
    for (const char *name : {"set", "set-new", "create-group", "delete-group", "sync", "backup", "restore"}) {
      // A group that is deleted twice is missing the second time.
      if ((!others.empty() && others != name) || (action.name == name && action.name == "delete-group")) continue;
      for (const bool is_connected : {false, true}) {
        const int first = step >= 0 ? static_cast<int>(step) : 0;
        pause_at_each(action, *find(name), is_connected, kills, first, step >= 0 ? first : 100'000,
                      static_cast<int>(every), totals);
      }
    }
  }
  return finish(totals.faults == 0,
                "%ld stops: %ld faults, %ld operations refused while the tree is locked; longest read %.1f ms",
                totals.pauses, totals.faults, totals.refused, static_cast<double>(totals.longest_read_us) / 1000);
}
