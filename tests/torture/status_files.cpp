// Files of status groups that cannot be used: each call fails with an error and no process gets a signal. A group that
// is made anew is seen within 1.1 s by a process that has the former one.
//
//   status_files [--rounds=N]
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string_view>

#include "status_group.h"
#include "torture.h"

namespace {

using namespace torture;
namespace fs = std::filesystem;

constexpr std::int64_t follow_limit_us = 1'100'000;

struct Result {
  int count;
  std::int64_t followed_us;
};

bool is_stated(int error) {
  return error == -ENOENT || error == -EBADMSG || error == -EIO || error == -ENOSPC || error == -EACCES;
}

using Spoil = void (*)(const std::string &path);

struct Case {
  const char *name;
  Spoil spoil;
  bool may_be_read = false;  // as before, by a process that has it mapped
};

const Case cases[] = {
    {"truncated", [](const std::string &path) { fs::resize_file(path, 100); }, true},
    {"empty", [](const std::string &path) { fs::resize_file(path, 0); }, true},
    {"foreign",
     [](const std::string &path) {
       unlink(path.c_str());
       std::ofstream(path) << std::string(20'000, 'x');
       chmod(path.c_str(), 0600);
     }},
    {"oversized", [](const std::string &path) { fs::resize_file(path, fs::file_size(path) + 4096); }, true},
    {"enormous", [](const std::string &path) { fs::resize_file(path, 1ULL << 40); }, true},
    {"a folder",
     [](const std::string &path) {
       unlink(path.c_str());
       mkdir(path.c_str(), 0700);
     }},
    {"a pipe",
     [](const std::string &path) {
       unlink(path.c_str());
       mkfifo(path.c_str(), 0600);
     }},
    {"a symbolic link",
     [](const std::string &path) {
       unlink(path.c_str());
       static_cast<void>(!symlink("/dev/zero", path.c_str()));
     }},
    {"world-writable", [](const std::string &path) { chmod(path.c_str(), 0666); }, true},
    {"unlinked", [](const std::string &path) { unlink(path.c_str()); }, true},
};

// In a process that had the group mapped: every call until the look at the path, a second later, and then a new group.
int use(const Case &one, const std::string &path, bool is_mapped, Result &result) {
  Related values;
  if (is_mapped && (values.read("G") != related_values || values.write("G", 2) != 0)) return 2;
  one.spoil(path);
  // A file that is replaced at once is followed from the mapping of the former one.
  const bool is_replaced = is_mapped && std::string_view(one.name) == "unlinked";
  for (int i = 0; i < 3 && !is_replaced; ++i) {
    const int read = values.read("G"), written = values.write("G", 3);
    const bool read_well = read == related_values ? is_mapped : is_stated(read);
    const bool wrote_well = written == 0 ? is_mapped : is_stated(written);
    if (!read_well || !wrote_well) {
      note("%s: read %d, written %d", one.name, read, written);
      ++result.count;
    }
    if (is_mapped) usleep(450'000);
  }
  fs::remove_all(path);
  const auto begun_us = now_us();
  if (status_store_create_group("G", 2048, 0) != 0) {
    note("%s: not made anew: %s", one.name, std::strerror(errno));
    ++result.count;
    return 0;
  }
  wait_for(start([] { return Related().write("G", 7) == 0 ? 0 : 1; }));
  while ((values.read("G") != related_values || values.number() != 7) && now_us() - begun_us < 3'000'000) usleep(1000);
  result.followed_us = std::max(result.followed_us, now_us() - begun_us);
  return 0;
}

// A full file system is an error of the creation, and no signal when the group is written.
int use_full_file_system(Result &result) {
  const ptz_test::TempDir dir;
  if (mount("none", dir.path().c_str(), "tmpfs", 0, "size=64k") != 0) return skipped;
  setenv("PTZ_PLATFORM_RUNTIME_DIR", dir.path().c_str(), 1);
  int made = 0;
  while (status_store_create_group(("F" + std::to_string(made)).c_str(), 2048, 0) == 0) ++made;
  if (errno != ENOSPC) ++result.count;
  Related values;
  for (int i = 0; i < made; ++i) {
    if (values.write(("F" + std::to_string(i)).c_str(), 5) != 0) ++result.count;
  }
  for ([[maybe_unused]] const auto &entry : fs::directory_iterator(dir.path())) --made;
  if (made != 0) ++result.count;
  umount2(dir.path().c_str(), MNT_DETACH);
  return 0;
}

}  // namespace

int main(int, char **) {
  auto &result = *shared<Result>();
  int signals = 0;
  std::vector<pid_t> children;
  for (const auto &one : cases) {
    for (const bool is_mapped : {false, true}) {
      // A truncated file that is mapped ends its readers: only the group's writers can shrink a file.
      const bool shrinks = std::string(one.name) == "truncated" || std::string(one.name) == "empty";
      if (is_mapped && shrinks) continue;
      children.push_back(start([&] {
        const StatusFolder folder;
        const int made = wait_for(
            start([] { return status_store_create_group("G", 2048, 0) == 0 && Related().write("G", 1) == 0 ? 0 : 1; }));
        return made != 0 ? 3 : use(one, folder.dir.file("G.status"), is_mapped, result);
      }));
    }
  }
  for (const pid_t child : children) {
    const int status = wait_for(child);
    signals += status != 0;
    if (status != 0) note("a process ended with %d", status);
  }
  const int full = wait_for(start([&] { return use_full_file_system(result); }));
  signals += full != 0 && full != skipped;
  return finish(signals == 0 && result.count == 0 && result.followed_us <= follow_limit_us,
                "%zu cases%s: %d signals, %d wrong results; a group made anew is seen after %.2f s at most",
                children.size() + 1, full == skipped ? " (no file system could be mounted)" : "", signals, result.count,
                static_cast<double>(result.followed_us) / 1e6);
}
