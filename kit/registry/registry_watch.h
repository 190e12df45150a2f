// kit/registry/registry_watch.h - tells when drivers come and go.
//
// An entry is renamed into place, then written when the driver listens, and removed at its end. The file of a driver
// that is killed is closed by the kernel (IN_CLOSE_WRITE) a moment before its lock goes, so the folder is read again a
// few times after such an event. Nothing is polled otherwise.
//
// A driver is gone when its lock is, not when its entry is: the entry of a running driver may be removed, and is then
// made anew. So the file of each running driver is kept open. While a running driver has no entry in the folder, or
// while entries cannot be opened, the folder is read twice a second.
//
// Looks are so far apart that they take at most a tenth of the time, because others may write into the folder.
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
    UniqueFd file;  // whose lock tells whether the driver runs, if the entry is not in the folder
    bool seen;
  };

  PTZKitRegistry *registry_;  // the owner
  const std::string directory_;
  FolderWatch folder_;
  const Context context_;
  Source changes_, timer_;
  gint64 due_us_ = G_MAXINT64;  // of the timer
  gint64 next_look_us_ = 0;     // not before
  guint looks_left_ = 0;
  std::vector<Running> running_;

  void look_in(guint delay_ms);
  void look();
  void plan_next_look(gint64 begin_us, bool complete);
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
