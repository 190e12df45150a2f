#include "registry/folder_watch.h"

namespace ptz_kit {
namespace {

constexpr guint32 gone = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr guint32 may_lead_to_folder = IN_CREATE | IN_MOVED_TO | IN_ATTRIB;

}  // namespace

FolderWatch::FolderWatch(std::string folder, guint32 events)
    : folder_(std::move(folder)), events_(events), fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (fd_) arm();
}

bool FolderWatch::try_watch(const char *path) {
  const bool is_folder = folder_ == path;
  const guint32 events = (is_folder ? events_ : may_lead_to_folder) | gone | IN_ONLYDIR;
  const int watch = inotify_add_watch(fd_.get(), path, events);
  if (watch < 0) return false;
  if (watch != watch_ && watch_ >= 0) inotify_rm_watch(fd_.get(), watch_);
  watch_ = watch;
  on_folder_ = is_folder;
  return true;
}

// Ends when two looks in a row find the same folder.
void FolderWatch::arm() {
  std::string found;
  for (;;) {
    std::string path = folder_;
    while (!try_watch(path.c_str())) {
      const Text parent(g_path_get_dirname(path.c_str()));
      if (path == parent.get()) return;
      path = parent.get();
    }
    if (on_folder_ || path == found) return;
    found = std::move(path);
  }
}

// Whether the folder has come or gone, or events were lost.
bool FolderWatch::follow(const inotify_event &event) {
  if ((event.mask & IN_Q_OVERFLOW) != 0) return true;
  if (event.wd != watch_) return false;
  if (on_folder_ && (event.mask & (gone | IN_IGNORED | IN_UNMOUNT)) == 0) return false;
  if ((event.mask & IN_IGNORED) != 0) watch_ = -1;
  const bool was_on_folder = on_folder_;
  arm();
  return was_on_folder || on_folder_;
}

}  // namespace ptz_kit
