#include "status_registry.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "base/clock.h"

namespace ptz::platform {

namespace {

constexpr char directory_variable[] = "PTZ_PLATFORM_RUNTIME_DIR";
constexpr char default_directory[] = "/run/ptz";
constexpr clockid_t look_clock = CLOCK_MONOTONIC_COARSE;  // takes a third of the time, and is up to 10 ms late
constexpr std::int64_t look_interval_ns = 990'000'000;    // so that a second is kept all the same

struct Group {
  std::string directory, name;
  std::atomic<Mapping *> mappings[2] = {};  // by access
  Group *next = nullptr;
};
std::atomic<Group *> groups[64];

std::int64_t look_time_ns() {
  const timespec now = clock_now(look_clock);
  return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

// Names differ in their lengths and last characters.
std::atomic<Group *> &bucket_of(std::string_view name) {
  const std::size_t hash = name.empty() ? 0 : name.size() * 5 + static_cast<unsigned char>(name.back());
  return groups[hash % std::size(groups)];
}

Group *find_group(Group *first, std::string_view directory, std::string_view name) {
  for (auto *group = first; group != nullptr; group = group->next) {
    if (group->name == name && group->directory == directory) return group;
  }
  return nullptr;
}

Group *add_group(std::string_view directory, std::string_view name) {
  auto &bucket = bucket_of(name);
  auto added = std::make_unique<Group>();
  added->directory = directory;
  added->name = name;
  added->next = bucket.load(std::memory_order_acquire);
  while (true) {
    // Another thread may have added it since.
    if (auto *group = find_group(added->next, directory, name)) return group;
    if (bucket.compare_exchange_weak(added->next, added.get(), std::memory_order_acq_rel)) return added.release();
  }
}

// The slow path: the group is new to this process, or its path has to be looked at again.
Mapping *look_up(Group *group, std::string_view directory, std::string_view name, Access access) {
  if (!is_group_name(name)) {
    errno = EINVAL;
    return nullptr;
  }
  const auto path = path_of_group(directory, name);
  auto *known = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
  if (known != nullptr) {
    const auto now = look_time_ns();
    switch (currency_of(known->file, path)) {
      case Currency::current:
        known->looked_at_ns.store(now, std::memory_order_relaxed);
        return known;
      case Currency::damaged:
        errno = EBADMSG;
        return nullptr;
      case Currency::replaced:
        break;
    }
  }
  const auto file = map_file(path, access);
  if (!file) return nullptr;
  auto opened = std::make_unique<Mapping>(*file);
  opened->looked_at_ns = look_time_ns();
  opened->older = known;
  if (group == nullptr) group = add_group(directory, name);
  if (group->mappings[access].compare_exchange_strong(known, opened.get(), std::memory_order_acq_rel)) {
    return opened.release();
  }
  // Another thread was faster, and no thread has seen this mapping.
  unmap_file(*file);
  return known;
}

}  // namespace

const char *runtime_directory() {
  const char *directory = getenv(directory_variable);
  return directory != nullptr && *directory != '\0' ? directory : default_directory;
}

Mapping *mapping_of(const char *name_text, Access access) {
  const std::string_view name(name_text), directory(runtime_directory());
  auto *group = find_group(bucket_of(name).load(std::memory_order_acquire), directory, name);
  auto *mapping = group != nullptr ? group->mappings[access].load(std::memory_order_acquire) : nullptr;
  if (mapping == nullptr ||
      look_time_ns() - mapping->looked_at_ns.load(std::memory_order_relaxed) >= look_interval_ns) {
    return look_up(group, directory, name, access);
  }
  return mapping;
}

}  // namespace ptz::platform
