// Lists a registry with one file of arbitrary bytes. It is an entry with good fields, or it is skipped.
#include <glib/gstdio.h>
#include <ptz_kit.h>

#include <string>

#include "fuzz_target.h"

namespace {

class Folder {
  gchar *const path_ = g_dir_make_tmp("ptz-fuzz-XXXXXX", nullptr);
  const std::string file_ = std::string(path_) + "/1.driver";
  PTZKitRegistry *const registry_ = ptz_kit_registry_new(path_);

 public:
  Folder() = default;
  Folder(const Folder &) = delete;
  ~Folder() {
    g_object_unref(registry_);
    g_unlink(file_.c_str());
    g_rmdir(path_);
    g_free(path_);
  }
  [[nodiscard]] GPtrArray *list(const void *data, std::size_t size) const {
    FILE *file = std::fopen(file_.c_str(), "w");
    REQUIRE(file != nullptr && std::fwrite(data, 1, size, file) == size && std::fclose(file) == 0);
    return ptz_kit_registry_list(registry_, nullptr);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  static const Folder folder;
  g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
  GPtrArray *list = folder.list(data, size);
  REQUIRE(list != nullptr && list->len <= 1);
  if (list->len == 1) {
    const auto &entry = *static_cast<const PTZKitRegistryEntry *>(list->pdata[0]);
    REQUIRE(g_utf8_validate(entry.name, -1, nullptr) != FALSE);
    REQUIRE(entry.socket_path[0] == '/' && entry.program != nullptr);
    REQUIRE(entry.pid >= 0 && entry.since >= 0);
    REQUIRE(entry.liveness == PTZ_KIT_DRIVER_DEAD);
  }
  g_ptr_array_unref(list);
  return 0;
}
