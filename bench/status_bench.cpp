// status_bench - writes and reads the position group of the status cache, the writer and the reader in two processes,
// beside a bare copy in shared memory and two databases.
#include <fcntl.h>
#include <glib.h>
#include <lmdb.h>
#include <ptz_status_cache.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "statistics.h"

namespace {

using namespace bench;

constexpr std::size_t value_count = 47;
constexpr std::size_t four_byte_values = 22;  // the others are times of eight bytes

constexpr std::size_t size_of(std::size_t value) { return value < four_byte_values ? 4 : 8; }
constexpr std::size_t group_bytes = four_byte_values * 4 + (value_count - four_byte_values) * 8;

using Values = std::array<std::uint64_t, value_count>;

// All values of an update are related, so that a torn group shows.
void fill(Values &values, std::uint32_t number) { values.fill(number); }

[[noreturn]] void give_up(const char *what) {
  std::fprintf(stderr, "status_bench: %s\n", what);
  std::exit(EXIT_FAILURE);
}
void require(bool condition, const char *what) {
  if (!condition) give_up(what);
}

// One way to share the group; each process opens it for itself.
class Sharing {
 public:
  Values values = {};
  virtual ~Sharing() = default;
  virtual void update() = 0;
  virtual void fetch() = 0;
  [[nodiscard]] virtual std::size_t compared_values() const { return value_count; }
  [[nodiscard]] bool is_whole() const {
    for (std::size_t i = 0; i < compared_values(); ++i) {
      if (static_cast<std::uint32_t>(values[i]) != static_cast<std::uint32_t>(values[0])) return false;
    }
    return true;
  }
};

// --- contenders -------------------------------------------------------------------------------------------------

// The floor: the same bytes, copied under a sequence that is odd while they are written. A writer that dies in between
// stops every reader.
class BareCopy : public Sharing {
  struct Shared {
    std::atomic<std::uint64_t> sequence;
    char bytes[group_bytes];
  };
  Shared *shared_;

 public:
  explicit BareCopy(const std::string &folder) {
    const int fd = open((folder + "/bare").c_str(), O_RDWR | O_CREAT, 0600);
    require(fd >= 0 && ftruncate(fd, sizeof(Shared)) == 0, "no shared memory");
    void *memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, 0);
    require(memory != MAP_FAILED, "no shared memory");
    shared_ = static_cast<Shared *>(memory);
    close(fd);
  }
  void update() override {
    const auto sequence = shared_->sequence.load(std::memory_order_relaxed);
    shared_->sequence.store(sequence + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    std::memcpy(shared_->bytes, values.data(), group_bytes);
    shared_->sequence.store(sequence + 2, std::memory_order_release);
  }
  void fetch() override {
    while (true) {
      const auto before = shared_->sequence.load(std::memory_order_acquire);
      std::memcpy(values.data(), shared_->bytes, group_bytes);
      std::atomic_thread_fence(std::memory_order_acquire);
      if (before % 2 == 0 && shared_->sequence.load(std::memory_order_relaxed) == before) return;
    }
  }
  // As many bytes as the others have, without gaps.
  [[nodiscard]] std::size_t compared_values() const override { return group_bytes / sizeof values[0]; }
};

class StatusCache : public Sharing {
  PTZStatusCacheGroup *handle_;

 public:
  explicit StatusCache(const std::string &folder) {
    setenv("PTZ_PLATFORM_RUNTIME_DIR", folder.c_str(), 1);
    handle_ = ptz_status_cache_setup_group(PTZ_SC_GROUP_POSITION, 1, value_count);
    for (std::size_t i = 0; i < value_count; ++i) {
      require(ptz_status_cache_add_param(handle_, static_cast<PTZSCParam>(i), &values[i]), "no parameter");
    }
  }
  ~StatusCache() override { ptz_status_cache_free_group(handle_); }
  void update() override { require(ptz_status_cache_update_group(handle_), "no update"); }
  void fetch() override { require(ptz_status_cache_fetch_group(handle_), "no fetch"); }
};

std::string key_of(std::size_t value) { return "A_KEY_OF_USUAL_SIZE_" + std::to_string(value); }

// A record for each value, a transaction for each group; nothing is flushed to storage.
class Lmdb : public Sharing {
  MDB_env *env_ = nullptr;
  MDB_dbi database_ = 0;
  MDB_txn *reader_ = nullptr;
  std::vector<std::string> keys_;

