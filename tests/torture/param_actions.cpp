#include "param_actions.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "param_tree.h"

namespace torture {
namespace {

namespace fs = std::filesystem;

bool quiet(const TreeFolder &) { return true; }

bool fill(const TreeFolder &) {
  bool done = true;
  for (int i = 0; i < 30; ++i)
    done = done && set("root.G" + std::to_string(i % 5) + ".P" + std::to_string(i), "old") == 0;
  return done && create("root.D", 0) == 0 && create("root.D", 1) == 0;
}
bool fill_and_sync(const TreeFolder &folder) { return fill(folder) && sync_tree() == 0; }
// Something in the log, and something in the database.
bool fill_sync_and_set(const TreeFolder &folder) { return fill_and_sync(folder) && set("root.G1.P1", "logged") == 0; }
bool fill_and_keep_backup(const TreeFolder &folder) {
  return fill_and_sync(folder) && backup(folder.file("kept")) && set("root.G1.P1", "later") == 0 &&
         set("root.Later", "1") == 0;
}
bool fill_log(const TreeFolder &folder) {
  return fill_sync_and_set(folder) && [] {
    bool done = true;
    for (int i = 0; done && i < 98; ++i) done = set("root.G2.P2", "n" + std::to_string(i)) == 0;
    return done;
  }();
}

bool connect(const TreeFolder &) {
  std::string value;
  return get("root.G1.P1", value) == 0;
}
bool write_first(const TreeFolder &) { return set("root.G0.P0", "warm") == 0; }

bool set_old(const TreeFolder &) { return set("root.G1.P6", "new") == 0; }
bool set_new(const TreeFolder &) { return set("root.N.M.New", "new") == 0; }
bool make_group(const TreeFolder &) { return create("root.D", -1) == 0; }
bool drop_group(const TreeFolder &) { return remove_group("root.D.D1") == 0; }
bool sync(const TreeFolder &) { return sync_tree() == 0; }
bool read(const TreeFolder &) {
  int error = 0;
  return !content(error).empty() && error == 0;
}
bool save(const TreeFolder &folder) { return backup(folder.file("saved")); }
bool put_back(const TreeFolder &folder) { return restore(folder.file("kept")); }

// A whole file that another program puts in place.
bool fill_and_replace(const TreeFolder &folder) {
  if (!fill_and_keep_backup(folder)) return false;
  fs::copy_file(folder.file("kept"), folder.database() + ".other");
  fs::rename(folder.database() + ".other", folder.database());
  usleep(350'000);  // until it is known to be complete
  return true;
}
bool fill_and_overwrite(const TreeFolder &folder) {
  if (!fill_and_keep_backup(folder)) return false;
  write_file(folder.database(), read_file(folder.file("kept")));
  usleep(350'000);
  return true;
}
bool fill_and_truncate(const TreeFolder &folder) {
  return fill_and_sync(folder) && truncate(folder.database().c_str(), 0) == 0;
}
bool fill_and_damage(const TreeFolder &folder) {
  if (!fill_and_sync(folder)) return false;
  std::string bytes = read_file(folder.database());
  for (std::size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  write_file(folder.database(), bytes);
  usleep(350'000);
  return true;
}
bool fill_and_remove(const TreeFolder &folder) { return fill_and_sync(folder) && fs::remove(folder.database()); }
bool fill_and_remove_lock(const TreeFolder &folder) {
  return fill_sync_and_set(folder) && fs::remove(folder.database() + "-lock");
}
bool fill_and_remove_index(const TreeFolder &folder) {
  return fill_sync_and_set(folder) && fs::remove(folder.database() + "-shm");
}
bool fill_in_old_version(const TreeFolder &folder) { return fill_sync_and_set(folder); }

constexpr ptz::platform::UpgradeStep steps[] = {{1, "CREATE TABLE extra (name TEXT PRIMARY KEY)"}};
bool raise_version(const TreeFolder &) {
  ptz::platform::schema = {2, steps};
  return true;
}

// A reader of another program that keeps the log, so that it is copied and cannot be cut.
bool hold_reader(const TreeFolder &folder) {
  if (!fill_sync_and_set(folder)) return false;
  const pid_t reader = fork();
  if (reader == 0) {
    sqlite3 *database = nullptr;
    sqlite3_open_v2(folder.database().c_str(), &database, SQLITE_OPEN_READWRITE, nullptr);
    sqlite3_exec(database, "BEGIN; SELECT * FROM parameters", nullptr, nullptr, nullptr);
    write_file(folder.file("reads"), "1");
    usleep(60'000);
    _exit(0);
  }
  while (access(folder.file("reads").c_str(), F_OK) != 0) usleep(100);
  fs::remove(folder.file("reads"));
  ptz::platform::tree_times.busy_limit_us = 1;
  static_cast<void>(sync_tree());  // copies everything, and cuts nothing
  return true;
}

std::vector<Action> make_actions() {
  return {
      {"set", fill_sync_and_set, write_first, set_old},
      {"set-unconnected", fill_sync_and_set, quiet, set_old},
      {"set-after-sync", fill_and_sync, connect, set_old},
      {"set-after-sync-unconnected", fill_and_sync, quiet, set_old},
      {"set-new", fill_sync_and_set, connect, set_new},
      {"create-group", fill_sync_and_set, connect, make_group},
      {"delete-group", fill_and_sync, connect, drop_group},
      {"sync", fill_sync_and_set, write_first, sync},
      {"sync-unconnected", fill_sync_and_set, quiet, sync},
      {"flush", fill_log, write_first, set_old},
      {"read", fill_sync_and_set, quiet, read},
      {"backup", fill_sync_and_set, connect, save},
      {"restore", fill_and_keep_backup, connect, put_back, Noise::warnings},
      {"restore-unconnected", fill_and_keep_backup, quiet, put_back, Noise::warnings},
      {"first-creation", quiet, quiet, set_new},
      {"replaced-file", fill_and_replace, quiet, set_old, Noise::warnings},
      {"overwritten-file", fill_and_overwrite, quiet, set_old, Noise::warnings},
      {"empty-file", fill_and_truncate, quiet, set_old, Noise::errors},
      {"damaged-file", fill_and_damage, quiet, set_old, Noise::errors},
      {"missing-file", fill_and_remove, quiet, set_old, Noise::warnings},
      {"missing-lock", fill_and_remove_lock, quiet, set_old},
      {"missing-index", fill_and_remove_index, quiet, set_old},
      {"kept-log", hold_reader, quiet, set_old},
      {"upgrade", fill_in_old_version, raise_version, set_old},
  };
}

}  // namespace

const std::vector<Action> &actions() {
  static const std::vector<Action> all = make_actions();
  return all;
}

void shorten_waits() {
  ptz::platform::tree_times.look_us = 1000;
  ptz::platform::tree_times.damage_settled_us = 100'000;
  ptz::platform::tree_times.log_line_us = 0;
}

}  // namespace torture
