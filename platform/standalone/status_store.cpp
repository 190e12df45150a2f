// The C interface of the status store. Design comments: status_file.h, status_registry.h, status_ring.h, status_lock.h.
#include "platform/status_store.h"

#include <syslog.h>
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

// The layer above can only say that the group exists, because it tries to create a group that cannot be written.
void report(const char *name, int error) {
  if (error == ENOENT || error == EINVAL) return;  // the group will be created; a mistake of the caller
  const auto path = report_is_due(name);
  if (!path) return;
  const char *cause = g_strerror(error);
  if (error == EBUSY) cause = "another writer holds its lock";
  if (error == ENOSPC) cause = "the values are larger than the group";
  if (error == EBADMSG) cause = "the file is damaged, of another release or of a foreign user";
  syslog(LOG_WARNING, "Status group %s is not written: %s", path->c_str(), cause);
}

// The turn of the writers is held. Returns 0, or the error.
int write_group(Mapping &mapping, StatusStoreParam **params, WriterPatience &patience) {
  auto &shared = mapping.file.header->lock;
  if (const int error = mapping.lock.lock(shared, patience); error != 0) return error;
  auto &state = mapping.turn().state(mapping.file.ring.group_size());
  int error = prepare_values(mapping.file.ring, state, params);
  // If the program closes the lock's descriptor, another writer may take over at any moment.
  if (error == 0 && !mapping.lock.is_held(shared)) error = EBUSY;
  if (error == 0) mapping.file.ring.fill(state);
  if (error == 0 && !mapping.lock.is_held(shared)) error = EBUSY;
  if (error == 0) mapping.file.ring.publish(state);
  mapping.lock.unlock(shared);
  return error;
}

int set_group(const char *name, StatusStoreParam **params) {
  constexpr int max_attempts = 3;  // the group is replaced while this thread finds it
  WriterPatience patience;
  int error = ESTALE;
  for (int attempt = 0; attempt < max_attempts && error == ESTALE; ++attempt) {
    auto *mapping = mapping_of(name, writing);
    if (mapping == nullptr) return errno;
    if (!mapping->take_turn(patience)) return EBUSY;
    error = write_group(*mapping, params, patience);
    mapping->turn().give_back();
  }
  return error == ESTALE ? EBUSY : error;
}

int read_group(const Ring &ring, State &state, StatusStoreParam **params) {
  if (const int error = ring.read(state); error != 0) return -error;
  return state.sequence == Word{0} ? -ENOENT : read_values(state, params);
}

}  // namespace

gint status_store_create_group(const gchar *name, guint32 size, gint) {
  if (name == nullptr || !is_group_name(name)) return fail(EINVAL);
  if (size > max_group_size) return fail(EFBIG);
  const auto &directory = runtime_directory();
  return create_file(directory, path_of_group(directory, name), size);
}

gint status_store_set_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
  const int error = set_group(name, params);
  if (error == 0) return 0;
  report(name, error);
  return fail(error);
}

gint status_store_get_group(const gchar *name, StatusStoreParam **params, gint) {
  if (name == nullptr || params == nullptr) return fail(EINVAL);
  auto *mapping = mapping_of(name, reading);
  if (mapping == nullptr) return -1;
  const auto &ring = mapping->file.ring;
  int count = 0;
  if (auto *workspace = mapping->take_workspace()) {
    count = read_group(ring, workspace->state(ring.group_size()), params);
    workspace->give_back();
  } else {
    State own(ring.group_size());
    count = read_group(ring, own, params);
  }
  return count >= 0 ? count : fail(-count);
}
