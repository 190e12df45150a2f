// One writer at full speed and eight readers, one of them of the lowest priority. A fetch takes at most 10 ms of the
// processor's time, and hardly any has to be repeated.
//
//   status_starvation --seconds=N
#include <sched.h>
#include <sys/resource.h>

#include <atomic>

#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr int readers = 8;

struct Shared {
  std::atomic<bool> is_over = false;
  std::atomic<long> reads = 0, torn = 0, failed = 0, idle_reads = 0, writes = 0, slow = 0;
  std::atomic<std::int64_t> longest_us = 0;
};

std::int64_t own_time_ns() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int read_on(Shared &common, bool is_idle) {
  if (is_idle) {
    const sched_param none = {};
    sched_setscheduler(0, SCHED_IDLE, &none);
  }
  Related values;
  while (!common.is_over) {
    const auto begun_ns = own_time_ns();
    const int found = values.read("G");
    const auto took_us = (own_time_ns() - begun_ns) / 1000;
    for (auto seen = common.longest_us.load();
         seen < took_us && !common.longest_us.compare_exchange_weak(seen, took_us);) {
    }
    if (found != related_values) ++common.failed;
    if (found == related_values && values.is_torn()) ++common.torn;
    ++(is_idle ? common.idle_reads : common.reads);
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const long seconds = amount(argc, argv, "seconds", 5);
  const StatusFolder folder;
  auto &common = *shared<Shared>();
  Related first;
  if (status_store_create_group("G", 2048, 0) != 0 || first.write("G", 1) != 0) return finish(false, "no group");
  std::vector<pid_t> children;
  for (int i = 0; i < readers; ++i) children.push_back(start([&, i] { return read_on(common, i == 0); }));
  children.push_back(start([&] {
    Related values;
    for (guint64 i = 2; !common.is_over; ++i) {
      if (values.write("G", i) != 0) ++common.failed;
      ++common.writes;
    }
    return 0;
  }));
  sleep(static_cast<unsigned>(seconds));
  common.is_over = true;
  int ended_badly = 0;
  for (const pid_t child : children) ended_badly += wait_for(child) != 0;
  const bool is_met = common.torn + common.failed + ended_badly == 0 && common.longest_us < 10'000 &&
                      common.idle_reads > 0 && common.writes > 0;
  return finish(
      is_met,
      "%ld writes beside %ld reads and %ld of an idle-priority reader in %ld s: %ld torn, %ld failed; longest "
      "fetch %.2f ms of processor time",
      common.writes.load(), common.reads.load(), common.idle_reads.load(), seconds, common.torn.load(),
      common.failed.load(), static_cast<double>(common.longest_us) / 1000);
}
