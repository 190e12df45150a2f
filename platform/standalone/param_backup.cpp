#include "platform/param_service_backup.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <sys/stat.h>
#include <unistd.h>
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

// All pages of one database, in one read transaction.
int copy_pages(sqlite3 *from, sqlite3 *to) {
  sqlite3_backup *backup = sqlite3_backup_init(to, "main", from, "main");
  if (backup == nullptr) return sqlite3_errcode(to);
  const int copied = sqlite3_backup_step(backup, -1);
  const int finished = sqlite3_backup_finish(backup);
  return copied == SQLITE_DONE ? finished : copied;
}

// A rollback-mode database, which is one file at any time and can be opened in a folder that is not writable.
StoreResult write_copy(sqlite3 *tree, const std::string &file, std::string &reason) {
  Database copy;
  StoreResult result = open_database(file, copy, reason);
  if (result != StoreResult::ok) return result;
  int code = copy_pages(tree, copy.get());
  if (code == SQLITE_OK) code = execute(copy.get(), "PRAGMA journal_mode = DELETE");
  if (code != SQLITE_OK) reason = sqlite3_errstr(code);
  return result_of(code);
}

bool flush_path(const std::string &path, int flags) {
  const ptz::UniqueFd fd(open(path.c_str(), flags | O_CLOEXEC));
  return fd && (fsync(fd.get()) == 0 || errno == EINVAL);
}

std::string folder_containing(const std::string &file) {
  const auto slash = file.rfind('/');
  return slash == std::string::npos ? "." : file.substr(0, slash + 1);
}

// Whether the file is the tree's own database, which is no place for a backup and no source of one.
bool is_tree(const char *file) {
  struct stat given = {}, own = {};
  bool same = false;
  const auto result = ParamTree::instance().read([&](ParamStore &store) {
    const char *path = sqlite3_db_filename(store.database(), "main");
    same = stat(file, &given) == 0 && stat(path, &own) == 0 && given.st_dev == own.st_dev && given.st_ino == own.st_ino;
    return StoreResult::ok;
  });
  return result == StoreResult::ok && same;
}

gboolean refuse_tree(GError **error, const char *file) {
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "%s: is the parameter tree itself", file);
  return FALSE;
}

// A database in memory: the file is read once, and brought up to date without a change of it.
StoreResult load(const std::string &file, Database &loaded, std::string &reason) {
  sqlite3 *raw = nullptr;
  // Without a log beside it, the file may be where nothing can be written.
  const bool has_log = access((file + "-wal").c_str(), F_OK) == 0;
  const ptz::Text uri(g_filename_to_uri(file.c_str(), nullptr, nullptr));
  if (uri == nullptr) return StoreResult::failed;
  const std::string name = uri.get() + std::string(has_log ? "" : "?immutable=1");
  const int flags = (has_log ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY) | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
  int code = sqlite3_open_v2(name.c_str(), &raw, flags, nullptr);
  const Database source(raw);
  sqlite3_db_config(raw, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  int version = 0;
  StoreResult result = result_of(code);
  reason = sqlite3_errstr(code);
  if (result == StoreResult::ok) result = check_tree(raw, version, reason);
  if (result == StoreResult::ok) result = check_pages(raw, reason);
  if (result != StoreResult::ok) return result;
  raw = nullptr;
  code = sqlite3_open_v2(":memory:", &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  loaded.reset(raw);
  if (code == SQLITE_OK) code = copy_pages(source.get(), raw);
  if (code != SQLITE_OK) {
    reason = sqlite3_errstr(code);
    return result_of(code);
  }
  return upgrade(raw, version, schema.steps, schema.version, reason);
}

}  // namespace

gboolean param_service_backup(const gchar *file, GError **error) {
  g_return_val_if_fail(file != nullptr, FALSE);
  if (is_tree(file)) return refuse_tree(error, file);
  std::string temporary = std::string(file) + ".new-XXXXXX";
  ptz::UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) {
    set_system_error(error, file, errno);
    return FALSE;
  }
  fd.reset();
  std::string reason;
  StoreResult result = StoreResult::failed;
  std::string cause;
  const auto read = ParamTree::instance().read(
      [&](ParamStore &store) {
        result = write_copy(store.database(), temporary, reason);
        // Other failures are those of the copy, and no reason to doubt the tree.
        return result == StoreResult::busy || result == StoreResult::damaged ? result : StoreResult::ok;
      },
      &cause);
  if (read != StoreResult::ok) result = read;
  gboolean written = FALSE;
  if (result != StoreResult::ok) {
    set_error(error, file, result, reason.empty() ? cause : reason);
  } else if (!flush_path(temporary, O_RDWR) || rename(temporary.c_str(), file) != 0 ||
             !flush_path(folder_containing(file), O_RDONLY | O_DIRECTORY)) {
    set_system_error(error, file, errno);
  } else {
    written = TRUE;
  }
  if (!written) unlink(temporary.c_str());
  return written;
}

gboolean param_service_restore(const gchar *file, GError **error) {
  g_return_val_if_fail(file != nullptr, FALSE);
  struct stat status = {};
  if (stat(file, &status) != 0) {
    set_system_error(error, file, errno);
    return FALSE;
  }
  if (is_tree(file)) return refuse_tree(error, file);
  const ptz::Text path(g_canonicalize_filename(file, nullptr));
  Database source;
  std::string reason;
  StoreResult result = status.st_size < smallest_database ? StoreResult::damaged : load(path.get(), source, reason);
  if (result != StoreResult::ok) return set_error(error, file, result, reason.empty() ? "is empty" : reason);
  result = ParamTree::instance().write(
      "(all)", [&](ParamStore &store) { return store.replace_by(source.get()); }, &reason);
  if (result == StoreResult::ok) result = ParamTree::instance().sync(&reason);
  return result == StoreResult::ok ? TRUE : set_error(error, file, result, reason);
}
