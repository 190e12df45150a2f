// Mutated files of the parameter tree, opened by the real service: the database, its log, its lock file. The service
// has to read and to write the tree, or to fail with a stated error, and it must not end or hang. SQLite's pages have
// no checksums, so a value with a changed byte is read as it is; such values are counted.
//
//   param_mutations --files=N [--seed=N]
#include <sys/stat.h>
#include <unistd.h>

#include "param_actions.h"
#include "param_tree.h"
#include "platform/param_service.h"
#include "torture.h"

namespace {

using namespace torture;

constexpr unsigned limit_s = 8;

struct Result {
  int read_error, write_error, again_error;
  bool is_changed, is_read_back;
  std::int64_t took_us;
};

struct Totals {
  long files = 0, ended = 0, wrong = 0, unread = 0, unwritten = 0, changed = 0;
  std::int64_t longest_us = 0;
};

void change_once(std::string &bytes, std::mt19937_64 &random) {
  const auto at = random() % bytes.size();
  const auto length = std::min<std::size_t>(1 + random() % 600, bytes.size() - at);
  switch (random() % 6) {
    case 0:
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << random() % 8));
      break;
    case 1:
      bytes[at] = static_cast<char>(random() % 2 == 0 ? 0xFF : 0);
      break;
    case 2:
      std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), length, '\0');
      break;
    case 3:
      bytes.replace(at, length, bytes, random() % (bytes.size() - length + 1), length);
      break;
    case 4:
      bytes.resize(at + 1);
      break;
    default:
      for (std::size_t i = at; i < at + length; ++i) bytes[i] = static_cast<char>(random());
  }
}

// Half of the changes hit the header and the first page's tables.
std::string mutated(std::string bytes, std::mt19937_64 &random) {
  const auto changes = 1 + random() % 4;
  for (std::uint64_t i = 0; i < changes && !bytes.empty(); ++i) {
    std::string head = bytes.substr(0, std::min<std::size_t>(bytes.size(), 160));
    if (random() % 2 == 0) {
      change_once(head, random);
      if (head.size() == std::min<std::size_t>(bytes.size(), 160)) bytes.replace(0, head.size(), head);
    } else {
      change_once(bytes, random);
    }
  }
  return bytes;
}

int use(const std::string &expected, Result &result) {
  alarm(limit_s);
  const auto begun_us = now_us();
  int error = 0;
  const std::string found = content(error);
  result.read_error = error;
  result.is_changed = error == 0 && !found.empty() && found != expected;
  result.write_error = set("root.New.A", "written");
  std::string value;
  result.again_error = get("root.New.A", value);
  result.is_read_back = value == "written";
  static_cast<void>(sync_tree());
  result.took_us = now_us() - begun_us;
  return 0;
}

bool is_stated(int error) {
  // The name of a group may have become one that is no path.
  return error == 0 || error == PARAM_SERVICE_STORAGE || error == PARAM_SERVICE_NO_PARAMETER ||
         error == PARAM_SERVICE_BAD_PATH;
}

}  // namespace

int main(int argc, char **argv) {
  const long files = amount(argc, argv, "files", 300), seed = amount(argc, argv, "seed", 1);
  begin_log();
  shorten_waits();
  ptz::platform::tree_times.settled_us = 0;
  ptz::platform::tree_times.damage_settled_us = 0;
  ptz::platform::tree_times.busy_limit_us = 1'000'000;
  const TreeFolder folder;
  auto &result = *shared<Result>();
  wait_for(start([] {
    for (int i = 0; i < 200; ++i)
      set("root.G" + std::to_string(i % 9) + ".P" + std::to_string(i), "value " + std::to_string(i));
    sync_tree();
    for (int i = 0; i < 60; ++i)
      set("root.H" + std::to_string(i % 5) + ".P" + std::to_string(i), "later " + std::to_string(i));
    return 0;
  }));
  const std::string names[] = {folder.database(), folder.database() + "-wal", folder.database() + "-lock"};
  std::string originals[3], expected;
  for (int i = 0; i < 3; ++i) originals[i] = read_file(names[i]);
  wait_for(start([&] {
    int error = 0;
    write_file(folder.file("expected"), content(error));
    return 0;
  }));
  expected = read_file(folder.file("expected"));
  Totals totals;
  for (long i = 0; i < files; ++i) {
    std::mt19937_64 random(static_cast<std::uint64_t>(seed * 1'000'003 + i));
    folder.empty();
    const auto which = random() % 4;  // 3: all
    for (std::size_t each = 0; each < 3; ++each) {
      write_file(names[each], which == each || which == 3 ? mutated(originals[each], random) : originals[each]);
    }
    result = {};
    const int status = wait_for(start([&] { return use(expected, result); }));
    ++totals.files;
    totals.longest_us = std::max(totals.longest_us, result.took_us);
    totals.unread += result.read_error != 0;
    totals.unwritten += result.write_error != 0;
    totals.changed += result.is_changed;
    if (status != 0) {
      ++totals.ended;
      note("file %ld (%lu): the process ended with %d (%s)", i, which, status, take_log().last.c_str());
    } else if (!is_stated(result.read_error) || !is_stated(result.write_error) || !is_stated(result.again_error) ||
               (result.write_error == 0 && !result.is_read_back)) {
      ++totals.wrong;
      note("file %ld (%lu): read %d, write %d, again %d (%s)", i, which, result.read_error, result.write_error,
           result.again_error, take_log().last.c_str());
    }
  }
  return finish(
      totals.ended + totals.wrong == 0,
      "%ld sets of files: %ld signals or hangs, %ld wrong results; %ld not readable and %ld not writable with a "
      "stated error, %ld read with other content; longest %.2f s",
      totals.files, totals.ended, totals.wrong, totals.unread, totals.unwritten, totals.changed,
      static_cast<double>(totals.longest_us) / 1e6);
}