  static MDB_val val(const void *data, std::size_t size) { return {size, const_cast<void *>(data)}; }

 public:
  explicit Lmdb(const std::string &folder) {
    for (std::size_t i = 0; i < value_count; ++i) keys_.push_back(key_of(i));
    MDB_txn *transaction = nullptr;
    // Room for what is written while a reader that was interrupted keeps old records alive.
    constexpr std::size_t map_size = std::size_t{1} << 30;
    require(mdb_env_create(&env_) == 0 && mdb_env_set_mapsize(env_, map_size) == 0 &&
                mdb_env_open(env_, (folder + "/lmdb").c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP, 0600) == 0 &&
                mdb_txn_begin(env_, nullptr, 0, &transaction) == 0 &&
                mdb_dbi_open(transaction, nullptr, 0, &database_) == 0 && mdb_txn_commit(transaction) == 0,
            "no LMDB");
  }
  ~Lmdb() override {
    if (reader_ != nullptr) mdb_txn_abort(reader_);
    mdb_env_close(env_);
  }
  void update() override {
    MDB_txn *transaction = nullptr;
    require(mdb_txn_begin(env_, nullptr, 0, &transaction) == 0, "no transaction");
    for (std::size_t i = 0; i < value_count; ++i) {
      auto key = val(keys_[i].data(), keys_[i].size()), value = val(&values[i], size_of(i));
      require(mdb_put(transaction, database_, &key, &value, 0) == 0, "no record");
    }
    const int error = mdb_txn_commit(transaction);
    require(error == 0, mdb_strerror(error));
  }
  void fetch() override {
    require((reader_ == nullptr ? mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_) : mdb_txn_renew(reader_)) == 0,
            "no snapshot");
    for (std::size_t i = 0; i < value_count; ++i) {
      auto key = val(keys_[i].data(), keys_[i].size());
      MDB_val value;
      require(mdb_get(reader_, database_, &key, &value) == 0, "no record");
      std::memcpy(&values[i], value.mv_data, size_of(i));
    }
    mdb_txn_reset(reader_);
  }
};

// A row for each value, a transaction for each group; nothing is flushed to storage.
class Sqlite : public Sharing {
  sqlite3 *database_ = nullptr;
  sqlite3_stmt *begin_ = nullptr, *commit_ = nullptr, *put_ = nullptr, *get_ = nullptr;

