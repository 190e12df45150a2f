// A writer of a status group runs one instruction at a time. After each one that changes the file, a copy of the file
// is opened by a reader and by a writer: the reader finds the values from before the update or from after it, and the
// writer succeeds.
//
//   status_steps --updates=N
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>

#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr int states_of_a_child = 200;

struct Kind {
  const char *name;
  guint32 size;
  bool is_written;      // before the update
  bool has_new_layout;  // the update changes it
  bool is_lock_of_a_corpse;
};
constexpr Kind kinds[] = {
    {"in place", 2048, true, false, false},
    {"new layout", 2048, true, true, false},
    {"first write", 2048, false, true, false},
    {"large group", 32768, true, false, false},
    {"after a killed writer", 2048, true, false, true},
};

struct Step {
  std::string bytes;
};

// The first number whose layout differs from that of the one before is 64.
guint64 number_after(const Kind &kind) { return kind.has_new_layout ? 64 : 9; }
guint64 number_before(const Kind &kind) { return kind.has_new_layout ? 63 : 8; }

void write_file(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  chmod(path.c_str(), 0600);
}

// A writer that is killed in the middle of an update, so that its token stays.
void leave_corpse(const std::string &path) {
  const pid_t child = start([] {
    Related values;
    values.write("G", 8);
    return 0;
  });
  wait_for(child);
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  const std::uint64_t token = 4711;
  static_cast<void>(!pwrite(fd, &token, sizeof token, 128));
  close(fd);
}

// All different contents of the file during the update.
std::vector<Step> states_of(const Kind &kind, const std::string &path) {
  std::vector<Step> steps;
  const pid_t writer = start([&] {
    Related values;
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) return 125;
    raise(SIGSTOP);
    return values.write("G", number_after(kind)) == 0 ? 0 : 1;
  });
  int status = 0;
  waitpid(writer, &status, 0);
  struct stat file = {};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  fstat(fd, &file);
  const auto size = static_cast<std::size_t>(file.st_size);
  const void *memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
  std::string last(static_cast<const char *>(memory), size);
  steps.push_back({last});
  while (WIFSTOPPED(status)) {
    if (std::memcmp(memory, last.data(), size) != 0) {
      last.assign(static_cast<const char *>(memory), size);
      steps.push_back({last});
    }
    if (ptrace(PTRACE_SINGLESTEP, writer, nullptr, nullptr) != 0) break;
    waitpid(writer, &status, 0);
  }
  munmap(const_cast<void *>(memory), size);
  close(fd);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? steps : std::vector<Step>{};
}

bool is_good(const Kind &kind, const std::string &group) {
  Related values;
  const int found = values.read(group.c_str());
  const bool is_whole = found == related_values && !values.is_torn() &&
                        (values.number() == number_before(kind) || values.number() == number_after(kind)) &&
                        (kind.is_written || values.number() == number_after(kind));
  const bool is_unwritten = !kind.is_written && (found == -ENOENT || found == 0);
  if (!is_whole && !is_unwritten) note("%s: %d values, number %lu", kind.name, found, values.number());
  const bool is_writable = values.write(group.c_str(), 1000) == 0;
  if (!is_writable) note("%s: not writable", kind.name);
  return (is_whole || is_unwritten) && is_writable;
}

}  // namespace

int main(int argc, char **argv) {
  const long updates = amount(argc, argv, "updates", 1);
  long checked = 0, bad = 0;
  for (const auto &kind : kinds) {
    for (long i = 0; i < updates; ++i) {
      const StatusFolder folder;
      const std::string path = folder.dir.file("G.status");
      const int made = wait_for(start([&] {
        if (status_store_create_group("G", kind.size, 0) != 0) return 1;
        return !kind.is_written || Related().write("G", number_before(kind)) == 0 ? 0 : 1;
      }));
      if (kind.is_lock_of_a_corpse) leave_corpse(path);
      const auto states = made == 0 ? states_of(kind, path) : std::vector<Step>{};
      if (states.empty()) return finish(false, "%s: no update could be stepped through", kind.name);
      for (std::size_t first = 0; first < states.size(); first += states_of_a_child) {
        const int count = wait_for(start([&] {
          int faults = 0;
          for (std::size_t at = first; at < std::min(states.size(), first + states_of_a_child); ++at) {
            const std::string group = "C" + std::to_string(at);
            const std::string copy = folder.dir.file(group + ".status");
            write_file(copy, states[at].bytes);
            faults += is_good(kind, group) ? 0 : 1;
            unlink(copy.c_str());
          }
          return std::min(faults, 100);
        }));
        bad += count < 0 ? 1 : count;
        if (count < 0) note("%s: a reader ended with %d", kind.name, count);
      }
      checked += static_cast<long>(states.size());
    }
  }
  return finish(bad == 0, "%ld states in %zu kinds of groups: %ld bad", checked, std::size(kinds), bad);
}
