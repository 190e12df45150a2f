#include "status_registry.h"

#include <pthread.h>
#include <cerrno>
#include <ctime>
#include <iterator>
#include <string_view>

#include "base/clock.h"
#include "base/handles.h"
#include "directories.h"

namespace ptz::platform {

namespace {

constexpr clockid_t look_clock = CLOCK_MONOTONIC_COARSE;  // takes a third of the time of the fine one
constexpr std::int64_t look_interval_ns = DirectorySetting::max_age_ns;
constexpr std::int64_t report_interval_ns = 60'000'000'000;

struct Group {
  const std::string &directory;
  const std::string name;
  std::atomic<Mapping *> mappings[2] = {};  // by access
  std::int64_t reported_at_ns = Mapping::never;
  Group *next = nullptr;
};

GMutex registry_lock;
// Changed under the lock.
DirectorySetting directory_setting("PTZ_PLATFORM_RUNTIME_DIR", "/run/ptz");
std::atomic<Group *> groups[64];
bool has_fork_handlers = false;

// --- fork -------------------------------------------------------------------------------------------------------

template <typename Function>
void for_each_mapping(Access access, Function function) {
  for (auto &bucket : groups) {
    for (auto *group = bucket.load(std::memory_order_relaxed); group != nullptr; group = group->next) {
      if (auto *mapping = group->mappings[access].load(std::memory_order_relaxed)) function(*mapping);
    }
  }
}

void before_fork() {
  g_mutex_lock(&registry_lock);
  for_each_mapping(reading, [](Mapping &mapping) {
    for (auto &workspace : mapping.workspaces) workspace.before_fork();
  });
}

void after_fork_in_parent() {
  for_each_mapping(reading, [](Mapping &mapping) {
    for (auto &workspace : mapping.workspaces) workspace.after_fork_in_parent();
  });
  g_mutex_unlock(&registry_lock);
}

void after_fork_in_child() {
  for_each_mapping(reading, [](Mapping &mapping) {
    for (auto &workspace : mapping.workspaces) workspace.after_fork_in_child();
  });
  for_each_mapping(writing, [](Mapping &mapping) {
    mapping.turn().after_fork_in_child();
    // A former mapping still has its descriptor if a thread was writing when it was retired.
    for (auto *former = &mapping; former != nullptr; former = former->older) former->lock.withdraw();
    mapping.looked_at_ns.store(Mapping::never, std::memory_order_relaxed);
  });
  g_mutex_unlock(&registry_lock);
}

// --- groups, registry_lock held for changes ---------------------------------------------------------------------

// Names differ in their lengths and last characters.
std::atomic<Group *> &bucket_of(std::string_view name) {
  const std::size_t hash = name.empty() ? 0 : name.size() * 5 + static_cast<unsigned char>(name.back());
  return groups[hash % std::size(groups)];
}

Group *find_group(const std::string &directory, std::string_view name) {
  for (auto *group = bucket_of(name).load(std::memory_order_acquire); group != nullptr; group = group->next) {
    if (&group->directory == &directory && group->name == name) return group;
  }
  return nullptr;
}

Group &find_or_add_group(const std::string &directory, std::string_view name) {
  if (auto *group = find_group(directory, name)) return *group;
  auto &bucket = bucket_of(name);
  auto *added = new Group{directory, std::string(name)};
  added->next = bucket.load(std::memory_order_relaxed);
  bucket.store(added, std::memory_order_release);
  return *added;
}

// --- slow path, registry_lock held ------------------------------------------------------------------------------

// Gives the mapping a descriptor to lock with. It is one of its own: a child shares the description of a mapped one by
// the mapping, also after it has closed the descriptor, and so would prolong the life of the lock. Returns 0, or the
// error.
int enrol(Mapping &mapping, const std::string &directory, const std::string &path) {
  mapping.lock.withdraw();
  auto file = open_file(directory, path, writing);
  if (!file.fd) return errno;
  const auto &mapped = mapping.file.status;
  if (file.status.st_dev != mapped.st_dev || file.status.st_ino != mapped.st_ino) return ESTALE;
  return mapping.lock.enrol(std::move(file.fd));
}

// The same if the descriptor does not work any more.
int enrol_again(Mapping &mapping, const std::string &directory, const std::string &path) {
  if (!mapping.turn().try_take()) return 0;  // a thread is writing: it is enrolled
  const int error = mapping.lock.is_intact(mapping.file.header->lock) ? 0 : enrol(mapping, directory, path);
  mapping.turn().give_back();
  return error;
}

// Closes the descriptors of mappings that are no longer the group's, the newest first. If a thread is writing, the next
// replacement of the file tries again. A thread that has found the mapping, and has not locked yet, gets ESTALE from
// the lock.
void retire(Mapping *mapping) {
  for (; mapping != nullptr; mapping = mapping->older) {
    if (!mapping->turn().try_take()) continue;
    mapping->lock.withdraw();
    mapping->turn().give_back();
  }
}

Mapping *open_mapping(const std::string &directory, const std::string &path, Access access) {
  const auto file = open_file(directory, path, access);
  if (!file.fd) return nullptr;
  const auto mapped = map_file(file, access);
  if (!mapped) return nullptr;
  auto mapping = std::make_unique<Mapping>(*mapped);
  if (access == writing) {
    if (const int error = enrol(*mapping, directory, path); error != 0) {
      unmap_file(*mapped);
      errno = error;
      return nullptr;
    }
  }
  return mapping.release();
}

// Whether the path still leads to the mapped file, and the file can be locked. Returns 0; ESTALE if it is another file;
// or another error.
int look_at(Mapping &mapping, const std::string &directory, const std::string &path, Access access) {
  switch (currency_of(mapping.file, path)) {
    case Currency::replaced:
      return ESTALE;
    case Currency::damaged:
      return EBADMSG;
    case Currency::current:
      break;
  }
  return access == writing ? enrol_again(mapping, directory, path) : 0;
}

Mapping *look_up(std::string_view name, Access access) {
  if (!has_fork_handlers) {
    errno = pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    if (errno != 0) return nullptr;
    has_fork_handlers = true;
  }
  const auto now_ns = clock_now_ns(look_clock);
  const auto &directory = directory_setting.read(now_ns);
  const auto path = path_of_group(directory, name);
  auto *group = find_group(directory, name);
  auto *known = group != nullptr ? group->mappings[access].load(std::memory_order_relaxed) : nullptr;
  if (known != nullptr) {
    if (now_ns - known->looked_at_ns.load(std::memory_order_relaxed) < look_interval_ns) return known;
    const int error = look_at(*known, directory, path, access);
    if (error == 0) known->looked_at_ns.store(now_ns, std::memory_order_relaxed);
    if (error == 0) return known;
    errno = error;
    if (error != ESTALE) return nullptr;
  }
  auto *opened = open_mapping(directory, path, access);
  if (opened == nullptr) return nullptr;
  opened->older = known;
  opened->looked_at_ns.store(now_ns, std::memory_order_relaxed);
  find_or_add_group(directory, name).mappings[access].store(opened, std::memory_order_release);
  retire(known);
  return opened;
}

}  // namespace

bool Mapping::take_turn(WriterPatience &patience) {
  return patience.take(turn_wanted, [this] { return turn().try_take(); });
}

Mapping *mapping_of(const char *name_text, Access access) {
  const std::string_view name(name_text);
  const auto now_ns = clock_now_ns(look_clock);
  if (const auto *directory = directory_setting.recent(now_ns)) {
    const auto *group = find_group(*directory, name);
    auto *mapping = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
    if (mapping != nullptr && now_ns - mapping->looked_at_ns.load(std::memory_order_relaxed) < look_interval_ns) {
      return mapping;
    }
  }
  if (!is_group_name(name)) {
    errno = EINVAL;
    return nullptr;
  }
  const MutexLock lock(&registry_lock);
  return look_up(name, access);
}

const std::string &runtime_directory() {
  const MutexLock lock(&registry_lock);
  return directory_setting.read(clock_now_ns(look_clock));
}

std::optional<std::string> report_is_due(const char *name) {
  const MutexLock lock(&registry_lock);
  const auto now_ns = clock_now_ns(look_clock);
  const auto &directory = directory_setting.read(now_ns);
  auto &group = find_or_add_group(directory, name);
  if (now_ns - group.reported_at_ns < report_interval_ns) return std::nullopt;
  group.reported_at_ns = now_ns;
  return path_of_group(directory, name);
}

}  // namespace ptz::platform
