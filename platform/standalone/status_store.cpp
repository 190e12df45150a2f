// The C interface of the status store. Design comments: status_file.h, status_registry.h, status_ring.h, status_lock.h.
#include "platform/status_store.h"

#include <sys/stat.h>
#include <cerrno>

#include "status_file.h"
#include "status_lock.h"
#include "status_registry.h"
#include "status_values.h"

namespace {

using namespace ptz::platform;

int fail(int error) {
  errno = error;
  return -1;
}

int read_group(const Mapping &mapping, State &state, StatusStoreParam **params) {
  if (const int error = mapping.file.ring.read(state); error != 0) return fail(error);
  const int count = read_values(state, params);
  return count >= 0 ? count : fail(-count);
}

}  // namespace

gint status_store_create_group(const gchar *name, guint32 size, gint) {
  if (name == nullptr || !is_group_name(name)) return fail(EINVAL);
  if (size > max_group_size) return fail(EFBIG);
  const char *directory = runtime_directory();
  const auto path = path_of_group(directory, name);
  struct stat status = {};
  if (lstat(path.c_str(), &status) == 0) return fail(EEXIST);
  return create_file(directory, path, size);
}

gint status_store_set_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
  auto *mapping = mapping_of(name, writing);
  if (mapping == nullptr) return -1;
  auto &lock = mapping->file.header->writers;
  if (const int error = lock_writers(lock); error != 0) return fail(error);
  const int error = write_values(mapping->file.ring, mapping->state, params);
  unlock_writers(lock);
  return error == 0 ? 0 : fail(error);
}

gint status_store_get_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
  auto *mapping = mapping_of(name, reading);
  if (mapping == nullptr) return -1;
  // One thread at a time reads into the mapping's state; any other thread, without waiting, into one of its own.
  if (mapping->state_in_use.exchange(true, std::memory_order_acquire)) {
    State own(mapping->file.ring.group_size());
    return read_group(*mapping, own, params);
  }
  const int count = read_group(*mapping, mapping->state, params);
  mapping->state_in_use.store(false, std::memory_order_release);
  return count;
}
