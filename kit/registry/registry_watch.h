// kit/registry/registry_watch.h - tells when drivers come and go.
//
// An entry is renamed into place, then written when the driver listens, and removed at its end. The file of a driver
// that is killed is closed by the kernel (IN_CLOSE_WRITE) a moment before its lock goes, so the folder is read again a
// few times after such an event. Nothing is polled otherwise.
//
// Runs on the main context that was the thread-default one when it was made.
#pragma once
#include <string>
#include <vector>

#include "registry/entry.h"
#include "registry/folder_watch.h"

namespace ptz_kit {

class RegistryWatch {
  using Source = Handle<GSource, g_source_unref>;
  struct Running {
    Entry entry;
    bool seen;
  };

  PTZKitRegistry *registry_;  // the owner
  const std::string directory_;
  FolderWatch folder_;
  const Context context_;
  Source changes_, timer_;
  guint looks_left_ = 0;
  std::vector<Running> running_;

  void look_in(guint delay_ms);
  void look();
  [[nodiscard]] Running *find(const PTZKitRegistryEntry &entry);
  static gboolean on_change(gint fd, GIOCondition, gpointer watch);
  static gboolean on_timer(gpointer watch);

 public:
  RegistryWatch(PTZKitRegistry *registry, const std::string &directory);
  RegistryWatch(const RegistryWatch &) = delete;
  ~RegistryWatch();
  // False with errno set if the kernel grants no watch.
  [[nodiscard]] bool begin();
};

}  // namespace ptz_kit
