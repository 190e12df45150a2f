#include "directories.h"

#include <cstdlib>
#include <string_view>

namespace ptz::platform {

const std::string &DirectorySetting::read(std::int64_t now_ns) {
  const char *value = getenv(variable_);
  const std::string_view path = value != nullptr && *value != '\0' ? value : fallback_;
  auto *found = known_;
  while (found != nullptr && found->path != path) found = found->next;
  if (found == nullptr) found = known_ = new Known{std::string(path), known_};
  current_.store(&found->path, std::memory_order_release);
  read_at_ns_.store(now_ns, std::memory_order_relaxed);
  return found->path;
}

}  // namespace ptz::platform
