#include "engine.h"

#include <glib.h>
#include <signal.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>

#include "ledger.h"
#include "temp_dir.h"
#include "torture.h"

namespace nth_call {

namespace {

constexpr int seconds_max = 30;
constexpr double computing_s_max = 0.5, computing_share_max = 0.5;
constexpr std::uint32_t calls_max = 20'000, calls_a_second_max = 400'000;
constexpr int nth_max = 400, spare_calls = 30;
constexpr int leak_passes = 4;

struct Cost {
  long calls, allocations, locks;
};

// Shared with the process of a case.
struct Report {
  Cost cost;
  std::array<std::uint32_t, 96> profile;
  int descriptors;
  int failed;
  char finding[600];
};

Report *report = nullptr;
std::string *folder = nullptr;
Fault current;

double computing_s() {
  timespec now = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

[[gnu::format(printf, 1, 2)]] int found(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(report->finding, sizeof report->finding, format, arguments);
  va_end(arguments);
  return torture::missed;
}

// A line that names an error names the one that happened. A failure may bring others about, such as a missing file.
bool names_wrong_error() {
  const std::string lines = logged();
  return lines.find("Success") != std::string::npos || lines.find("errno=0") != std::string::npos;
}

// Whether the pass is right.
bool pass(const Operation &operation, const Fault &fault, bool &succeeded) {
  const auto scenario = operation.make();
  scenario->prepare();
  forget_log();
  const double before_s = computing_s();
  const gint64 begun_us = g_get_monotonic_time();
  arm(fault);
  scenario->act();
  report->failed += disarm();
  const double spent_s = computing_s() - before_s;
  for (std::size_t place = 0; place < fallible_calls().size(); ++place) report->profile[place] += calls_made(place);
  const std::string lines = logged();
  // A wait with pauses may be long: time is virtual.
  const double waited_s = static_cast<double>(g_get_monotonic_time() - begun_us) * 1e-6;
  const bool is_slow = spent_s > computing_s_max + computing_share_max * waited_s ||
                       all_calls_made() > calls_max + calls_a_second_max * waited_s;
  if (is_slow && fault.error != short_transfer) {
    found("busy: %.2f s of processor time, %u calls", spent_s, all_calls_made());
  } else if (critical_was_logged() || names_wrong_error()) {
    found("logged: %.300s", lines.c_str());
  }
  const std::string why = scenario->judge();
  if (!why.empty() && report->finding[0] == '\0') found("%.200s; logged: %.350s", why.c_str(), log_text().c_str());
  if (critical_was_logged() && report->finding[0] == '\0') found("logged afterwards: %.300s", log_text().c_str());
  scenario->clean();
  succeeded = scenario->succeeded;
  return report->finding[0] == '\0';
}

// In a process of its own.
int run_case(const Operation &operation, const Fault &fault, bool fresh) {
  alarm(seconds_max);
  current = fault;
  const Fault none;
  bool succeeded = false;
  if (!fresh && !pass(operation, none, succeeded)) return torture::missed;
  long blocks[leak_passes] = {};
  const int passes = fresh ? 1 : leak_passes;
  for (int i = 0; i < passes; ++i) {
    const int descriptors = open_descriptors();
    if (!pass(operation, fault, succeeded)) return torture::missed;
    const int more = open_descriptors() - descriptors;
    if (!fresh && more > operation.descriptors_kept + (succeeded ? 0 : operation.descriptors_if_refused))
      return found("%d descriptors more", more);
    if (report->failed == 0) return 0;
    blocks[i] = live_blocks();
  }
  const bool grows = !fresh && blocks[3] > blocks[2] && blocks[2] > blocks[1] && blocks[1] > blocks[0];
  if (grows && !operation.keeps_memory) return found("loses %ld blocks", blocks[3] - blocks[2]);
  if (!pass(operation, none, succeeded)) return torture::missed;
  if (!succeeded) return found("fails after the fault, too; logged: %.200s", logged().c_str());
  const int allowed = report->descriptors + operation.descriptors_if_refused + operation.descriptors_kept;
  if (fresh && open_descriptors() > allowed) {
    return found("%d descriptors more", open_descriptors() - report->descriptors);
  }
  return 0;
}

// What the operation does without a fault.
int profile(const Operation &operation, bool fresh) {
  alarm(seconds_max);
  bool succeeded = false;
  const Fault none;
  if (!fresh && !pass(operation, none, succeeded)) return torture::missed;
  report->profile = {};
  if (!pass(operation, none, succeeded)) return torture::missed;
  if (!succeeded) return found("fails without a fault; logged: %.300s", logged().c_str());
  const auto counted = report->profile;
  if (!pass(operation, none, succeeded)) return torture::missed;
  report->profile = counted;
  report->descriptors = open_descriptors();
  return 0;
}

// The exit status of a process that runs the function in a folder of its own, or the negative number of its signal.
int in_process(const std::function<int()> &function) {
  const ptz_test::TempDir dir;
  *folder = dir.path();
  return torture::wait_for(torture::start([&] {
    setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
    setenv("PTZ_PLATFORM_STATE_DIR", dir.path().c_str(), 1);
    signal(SIGPIPE, SIG_IGN);
    forget_log();
    (void)g_main_context_default();  // opens a descriptor of its own
    return install_trap() ? function() : torture::skipped;
  }));
}

std::string name_of(int error) { return error == short_transfer ? "one byte" : g_strerror(error); }

struct Totals {
  long cases = 0, faults = 0, wrong = 0;
  std::mt19937_64 random{20'261'122};  // the same sample each time
};

void print(const Operation &operation, const FallibleCall &call, const Fault &fault, bool fresh, int status) {
  if (status < 0) found("%s", status == -SIGALRM ? "hangs" : strsignal(-status));
  std::printf("WRONG %s%s, %s %d%s: %s: %s\n", operation.name, fresh ? " (first use)" : "", call.name, fault.nth,
              fault.onwards ? " and onwards" : "", name_of(fault.error).c_str(), report->finding);
  std::fflush(stdout);
}

// A descriptor that is ready does not stay without data.
bool may_fail_onwards(const Operation &operation, const FallibleCall &call, int error) {
  if (error == EAGAIN && (std::strcmp(call.name, "read") == 0 || std::strncmp(call.name, "recv", 4) == 0)) return false;
  return (std::string(" ") + operation.not_onwards + ' ').find(std::string(" ") + call.name + ' ') == std::string::npos;
}

void run_faults(const Operation &operation, const FallibleCall &call, Fault fault, int made, bool fresh, long stride,
                Totals &totals) {
  for (fault.nth = 1; fault.nth <= nth_max; ++fault.nth) {
    if (fault.nth > made + (stride > 1 ? 2 : spare_calls)) return;  // a fault makes few calls more
    if (stride > 1 && totals.random() % static_cast<unsigned long>(stride) != 0) continue;
    report->failed = 0;
    report->finding[0] = '\0';
    const int status = in_process([&] { return run_case(operation, fault, fresh); });
    ++totals.cases;
    if (status != 0) ++totals.wrong;
    if (status != 0) print(operation, call, fault, fresh, status);
    if (stride == 1 && status == 0 && report->failed == 0) return;
    totals.faults += report->failed;
  }
}

bool run_operation(const Operation &operation, bool fresh, long stride, Totals &totals) {
  *report = {};
  const int status = in_process([&] { return profile(operation, fresh); });
  if (status == torture::skipped) return false;
  if (status != 0) {
    ++totals.wrong;
    print(operation, {0, "no call", {}}, {}, fresh, status);
    return true;
  }
  const auto made = report->profile;
  for (std::size_t place = 0; place < fallible_calls().size(); ++place) {
    const int times = static_cast<int>(made[place]);
    if (times == 0) continue;
    const FallibleCall &call = fallible_calls()[place];
    for (const int error : call.errors) {
      if (error == 0) break;
      run_faults(operation, call, {call.number, error, 1, false}, times, fresh, stride, totals);
      if (may_fail_onwards(operation, call, error)) {
        run_faults(operation, call, {call.number, error, 1, true}, times, fresh, stride, totals);
      }
    }
  }
  return true;
}

}  // namespace

std::string logged() { return log_text(); }

bool was_logged(const char *part) { return logged().find(part) != std::string::npos; }

const std::string &scratch() { return *folder; }

const Fault &running_fault() { return current; }

// --- budgets -----------------------------------------------------------------------------------------------------

constexpr int counted_passes = 12;

// The least of several passes: a peer may answer in pieces.
int count_cost(const Operation &operation) {
  alarm(seconds_max);
  report->cost = {INT_MAX, INT_MAX, INT_MAX};
  for (int i = 0; i < counted_passes; ++i) {
    const auto scenario = operation.make();
    scenario->prepare();
    const long allocations = allocations_made(), locks = locks_taken();
    arm({});
    scenario->act();
    disarm();
    const Cost cost = {static_cast<long>(all_calls_made()), allocations_made() - allocations, locks_taken() - locks};
    (void)scenario->judge();
    scenario->clean();
    Cost &least = report->cost;
    least = {std::min(least.calls, cost.calls), std::min(least.allocations, cost.allocations),
             std::min(least.locks, cost.locks)};
  }
  return 0;
}

// Lines "operation calls allocations locks". False for an operation that the file does not have.
bool find_budget(const char *path, const char *operation, Cost &budget) {
  std::ifstream file(path);
  for (std::string line, name; std::getline(file, line);) {
    std::istringstream words(line);
    if (words >> name >> budget.calls >> budget.allocations >> budget.locks && name == operation) return true;
  }
  return false;
}

int compare_budgets(const char *path, const std::vector<Operation> &operations) {
  long over = 0, under = 0;
  for (const Operation &operation : operations) {
    const int status = in_process([&] { return count_cost(operation); });
    if (status == torture::skipped) return torture::skipped;
    const Cost &cost = report->cost;
    Cost budget = {};
    const bool known = find_budget(path, operation.name, budget);
    const bool rises = !known || status != 0 || cost.calls > budget.calls || cost.allocations > budget.allocations ||
                       cost.locks > budget.locks;
    const bool falls = cost.calls < budget.calls || cost.allocations < budget.allocations || cost.locks < budget.locks;
    over += rises ? 1 : 0;
    under += !rises && falls ? 1 : 0;
    std::printf("%-24s %5ld %5ld %5ld%s\n", operation.name, cost.calls, cost.allocations, cost.locks,
                rises   ? "  # above its budget"
                : falls ? "  # below its budget: enter it"
                        : "");
  }
  return torture::finish(over == 0, "%zu operations, %ld above their budget, %ld below", operations.size(), over,
                         under);
}

// "CALL:ERRNO:N[:onwards][:fresh]", in this process, to be debugged.
int run_one(const Operation &operation, const std::string &text) {
  const ptz_test::TempDir dir;
  *folder = dir.path();
  Fault fault = {.onwards = text.find(":onwards") != std::string::npos};
  char name[32] = {};
  if (std::sscanf(text.c_str(), "%31[^:]:%d:%d", name, &fault.error, &fault.nth) != 3) return torture::missed;
  for (const FallibleCall &call : fallible_calls()) {
    if (std::strcmp(call.name, name) == 0) fault.call = call.number;
  }
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  setenv("PTZ_PLATFORM_STATE_DIR", dir.path().c_str(), 1);
  forget_log();
  (void)g_main_context_default();
  if (!install_trap()) return torture::skipped;
  report->descriptors = INT_MAX;
  const int status = run_case(operation, fault, text.find(":fresh") != std::string::npos);
  std::printf("%s\n", report->finding);
  return status;
}

int run(int argc, char **argv, const char *what, const std::vector<Operation> &operations) {
  if (g_getenv("G_SLICE") == nullptr) {  // GLib's own lists of free blocks would hide a loss
    setenv("G_SLICE", "always-malloc", 1);
    execv("/proc/self/exe", argv);
  }
  report = torture::shared<Report>();
  folder = new std::string;
  const long stride = torture::amount(argc, argv, "stride", 1);
  const char *only = nullptr, *one = nullptr, *budgets = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--only=", 7) == 0) only = argv[i] + 7;
    if (std::strncmp(argv[i], "--case=", 7) == 0) one = argv[i] + 7;
    if (std::strncmp(argv[i], "--budgets=", 10) == 0) budgets = argv[i] + 10;
  }
  if (budgets != nullptr) return compare_budgets(budgets, operations);
  Totals totals;
  for (const Operation &operation : operations) {
    if (only != nullptr && std::strcmp(only, operation.name) != 0) continue;
    if (one != nullptr) return run_one(operation, one);
    const Totals before = totals;
    if (!operation.only_fresh && !run_operation(operation, false, stride, totals)) return torture::skipped;
    if (!run_operation(operation, true, stride, totals)) return torture::skipped;
    std::printf("%s: %ld cases, %ld failing calls, %ld wrong\n", operation.name, totals.cases - before.cases,
                totals.faults - before.faults, totals.wrong - before.wrong);
    std::fflush(stdout);
  }
  return torture::finish(totals.wrong == 0, "%s: %zu operations, %ld cases, %ld failing calls, %ld wrong", what,
                         operations.size(), totals.cases, totals.faults, totals.wrong);
}

}  // namespace nth_call
