// A real-time writer of a status group beside a busy writer of low priority on the same processor, and beside one that
// is stopped while it holds the lock. Each call has to be back within 110 ms.
//
//   status_priorities --writes=N
#include <fcntl.h>
#include <sched.h>

#include <atomic>
#include <csignal>

#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr std::int64_t limit_us = 110'000;

struct Shared {
  std::atomic<bool> is_over = false;
  long refused = 0, odd = 0;
  std::int64_t longest_busy_us = 0, longest_stopped_us = 0;
  bool is_real_time = false;
};

bool use_one_processor() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(0, &one);
  return sched_setaffinity(0, sizeof one, &one) == 0;
}

std::int64_t write_until_back(Related &values, guint64 number, Shared &common) {
  const auto begun_us = now_us();
  const int result = values.write("G", number);
  const auto took_us = now_us() - begun_us;
  common.refused += result == -EBUSY;
  common.odd += result != 0 && result != -EBUSY;
  return took_us;
}

int write_in_real_time(long writes, pid_t busy, Shared &common) {
  const sched_param highest = {.sched_priority = 10};
  common.is_real_time = use_one_processor() && sched_setscheduler(0, SCHED_FIFO, &highest) == 0;
  if (!common.is_real_time) return skipped;
  Related values;
  for (long i = 0; i < writes; ++i) {
    common.longest_busy_us = std::max(common.longest_busy_us, write_until_back(values, 1000, common));
    usleep(500);
  }
  for (int i = 0; i < 20; ++i) {
    kill(busy, SIGSTOP);
    usleep(200);
    common.longest_stopped_us = std::max(common.longest_stopped_us, write_until_back(values, 1001, common));
    kill(busy, SIGCONT);
    usleep(static_cast<useconds_t>(300 + 37 * i));
  }
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const long writes = amount(argc, argv, "writes", 2000);
  const StatusFolder folder;
  auto &common = *shared<Shared>();
  Related first;
  if (status_store_create_group("G", 2048, 0) != 0 || first.write("G", 1) != 0) return finish(false, "no group");
  const pid_t busy = start([&] {
    use_one_processor();
    const sched_param none = {};
    sched_setscheduler(0, SCHED_IDLE, &none);
    Related values;
    for (guint64 i = 0; !common.is_over; ++i) values.write("G", i);
    return 0;
  });
  const int status = wait_for(start([&] { return write_in_real_time(writes, busy, common); }));
  common.is_over = true;
  kill(busy, SIGCONT);
  wait_for(busy);
  if (status == skipped) {
    std::printf("this process may not have a real-time priority\n");
    return skipped;
  }
  const bool is_met =
      status == 0 && common.odd == 0 && common.longest_busy_us <= limit_us && common.longest_stopped_us <= limit_us;
  return finish(is_met,
                "%ld writes beside a busy writer: back within %.2f ms; beside a stopped one: %.2f ms; %ld refused",
                writes, static_cast<double>(common.longest_busy_us) / 1000,
                static_cast<double>(common.longest_stopped_us) / 1000, common.refused);
}
