#include "platform/param_service_backup.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

#include "param_tree.h"

namespace {

using namespace ptz::platform;

void set_system_error(GError **error, const char *file, int number) {
  g_set_error(error, G_FILE_ERROR, g_file_error_from_errno(number), "%s: %s", file, g_strerror(number));
}

GIOErrorEnum code_of(StoreResult result) {
  switch (result) {
    case StoreResult::busy:
      return G_IO_ERROR_BUSY;
    case StoreResult::read_only:
      return G_IO_ERROR_PERMISSION_DENIED;
    case StoreResult::full:
      return G_IO_ERROR_NO_SPACE;
    case StoreResult::damaged:
    case StoreResult::foreign:
      return G_IO_ERROR_INVALID_DATA;
    case StoreResult::newer:
      return G_IO_ERROR_NOT_SUPPORTED;
    default:
      return G_IO_ERROR_FAILED;
  }
}

gboolean set_error(GError **error, const char *file, StoreResult result, const std::string &reason) {
  g_set_error(error, G_IO_ERROR, code_of(result), "%s: %s", file, reason.c_str());
  return FALSE;
}

constexpr int first_step_pages = 20;
constexpr gulong step_pause_us = 100;
// In the header of a database: the journal modes of its readers and its writers.
constexpr std::size_t read_mode_at = 18, write_mode_at = 19;
constexpr char rollback_mode = 1, log_mode = 2;

Database memory_database() {
  sqlite3 *raw = nullptr;
  sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  return Database(raw);
}

// Copies the tree a few pages at a time, so that reads of other threads go on. SQLite begins again if another process
// has written; the steps then become longer, until the last one is the whole tree.
StoreResult copy_tree(sqlite3 *to, std::string &reason) {
  int pages = first_step_pages, remaining = -1;
  while (true) {
    PageCopy copied;
    const auto result = ParamTree::instance().read(
        [&](ParamStore &store) {
          copied = store.copy_pages_to(to, pages);
          return copied.result;
        },
        &reason);
    if (result != StoreResult::ok || copied.remaining == 0) return result;
    if (remaining >= 0 && copied.remaining >= remaining) pages = std::min(2 * pages, 1 << 20);
    remaining = copied.remaining;
    g_usleep(step_pause_us);
  }
}

// The file that the database would be, in the given journal mode. Empty if there is no memory.
std::string image_of(sqlite3 *database, char mode) {
  sqlite3_int64 size = 0;
  const ptz::Handle<unsigned char, sqlite3_free> bytes(sqlite3_serialize(database, "main", &size, 0));
  if (bytes == nullptr || size < smallest_database) return "";
  std::string image(reinterpret_cast<const char *>(bytes.get()), static_cast<std::size_t>(size));
  image[read_mode_at] = image[write_mode_at] = mode;
  return image;
}

std::string folder_containing(const std::string &file) {
  const auto slash = file.rfind('/');
  return slash == std::string::npos ? "." : file.substr(0, slash + 1);
}

bool is_same(const std::string &one, const std::string &other) {
  struct stat first = {}, second = {};
  return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

// Whether the file is one of the tree's own, which is no place for a backup and no source of one.
bool is_tree(const char *file) {
  bool same = false;
  const std::string given(file);
  const auto result = ParamTree::instance().read([&](ParamStore &store) {
    const std::string path = sqlite3_db_filename(store.database(), "main");
    const bool in_folder = is_same(folder_containing(given), folder_of(path));
    for (const char *suffix : {"", "-wal", "-shm", "-lock", "-journal"}) {
      const std::string own = path + suffix;
      const bool named = in_folder && given.substr(given.rfind('/') + 1) == own.substr(own.rfind('/') + 1);
      same = same || named || is_same(given, own);
    }
    return StoreResult::ok;
  });
  return result == StoreResult::ok && same;
}

gboolean refuse_tree(GError **error, const char *file) {
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "%s: is the parameter tree itself", file);
  return FALSE;
}

// A database in memory: the file is read once, and is brought up to date there. If it has a log, it is opened for
// writing, which may make an index of the log beside it.
StoreResult load(const std::string &file, Database &loaded, std::string &reason) {
  const ForkGate gate;
  const bool has_log = access((file + "-wal").c_str(), F_OK) == 0;
  Database source;
  StoreResult result = has_log ? open_database(file, source, reason) : open_without_log(file, source, reason);
  int version = 0;
  if (result == StoreResult::ok) result = check_tree(source.get(), version, reason);
  if (result == StoreResult::ok) result = check_pages(source.get(), reason);
  if (result != StoreResult::ok) return result;
  loaded = memory_database();
  sqlite3_backup *backup = sqlite3_backup_init(loaded.get(), "main", source.get(), "main");
  static_cast<void>(sqlite3_backup_step(backup, -1));
  if (const int code = sqlite3_backup_finish(backup); backup == nullptr || code != SQLITE_OK) {
    reason = sqlite3_errmsg(loaded.get());
    return backup != nullptr ? result_of(code) : StoreResult::failed;
  }
  return upgrade(loaded.get(), version, schema.steps, schema.version, reason);
}

// Writes a temporary file beside the file and renames it. Returns false with errno set.
bool replace_file(const std::string &file, const std::string &bytes) {
  std::string temporary = file + ".new-XXXXXX";
  ptz::UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) return false;
  if (write_whole(fd.get(), bytes) && fsync(fd.get()) == 0 && rename(temporary.c_str(), file.c_str()) == 0) {
    return flush_folder(folder_containing(file));
  }
  const int error = errno;
  unlink(temporary.c_str());
  errno = error;
  return false;
}

}  // namespace

gboolean param_service_backup(const gchar *file, GError **error) {
  g_return_val_if_fail(file != nullptr, FALSE);
  if (is_tree(file)) return refuse_tree(error, file);
  Database copy;
  {
    const ForkGate gate;
    copy = memory_database();
  }
  std::string reason, image;
  const StoreResult result = copy_tree(copy.get(), reason);
  {
    const ForkGate gate;
    if (result == StoreResult::ok) image = image_of(copy.get(), rollback_mode);
    copy.reset();
  }
  if (result != StoreResult::ok) return set_error(error, file, result, reason);
  if (image.empty()) return set_error(error, file, StoreResult::failed, "no memory for a copy of the tree");
  if (replace_file(file, image)) return TRUE;
  set_system_error(error, file, errno);
  return FALSE;
}

gboolean param_service_restore(const gchar *file, GError **error) {
  g_return_val_if_fail(file != nullptr, FALSE);
  struct stat status = {};
  if (stat(file, &status) != 0) {
    set_system_error(error, file, errno);
    return FALSE;
  }
  if (is_tree(file)) return refuse_tree(error, file);
  if (status.st_size < smallest_database)
    return set_error(error, file, StoreResult::damaged, status.st_size == 0 ? "is empty" : "is not a parameter tree");
  const ptz::Text path(g_canonicalize_filename(file, nullptr));
  Database source;
  std::string reason, image;
  StoreResult result = load(path.get(), source, reason);
  {
    const ForkGate gate;
    if (result == StoreResult::ok) image = image_of(source.get(), log_mode);
    source.reset();
  }
  if (result == StoreResult::ok && image.empty()) {
    result = StoreResult::failed;
    reason = "no memory for a copy of the tree";
  }
  if (result == StoreResult::ok) result = ParamTree::instance().replace_by(image, reason);
  return result == StoreResult::ok ? TRUE : set_error(error, file, result, reason);
}