  void run(const char *sql) { require(sqlite3_exec(database_, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
  sqlite3_stmt *prepare(const char *sql) {
    sqlite3_stmt *statement = nullptr;
    require(sqlite3_prepare_v3(database_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK, sql);
    return statement;
  }
  static void step(sqlite3_stmt *statement) {
    require(sqlite3_step(statement) == SQLITE_DONE, "no step");
    sqlite3_reset(statement);
  }

 public:
  explicit Sqlite(const std::string &folder) {
    require(sqlite3_open((folder + "/sqlite").c_str(), &database_) == SQLITE_OK, "no database");
    sqlite3_busy_timeout(database_, 10'000);
    run("PRAGMA journal_mode=WAL");
    run("PRAGMA synchronous=OFF");
    run("CREATE TABLE IF NOT EXISTS status (id INTEGER PRIMARY KEY, key TEXT, value INTEGER)");
    begin_ = prepare("BEGIN IMMEDIATE");
    commit_ = prepare("COMMIT");
    put_ = prepare("INSERT OR REPLACE INTO status VALUES (?, ?, ?)");
    get_ = prepare("SELECT id, value FROM status");
  }
  ~Sqlite() override {
    for (auto *statement : {begin_, commit_, put_, get_}) sqlite3_finalize(statement);
    sqlite3_close(database_);
  }
  void update() override {
    step(begin_);
    for (std::size_t i = 0; i < value_count; ++i) {
      sqlite3_bind_int64(put_, 1, static_cast<sqlite3_int64>(i));
      sqlite3_bind_text(put_, 2, "A_KEY_OF_USUAL_SIZE", -1, SQLITE_STATIC);
      sqlite3_bind_int64(put_, 3, static_cast<sqlite3_int64>(values[i]));
      step(put_);
    }
    step(commit_);
  }
  void fetch() override {
    while (sqlite3_step(get_) == SQLITE_ROW) {
      values[static_cast<std::size_t>(sqlite3_column_int(get_, 0))] =
          static_cast<std::uint64_t>(sqlite3_column_int64(get_, 1));
    }
    sqlite3_reset(get_);
  }
};

template <typename T>
std::unique_ptr<Sharing> open_as(const std::string &folder) {
  return std::make_unique<T>(folder);
}

struct Contender {
  const char *name;
  std::unique_ptr<Sharing> (*open)(const std::string &folder);
  int operations;  // in a round
};
constexpr Contender contenders[] = {{"bare copy", open_as<BareCopy>, 100'000},
                                    {"status cache", open_as<StatusCache>, 50'000},
                                    {"LMDB", open_as<Lmdb>, 5'000},
                                    {"SQLite", open_as<Sqlite>, 500}};

// --- measuring --------------------------------------------------------------------------------------------------

// Processor time: what other processes do meanwhile is not ours.
double now_us() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

template <typename Function>
double time_of(int operations, Function function) {
  const double begin = now_us();
  for (int i = 0; i < operations; ++i) function();
  return (now_us() - begin) / operations;
}

// The cores of the reader and of the writer, if they are kept apart.
std::optional<std::array<int, 2>> cores_apart;

void stay_on(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  require(sched_setaffinity(0, sizeof cores, &cores) == 0, "no affinity");
}

bool stay_apart() {
  cpu_set_t cores;
  if (sched_getaffinity(0, sizeof cores, &cores) != 0 || CPU_COUNT(&cores) < 2) return false;
  const auto first_from = [&cores](int core) {
    while (!CPU_ISSET(core, &cores)) ++core;
    return core;
  };
  const int reader = first_from(0);
  cores_apart = {reader, first_from(reader + 1)};
  stay_on(reader);
  return true;
}

// The writer is asked over a socket pair for a number of updates, and answers how long each took.
void serve_updates(int link, Sharing &sharing) {
  int operations = 0;
  std::uint32_t number = 0;
  fill(sharing.values, number);
  while (read(link, &operations, sizeof operations) == sizeof operations) {
    const double time_us = time_of(operations, [&] {
      fill(sharing.values, ++number);
      sharing.update();
    });
    if (write(link, &time_us, sizeof time_us) != sizeof time_us) return;
  }
}

class Writer {
  int link_ = -1;
  pid_t process_ = -1;

 public:
  Writer(const Contender &contender, const std::string &folder) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no socket pair");
    process_ = fork();
    if (process_ == 0) {
      close(ends[0]);
      if (cores_apart) stay_on((*cores_apart)[1]);
      serve_updates(ends[1], *contender.open(folder));
      _exit(EXIT_SUCCESS);
    }
    close(ends[1]);
    link_ = ends[0];
  }
  Writer(const Writer &) = delete;
  ~Writer() {
    close(link_);
    waitpid(process_, nullptr, 0);
  }
  void ask(int operations) const {
    require(write(link_, &operations, sizeof operations) == sizeof operations, "no writer");
  }
  [[nodiscard]] double answer() const {
    double time_us = 0;
    require(read(link_, &time_us, sizeof time_us) == sizeof time_us, "no writer");
    return time_us;
  }
  double update(int operations) const {
    ask(operations);
    return answer();
  }
};

struct Times {
  std::vector<double> update, fetch, update_at_once, fetch_at_once;
};

void measure(const Contender &contender, const std::string &folder, int operations, Times &times) {
  const Writer writer(contender, folder);
  writer.update(10);
  const auto reader = contender.open(folder);
  reader->fetch();
  times.update.push_back(writer.update(operations));
  // Now and then there is something new to find.
  double fetching_us = 0;
  constexpr int batch = 50;
  for (int done = 0; done < operations; done += batch) {
    writer.update(1);
    fetching_us += time_of(batch, [&] { reader->fetch(); }) * batch;
    require(reader->is_whole(), "torn");
  }
  times.fetch.push_back(fetching_us / operations);
  writer.ask(operations);
  times.fetch_at_once.push_back(time_of(operations, [&] { reader->fetch(); }));
  times.update_at_once.push_back(writer.answer());
  require(reader->is_whole(), "torn");
}

void print_row(const char *what, std::vector<double> Times::*which, const std::vector<Times> &all) {
  std::printf("%-28s", what);
  for (const auto &times : all) {
    std::printf("  %8.3f us %6.1f", quantile(times.*which, 0), ratio(times.*which, all[0].*which));
  }
  std::printf("\n");
}

// One writer and eight readers for as long; no fetch may be torn.
int look_for_torn_groups(const std::string &folder, int seconds) {
  struct Counts {
    std::atomic<bool> is_over;
    std::atomic<std::uint64_t> updates, fetches, torn;
  };
  auto *counts =
      static_cast<Counts *>(mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  const auto &contender = contenders[1];
  contender.open(folder)->update();
  std::vector<pid_t> processes;
  for (int i = 0; i < 9; ++i) {
    const pid_t process = fork();
    if (process == 0) {
      if (cores_apart) stay_on((*cores_apart)[i % 2]);
      const auto sharing = contender.open(folder);
      std::uint64_t done = 0, torn = 0;
      for (; !counts->is_over; ++done) {
        if (i == 0) {
          fill(sharing->values, static_cast<std::uint32_t>(done));
          sharing->update();
        } else {
          sharing->fetch();
          torn += sharing->is_whole() ? 0 : 1;
        }
      }
      (i == 0 ? counts->updates : counts->fetches) += done;
      counts->torn += torn;
      _exit(EXIT_SUCCESS);
    }
    processes.push_back(process);
  }
  sleep(static_cast<unsigned>(seconds));
  counts->is_over = true;
  bool is_well = true;
  for (const pid_t process : processes) {
    int status = 0;
    waitpid(process, &status, 0);
    is_well = is_well && status == 0;
  }
  std::printf("\n1 writer, 8 readers, %d s: %.1f million updates, %.1f million fetches, %llu torn\n", seconds,
              static_cast<double>(counts->updates) / 1e6, static_cast<double>(counts->fetches) / 1e6,
              static_cast<unsigned long long>(counts->torn));
  return is_well && counts->torn == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char **argv) {
  gboolean quick = FALSE, apart = FALSE;
  gint rounds = 15, seconds = 10;
  const GOptionEntry entries[] = {
      {"quick", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &quick, "Only see that it works", nullptr},
      {"apart", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_NONE, &apart, "Keep the two processes on different cores", nullptr},
      {"rounds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &rounds, "Rounds of all contenders; 15", "N"},
      {"seconds", 0, G_OPTION_FLAG_NONE, G_OPTION_ARG_INT, &seconds, "How long to look for torn groups; 10", "N"},
      {}};
  GOptionContext *options = g_option_context_new(nullptr);
  g_option_context_add_main_entries(options, entries, nullptr);
  const bool parsed = g_option_context_parse(options, &argc, &argv, nullptr) != FALSE;
  g_option_context_free(options);
  require(parsed && argc == 1 && rounds > 0 && seconds > 0, "see --help");
  require(!apart || stay_apart(), "--apart needs two cores");
  if (quick) rounds = seconds = 1;

  // All of them in memory.
  std::string folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  folder += "/status-bench.XXXXXX";
  require(mkdtemp(folder.data()) != nullptr, "no folder");
  std::vector<Times> all(std::size(contenders));
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < all.size(); ++i) {
      measure(contenders[i], folder, quick ? 50 : contenders[i].operations, all[i]);
    }
  }
  std::printf("%zu values, %zu bytes; the best of %d rounds, and the median of the ratios to the bare copy\n\n%-28s",
              value_count, group_bytes, rounds, "");
  for (const auto &contender : contenders) std::printf("  %18s", contender.name);
  std::printf("\n");
  print_row("update", &Times::update, all);
  print_row("fetch", &Times::fetch, all);
  print_row("update, while others fetch", &Times::update_at_once, all);
  print_row("fetch, while others update", &Times::fetch_at_once, all);
  std::printf("\nLMDB by the status cache: update %.1f, fetch %.1f\n", ratio(all[2].update, all[1].update),
              ratio(all[2].fetch, all[1].fetch));
  const int status = look_for_torn_groups(folder, seconds);
  std::filesystem::remove_all(folder);
  return status;
}
