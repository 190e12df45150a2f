// The disk becomes full at each call that needs room, while a process works on the parameter tree. The operation has to
// fail with the stated error, or to succeed; reads go on. When there is room again, the same process has to do the
// operation, and everything has to be in the database file alone after a sync.
//
//   param_full_disk [--seeds=N] [--seed=N] [--call=N] [--every=N]
#include <filesystem>

#include "param_workload.h"
#include "platform/param_service.h"
#include "power_cut.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr std::int64_t limit_us = 1'000'000;

struct Progress {
  int failed_at, error;
  std::int64_t longest_us;
  bool has_ended;  // the disk was never full
  char fault[2000];
};

void report(Progress &progress, const std::string &text) {
  if (progress.fault[0] == '\0') progress.fault[text.copy(progress.fault, sizeof progress.fault - 1)] = '\0';
}

int timed(const TreeFolder &folder, int number, std::uint64_t seed, Progress &progress) {
  int error = 0;
  const auto begun_us = now_us();
  operate(folder, number, seed, error);
  progress.longest_us = std::max(progress.longest_us, now_us() - begun_us);
  return error;
}

int work(const TreeFolder &folder, const std::vector<std::string> &contents, std::uint64_t seed, Progress &progress) {
  int i = 0;
  while (i < operations && (progress.error = timed(folder, i, seed, progress)) == 0) ++i;
  progress.has_ended = i == operations;
  if (progress.has_ended) return 0;
  progress.failed_at = i;
  // A restore has a reason of its own, here 1.
  if (progress.error != PARAM_SERVICE_STORAGE && progress.error != 1) {
    report(progress, "error " + std::to_string(progress.error));
  }
  const auto at = static_cast<std::size_t>(i);
  if (const auto found = short_content(); found != contents[at] && !(i == 0 && found.starts_with("error"))) {
    report(progress, "the tree on the full disk is\n" + found);
  }
  fill_disk_at(-1);
  for (; i < operations; ++i) {
    const int error = timed(folder, i, seed, progress);
    if (error == 0) continue;
    report(progress, "operation " + std::to_string(i) + " fails when there is room: " + std::to_string(error));
    return 0;
  }
  if (sync_tree() != 0) report(progress, "no sync when there is room");
  if (const auto found = short_content(); found != contents.back()) report(progress, "the last tree is\n" + found);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const long seeds = amount(argc, argv, "seeds", 1), first_seed = amount(argc, argv, "seed", 1);
  const long only = amount(argc, argv, "call", -1), every = amount(argc, argv, "every", 1);
  begin_log();
  auto *progress = shared<Progress>();
  const TreeFolder folder;
  const std::string spare = folder.file("spare");
  std::filesystem::create_directory(spare);
  prepare_workload(folder);
  long runs = 0, failed = 0, faults = 0;
  std::int64_t longest_us = 0;
  for (long seed = first_seed; seed < first_seed + seeds; ++seed) {
    const auto number = static_cast<std::uint64_t>(seed);
    const auto contents = contents_after_each(folder, number);
    for (long call = only >= 0 ? only : 0; only < 0 || call <= only; call += every) {
      folder.empty();
      *progress = {};
      const int status = wait_for(start([&] {
        begin_recording(folder.file("state"), spare, -1, number);
        fill_disk_at(call);
        return work(folder, contents, number, *progress);
      }));
      for (const auto &entry : std::filesystem::directory_iterator(spare)) std::filesystem::remove(entry);
      if (status != 0) report(*progress, "the process ended with " + std::to_string(status));
      if (progress->longest_us > limit_us) report(*progress, "an operation took over a second");
      ++runs;
      failed += progress->has_ended ? 0 : 1;
      longest_us = std::max(longest_us, progress->longest_us);
      if (progress->fault[0] != '\0') {
        ++faults;
        note("seed %ld, full at call %ld, operation %d: %s (%s)", seed, call, progress->failed_at, progress->fault,
             take_log().last.c_str());
      } else if (progress->has_ended) {
        break;
      }
    }
  }
  return finish(
      faults == 0,
      "disk full at %ld calls: %ld operations failed with the stated error, %ld faults; longest operation %.0f ms",
      runs, failed, faults, static_cast<double>(longest_us) / 1000);
}
