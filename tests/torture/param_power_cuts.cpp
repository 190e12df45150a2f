// The power of the disk is cut before each call that changes the parameter tree's files, and what was not flushed is
// lost in part. The next process has to find the tree as it was after some operation, not before the last one that was
// synced; it has to write and to sync it; and it must not log an error.
//
//   param_power_cuts [--seeds=N] [--seed=N] [--call=N]
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "param_lock.h"
#include "param_workload.h"
#include "power_cut.h"
#include "torture.h"

namespace {

using namespace torture;

struct Progress {
  int done, synced;  // operations
  long calls;
  int error;
  std::int64_t took_us;
  char found[100'000];
};

int work(const TreeFolder &folder, std::uint64_t seed, Progress &progress) {
  for (int i = 0; i < operations; ++i) {
    int error = 0;
    const bool is_durable = operate(folder, i, seed, error);
    if (error != 0) {
      progress.error = error;
      return 1;
    }
    progress.done = i + 1;
    if (is_durable) progress.synced = i + 1;
  }
  return 0;
}

void restart(const TreeFolder &folder) {
  const std::string path = folder.database() + "-lock";
  struct stat status = {};
  ptz::platform::Record record;
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) return;
  fstat(fd, &status);
  if (pread(fd, &record, sizeof record, 0) == static_cast<ssize_t>(sizeof record) && record.boot != 0) {
    record.boot = 4711;
    static_cast<void>(!pwrite(fd, &record, sizeof record, 0));
    const timespec times[] = {status.st_atim, status.st_mtim};
    futimens(fd, times);
  }
  close(fd);
}

struct Totals {
  long cuts = 0, faults = 0, warnings = 0, unsynced_kept = 0;
  std::int64_t longest_us = 0;
};

std::string check_after(const std::vector<std::string> &contents, Progress &progress, Totals &totals) {
  static_cast<void>(take_log());
  const int status = wait_for(start([&] {
    const auto begun_us = now_us();
    const auto found = short_content();
    progress.found[found.copy(progress.found, sizeof progress.found - 1)] = '\0';
    progress.error = set("root.Z", "1") == 0 ? 0 : 1;
    progress.took_us = now_us() - begun_us;
    if (progress.error == 0 && sync_tree() != 0) progress.error = 2;
    std::string value;
    if (progress.error == 0 && (get("root.Z", value) != 0 || value != "1")) progress.error = 3;
    return 0;
  }));
  const auto logged = take_log();
  totals.longest_us = std::max(totals.longest_us, progress.took_us);
  if (status != 0) return "the next process ended with " + std::to_string(status);
  if (progress.error != 0)
    return "the next process fails in step " + std::to_string(progress.error) + ": " + logged.last;
  const std::string found = progress.found;
  bool is_state = false;
  for (int i = progress.synced; i <= std::min(progress.done + 1, operations); ++i) {
    is_state = is_state || contents[static_cast<std::size_t>(i)] == found;
  }
  if (!is_state) {
    const bool is_older = std::find(contents.begin(), contents.end(), found) != contents.end();
    return (is_older ? "a synced operation is lost; " : "the tree is not whole; ") + std::to_string(progress.synced) +
           " were synced, " + std::to_string(progress.done) + " done (" + logged.last + ")\n" + found + "instead of\n" +
           contents[static_cast<std::size_t>(progress.synced)];
  }
  if (logged.errors > 0) return std::string("an error is logged: ") + logged.last;
  if (progress.took_us > 1'000'000) return "it takes " + std::to_string(progress.took_us / 1000) + " ms";
  totals.warnings += logged.warnings > 0;
  return "";
}

}  // namespace

int main(int argc, char **argv) {
  const long seeds = amount(argc, argv, "seeds", 3), first_seed = amount(argc, argv, "seed", 1);
  const long only = amount(argc, argv, "call", -1), every = amount(argc, argv, "every", 1);
  begin_log();
  Totals totals;
  auto *progress = shared<Progress>();
  const TreeFolder folder;
  const std::string spare = folder.file("spare");
  std::filesystem::create_directory(spare);
  prepare_workload(folder);
  for (long seed = first_seed; seed < first_seed + seeds; ++seed) {
    const auto number = static_cast<std::uint64_t>(seed);
    const auto contents = contents_after_each(folder, number);
    long calls = 0;
    for (long call = only >= 0 ? only : 0; only < 0 || call <= only; call += every) {
      folder.empty();
      *progress = {};
      const int status = wait_for(start([&] {
        begin_recording(folder.file("state"), spare, call, number * 100'000 + static_cast<std::uint64_t>(call));
        const int result = work(folder, number, *progress);
        progress->calls = recorded_calls();
        return result;
      }));
      std::error_code ignored;
      for (const auto &entry : std::filesystem::directory_iterator(spare)) std::filesystem::remove(entry, ignored);
      calls = call;
      if (status != status_after_cut) {
        if (status != 0) note("the work ended with %d, error %d", status, progress->error);
        break;
      }
      restart(folder);
      ++totals.cuts;
      const auto fault = check_after(contents, *progress, totals);
      if (fault.empty()) continue;
      ++totals.faults;
      note("seed %ld, call %ld: %s", seed, call, fault.c_str());
    }
    std::printf("seed %ld: %ld calls\n", seed, calls);
  }
  return finish(totals.faults == 0,
                "%ld power cuts: %ld faults, %ld warnings; the next process reads and writes within %.1f ms",
                totals.cuts, totals.faults, totals.warnings, static_cast<double>(totals.longest_us) / 1000);
}
