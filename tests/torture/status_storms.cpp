// Writers of a status group that are killed or stopped at any moment, beside writers that go on and readers that verify
// each state.
//
//   status_storms --kills=N | --stops=N
#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr int readers = 4, writers = 2;
constexpr std::int64_t answer_limit_us = 150'000, fetch_limit_us = 10'000;

struct Shared {
  std::atomic<bool> is_over = false;
  std::atomic<long> reads = 0, torn = 0, failed = 0;
  std::atomic<long> writes = 0, refused = 0, odd = 0;
  std::atomic<std::int64_t> longest_write_us = 0, longest_read_us = 0;
  std::atomic<guint64> number = 1;
};

void keep_longest(std::atomic<std::int64_t> &longest_us, std::int64_t us) {
  for (auto seen = longest_us.load(); seen < us && !longest_us.compare_exchange_weak(seen, us);) {
  }
}

// Processor time: the others may keep this process from running, which is no wait of the store.
std::int64_t own_time_us() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000 + now.tv_nsec / 1000;
}

int read_on(Shared &shared) {
  Related values;
  while (!shared.is_over) {
    const auto begun_us = own_time_us();
    const int found = values.read("G");
    keep_longest(shared.longest_read_us, own_time_us() - begun_us);
    if (found != related_values) ++shared.failed;
    if (found == related_values && values.is_torn()) ++shared.torn;
    ++shared.reads;
  }
  return 0;
}

void write_once(Related &values, Shared &shared) {
  const auto begun_us = now_us();
  const int result = values.write("G", ++shared.number);
  const auto took_us = now_us() - begun_us;
  keep_longest(shared.longest_write_us, took_us);
  ++shared.writes;
  if (result == -EBUSY) ++shared.refused;
  if (result != 0 && result != -EBUSY) ++shared.odd;
}

int write_on(Shared &shared) {
  Related values;
  while (!shared.is_over) {
    write_once(values, shared);
    usleep(200);
  }
  return 0;
}

pid_t start_victim(Shared &shared) {
  return start([&] {
    Related values;
    while (true) values.write("G", ++shared.number);
    return 0;
  });
}

void kill_writers(long kills, Shared &shared) {
  std::mt19937 random(4711);
  for (long i = 0; i < kills; ++i) {
    const pid_t victim = start_victim(shared);
    usleep(static_cast<useconds_t>(random() % 2500));
    kill(victim, SIGKILL);
    wait_for(victim);
  }
}

void stop_writers(long stops, Shared &shared) {
  std::mt19937 random(4711);
  const pid_t victim = start_victim(shared);
  for (long i = 0; i < stops; ++i) {
    usleep(static_cast<useconds_t>(random() % 2000));
    kill(victim, SIGSTOP);
    // Every fifth stop is longer than a writer waits for the lock.
    usleep(static_cast<useconds_t>(i % 5 == 0 ? 130'000 : random() % 20'000));
    kill(victim, SIGCONT);
  }
  kill(victim, SIGKILL);
  wait_for(victim);
}

}  // namespace

int main(int argc, char **argv) {
  const long kills = amount(argc, argv, "kills", 0), stops = amount(argc, argv, "stops", 0);
  const StatusFolder folder;
  auto &common = *shared<Shared>();
  Related values;
  if (status_store_create_group("G", 2048, 0) != 0 || values.write("G", 1) != 0) return finish(false, "no group");
  std::vector<pid_t> others;
  for (int i = 0; i < readers; ++i) others.push_back(start([&] { return read_on(common); }));
  for (int i = 0; i < writers; ++i) others.push_back(start([&] { return write_on(common); }));
  if (kills > 0) kill_writers(kills, common);
  if (stops > 0) stop_writers(stops, common);
  common.is_over = true;
  int ended_badly = 0;
  for (const pid_t other : others) ended_badly += wait_for(other) != 0;
  const guint64 last = ++common.number;
  const bool is_written = values.write("G", last) == 0;
  const bool is_read = Related().read("G") == related_values && values.number() == last;
  long files = 0;
  for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(folder.dir.path())) ++files;
  // A killed owner is found out within moments. A stopped one holds the lock, so a writer may be refused after 100 ms.
  const bool waits_are_short = stops > 0 ? common.longest_write_us <= answer_limit_us : common.refused == 0;
  const bool is_met = common.torn + common.failed + common.odd + ended_badly == 0 && waits_are_short && is_written &&
                      is_read && files == 1 && common.longest_read_us < fetch_limit_us;
  return finish(
      is_met,
      "%ld %s: %ld torn of %ld reads, %ld failed; %ld of %ld writes refused; longest write %.1f ms, longest read "
      "%.2f ms of processor time; %ld files left over",
      kills + stops, kills > 0 ? "kills" : "stops", common.torn.load(), common.reads.load(), common.failed.load(),
      common.refused.load(), common.writes.load(), static_cast<double>(common.longest_write_us) / 1000,
      static_cast<double>(common.longest_read_us) / 1000, files - 1);
}
