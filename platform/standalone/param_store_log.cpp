// The write-ahead log of a store, and whole trees.
#include <algorithm>
#include <cstring>

#include "param_store.h"

namespace ptz::platform {

PageCopy ParamStore::copy_pages_to(sqlite3 *database, int pages) {
  auto &copy = copies_[database];
  if (copy == nullptr) copy.reset(sqlite3_backup_init(database, "main", database_.get(), "main"));
  if (copy == nullptr) {
    copies_.erase(database);
    return {answer(sqlite3_errcode(database)), 0};
  }
  const int code = sqlite3_backup_step(copy.get(), pages);
  if (code == SQLITE_OK) return {StoreResult::ok, std::max(sqlite3_backup_remaining(copy.get()), 1)};
  copies_.erase(database);
  return {answer(code), 0};
}

StoreResult ParamStore::checkpoint(bool &whole) {
  int pages = -1, copied = -1;
  const auto result =
      answer(sqlite3_wal_checkpoint_v2(database_.get(), "main", SQLITE_CHECKPOINT_PASSIVE, &pages, &copied));
  whole = result == StoreResult::ok && pages == copied;
  return result;
}

// If another program has written since the checkpoint, SQLite itself flushes what is missing: only then is there any
// flush at synchronous = NORMAL.
StoreResult ParamStore::cut_log() {
  flush_writes(true);
  const int code = sqlite3_wal_checkpoint_v2(database_.get(), "main", SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
  flush_writes(false);
  const auto result = answer(code);
  if (result == StoreResult::ok) log_pages_ = 0;
  return result;
}

void ParamStore::flush_writes(bool on) {
  static_cast<void>(execute(database_.get(), on ? "PRAGMA synchronous = NORMAL" : "PRAGMA synchronous = OFF"));
}

// From SQLite's index of the log, whose layout is part of its file format. The file must not be opened for this (see
// param_files.h), but SQLite has it mapped.
LogState log_state_of(sqlite3 *database) {
  constexpr int region_size = 32768;
  constexpr std::size_t salts_at = 32, backfilled_at = 96;
  // Without an open log, xShmMap() would make an index that SQLite does not know of.
  sqlite3_file *file = nullptr, *log = nullptr;
  if (sqlite3_file_control(database, "main", SQLITE_FCNTL_JOURNAL_POINTER, &log) != SQLITE_OK || log == nullptr ||
      log->pMethods == nullptr) {
    return {};
  }
  if (sqlite3_file_control(database, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK || file == nullptr ||
      file->pMethods == nullptr || file->pMethods->iVersion < 2) {
    return {};
  }
  volatile void *region = nullptr;
  if (file->pMethods->xShmMap(file, 0, region_size, 0, &region) != SQLITE_OK || region == nullptr) return {};
  const auto *bytes = static_cast<const volatile std::uint8_t *>(region);
  const auto word_at = [bytes](std::size_t offset) {
    std::uint32_t word = 0;
    for (std::size_t i = 0; i < sizeof(word); ++i) reinterpret_cast<std::uint8_t *>(&word)[i] = bytes[offset + i];
    return word;
  };
  return {{word_at(salts_at), word_at(salts_at + 4)}, word_at(backfilled_at)};
}

}  // namespace ptz::platform
